import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// Asks for the password, to open a locked folder, to lock one more while the key is not held,
// or to turn on unlocking with this computer. Where the key is sealed to this computer, the
// computer can answer instead. A wrong password keeps the dialog open with a message until the
// user types again.
LockDialog {
    id: sheet
    objectName: "unlockSheet"

    readonly property bool forLocking: AppModel.locks.sheetPurpose === UnlockPurpose.Lock
    readonly property bool forComputer: AppModel.locks.sheetPurpose === UnlockPurpose.TouchID
    readonly property string folderName: AppModel.tree.folderDetails(AppModel.locks.sheetFolderID).name ?? ""
    property bool rejected: false

    kind: LockSheet.Unlock
    title: forComputer ? "Turn on Unlock with this computer" : (forLocking ? "Lock " : "Unlock ") + folderName
    confirmText: forComputer ? "Turn On" : forLocking ? "Lock" : "Unlock"
    alternativeText: !forComputer && AppModel.locks.unlocksWithComputer && AppModel.locks.canUnlockWithComputer
                     ? "Use this computer" : ""
    alternativeDescription: "Confirm with your fingerprint or your login password instead of this password"
    canConfirm: password.text !== ""
    initialFocus: password

    onCleared: {
        password.clear()
        rejected = false
    }
    onConfirmed: AppModel.locks.submitUnlock(password.text)
    onAlternativeChosen: AppModel.locks.submitUnlockWithComputer()

    Connections {
        target: AppModel.locks
        enabled: sheet.visible
        function onPasswordRejected() {
            sheet.rejected = true
            password.selectAll()
            password.forceActiveFocus()
        }
    }

    FormNote {
        objectName: "unlockMessage"
        text: sheet.forComputer ? "Enter the password you use for locked folders."
              : sheet.forLocking ? "Enter the password you use for locked folders. This folder will use it too."
              : "Enter your password to see and open the chats in this folder."
        font.pixelSize: Theme.bodySize
        color: Theme.text
    }
    TextField {
        id: password
        objectName: "unlockPasswordField"
        Layout.fillWidth: true
        Layout.topMargin: Theme.spacing / 2
        echoMode: TextInput.Password
        placeholderText: "Password"
        Accessible.name: "Password"
        onTextEdited: sheet.rejected = false
    }
    FormNote {
        objectName: "unlockError"
        text: sheet.rejected ? "That password isn't right." : ""
        isError: true
    }
    Label {
        objectName: "forgotPassword"
        text: "<a href=\"reset\">Forgot your password?</a>"
        textFormat: Text.StyledText
        linkColor: Theme.accent
        font.pixelSize: Theme.smallSize
        activeFocusOnTab: true
        Accessible.role: Accessible.Link
        Accessible.name: "Forgot your password?"
        Accessible.onPressAction: AppModel.locks.requestPasswordReset()
        // Taken here, so that Return on the link does not confirm the dialog.
        Keys.onSpacePressed: AppModel.locks.requestPasswordReset()
        Keys.onReturnPressed: AppModel.locks.requestPasswordReset()
        Keys.onEnterPressed: AppModel.locks.requestPasswordReset()
        onLinkActivated: AppModel.locks.requestPasswordReset()

        // Shows it has the keyboard.
        Rectangle {
            anchors.fill: parent
            anchors.margins: -2
            color: "transparent"
            border.color: Theme.accent
            border.width: parent.activeFocus ? 1 : 0
            radius: 2
        }
        HoverHandler { cursorShape: Qt.PointingHandCursor }
    }
}
