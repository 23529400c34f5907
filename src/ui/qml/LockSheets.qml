import QtQuick
import Corvane

// The lock dialogs, one at a time: whichever the model asks for is open, every other closed.
Item {
    id: sheets

    function sync() {
        const all = [setUp, recoveryKey, unlock, reset, change]
        for (const sheet of all) {
            if (sheet.kind !== AppModel.locks.sheet)
                sheet.close()
        }
        for (const sheet of all) {
            if (sheet.kind !== AppModel.locks.sheet)
                continue
            // Asked again, for another folder perhaps: start afresh.
            if (sheet.opened)
                sheet.cleared()
            else
                sheet.open()
        }
    }

    Connections {
        target: AppModel.locks
        function onLockSheetChanged() { sheets.sync() }
    }
    Component.onCompleted: sync()

    SetUpLockSheet { id: setUp }
    RecoveryKeySheet { id: recoveryKey }
    UnlockSheet { id: unlock }
    ResetPasswordSheet { id: reset }
    ChangePasswordSheet { id: change }
}
