import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// A new password for every locked folder, proven by the current one.
LockDialog {
    id: sheet
    objectName: "changePasswordSheet"

    property bool rejected: false

    kind: LockSheet.ChangePassword
    title: "Change your password"
    confirmText: "Change password"
    canConfirm: current.text !== "" && fields.isValid
    initialFocus: current

    onCleared: {
        current.clear()
        fields.clear()
        rejected = false
    }
    onConfirmed: AppModel.locks.submitPasswordChange(current.text, fields.password)

    Connections {
        target: AppModel.locks
        enabled: sheet.visible
        function onPasswordRejected() {
            sheet.rejected = true
            current.selectAll()
            current.forceActiveFocus()
        }
    }

    Label {
        text: "Current password"
        color: Theme.text
        Accessible.ignored: true
    }
    TextField {
        id: current
        objectName: "currentPasswordField"
        Layout.fillWidth: true
        echoMode: TextInput.Password
        Accessible.name: "Current password"
        onTextEdited: sheet.rejected = false
    }
    FormNote {
        objectName: "currentPasswordError"
        text: sheet.rejected ? "That password isn't right." : ""
        isError: true
    }
    Label {
        Layout.topMargin: Theme.spacing / 2
        text: "New password"
        font.bold: true
        color: Theme.text
        Accessible.role: Accessible.Heading
        Accessible.name: text
    }
    NewPasswordFields {
        id: fields
        Layout.fillWidth: true
    }
}
