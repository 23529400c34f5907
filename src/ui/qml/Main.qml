import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
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

    // Light or dark, switched while the window is open; the controls take their colours from
    // the palette, which follows the theme.
    Binding {
        target: Theme
        property: "dark"
        value: AppModel.appearance.isDark
    }
    Binding {
        target: CodeHighlighter
        property: "dark"
        value: AppModel.appearance.isDark
    }
    Binding {
        target: MarkdownStyle
        property: "codeBackground"
        value: Theme.codeBackground
    }
    Binding {
        target: MarkdownStyle
        property: "linkColor"
        value: Theme.accent
    }
    palette {
        window: Theme.window
        windowText: Theme.text
        base: Theme.surface
        alternateBase: Theme.sidebar
        text: Theme.text
        button: Theme.surface
        buttonText: Theme.text
        highlight: Theme.accent
        highlightedText: Theme.surface
        placeholderText: Theme.secondaryText
        toolTipBase: Theme.surface
        toolTipText: Theme.text
        light: Theme.surface
        midlight: Theme.folderSelection
        mid: Theme.border
        dark: Theme.border
        shadow: Theme.border
        link: Theme.accent
    }

    /// The sidebar's width as the user left it, kept while the chats view comes and goes.
    property int sidebarWidth: AppModel.windowState.sidebarWidth > 0 ? AppModel.windowState.sidebarWidth
                                                                     : Theme.sidebarWidth

    // Back where the user left it, on whatever screen there is now.
    Component.onCompleted: {
        const placed = AppModel.windowState.placedOn(Qt.rect(0, 0, Screen.desktopAvailableWidth,
                                                             Screen.desktopAvailableHeight))
        if (placed.width > 0) {
            x = placed.x
            y = placed.y
            width = placed.width
            height = placed.height
        }
        if (AppModel.windowState.maximized)
            showMaximized()
    }
    onClosing: AppModel.windowState.save(Qt.rect(x, y, width, height), visibility === Window.Maximized, sidebarWidth)

    // Script files dropped anywhere that takes nothing else go to the script library. Below
    // the window's content, so that the chat's own drop area comes first.
    DropArea {
        objectName: "windowDropArea"
        anchors.fill: parent
        onEntered: (drag) => { drag.accepted = AppModel.scripts.scriptFiles(drag.urls).length > 0 }
        onDropped: (drop) => {
            AppModel.scripts.openFiles(AppModel.scripts.scriptFiles(drop.urls))
            drop.accept()
        }
    }

    Loader {
        anchors.fill: parent
        sourceComponent: AppModel.models.hasChatModel || window.skippedSetup ? chats : firstRun
    }

    Component {
        id: firstRun
        FirstRunScreen {
            onSkipped: window.skippedSetup = true
        }
    }

    Component {
        id: chats

        ColumnLayout {
            id: main
            objectName: "main"
            spacing: 0

            /// What the detail pane shows: "chat", "search" or "scripts".
            property string pane: "chat"
            /// Where the keyboard was before another pane replaced the chat, to go back to.
            property Item focusBeforePane: null
            /// The chat selected when another pane opened: choosing another elsewhere shows it.
            property real chatBeforePane: -1

            function showPane(name: string) {
                if (pane === "chat" && name !== "chat") {
                    focusBeforePane = window.activeFocusItem
                    chatBeforePane = AppModel.tree.selectedChatID
                }
                pane = name
            }

            function openSearch() {
                if (pane !== "search") {
                    AppModel.search.begin()
                    showPane("search")
                }
                searchPane.item.focusField()
            }

            function openScripts() {
                AppModel.scripts.reload()
                showPane("scripts")
                scriptsPane.item.focusList()
            }

            /// Back to the chat, the keyboard where it was.
            function closePane() {
                pane = "chat"
                if (focusBeforePane)
                    focusBeforePane.forceActiveFocus()
                else
                    chatPane.focusComposer()
            }

            /// What the status button says for each readiness.
            function readinessText(readiness: int): string {
                switch (readiness) {
                case Readiness.Error: return "Needs attention"
                case Readiness.Busy: return "Working…"
                case Readiness.NoChatModel: return "No chat model"
                case Readiness.ModelsMissing: return "Models missing"
                case Readiness.Ready: return "Ready"
                }
                return ""
            }

            Shortcut {
                sequence: "Ctrl+N"
                context: Qt.WindowShortcut
                onActivated: AppModel.tree.addChat(-1)
            }
            Shortcut {
                sequence: "Ctrl+Shift+N"
                context: Qt.WindowShortcut
                onActivated: sidebar.newFolder(-1)
            }
            Connections {
                target: AppModel.tree
                function onSelectionChanged() {
                    // A chat chosen in the sidebar (or a new one) replaces the search or scripts.
                    const chat = AppModel.tree.selectedChatID
                    if (main.pane !== "chat" && chat >= 0 && chat !== main.chatBeforePane)
                        main.pane = "chat"
                }
            }
            Connections {
                target: AppModel.scripts
                function onShowRequested() { main.openScripts() }
                function onOpenExternally(url: string) { Qt.openUrlExternally(url) }
            }

            Shortcut {
                sequence: "Ctrl+Shift+S"
                context: Qt.WindowShortcut
                onActivated: main.openScripts()
            }
            Shortcut {
                sequences: ["Ctrl+F", "Ctrl+K"]
                context: Qt.WindowShortcut
                onActivated: main.openSearch()
            }
            Shortcut {
                sequence: "Ctrl+,"
                context: Qt.WindowShortcut
                onActivated: settings.open()
            }
            Shortcut {
                sequence: "Ctrl+Shift+L"
                context: Qt.WindowShortcut
                enabled: AppModel.locks.isUnlocked
                onActivated: AppModel.locks.lockAll()
            }
            Shortcut {
                sequence: "Ctrl+1"
                context: Qt.WindowShortcut
                onActivated: sidebar.focusTree()
            }
            Shortcut {
                sequence: "Ctrl+R"
                context: Qt.WindowShortcut
                enabled: AppModel.chat.canRegenerate && main.pane === "chat"
                onActivated: AppModel.chat.regenerate()
            }
            Shortcut {
                sequence: "Ctrl+L"
                context: Qt.WindowShortcut
                onActivated: chatPane.focusComposer()
            }
            Shortcut {
                sequence: "Escape"
                context: Qt.WindowShortcut
                // In the search, Escape goes back instead. It stops a reply being written, else
                // one being read aloud.
                enabled: (AppModel.chat.isGenerating || AppModel.speech.isSpeaking) && main.pane === "chat"
                onActivated: AppModel.chat.isGenerating ? AppModel.chat.stopReply() : AppModel.speech.stopSpeaking()
            }

            // The toolbar: where things stand, privacy, settings.
            Rectangle {
                Layout.fillWidth: true
                implicitHeight: toolbar.implicitHeight + Theme.spacing
                color: Theme.sidebar

                RowLayout {
                    id: toolbar
                    anchors.fill: parent
                    anchors.leftMargin: Theme.spacing
                    anchors.rightMargin: Theme.spacing
                    spacing: Theme.spacing / 2

                    Label {
                        text: "Corvane"
                        font.pixelSize: Theme.bodySize
                        font.bold: true
                        color: Theme.text
                        Accessible.role: Accessible.Heading
                        Accessible.name: text
                    }
                    Item { Layout.fillWidth: true }
                    Button {
                        objectName: "lockAllButton"
                        Accessible.ignored: !visible
                        visible: AppModel.locks.isUnlocked
                        text: "Lock All Folders"
                        flat: true
                        Accessible.name: text
                        Accessible.description: "Ctrl+Shift+L"
                        onClicked: AppModel.locks.lockAll()
                    }
                    Button {
                        objectName: "searchButton"
                        text: "Search"
                        flat: true
                        Accessible.name: "Search your chats"
                        Accessible.description: "Ctrl+F"
                        onClicked: main.openSearch()
                    }
                    Button {
                        objectName: "privacyButton"
                        text: "Private to this computer"
                        flat: true
                        Accessible.name: text
                        onClicked: privacyNote.open()
                    }
                    Button {
                        objectName: "statusButton"
                        text: main.readinessText(AppModel.readiness)
                        flat: true
                        palette.buttonText: AppModel.readiness === Readiness.Error ? Theme.error : Theme.text
                        Accessible.name: "Status: " + text
                        onClicked: settings.open()
                    }
                    Button {
                        objectName: "settingsButton"
                        text: "Settings"
                        Accessible.name: "Settings"
                        onClicked: settings.open()
                    }
                }
            }

            // The one-line status banner; errors stand out.
            Rectangle {
                objectName: "statusBanner"
                Layout.fillWidth: true
                visible: AppModel.status.text !== ""
                implicitHeight: statusText.implicitHeight + Theme.spacing
                color: AppModel.status.isError ? Theme.errorBackground : Theme.surface
                border.color: AppModel.status.isError ? Theme.error : Theme.border

                Label {
                    id: statusText
                    objectName: "statusText"
                    Accessible.ignored: !visible
                    anchors.fill: parent
                    anchors.leftMargin: Theme.spacing
                    anchors.rightMargin: Theme.spacing
                    verticalAlignment: Text.AlignVCenter
                    text: AppModel.status.text
                    elide: Text.ElideRight
                    color: AppModel.status.isError ? Theme.error : Theme.secondaryText
                    Accessible.role: AppModel.status.isError ? Accessible.AlertMessage : Accessible.StaticText
                    Accessible.name: text
                }
            }

            SplitView {
                Layout.fillWidth: true
                Layout.fillHeight: true
                orientation: Qt.Horizontal

                Sidebar {
                    id: sidebar
                    objectName: "sidebar"
                    SplitView.preferredWidth: window.sidebarWidth
                    SplitView.minimumWidth: 180
                    onWidthChanged: if (width > 0) window.sidebarWidth = width
                    onChatOpened: {
                        main.pane = "chat"
                        chatPane.focusComposer()
                    }
                    onScriptsRequested: main.openScripts()
                }
                Item {
                    SplitView.fillWidth: true
                    SplitView.minimumWidth: 300

                    ChatPane {
                        id: chatPane
                        objectName: "chatPane"
                        anchors.fill: parent
                        visible: main.pane === "chat"
                        Accessible.ignored: !visible
                    }
                    // The search and scripts panes exist only while shown, so that a screen
                    // reader finds nothing of them otherwise; what they show lives in
                    // AppModel.search and AppModel.scripts.
                    Loader {
                        id: searchPane
                        anchors.fill: parent
                        active: main.pane === "search"
                        sourceComponent: SearchPane {
                            objectName: "searchPane"
                            onClosed: main.closePane()
                            onHitChosen: (chatID, messageID) => {
                                main.pane = "chat"
                                AppModel.tree.selectChat(chatID)
                                chatPane.showMessage(messageID)
                            }
                        }
                    }
                    Loader {
                        id: scriptsPane
                        anchors.fill: parent
                        active: main.pane === "scripts"
                        sourceComponent: ScriptsPane {
                            objectName: "scriptsPane"
                            onClosed: main.closePane()
                        }
                    }
                }
            }

            SettingsSheet {
                id: settings
            }

            LockSheets {}

            Dialog {
                id: privacyNote
                objectName: "privacyNote"
                parent: Overlay.overlay
                anchors.centerIn: parent
                width: Math.min(420, window.width - 2 * Theme.largeSpacing)
                modal: true
                title: "Private to this computer"
                standardButtons: Dialog.Ok

                Label {
                    objectName: "privacyNoteText"
                    width: parent.width
                    text: "Your chats, prompts, and recordings stay on this computer. Chat and dictation use local models. Only model downloads use the internet."
                    wrapMode: Text.WordWrap
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }
            }
        }
    }
}
