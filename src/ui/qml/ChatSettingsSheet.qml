import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// A chat's own prompt and whether its replies are spoken aloud.
Dialog {
    id: sheet
    objectName: "chatSettingsSheet"

    property real chatID: -1
    property var details: ({})

    parent: Overlay.overlay
    anchors.centerIn: parent
    width: Math.min(520, (parent ? parent.width : 600) - 2 * Theme.largeSpacing)
    modal: true
    title: "Chat settings"
    standardButtons: Dialog.Save | Dialog.Cancel

    // A script set from here changes the chat at once.
    Connections {
        target: AppModel.tree
        enabled: sheet.visible
        function onTreeChanged() { sheet.details = AppModel.tree.chatDetails(sheet.chatID) }
    }

    onAboutToShow: {
        details = AppModel.tree.chatDetails(chatID)
        prompt.text = details.prompt ?? ""
        autoSpeak.checked = details.autoSpeakReplies ?? false
    }
    onAccepted: {
        if (prompt.text !== details.prompt)
            AppModel.tree.setChatPrompt(chatID, prompt.text)
        if (autoSpeak.checked !== details.autoSpeakReplies)
            AppModel.tree.setChatAutoSpeakReplies(chatID, autoSpeak.checked)
    }

    ColumnLayout {
        width: parent.width
        spacing: Theme.spacing / 2

        Label {
            text: "Added after the global and folder prompts"
            font.bold: true
            color: Theme.text
        }
        ScrollView {
            Layout.fillWidth: true
            Layout.preferredHeight: 100
            TextArea {
                id: prompt
                objectName: "chatPromptField"
                wrapMode: TextEdit.Wrap
                background: Rectangle {
                    color: Theme.surface
                    border.color: Theme.border
                    radius: 4
                }
                selectByMouse: true
                Accessible.name: "Chat prompt"
            }
        }

        Switch {
            id: autoSpeak
            objectName: "autoSpeakSwitch"
            Layout.topMargin: Theme.spacing
            text: "Auto play"
            Accessible.name: "Speak replies automatically"
        }
        Label {
            Layout.fillWidth: true
            text: "Auto play speaks each completed reply in this chat."
            wrapMode: Text.WordWrap
            font.pixelSize: Theme.smallSize
            color: Theme.secondaryText
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }

        ScriptSection {
            id: script
            Layout.fillWidth: true
            kind: "chat"
            targetID: sheet.chatID
            scriptName: sheet.details.cartridgeName ?? ""
            explanation: "A JavaScript script can shape this chat's prompt, generation settings, and replies each turn, and act on a timer. Its source is saved with this chat. A chat without its own script uses its folder's. You can also drop a script onto this panel."
        }
    }

    DropArea {
        anchors.fill: parent
        onEntered: (drag) => { drag.accepted = AppModel.scripts.scriptFiles(drag.urls).length > 0 }
        onDropped: (drop) => {
            drop.accept()
            const file = AppModel.scripts.scriptFiles(drop.urls)[0]
            if (script.scriptName !== "")
                script.replaceWith(file)
            else
                script.use(file)
        }
    }
}
