pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// The search over every chat: a field that searches as the user types, the scope, and the
// hits. Up and Down move through the hits from the field, Enter opens one, Escape goes back.
Rectangle {
    id: pane

    /// A hit was chosen: its chat is to be shown at the message (-1 for a title hit).
    signal hitChosen(real chatID, real messageID)
    /// The user left the search without choosing.
    signal closed()

    /// Puts the keyboard in the field, its text selected to be typed over.
    function focusField() {
        field.forceActiveFocus()
        field.selectAll()
    }

    function choose(row: int) {
        if (row >= 0 && row < hits.count)
            pane.hitChosen(results.chatIDAt(row), results.messageIDAt(row))
    }

    /// Enter in the field: the hits for what was typed last, once they are there.
    function chooseFromField() {
        if (pause.running) {
            pause.stop()
            AppModel.search.term = field.text
        }
        if (AppModel.search.isSearching)
            choosesWhenReady = true
        else
            choose(Math.max(hits.currentIndex, 0))
    }

    property bool choosesWhenReady: false

    Connections {
        target: AppModel.search
        function onSearchingChanged() {
            if (!AppModel.search.isSearching && pane.choosesWhenReady) {
                pane.choosesWhenReady = false
                pane.choose(Math.max(hits.currentIndex, 0))
            }
        }
    }

    color: Theme.window
    Accessible.role: Accessible.Pane
    Accessible.name: "Search your chats"

    // The field searches after a short pause in typing, so that each word is searched once.
    Timer {
        id: pause
        interval: 80
        onTriggered: AppModel.search.term = field.text
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: Theme.largeSpacing
        spacing: Theme.spacing

        Label {
            Layout.fillWidth: true
            text: "Search your chats"
            font.pixelSize: Theme.headingSize
            font.bold: true
            color: Theme.text
            Accessible.role: Accessible.Heading
            Accessible.name: text
        }
        Label {
            Layout.fillWidth: true
            text: "Find words in any saved message or chat title."
            wrapMode: Text.WordWrap
            color: Theme.secondaryText
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }

        TextField {
            id: field
            objectName: "searchField"
            Layout.fillWidth: true
            placeholderText: "Search messages and chat titles"
            text: AppModel.search.term
            selectByMouse: true
            Accessible.role: Accessible.EditableText
            Accessible.name: "Search messages and chat titles"
            Accessible.description: hits.count > 0 ? hits.count + " results" : ""
            onTextChanged: pause.restart()
            Keys.onPressed: (event) => {
                switch (event.key) {
                case Qt.Key_Down:
                    hits.currentIndex = Math.min(hits.currentIndex + 1, hits.count - 1)
                    break
                case Qt.Key_Up:
                    hits.currentIndex = Math.max(hits.currentIndex - 1, 0)
                    break
                case Qt.Key_Return:
                case Qt.Key_Enter:
                    pane.chooseFromField()
                    break
                case Qt.Key_Escape:
                    pane.closed()
                    break
                default:
                    return
                }
                event.accepted = true
            }
        }

        RowLayout {
            spacing: Theme.spacing / 2

            ButtonGroup { id: scope }
            RadioButton {
                objectName: "searchAllChats"
                text: "All chats"
                checked: AppModel.search.searchAll
                ButtonGroup.group: scope
                Accessible.name: "Search all chats"
                onClicked: AppModel.search.searchAll = true
            }
            RadioButton {
                objectName: "searchThisFolder"
                text: AppModel.search.scopeName !== "" ? "This folder: " + AppModel.search.scopeName : "This folder"
                checked: !AppModel.search.searchAll
                ButtonGroup.group: scope
                Accessible.name: "Search only " + (AppModel.search.scopeName !== "" ? AppModel.search.scopeName : "this folder") + " and its subfolders"
                onClicked: AppModel.search.searchAll = false
            }
            Item { Layout.fillWidth: true }
            BusyIndicator {
                implicitWidth: 20
                implicitHeight: 20
                running: AppModel.search.isSearching
                visible: running
                Accessible.name: "Searching"
                Accessible.ignored: !visible
            }
        }

        ListView {
            id: hits
            objectName: "searchHits"
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            currentIndex: -1
            boundsBehavior: Flickable.StopAtBounds
            keyNavigationEnabled: true
            activeFocusOnTab: true
            ScrollBar.vertical: ScrollBar {}
            Accessible.role: Accessible.List
            Accessible.name: "Search results"

            model: SearchHitListModel {
                id: results
                source: AppModel.search
                matchColor: Theme.accent
                onModelReset: hits.currentIndex = -1
            }
            delegate: SearchHitRow {
                width: hits.width
                isCurrent: ListView.isCurrentItem
                onChosen: pane.choose(index)
            }
            onActiveFocusChanged: {
                if (activeFocus && currentIndex < 0 && count > 0)
                    currentIndex = 0
            }
            Keys.onReturnPressed: pane.choose(currentIndex)
            Keys.onEnterPressed: pane.choose(currentIndex)
            Keys.onEscapePressed: pane.closed()

            Label {
                objectName: "noSearchHits"
                Accessible.ignored: !visible
                anchors.centerIn: parent
                width: parent.width
                visible: hits.count === 0 && AppModel.search.term.trim() !== "" && !AppModel.search.isSearching
                text: "No chat title or message contains “" + AppModel.search.term.trim() + "”."
                wrapMode: Text.WordWrap
                horizontalAlignment: Text.AlignHCenter
                color: Theme.secondaryText
                Accessible.role: Accessible.StaticText
                Accessible.name: text
            }
        }
    }
}
