import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// One search hit: the chat's title over the snippet, matched words emphasised.
ItemDelegate {
    id: row

    required property int index
    required property string chatTitle
    required property string highlightedSnippet
    required property string accessibleText
    /// The keyboard's row in the list.
    property bool isCurrent: false

    signal chosen()

    highlighted: isCurrent
    padding: Theme.spacing / 2
    leftPadding: Theme.spacing
    rightPadding: Theme.spacing
    Accessible.role: Accessible.ListItem
    Accessible.name: accessibleText
    onClicked: chosen()

    background: Rectangle {
        color: row.isCurrent ? Theme.selection : row.hovered ? Theme.folderSelection : "transparent"
        radius: 4
    }

    contentItem: ColumnLayout {
        spacing: 2

        Label {
            Layout.fillWidth: true
            text: row.chatTitle
            elide: Text.ElideRight
            font.pixelSize: Theme.bodySize
            font.bold: true
            color: Theme.text
        }
        Label {
            Layout.fillWidth: true
            text: row.highlightedSnippet
            textFormat: Text.StyledText
            elide: Text.ElideRight
            maximumLineCount: 2
            wrapMode: Text.WordWrap
            font.pixelSize: Theme.smallSize
            color: Theme.secondaryText
        }
    }
}
