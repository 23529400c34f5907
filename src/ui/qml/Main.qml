import QtQuick
import QtQuick.Controls
import Corvane

ApplicationWindow {
    id: window

    width: 1000
    height: 700
    minimumWidth: 640
    minimumHeight: 480
    visible: true
    title: "Corvane"
    color: Theme.window

    Loader {
        anchors.fill: parent
        sourceComponent: AppModel.hasChatModel ? null : firstRun
    }

    Component {
        id: firstRun
        FirstRunScreen {}
    }
}
