import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// Shown while no chat model is installed: what Corvane is and what to download first.
Item {
    id: screen

    Accessible.role: Accessible.Pane
    Accessible.name: title.text

    ColumnLayout {
        anchors.centerIn: parent
        width: Math.min(parent.width - 2 * Theme.largeSpacing, Theme.contentWidth)
        spacing: Theme.spacing

        Label {
            id: title
            objectName: "firstRunTitle"
            Layout.fillWidth: true
            text: "Welcome to Corvane"
            font.pixelSize: Theme.titleSize
            font.bold: true
            color: Theme.text
            horizontalAlignment: Text.AlignHCenter
            Accessible.role: Accessible.Heading
            Accessible.name: text
        }

        Label {
            objectName: "firstRunIntro"
            Layout.fillWidth: true
            text: "Corvane runs entirely on your computer, so your chats stay private. Download a chat model to get started. After that, everything works offline."
            wrapMode: Text.WordWrap
            font.pixelSize: Theme.bodySize
            color: Theme.text
            horizontalAlignment: Text.AlignHCenter
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }

        Label {
            objectName: "firstRunModels"
            Layout.fillWidth: true
            text: "Smaller chat models reply faster; larger ones write better but need more memory. Each chat model can also read images. Dictation turns your voice into text. You can change models later in Settings."
            wrapMode: Text.WordWrap
            font.pixelSize: Theme.bodySize
            color: Theme.secondaryText
            horizontalAlignment: Text.AlignHCenter
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }
    }
}
