import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// A folder's own name, prompt and assistant name; what is left blank is inherited from the
// folders above and the global settings.
Dialog {
    id: sheet
    objectName: "folderSettingsSheet"

    property real folderID: -1
    property var details: ({})

    parent: Overlay.overlay
    anchors.centerIn: parent
    width: Math.min(520, (parent ? parent.width : 600) - 2 * Theme.largeSpacing)
    modal: true
    title: "Folder settings"
    standardButtons: Dialog.Save | Dialog.Cancel

    onAboutToShow: readDetails()

    function readDetails() {
        details = AppModel.tree.folderDetails(folderID)
        name.text = details.name ?? ""
        prompt.text = details.prompt ?? ""
        agentName.text = details.agentName ?? ""
    }

    // A script set from here changes the folder at once.
    Connections {
        target: AppModel.tree
        enabled: sheet.visible
        function onTreeChanged() { sheet.details = AppModel.tree.folderDetails(sheet.folderID) }
    }
    onAccepted: {
        if (name.text.trim() !== "" && name.text !== details.name)
            AppModel.tree.renameNode(folderID, name.text)
        if (prompt.text !== details.prompt)
            AppModel.tree.setNodePrompt(folderID, prompt.text)
        if (agentName.text !== details.agentName)
            AppModel.tree.setNodeAgentName(folderID, agentName.text)
    }

    ColumnLayout {
        width: parent.width
        spacing: Theme.spacing / 2

        Label {
            text: "Name"
            font.bold: true
            color: Theme.text
        }
        TextField {
            id: name
            objectName: "folderNameField"
            Layout.fillWidth: true
            selectByMouse: true
            Accessible.name: "Folder name"
        }

        Label {
            Layout.topMargin: Theme.spacing
            text: "Added after the global prompt"
            font.bold: true
            color: Theme.text
        }
        ScrollView {
            Layout.fillWidth: true
            Layout.preferredHeight: 100
            TextArea {
                id: prompt
                objectName: "folderPromptField"
                wrapMode: TextEdit.Wrap
                background: Rectangle {
                    color: Theme.surface
                    border.color: Theme.border
                    radius: 4
                }
                selectByMouse: true
                Accessible.name: "Folder prompt"
            }
        }
        Label {
            objectName: "folderPromptNote"
            Layout.fillWidth: true
            text: "Applies only to " + (sheet.details.name ?? "") + " and everything inside it."
            wrapMode: Text.WordWrap
            font.pixelSize: Theme.smallSize
            color: Theme.secondaryText
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }

        Label {
            Layout.topMargin: Theme.spacing
            text: "Assistant name"
            font.bold: true
            color: Theme.text
        }
        TextField {
            id: agentName
            objectName: "folderAgentNameField"
            Layout.fillWidth: true
            placeholderText: sheet.details.inheritedAgentName ?? ""
            selectByMouse: true
            Accessible.name: "Assistant name for this folder"
        }
        Label {
            objectName: "folderAgentNameNote"
            Layout.fillWidth: true
            text: "Leave blank to use " + (sheet.details.inheritedAgentName ?? "") + ". Nested folders and chats inherit this name and prompt unless they set their own."
            wrapMode: Text.WordWrap
            font.pixelSize: Theme.smallSize
            color: Theme.secondaryText
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }

        ScriptSection {
            Layout.fillWidth: true
            kind: "folder"
            targetID: sheet.folderID
            scriptName: sheet.details.cartridgeName ?? ""
            update: sheet.visible && scriptName !== "" ? AppModel.scripts.updateFor(sheet.folderID) : ""
            explanation: "Chats in this folder and its subfolders run this script, unless a nearer folder or the chat sets its own. Each chat keeps its own script state."
        }
    }
}
