import QtQuick
import QtQuick.Controls
import QtQuick.Dialogs
import QtQuick.Layouts
import Corvane

// A settings sheet's script: which one runs, choosing a file for it (asking before replacing
// one), taking the library's newer version (folders), and removing it. Changes apply at once.
ColumnLayout {
    id: section

    /// "chat" or "folder".
    property string kind: "chat"
    property real targetID: -1
    /// The title of the script set here; empty for none.
    property string scriptName: ""
    property string explanation: ""
    /// The library file that is a newer version of a folder's script; empty for none.
    property string update: ""

    readonly property bool isFolder: kind === "folder"

    /// Asks before `file` replaces the script set here.
    function replaceWith(file: string) {
        replace.ask(file)
    }

    function use(file: string) {
        if (isFolder)
            AppModel.scripts.attachToFolder(targetID, file)
        else
            AppModel.scripts.attachToChat(targetID, file)
    }

    spacing: Theme.spacing / 2

    Label {
        Layout.topMargin: Theme.spacing
        text: "Script"
        font.bold: true
        color: Theme.text
    }
    Label {
        objectName: section.kind + "ScriptName"
        Layout.fillWidth: true
        text: section.scriptName !== "" ? section.scriptName : "None"
        elide: Text.ElideRight
        color: Theme.text
        Accessible.role: Accessible.StaticText
        Accessible.name: "Script: " + text
    }
    FormNote {
        text: section.explanation
    }
    Flow {
        Layout.fillWidth: true
        spacing: Theme.spacing / 2

        Button {
            objectName: section.kind + "ChooseScript"
            text: "Choose a .corvane or .corvane.js script"
            Accessible.name: text
            onClicked: picker.open()
        }
        Button {
            objectName: section.kind + "UpdateScript"
            visible: section.update !== ""
            text: "Update from Library"
            Accessible.name: text
            onClicked: section.replaceWith(section.update)
        }
        Button {
            objectName: section.kind + "RemoveScript"
            visible: section.scriptName !== ""
            text: "Remove script"
            Accessible.name: text
            onClicked: {
                if (section.isFolder)
                    AppModel.scripts.removeFromFolder(section.targetID)
                else
                    AppModel.scripts.removeFromChat(section.targetID)
            }
        }
    }

    FileDialog {
        id: picker
        title: "Choose a script"
        currentFolder: "file://" + AppModel.scripts.directory
        nameFilters: ["Scripts (*.corvane *.corvane.js)"]
        onAccepted: {
            if (section.scriptName !== "")
                section.replaceWith(selectedFile.toString())
            else
                section.use(selectedFile.toString())
        }
    }

    // Replacing is confirmed here, in the sheet, rather than in a dialog over it.
    ColumnLayout {
        id: replace
        objectName: section.kind + "ReplaceScript"
        property string file: ""
        function ask(path: string) {
            file = path
            visible = true
            confirm.forceActiveFocus()
        }
        Layout.fillWidth: true
        visible: false
        spacing: Theme.spacing / 2

        Label {
            Layout.fillWidth: true
            text: section.isFolder ? "Replace this folder’s script?" : "Replace this chat’s script?"
            font.bold: true
            color: Theme.text
            Accessible.role: Accessible.Heading
            Accessible.name: text
        }
        FormNote {
            text: section.isFolder
                  ? "Chats that use it switch to the new script, and its saved state starts over. Existing messages stay as they are."
                  : "This changes future replies in this chat. Existing messages stay as they are."
        }
        RowLayout {
            Button {
                text: "Cancel"
                Accessible.name: text
                onClicked: replace.visible = false
            }
            Button {
                id: confirm
                objectName: section.kind + "ReplaceScriptConfirm"
                text: "Replace"
                Accessible.name: "Replace the script"
                onClicked: {
                    replace.visible = false
                    section.use(replace.file)
                }
            }
        }
    }
}
