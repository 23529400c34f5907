import QtQuick
import QtQuick.Controls
import Corvane

ApplicationWindow {
    id: window

    /// The user skipped the first-run set-up for this run.
    property bool skippedSetup: false

    width: 1000
    height: 700
    minimumWidth: 640
    minimumHeight: 480
    visible: true
    title: "Corvane"
    color: Theme.window

    Loader {
        anchors.fill: parent
        sourceComponent: AppModel.hasChatModel || window.skippedSetup ? chats : firstRun
    }

    Component {
        id: firstRun
        FirstRunScreen {
            onSkipped: window.skippedSetup = true
        }
    }

    Component {
        id: chats
        Label {
            objectName: "noChatSelected"
            text: "Create or select a chat in the sidebar."
            color: Theme.secondaryText
            font.pixelSize: Theme.bodySize
            horizontalAlignment: Text.AlignHCenter
            verticalAlignment: Text.AlignVCenter
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }
    }
}
