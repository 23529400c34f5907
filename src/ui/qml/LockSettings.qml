import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// Locked folders in Settings: how many there are, changing the password, resetting it with the
// recovery key, and what locking does.
ColumnLayout {
    id: locks
    spacing: Theme.spacing / 2

    readonly property int count: AppModel.locks.lockedFolderCount

    GridLayout {
        Layout.fillWidth: true
        columns: 2
        columnSpacing: Theme.spacing
        rowSpacing: Theme.spacing / 2

        Label {
            text: "Status"
            color: Theme.text
            Accessible.ignored: true
        }
        Label {
            objectName: "lockStatus"
            Layout.fillWidth: true
            text: locks.count === 0 ? "No folders locked"
                                    : locks.count + (locks.count === 1 ? " locked folder" : " locked folders")
            color: Theme.secondaryText
            Accessible.role: Accessible.StaticText
            Accessible.name: "Status: " + text
        }

        Label {
            visible: AppModel.locks.hasVault
            text: "Password"
            color: Theme.text
            Accessible.ignored: true
        }
        Button {
            objectName: "changePasswordButton"
            visible: AppModel.locks.hasVault
            text: "Change…"
            Accessible.name: "Change password"
            onClicked: AppModel.locks.requestPasswordChange()
        }

        Label {
            visible: computerSwitch.visible
            text: "Unlock with this computer"
            color: Theme.text
            Accessible.ignored: true
        }
        Switch {
            id: computerSwitch
            objectName: "unlockWithComputerSwitch"
            visible: AppModel.locks.hasVault && AppModel.locks.canUnlockWithComputer
            enabled: !AppModel.locks.isWorking
            checked: AppModel.locks.unlocksWithComputer
            Accessible.name: "Unlock with this computer"
            Accessible.description: computerNote.text
            Accessible.ignored: !visible
            // The model decides: turning on may first ask for the password.
            onToggled: {
                const wanted = checked
                checked = Qt.binding(() => AppModel.locks.unlocksWithComputer)
                AppModel.locks.setUnlockWithComputer(wanted)
            }
        }
    }
    FormNote {
        id: computerNote
        objectName: "unlockWithComputerNote"
        visible: computerSwitch.visible
        text: "Your fingerprint or your login password opens your locked folders on this computer. The seal is kept by this computer's security chip, so a copy of your data can't be opened this way elsewhere."
        Accessible.ignored: true
    }

    Button {
        objectName: "useRecoveryKeyButton"
        visible: AppModel.locks.hasVault
        text: "Use recovery key…"
        Accessible.name: "Use recovery key to reset the password"
        onClicked: AppModel.locks.requestPasswordReset()
    }

    FormNote {
        objectName: "lockHowTo"
        text: locks.count === 0 ? "To lock a folder, choose Lock folder from its ⋯ menu. Its chats are then encrypted on this computer and need your password to open." : ""
    }
    FormNote {
        objectName: "lockBehaviour"
        text: AppModel.locks.hasVault ? "Every locked folder uses this password, and each one unlocks on its own. Chats in locked folders are encrypted on this computer, and their titles stay hidden until you unlock. Locked folders lock again when you quit Corvane, when your computer sleeps or its screen locks, and after " + AppModel.locks.autoLockMinutes + " minutes without use." : ""
    }
}
