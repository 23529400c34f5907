import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// A new password, proven by the recovery key. The model accepts the key in any case and with
// spaces or dashes between its groups.
LockDialog {
    id: sheet
    objectName: "resetPasswordSheet"

    property bool rejected: false

    kind: LockSheet.ResetPassword
    title: "Reset your password"
    confirmText: "Reset password"
    canConfirm: recoveryKey.text.trim() !== "" && fields.isValid
    initialFocus: recoveryKey

    onCleared: {
        recoveryKey.clear()
        fields.clear()
        rejected = false
    }
    onConfirmed: AppModel.locks.submitReset(recoveryKey.text, fields.password)

    Connections {
        target: AppModel.locks
        enabled: sheet.visible
        function onRecoveryKeyRejected() {
            sheet.rejected = true
            recoveryKey.forceActiveFocus()
        }
    }

    FormNote {
        objectName: "resetExplanation"
        text: "Enter the recovery key you saved when you locked your first folder, then choose a new password. Your recovery key stays the same."
        font.pixelSize: Theme.bodySize
        color: Theme.text
    }
    Label {
        Layout.topMargin: Theme.spacing / 2
        text: "Recovery key"
        color: Theme.text
        Accessible.ignored: true
    }
    TextField {
        id: recoveryKey
        objectName: "recoveryKeyField"
        Layout.fillWidth: true
        placeholderText: "XXXX-XXXX-XXXX-XXXX-XXXX-XXXX-XXXX-XXXX"
        font.family: "monospace"
        inputMethodHints: Qt.ImhNoPredictiveText | Qt.ImhSensitiveData
        Accessible.name: "Recovery key"
        onTextEdited: sheet.rejected = false
    }
    FormNote {
        objectName: "recoveryKeyError"
        text: sheet.rejected ? "That recovery key isn't right. Check that you copied all of it." : ""
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
