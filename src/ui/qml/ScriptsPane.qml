pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import QtQuick.Dialogs
import QtQuick.Layouts
import Corvane

// The script library: the scripts kept in the scripts folder, and the selected one's name and
// source, saved as they are typed and checked by running the script once. From here a script
// starts a chat or becomes the selected folder's script. Escape goes back to the chat.
Rectangle {
    id: pane

    /// The user left the scripts pane.
    signal closed()

    function focusList() {
        scripts.forceActiveFocus()
    }

    /// Saves what was typed and not yet saved.
    function flush() {
        if (saveTimer.running) {
            saveTimer.stop()
            AppModel.scripts.saveSource(editor.text)
        }
    }

    function select(path: string) {
        flush()
        AppModel.scripts.select(path)
    }

    readonly property bool hasScript: AppModel.scripts.selectedPath !== ""
    readonly property string fileName: AppModel.scripts.selectedPath.split("/").pop()
    /// The selected folder's details, read again whenever the tree changes.
    property var selectedFolder: ({})

    function readSelectedFolder() {
        selectedFolder = AppModel.tree.selectedNodeID >= 0 ? AppModel.tree.folderDetails(AppModel.tree.selectedNodeID) : ({})
    }

    Component.onCompleted: readSelectedFolder()
    // The pane goes when another is shown: nothing typed is lost.
    Component.onDestruction: flush()

    Connections {
        target: AppModel.tree
        function onTreeChanged() { pane.readSelectedFolder() }
        function onSelectionChanged() { pane.readSelectedFolder() }
    }

    color: Theme.window
    Accessible.role: Accessible.Pane
    Accessible.name: "Scripts"
    Keys.onEscapePressed: pane.closed()

    Timer {
        id: saveTimer
        interval: 400
        onTriggered: AppModel.scripts.saveSource(editor.text)
    }

    Connections {
        target: AppModel.scripts
        function onSelectionChanged() {
            saveTimer.stop()
            editor.text = AppModel.scripts.source
            editor.loadedPath = AppModel.scripts.selectedPath
            nameField.text = AppModel.scripts.selectedName
        }
    }

    RowLayout {
        anchors.fill: parent
        spacing: 0

        // The library.
        ColumnLayout {
            Layout.preferredWidth: 240
            Layout.fillHeight: true
            Layout.margins: Theme.spacing
            spacing: Theme.spacing / 2

            Label {
                text: "Scripts"
                font.pixelSize: Theme.headingSize
                font.bold: true
                color: Theme.text
                Accessible.role: Accessible.Heading
                Accessible.name: text
            }
            RowLayout {
                Button {
                    objectName: "newScriptButton"
                    text: "New Script"
                    Accessible.name: text
                    onClicked: newScriptDialog.open()
                }
                Button {
                    objectName: "importScriptButton"
                    text: "Import…"
                    Accessible.name: "Import a script file"
                    onClicked: importDialog.open()
                }
            }
            ListView {
                id: scripts
                objectName: "scriptList"
                Layout.fillWidth: true
                Layout.fillHeight: true
                clip: true
                activeFocusOnTab: true
                keyNavigationEnabled: true
                model: AppModel.scripts.files
                currentIndex: -1
                Accessible.role: Accessible.List
                Accessible.name: "Scripts in the library"
                onCurrentIndexChanged: {
                    if (activeFocus && currentIndex >= 0)
                        pane.select(AppModel.scripts.files[currentIndex].path)
                }
                onActiveFocusChanged: {
                    // Back at the script the user had, else the first.
                    if (activeFocus && currentIndex < 0 && count > 0)
                        currentIndex = Math.max(0, AppModel.scripts.files.findIndex(f => f.path === AppModel.scripts.selectedPath))
                }
                Keys.onReturnPressed: editor.forceActiveFocus()
                Keys.onEscapePressed: pane.closed()
                delegate: ItemDelegate {
                    id: entry
                    required property var modelData
                    required property int index
                    width: scripts.width
                    text: modelData.name
                    highlighted: modelData.path === AppModel.scripts.selectedPath
                    Accessible.role: Accessible.ListItem
                    Accessible.name: text
                    onClicked: {
                        scripts.currentIndex = index
                        pane.select(modelData.path)
                    }
                }

                Label {
                    objectName: "noScripts"
                    Accessible.ignored: !visible
                    anchors.fill: parent
                    visible: scripts.count === 0
                    text: "Create one with New Script, import a .corvane file, or drag one onto this window."
                    wrapMode: Text.WordWrap
                    color: Theme.secondaryText
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }
            }
            Button {
                objectName: "showScriptsFolderButton"
                Layout.fillWidth: true
                flat: true
                text: "Show scripts folder"
                Accessible.name: text
                onClicked: Qt.openUrlExternally("file://" + AppModel.scripts.directory)
            }
        }

        Rectangle {
            Layout.fillHeight: true
            implicitWidth: 1
            color: Theme.border
        }

        // The selected script.
        ColumnLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            Layout.margins: Theme.spacing
            spacing: Theme.spacing / 2
            visible: pane.hasScript

            Label {
                text: "Name"
                font.bold: true
                color: Theme.text
            }
            TextField {
                id: nameField
                objectName: "scriptNameField"
                Layout.fillWidth: true
                selectByMouse: true
                Accessible.name: "Script name"
                onEditingFinished: {
                    if (text.trim() !== "" && text !== AppModel.scripts.selectedName) {
                        pane.flush()
                        AppModel.scripts.renameSelected(text)
                    }
                }
                Keys.onEscapePressed: pane.closed()
            }
            FormNote {
                Layout.fillWidth: true
                text: "This name appears in Scripts and as the title of chats started from it."
            }
            Label {
                objectName: "scriptUnreadable"
                Accessible.ignored: !visible
                visible: AppModel.scripts.unreadable
                text: "Could not read this script file"
                color: Theme.error
                Accessible.role: Accessible.AlertMessage
                Accessible.name: text
            }
            ScrollView {
                Layout.fillWidth: true
                Layout.fillHeight: true
                visible: !AppModel.scripts.unreadable
                TextArea {
                    id: editor
                    objectName: "scriptEditor"
                    font.family: "monospace"
                    font.pixelSize: Theme.smallSize
                    wrapMode: TextEdit.NoWrap
                    selectByMouse: true
                    persistentSelection: true
                    background: Rectangle {
                        color: Theme.surface
                        border.color: editor.activeFocus ? Theme.accent : Theme.border
                        radius: 4
                    }
                    Accessible.name: "Script source"
                    /// The script whose text the editor holds: only what was typed over a
                    /// loaded script is saved, never the empty editor of a pane just opened.
                    property string loadedPath: ""
                    onTextChanged: {
                        if (loadedPath !== "" && loadedPath === AppModel.scripts.selectedPath
                                && text !== AppModel.scripts.source)
                            saveTimer.restart()
                    }
                    Keys.onEscapePressed: pane.closed()
                    Component.onCompleted: CodeHighlighter.attach(textDocument, "javascript")
                }
            }
            FormNote {
                Layout.fillWidth: true
                text: "Saved as you type in " + pane.fileName + ". Chats keep the version they started with."
            }
            Label {
                objectName: "scriptCheck"
                Layout.fillWidth: true
                text: AppModel.scripts.isChecking ? "Checking…"
                      : AppModel.scripts.problem === "" ? "No problems found" : AppModel.scripts.problem
                color: AppModel.scripts.problem === "" ? Theme.secondaryText : Theme.error
                wrapMode: Text.WordWrap
                Accessible.role: AppModel.scripts.problem === "" ? Accessible.StaticText : Accessible.AlertMessage
                Accessible.name: text
            }
            Flow {
                Layout.fillWidth: true
                spacing: Theme.spacing / 2

                Button {
                    objectName: "chatFromScriptButton"
                    text: "Start a chat with this script"
                    Accessible.name: text
                    onClicked: {
                        pane.flush()
                        AppModel.scripts.createChat(AppModel.scripts.selectedPath, AppModel.tree.selectedNodeID)
                    }
                }
                Button {
                    objectName: "scriptForFolderButton"
                    Accessible.ignored: !visible
                    visible: pane.selectedFolder.name !== undefined
                    text: "Use for “" + (pane.selectedFolder.name ?? "") + "”"
                    Accessible.name: "Use this script for the folder " + (pane.selectedFolder.name ?? "")
                    onClicked: {
                        pane.flush()
                        if ((pane.selectedFolder.cartridgeName ?? "") !== "")
                            replaceDialog.open()
                        else
                            AppModel.scripts.attachToFolder(AppModel.tree.selectedNodeID, AppModel.scripts.selectedPath)
                    }
                }
                Button {
                    text: "Open in text editor"
                    Accessible.name: text
                    onClicked: Qt.openUrlExternally("file://" + AppModel.scripts.selectedPath)
                }
                Button {
                    text: "Show in file manager"
                    Accessible.name: text
                    onClicked: AppModel.scripts.showInFileManager(AppModel.scripts.selectedPath)
                }
                Button {
                    text: "Save a copy of this script"
                    Accessible.name: text
                    onClicked: copyDialog.open()
                }
                Button {
                    objectName: "deleteScriptButton"
                    text: "Delete…"
                    palette.buttonText: Theme.error
                    Accessible.name: "Delete this script"
                    onClicked: deleteDialog.open()
                }
            }
        }

        Label {
            Layout.fillWidth: true
            Layout.fillHeight: true
            visible: !pane.hasScript
            Accessible.ignored: !visible
            text: scripts.count > 0 ? "Select a script to see and edit it." : ""
            horizontalAlignment: Text.AlignHCenter
            verticalAlignment: Text.AlignVCenter
            color: Theme.secondaryText
        }
    }

    Dialog {
        id: newScriptDialog
        objectName: "newScriptDialog"
        parent: Overlay.overlay
        anchors.centerIn: parent
        modal: true
        title: "New Script"
        standardButtons: Dialog.Ok | Dialog.Cancel
        onAboutToShow: {
            newName.text = "My Script"
            newName.selectAll()
            newName.forceActiveFocus()
        }
        onAccepted: AppModel.scripts.createScript(newName.text)

        TextField {
            id: newName
            objectName: "newScriptName"
            width: 300
            Accessible.name: "Name of the new script"
            onAccepted: newScriptDialog.accept()
        }
    }

    FileDialog {
        id: importDialog
        title: "Import a script"
        nameFilters: ["Scripts (*.corvane *.corvane.js)"]
        onAccepted: AppModel.scripts.importToLibrary(selectedFile.toString())
    }

    FileDialog {
        id: copyDialog
        title: "Save a copy of this script"
        fileMode: FileDialog.SaveFile
        nameFilters: ["Scripts (*.corvane)"]
        selectedFile: "file://" + AppModel.scripts.selectedPath
        onAccepted: AppModel.scripts.saveCopy(selectedFile.toString())
    }

    ConfirmDialog {
        id: deleteDialog
        objectName: "deleteScriptDialog"
        title: "Delete “" + AppModel.scripts.selectedName + "”?"
        text: "Move “" + AppModel.scripts.selectedName + "” to the trash? Chats started from it keep their own copy."
        acceptText: "Move to Trash"
        onAccepted: AppModel.scripts.deleteSelected()
    }

    ConfirmDialog {
        id: replaceDialog
        objectName: "replaceFolderScriptDialog"
        title: "Replace this folder’s script?"
        text: "Chats that use it switch to the new script, and its saved state starts over. Existing messages stay as they are."
        acceptText: "Replace"
        onAccepted: AppModel.scripts.attachToFolder(AppModel.tree.selectedNodeID, AppModel.scripts.selectedPath)
    }
}
