import QtQuick
import QtQuick.Controls
import Corvane

// Asks before something that cannot be undone: a title, what will happen, and a button that
// does it beside Cancel.
Dialog {
    id: dialog

    property string text: ""
    property string acceptText: "OK"

    parent: Overlay.overlay
    anchors.centerIn: parent
    width: Math.min(440, (parent ? parent.width : 480) - 2 * Theme.largeSpacing)
    modal: true
    focus: true

    Label {
        objectName: dialog.objectName + "Text"
        width: parent.width
        text: dialog.text
        wrapMode: Text.WordWrap
        color: Theme.text
        Accessible.role: Accessible.StaticText
        Accessible.name: text
    }

    footer: DialogButtonBox {
        Button {
            objectName: dialog.objectName + "Cancel"
            text: "Cancel"
            DialogButtonBox.buttonRole: DialogButtonBox.RejectRole
            Accessible.name: text
        }
        Button {
            objectName: dialog.objectName + "Accept"
            text: dialog.acceptText
            palette.buttonText: Theme.error
            DialogButtonBox.buttonRole: DialogButtonBox.DestructiveRole
            Accessible.name: text
            onClicked: dialog.accept()
        }
    }
}
