import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// The first lock: choosing the password every locked folder will use. On success the model
// moves on to the recovery key.
LockDialog {
    id: sheet
    objectName: "setUpSheet"

    kind: LockSheet.SetUp
    title: "Lock " + (AppModel.tree.folderDetails(AppModel.locks.sheetFolderID).name ?? "")
    confirmText: "Lock folder"
    canConfirm: fields.isValid
    initialFocus: fields.firstField

    onCleared: {
        fields.clear()
        computer.checked = false
    }
    onConfirmed: AppModel.locks.submitSetUp(fields.password, computer.visible && computer.checked)

    FormNote {
        objectName: "setUpExplanation"
        text: "Choose a password for locked folders. Chats in a locked folder are encrypted on this computer, and their titles stay hidden until you unlock it. Every folder you lock uses this password."
        font.pixelSize: Theme.bodySize
        color: Theme.text
    }
    NewPasswordFields {
        id: fields
        Layout.fillWidth: true
        Layout.topMargin: Theme.spacing / 2
    }
    CheckBox {
        id: computer
        objectName: "setUpWithComputer"
        visible: AppModel.locks.canUnlockWithComputer
        text: "Unlock with this computer"
        Accessible.name: text
        Accessible.description: computerNote.text
        Accessible.ignored: !visible
    }
    FormNote {
        id: computerNote
        visible: computer.visible
        Layout.leftMargin: computer.indicator ? computer.leftPadding + computer.indicator.width + computer.spacing : 0
        text: "Use your fingerprint or your login password to open locked folders on this computer."
        Accessible.ignored: true
    }
    FormNote {
        objectName: "setUpNote"
        Layout.topMargin: Theme.spacing / 2
        text: "Next you'll get a recovery key. If you forget your password, the recovery key is the only other way in. Without either one, no one can open your locked chats."
    }
}
