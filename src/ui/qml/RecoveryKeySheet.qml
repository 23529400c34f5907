import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// The recovery key, shown once right after set-up. It stays until the user says it was saved.
LockDialog {
    id: sheet
    objectName: "recoveryKeySheet"

    kind: LockSheet.RecoveryKey
    // Room for the whole key beside its Copy button.
    width: Math.min(540, (parent ? parent.width : 600) - 2 * Theme.largeSpacing)
    title: "Save your recovery key"
    confirmText: "Done"
    showsCancel: false
    canConfirm: saved.checked
    canDismiss: saved.checked
    initialFocus: copyButton

    onCleared: saved.checked = false
    onConfirmed: close()

    FormNote {
        objectName: "recoveryKeyExplanation"
        text: "If you forget your password, this key is the only other way to open your locked folders. Keep it somewhere safe away from this computer, like a password manager or a piece of paper. It won't be shown again."
        font.pixelSize: Theme.bodySize
        color: Theme.text
    }

    RowLayout {
        Layout.fillWidth: true
        Layout.topMargin: Theme.spacing / 2
        spacing: Theme.spacing / 2

        Rectangle {
            Layout.fillWidth: true
            implicitWidth: key.implicitWidth + Theme.spacing
            implicitHeight: key.implicitHeight + Theme.spacing
            color: Theme.window
            border.color: Theme.border
            radius: 4

            TextInput {
                id: key
                objectName: "recoveryKeyText"
                anchors.fill: parent
                anchors.leftMargin: Theme.spacing / 2
                anchors.rightMargin: Theme.spacing / 2
                verticalAlignment: TextInput.AlignVCenter
                text: AppModel.locks.recoveryKey
                readOnly: true
                selectByMouse: true
                // Where the window is too narrow, the key still reads from its start.
                autoScroll: false
                clip: true
                font.family: "monospace"
                font.pixelSize: Theme.bodySize
                color: Theme.text
                selectionColor: Theme.selection
                selectedTextColor: Theme.text
                Accessible.role: Accessible.StaticText
                Accessible.name: "Recovery key"
                Accessible.description: text
            }
        }
        Button {
            id: copyButton
            objectName: "copyRecoveryKey"
            text: "Copy"
            Accessible.name: "Copy recovery key"
            onClicked: {
                // A text input copies plain text only.
                key.selectAll()
                key.copy()
                key.deselect()
            }
        }
    }

    CheckBox {
        id: saved
        objectName: "savedRecoveryKey"
        Layout.topMargin: Theme.spacing / 2
        text: "I saved my recovery key"
        Accessible.name: text
    }
}
