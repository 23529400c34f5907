import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// Shown instead of the main window when Corvane cannot open its local storage: there is
// nothing the user can do inside the application, so it explains and offers to quit.
ApplicationWindow {
    id: window

    required property string message

    width: 520
    height: 220
    visible: true
    title: "Corvane"
    color: Theme.window

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: Theme.largeSpacing
        spacing: Theme.spacing

        Label {
            objectName: "startupFailureMessage"
            Layout.fillWidth: true
            Layout.fillHeight: true
            text: window.message
            wrapMode: Text.WordWrap
            color: Theme.error
            font.pixelSize: Theme.bodySize
            Accessible.role: Accessible.AlertMessage
            Accessible.name: text
        }

        Button {
            Layout.alignment: Qt.AlignRight
            text: "Quit"
            focus: true
            Accessible.name: text
            onClicked: Qt.quit()
            Keys.onReturnPressed: Qt.quit()
        }
    }
}
