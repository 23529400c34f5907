import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// A wrapped line of explanation inside a form; as an error it stands out and is announced.
Label {
    property bool isError: false

    Layout.fillWidth: true
    visible: text !== ""
    wrapMode: Text.WordWrap
    font.pixelSize: Theme.smallSize
    color: isError ? Theme.error : Theme.secondaryText
    Accessible.role: isError ? Accessible.AlertMessage : Accessible.StaticText
    Accessible.name: text
}
