import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// What every lock dialog shares: it stands for one of the model's lock sheets, Return
// confirms and Escape or Cancel dismisses, a busy indicator runs while a password is checked,
// and the confirming button waits for a complete form.
Dialog {
    id: dialog

    /// The `LockSheet` kind this dialog shows.
    required property int kind
    property string confirmText: ""
    /// A second way to confirm beside the form (unlocking with this computer); none when empty.
    property string alternativeText: ""
    property string alternativeDescription: ""
    /// The form is complete; the confirming button also waits for running work.
    property bool canConfirm: true
    property bool showsCancel: true
    /// May be closed without confirming (Escape, Cancel).
    property bool canDismiss: !AppModel.locks.isWorking
    /// Takes the keyboard when the dialog opens.
    property Item initialFocus: null

    /// Confirmed by the button or Return: submit the form.
    signal confirmed()
    /// The alternative button was pressed.
    signal alternativeChosen()
    /// Shown afresh: empty every field and message.
    signal cleared()

    function confirm() {
        if (canConfirm && !AppModel.locks.isWorking)
            confirmed()
    }

    parent: Overlay.overlay
    anchors.centerIn: parent
    width: Math.min(460, (parent ? parent.width : 520) - 2 * Theme.largeSpacing)
    modal: true
    focus: true
    padding: Theme.spacing
    topPadding: 0
    closePolicy: canDismiss ? Popup.CloseOnEscape : Popup.NoAutoClose

    onAboutToShow: cleared()
    onOpened: {
        if (initialFocus)
            initialFocus.forceActiveFocus()
    }
    // However it was closed, the model stops asking for it; a dialog that the model replaced
    // with another (set-up with the recovery key) leaves the new one alone.
    onClosed: {
        if (AppModel.locks.sheet === kind)
            AppModel.locks.dismissLockSheet()
    }

    header: Label {
        text: dialog.title
        padding: Theme.spacing
        wrapMode: Text.WordWrap
        font.pixelSize: Theme.bodySize + 2
        font.bold: true
        color: Theme.text
        Accessible.role: Accessible.Heading
        Accessible.name: text
    }

    contentItem: ColumnLayout {
        spacing: Theme.spacing / 2
        // A text field passes Return on.
        Keys.onReturnPressed: dialog.confirm()
        Keys.onEnterPressed: dialog.confirm()
    }

    footer: Item {
        implicitHeight: buttons.implicitHeight + 2 * Theme.spacing

        RowLayout {
            id: buttons
            anchors.fill: parent
            anchors.margins: Theme.spacing
            spacing: Theme.spacing / 2

            BusyIndicator {
                objectName: dialog.objectName + "Busy"
                running: AppModel.locks.isWorking && dialog.visible
                visible: running
                Layout.preferredWidth: 28
                Layout.preferredHeight: 28
                Accessible.name: "Working"
            }
            Button {
                objectName: dialog.objectName + "Alternative"
                visible: dialog.alternativeText !== ""
                enabled: !AppModel.locks.isWorking
                text: dialog.alternativeText
                Accessible.name: text
                Accessible.description: dialog.alternativeDescription
                Accessible.ignored: !visible
                onClicked: dialog.alternativeChosen()
            }
            Item { Layout.fillWidth: true }
            Button {
                objectName: dialog.objectName + "Cancel"
                visible: dialog.showsCancel
                enabled: dialog.canDismiss
                text: "Cancel"
                Accessible.name: text
                onClicked: dialog.close()
            }
            Button {
                objectName: dialog.objectName + "Confirm"
                text: dialog.confirmText
                enabled: dialog.canConfirm && !AppModel.locks.isWorking
                highlighted: true
                Accessible.name: text
                onClicked: dialog.confirm()
            }
        }
    }
}
