pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import QtQuick.Dialogs
import QtQuick.Layouts
import Corvane

// The folder tree: folders with their sub-folders and chats, selection, inline renaming,
// moving chats by dragging them onto a folder, and each row's actions.
Rectangle {
    id: sidebar

    /// "folder:ID" or "chat:ID" of the row being renamed in place, empty when none.
    property string editingKey: ""

    /// The arrows are selecting the row they moved to; the selection need not be followed.
    property bool selectingFromKeyboard: false

    // The row whose menu is open.
    property string menuKind: ""
    property real menuID: -1
    property string menuName: ""
    property bool menuLocked: false
    property bool menuSealed: false
    property bool menuLockedAway: false

    color: Theme.sidebar
    Accessible.role: Accessible.Pane
    Accessible.name: "Folders and chats"

    /// Adds a folder (under `parentID`, -1 for the top level) and starts renaming it.
    function newFolder(parentID: real) {
        const id = AppModel.tree.addFolder(parentID)
        if (id >= 0) {
            AppModel.tree.selectNode(id)
            if (parentID >= 0)
                tree.setCollapsed(parentID, false)
            editingKey = "folder:" + id
        }
    }

    function newChatIn(folderID: real) {
        tree.setCollapsed(folderID, false)
        AppModel.tree.addChat(folderID)
    }

    /// Opens a row's actions at the pointer, or under the row when the keyboard asked.
    function openMenu(row: SidebarRow, fromKeyboard: bool) {
        menuKind = row.kind
        menuID = row.itemID
        menuName = row.shownName
        menuLocked = row.isLocked
        menuSealed = row.isSealed
        menuLockedAway = row.lockedAway
        const menu = row.isFolder ? folderMenu : chatMenu
        const anchor = fromKeyboard ? row : null
        if (anchor)
            menu.popup(anchor, Theme.indent, anchor.height)
        else
            menu.popup()
    }

    /// Makes the keyboard's row follow the selection made elsewhere (a click, a new chat).
    function followSelection() {
        if (selectingFromKeyboard)
            return
        const row = AppModel.tree.selectedChatID >= 0 ? tree.rowOf("chat", AppModel.tree.selectedChatID)
                                                 : tree.rowOf("folder", AppModel.tree.selectedNodeID)
        if (row >= 0 && row !== list.currentIndex)
            list.currentIndex = row
    }

    /// The keys of the focused tree: arrows move and select, Left and Right fold, Enter
    /// opens (a folder that is locked away asks for its password), F2 renames, Delete
    /// deletes, the menu key (or Shift+F10) shows the actions.
    function handleKey(event: KeyEvent) {
        const row = list.currentItem as SidebarRow
        if (!row || sidebar.editingKey !== "")
            return
        const folder = row.kind === "folder"
        switch (event.key) {
        case Qt.Key_Up:
            list.decrementCurrentIndex()
            break
        case Qt.Key_Down:
            list.incrementCurrentIndex()
            break
        case Qt.Key_Return:
        case Qt.Key_Enter:
        case Qt.Key_Space:
            if (row.lockedAway)
                AppModel.locks.requestUnlock(row.itemID)
            else if (folder)
                tree.toggleCollapsed(row.itemID)
            else
                chatOpened()
            break
        case Qt.Key_Left:
            if (folder && row.hasChildren && !row.isCollapsed)
                tree.setCollapsed(row.itemID, true)
            break
        case Qt.Key_Right:
            if (folder && row.isCollapsed)
                tree.setCollapsed(row.itemID, false)
            break
        case Qt.Key_F2:
            if (!row.lockedAway)
                sidebar.editingKey = row.kind + ":" + row.itemID
            break
        case Qt.Key_Delete:
            sidebar.confirmDelete(row.kind, row.itemID, row.shownName)
            break
        case Qt.Key_Menu:
            sidebar.openMenu(row, true)
            break
        case Qt.Key_F10:
            if (!(event.modifiers & Qt.ShiftModifier))
                return
            sidebar.openMenu(row, true)
            break
        default:
            return
        }
        event.accepted = true
    }

    function focusTree() {
        followSelection()
        list.forceActiveFocus()
    }

    /// Enter on a chat: the composer takes over.
    signal chatOpened()
    /// The scripts pane is asked for.
    signal scriptsRequested()

    Connections {
        target: AppModel.tree
        function onSelectionChanged() { sidebar.followSelection() }
    }

    /// Asks before deleting a folder with everything in it, or a chat with its messages.
    function confirmDelete(kind: string, id: real, name: string) {
        deleteDialog.kind = kind
        deleteDialog.itemID = id
        deleteDialog.title = "Delete “" + name + "”?"
        deleteDialog.text = kind === "folder"
                ? "Delete “" + name + "” and all of its chats and subfolders? This cannot be undone."
                : "Delete “" + name + "” and its messages? This cannot be undone."
        deleteDialog.open()
    }

    function confirmRemoveLock(id: real, name: string) {
        removeLockDialog.itemID = id
        removeLockDialog.title = "Remove the lock from “" + name + "”?"
        removeLockDialog.open()
    }

    function openSettings(kind: string, id: real) {
        if (kind === "folder") {
            folderSettings.folderID = id
            folderSettings.open()
        } else {
            chatSettings.chatID = id
            chatSettings.open()
        }
    }

    ColumnLayout {
        anchors.fill: parent
        spacing: 0

        RowLayout {
            Layout.fillWidth: true
            Layout.margins: Theme.spacing / 2
            spacing: Theme.spacing / 2

            Button {
                objectName: "newChatButton"
                Layout.fillWidth: true
                text: "New chat"
                Accessible.name: "New chat"
                onClicked: AppModel.tree.addChat(-1)
            }
            Button {
                objectName: "newFolderButton"
                Layout.fillWidth: true
                text: "New folder"
                Accessible.name: "New folder"
                onClicked: sidebar.newFolder(-1)
            }
        }

        ListView {
            id: list
            objectName: "sidebarList"
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            // Not pooled: a pooled row keeps its bindings, and one that still carried the
            // renamed row's id would start editing too and take the focus away.
            reuseItems: false
            boundsBehavior: Flickable.StopAtBounds
            ScrollBar.vertical: ScrollBar {}
            Accessible.role: Accessible.Tree
            Accessible.name: "Folders and chats"
            activeFocusOnTab: true
            keyNavigationEnabled: false // the keys are handled below, folding included
            // Moving through the tree with the arrows selects what the keyboard lands on.
            onCurrentIndexChanged: {
                const row = currentItem as SidebarRow
                if (!activeFocus || !row)
                    return
                sidebar.selectingFromKeyboard = true
                if (row.kind === "folder")
                    AppModel.tree.selectNode(row.itemID)
                else if (row.itemID !== AppModel.tree.selectedChatID)
                    AppModel.tree.selectChat(row.itemID)
                sidebar.selectingFromKeyboard = false
            }
            Keys.onPressed: (event) => sidebar.handleKey(event)
            Component.onCompleted: sidebar.followSelection()

            model: SidebarModel {
                id: tree
                source: AppModel.tree
            }

            delegate: SidebarRow {
                id: row
                width: list.width
                editing: sidebar.editingKey === row.kind + ":" + row.itemID
                onSelected: {
                    if (row.kind === "folder")
                        AppModel.tree.selectNode(row.itemID)
                    else
                        AppModel.tree.selectChat(row.itemID)
                    list.currentIndex = tree.rowOf(row.kind, row.itemID)
                    if (row.lockedAway)
                        AppModel.locks.requestUnlock(row.itemID)
                }
                onToggled: tree.toggleCollapsed(row.itemID)
                onMenuRequested: sidebar.openMenu(row, false)
                onRenameRequested: sidebar.editingKey = row.kind + ":" + row.itemID
                onRenameFinished: (newName) => {
                    sidebar.editingKey = ""
                    if (newName.trim() === "" || newName === row.name)
                        return
                    if (row.kind === "folder")
                        AppModel.tree.renameNode(row.itemID, newName)
                    else
                        AppModel.tree.renameChat(row.itemID, newName)
                }
                onRenameCancelled: { sidebar.editingKey = "" }
                onChatDropped: (chatID) => {
                    // A chat that cannot be selected (locked away) is not moved.
                    AppModel.tree.selectChat(chatID)
                    if (AppModel.tree.selectedChatID === chatID)
                        AppModel.tree.moveSelectedChat(row.itemID)
                }
            }
        }

        Button {
            objectName: "scriptsButton"
            Layout.fillWidth: true
            Layout.margins: Theme.spacing / 2
            text: "Scripts"
            flat: true
            Accessible.name: "Scripts"
            Accessible.description: "Ctrl+Shift+S"
            onClicked: sidebar.scriptsRequested()
        }
    }

    // An entry that only some folders offer; hidden, it leaves no gap.
    component FolderMenuItem: MenuItem {
        height: visible ? implicitHeight : 0
    }

    Menu {
        id: folderMenu
        objectName: "folderMenu"
        MenuItem {
            text: "New chat in this folder"
            Accessible.name: text
            onTriggered: sidebar.newChatIn(sidebar.menuID)
        }
        MenuItem {
            text: "New folder"
            Accessible.name: "New folder inside " + sidebar.menuName
            onTriggered: sidebar.newFolder(sidebar.menuID)
        }
        // A folder that is locked away is renamed and set up once it is open.
        FolderMenuItem {
            visible: !sidebar.menuLockedAway
            text: "Rename"
            Accessible.name: text
            onTriggered: sidebar.editingKey = "folder:" + sidebar.menuID
        }
        FolderMenuItem {
            visible: !sidebar.menuLockedAway
            text: "Folder settings…"
            Accessible.name: text
            onTriggered: sidebar.openSettings("folder", sidebar.menuID)
        }
        MenuSeparator {
            // A folder inside a locked one has no lock entries of its own.
            visible: sidebar.menuLocked || !sidebar.menuSealed
            height: visible ? implicitHeight : 0
        }
        FolderMenuItem {
            objectName: "lockFolderItem"
            // A folder inside a locked one is encrypted with it already.
            visible: !sidebar.menuLocked && !sidebar.menuSealed
            enabled: !AppModel.locks.isSealing
            text: "Lock folder"
            Accessible.name: text
            onTriggered: AppModel.locks.lockFolder(sidebar.menuID)
        }
        FolderMenuItem {
            objectName: "unlockFolderItem"
            visible: sidebar.menuLocked && sidebar.menuLockedAway
            text: "Unlock folder…"
            Accessible.name: text
            onTriggered: AppModel.locks.requestUnlock(sidebar.menuID)
        }
        FolderMenuItem {
            objectName: "lockNowItem"
            visible: sidebar.menuLocked && !sidebar.menuLockedAway
            text: "Lock now"
            Accessible.name: text
            onTriggered: AppModel.locks.closeFolder(sidebar.menuID)
        }
        FolderMenuItem {
            objectName: "removeLockItem"
            visible: sidebar.menuLocked && !sidebar.menuLockedAway
            enabled: !AppModel.locks.isSealing
            text: "Remove lock"
            Accessible.name: text
            onTriggered: sidebar.confirmRemoveLock(sidebar.menuID, sidebar.menuName)
        }
        MenuSeparator {}
        MenuItem {
            objectName: "folderExportMarkdownItem"
            text: "Export as Markdown…"
            Accessible.name: text
            onTriggered: sidebar.startExport("folder", "markdown")
        }
        MenuItem {
            objectName: "folderExportJSONItem"
            text: "Export as JSON…"
            Accessible.name: text
            onTriggered: sidebar.startExport("folder", "json")
        }
        MenuSeparator {}
        MenuItem {
            text: "Delete…"
            Accessible.name: "Delete folder"
            onTriggered: sidebar.confirmDelete("folder", sidebar.menuID, sidebar.menuName)
        }
    }

    Menu {
        id: chatMenu
        objectName: "chatMenu"
        MenuItem {
            text: "Rename"
            Accessible.name: text
            onTriggered: sidebar.editingKey = "chat:" + sidebar.menuID
        }
        MenuItem {
            text: "Chat settings…"
            Accessible.name: text
            onTriggered: sidebar.openSettings("chat", sidebar.menuID)
        }
        MenuSeparator {}
        MenuItem {
            objectName: "chatExportMarkdownItem"
            text: "Export as Markdown…"
            Accessible.name: text
            onTriggered: sidebar.startExport("chat", "markdown")
        }
        MenuItem {
            objectName: "chatExportJSONItem"
            text: "Export as JSON…"
            Accessible.name: text
            onTriggered: sidebar.startExport("chat", "json")
        }
        MenuSeparator {}
        MenuItem {
            text: "Delete…"
            Accessible.name: "Delete chat"
            onTriggered: sidebar.confirmDelete("chat", sidebar.menuID, sidebar.menuName)
        }
    }

    ConfirmDialog {
        id: deleteDialog
        objectName: "deleteDialog"
        property string kind: ""
        property real itemID: -1
        acceptText: "Delete"
        onAccepted: {
            if (kind === "folder")
                AppModel.tree.deleteFolder(itemID)
            else
                AppModel.tree.deleteChat(itemID)
        }
    }

    /// Exports the row the menu was opened for: warns first when locked chats would be written
    /// unencrypted, then asks where.
    function startExport(kind: string, format: string) {
        exportDestination.kind = kind
        exportDestination.itemID = sidebar.menuID
        exportDestination.format = format
        if (AppModel.chatExport.writesLockedChats(kind, sidebar.menuID))
            unencryptedExportDialog.open()
        else
            exportDestination.open()
    }

    ConfirmDialog {
        id: unencryptedExportDialog
        objectName: "unencryptedExportDialog"
        title: "Export unencrypted copies?"
        text: "These chats are in a locked folder. The exported files are not encrypted: anyone who can open them can read the chats."
        acceptText: "Export"
        onAccepted: exportDestination.open()
    }

    FolderDialog {
        id: exportDestination
        objectName: "exportDestination"
        property string kind: ""
        property real itemID: -1
        property string format: ""
        title: kind === "folder" ? "Export the folder into" : "Export the chat into"
        onAccepted: AppModel.chatExport.exportItem(kind, itemID, selectedFolder, format)
    }

    ConfirmDialog {
        id: removeLockDialog
        objectName: "removeLockDialog"
        property real itemID: -1
        text: "Its chats will no longer be encrypted and will open without your password."
        acceptText: "Remove lock"
        onAccepted: AppModel.locks.removeLock(itemID)
    }

    FolderSettingsSheet {
        id: folderSettings
    }

    ChatSettingsSheet {
        id: chatSettings
    }
}
