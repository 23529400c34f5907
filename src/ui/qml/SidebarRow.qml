import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// One row of the sidebar: a folder with its disclosure arrow, or a chat indented under its
// folder. A chat can be dragged onto a folder; the row shows a text field while renamed.
Item {
    id: row

    required property string kind
    required property real itemID
    required property string name
    required property int depth
    required property bool hasChildren
    required property bool isCollapsed
    required property bool isSelected
    required property bool isLocked
    required property bool isSealed
    required property bool lockedAway

    property bool editing: false

    readonly property bool isFolder: kind === "folder"
    readonly property string shownName: name !== "" ? name : (isFolder ? "Locked folder" : "Untitled chat")
    /// What the row's lock means, for its tooltip and screen readers; empty when unlocked.
    readonly property string note: lockedAway ? "Locked. Unlock this folder to see its chats."
                                 : isFolder && isLocked ? "Locked folder, unlocked for now. Its chats are encrypted on this computer."
                                 : !isFolder && isSealed ? "In a locked folder. This chat is encrypted on this computer."
                                 : ""

    signal selected()
    signal toggled()
    signal menuRequested()
    signal renameRequested()
    signal renameFinished(string newName)
    signal renameCancelled()
    signal chatDropped(real chatID)

    implicitHeight: column.implicitHeight + 8

    Accessible.role: isFolder ? Accessible.TreeItem : Accessible.ListItem
    Accessible.name: (isFolder ? "Folder " : "Chat ") + shownName
    Accessible.selected: isSelected
    Accessible.description: note

    ToolTip.text: note
    // A folder that is locked away says so on its own line already.
    ToolTip.visible: note !== "" && !lockedAway && mouse.containsMouse && !editing
    ToolTip.delay: 800

    /// The field has taken the focus for this edit; losing it from now on ends the edit.
    property bool fieldFocused: false

    onEditingChanged: {
        fieldFocused = false
        if (editing) {
            field.text = row.name
            field.selectAll()
            // Once the key or click that asked for it is done, so that focus settling
            // elsewhere cannot end the edit it is starting.
            Qt.callLater(() => {
                field.forceActiveFocus()
                row.fieldFocused = field.activeFocus
            })
        } else {
            // A reused row must not keep the focus inside the list.
            field.focus = false
        }
    }

    DropArea {
        anchors.fill: parent
        enabled: row.isFolder && !row.lockedAway
        keys: ["corvane/chat"]
        onDropped: (drop) => {
            row.chatDropped(drop.source.chatID)
            drop.accept()
        }

        Rectangle {
            anchors.fill: parent
            visible: parent.containsDrag
            color: "transparent"
            border.color: Theme.accent
            border.width: 2
            radius: 4
        }
    }

    // The part that moves while a chat is dragged.
    Rectangle {
        id: content

        readonly property real chatID: row.itemID

        width: row.width
        height: row.height
        radius: 4
        color: row.isSelected ? (row.isFolder ? Theme.folderSelection : Theme.selection)
                              : (mouse.containsMouse ? Theme.hover : "transparent")

        // The keyboard's place in the tree.
        Rectangle {
            anchors.fill: parent
            z: 1
            color: "transparent"
            radius: 4
            border.color: Theme.accent
            border.width: row.ListView.isCurrentItem && row.ListView.view && row.ListView.view.activeFocus ? 2 : 0
        }

        Drag.active: mouse.drag.active
        Drag.keys: ["corvane/chat"]
        Drag.source: content
        Drag.hotSpot.x: 20
        Drag.hotSpot.y: height / 2

        MouseArea {
            id: mouse
            anchors.fill: parent
            hoverEnabled: true
            acceptedButtons: Qt.LeftButton | Qt.RightButton
            drag.target: !row.isFolder && !row.editing ? content : null
            drag.axis: Drag.YAxis
            onClicked: (event) => {
                if (event.button === Qt.RightButton)
                    row.menuRequested()
                else
                    row.selected()
            }
            onDoubleClicked: (event) => {
                if (event.button === Qt.LeftButton && !row.lockedAway)
                    row.renameRequested()
            }
            onReleased: {
                if (content.Drag.active)
                    content.Drag.drop()
                content.x = 0
                content.y = 0
            }
        }

        ColumnLayout {
            id: column
            anchors.left: parent.left
            anchors.right: parent.right
            anchors.verticalCenter: parent.verticalCenter
            anchors.leftMargin: 6 + row.depth * Theme.indent
            anchors.rightMargin: 4
            spacing: 2

            RowLayout {
                Layout.fillWidth: true
                spacing: 4

                ToolButton {
                    objectName: "disclosure"
                    Accessible.ignored: !visible
                    visible: row.isFolder
                    enabled: row.hasChildren
                    opacity: row.hasChildren ? 1 : 0.25
                    text: row.isCollapsed || !row.hasChildren ? "▸" : "▾"
                    implicitWidth: 22
                    implicitHeight: 22
                    padding: 0
                    Accessible.name: (row.isCollapsed ? "Expand " : "Collapse ") + row.shownName
                    onClicked: row.toggled()
                }

                LockGlyph {
                    objectName: "lockGlyph"
                    visible: row.isLocked && !row.editing
                    open: !row.lockedAway
                    Layout.rightMargin: 2
                    Accessible.ignored: true
                }

                Label {
                    visible: !row.editing
                    Layout.fillWidth: true
                    text: row.shownName
                    elide: Text.ElideRight
                    font.pixelSize: Theme.bodySize
                    font.bold: row.isFolder
                    color: Theme.text
                    Accessible.ignored: true
                }

                TextField {
                    id: field
                    objectName: "renameField"
                    Accessible.ignored: !visible
                    visible: row.editing
                    Layout.fillWidth: true
                    selectByMouse: true
                    Accessible.name: row.isFolder ? "Folder name" : "Chat title"
                    Keys.onReturnPressed: row.renameFinished(text)
                    Keys.onEnterPressed: row.renameFinished(text)
                    Keys.onEscapePressed: row.renameCancelled()
                    onActiveFocusChanged: {
                        if (!activeFocus && row.editing && row.fieldFocused)
                            row.renameFinished(text)
                    }
                }

                ToolButton {
                    objectName: "rowMenuButton"
                    Accessible.ignored: !visible
                    text: "⋯"
                    visible: !row.editing && (mouse.containsMouse || hovered || row.isSelected)
                    implicitWidth: 26
                    implicitHeight: 22
                    padding: 0
                    Accessible.name: "Actions for " + row.shownName
                    onClicked: row.menuRequested()
                }
            }

            Label {
                objectName: "lockedNote"
                visible: row.lockedAway
                Layout.fillWidth: true
                Layout.leftMargin: 26
                text: row.note
                wrapMode: Text.WordWrap
                font.pixelSize: Theme.smallSize
                color: Theme.secondaryText
                // The row's description says it.
                Accessible.ignored: true
            }
        }
    }
}
