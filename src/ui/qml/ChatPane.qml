import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// The selected chat: its messages (a virtualised list kept at the end while a reply grows,
// unless the user scrolled up), the reply being written, and the composer. Without a chat,
// or without messages, a short explanation instead.
Rectangle {
    id: pane

    color: Theme.window
    Accessible.role: Accessible.Pane
    Accessible.name: AppModel.chat.title !== "" ? AppModel.chat.title : "Chat"

    function focusComposer() {
        composer.focusInput()
    }

    /// Scrolls to a message of the chat just opened and marks it for a moment; a title hit
    /// (-1) shows the chat as usual.
    function showMessage(messageID: real) {
        const row = messageID >= 0 ? messages.rowOf(messageID) : -1
        if (row < 0) {
            focusComposer()
            return
        }
        list.followsEnd = false
        list.currentIndex = row
        foundMessageID = messageID
        foundTimer.restart()
        Qt.callLater(() => list.positionViewAtIndex(row, ListView.Center))
        list.forceActiveFocus()
    }

    /// The message a search led to, marked until `foundTimer` ends.
    property real foundMessageID: -1

    Timer {
        id: foundTimer
        interval: 2000
        onTriggered: pane.foundMessageID = -1
    }

    readonly property bool hasChat: AppModel.tree.selectedChatID >= 0
    readonly property bool showsLiveReply: AppModel.chat.isGenerating
    readonly property string liveText: AppModel.chat.liveDisplay !== "" ? AppModel.chat.liveDisplay : AppModel.chat.liveReply

    ColumnLayout {
        anchors.fill: parent
        spacing: 0

        Label {
            objectName: "chatTitle"
            Accessible.ignored: !visible
            visible: pane.hasChat
            Layout.fillWidth: true
            Layout.margins: Theme.spacing
            text: AppModel.chat.title
            elide: Text.ElideRight
            font.pixelSize: Theme.headingSize
            font.bold: true
            color: Theme.text
            Accessible.role: Accessible.Heading
            Accessible.name: text
        }

        Item {
            Layout.fillWidth: true
            Layout.fillHeight: true

            ListView {
                id: list
                objectName: "messageList"
                Accessible.ignored: !visible

                /// The view follows new text only while the user is at the end.
                property bool followsEnd: true

                function scrollToEnd() {
                    if (followsEnd)
                        Qt.callLater(list.followEnd)
                }

                // Asked for later: by then the user (or a search) may have moved elsewhere.
                function followEnd() {
                    if (followsEnd)
                        positionViewAtEnd()
                }

                anchors.fill: parent
                visible: count > 0 || pane.showsLiveReply
                clip: true
                reuseItems: true
                cacheBuffer: 800
                boundsBehavior: Flickable.StopAtBounds
                ScrollBar.vertical: ScrollBar { Accessible.ignored: !visible }
                Accessible.role: Accessible.List
                Accessible.name: "Messages"

                model: MessageListModel {
                    id: messages
                    source: AppModel.chat
                    onModelReset: {
                        list.followsEnd = true
                        list.scrollToEnd()
                    }
                }

                delegate: MessageRow {
                    width: list.width
                    isFound: messageID === pane.foundMessageID
                    onSummaryRequested: summaryPopup.open()
                    onMetadataRequested: (id) => metadataPopup.show(id)
                    onImageRequested: (image) => imagePopup.show(image)
                    onEditRequested: {
                        AppModel.chat.startEditing()
                        pane.focusComposer()
                    }
                }

                // Wrapped: a view's footer component cannot have required properties.
                footer: Item {
                    width: list.width
                    height: pane.showsLiveReply ? liveRow.implicitHeight : 0

                    MessageRow {
                        id: liveRow
                        objectName: "liveReply"
                        Accessible.ignored: !visible
                        width: parent.width
                        visible: pane.showsLiveReply
                        messageID: -1
                        role: "assistant"
                        text: pane.liveText !== "" ? pane.liveText : "…"
                        hasImage: false
                        image: ""
                        imageDescription: ""
                        showsSummaryMarker: false
                        isLive: true
                    }
                }

                onMovementEnded: followsEnd = atYEnd
                onCountChanged: scrollToEnd()
                onContentHeightChanged: scrollToEnd()
                onHeightChanged: scrollToEnd()
            }

            // No chat selected.
            Label {
                objectName: "noChatSelected"
                Accessible.ignored: !visible
                anchors.centerIn: parent
                width: Math.min(parent.width - 2 * Theme.largeSpacing, Theme.contentWidth)
                visible: !pane.hasChat
                text: "Create or select a chat in the sidebar."
                wrapMode: Text.WordWrap
                horizontalAlignment: Text.AlignHCenter
                color: Theme.secondaryText
                font.pixelSize: Theme.bodySize
                Accessible.role: Accessible.StaticText
                Accessible.name: text
            }

            // A chat without messages: what to do first.
            ColumnLayout {
                objectName: "emptyChat"
                anchors.centerIn: parent
                width: Math.min(parent.width - 2 * Theme.largeSpacing, Theme.contentWidth)
                visible: pane.hasChat && !list.visible
                spacing: Theme.spacing

                Label {
                    objectName: "emptyChatHeading"
                    Accessible.ignored: !visible
                    Layout.fillWidth: true
                    text: AppModel.models.hasChatModel ? "Start a conversation" : "Install a chat model"
                    horizontalAlignment: Text.AlignHCenter
                    font.pixelSize: Theme.titleSize
                    font.bold: true
                    color: Theme.text
                    Accessible.role: Accessible.Heading
                    Accessible.name: text
                }
                Label {
                    objectName: "emptyChatText"
                    Accessible.ignored: !visible
                    Layout.fillWidth: true
                    text: AppModel.models.hasChatModel
                          ? "Everything is private. Your chats, images, and data stay on this computer and are never sent to a server, so you can talk about anything."
                            + (AppModel.models.hasImageSupport ? "\n\nDrop an image here to show it to " + AppModel.chat.agentName : "")
                            + (AppModel.chat.isSealed ? "\n\nThis chat is in a locked folder, so it's also encrypted and needs your password to open." : "")
                          : AppModel.chat.agentName + " needs a chat model on this computer before it can reply."
                    wrapMode: Text.WordWrap
                    horizontalAlignment: Text.AlignHCenter
                    font.pixelSize: Theme.bodySize
                    color: Theme.secondaryText
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }
            }
        }

        Composer {
            id: composer
            visible: pane.hasChat
            Layout.fillWidth: true
        }
    }

    // A script file dropped on the chat becomes the chat's own script, after asking when it
    // replaces one; any other file is attached as an image.
    DropArea {
        objectName: "chatDropArea"
        anchors.fill: parent
        enabled: pane.hasChat
        onEntered: (drag) => { drag.accepted = drag.hasUrls }
        onDropped: (drop) => {
            drop.accept()
            const scripts = AppModel.scripts.scriptFiles(drop.urls)
            if (scripts.length === 0) {
                // Anything else is taken for an image; what is not one says so.
                AppModel.images.attachImage(drop.urls[0].toString())
                return
            }
            const file = scripts[0]
            if ((AppModel.tree.chatDetails(AppModel.tree.selectedChatID).cartridgeName ?? "") !== "") {
                replaceScript.file = file
                replaceScript.open()
            } else {
                AppModel.scripts.attachToChat(AppModel.tree.selectedChatID, file)
            }
        }
    }

    ConfirmDialog {
        id: replaceScript
        objectName: "replaceChatScriptDialog"
        property string file: ""
        title: "Replace this chat’s script?"
        text: "This changes future replies in this chat. Existing messages stay as they are."
        acceptText: "Replace"
        onAccepted: AppModel.scripts.attachToChat(AppModel.tree.selectedChatID, file)
    }

    Dialog {
        id: imagePopup
        objectName: "imagePopup"
        property string image: ""
        function show(name: string) {
            image = name
            open()
        }
        parent: Overlay.overlay
        anchors.centerIn: parent
        width: (parent ? parent.width : 800) - 2 * Theme.largeSpacing
        height: (parent ? parent.height : 600) - 2 * Theme.largeSpacing
        modal: true
        standardButtons: Dialog.Close
        Image {
            anchors.fill: parent
            source: imagePopup.image !== "" ? "image://stored/" + imagePopup.image : ""
            fillMode: Image.PreserveAspectFit
            cache: false
            Accessible.role: Accessible.Graphic
            Accessible.name: "Image"
        }
    }

    Dialog {
        id: summaryPopup
        objectName: "summaryPopup"
        parent: Overlay.overlay
        anchors.centerIn: parent
        width: Math.min(560, (parent ? parent.width : 600) - 2 * Theme.largeSpacing)
        height: Math.min(implicitHeight, (parent ? parent.height : 600) - 2 * Theme.largeSpacing)
        modal: true
        title: "Summary of earlier messages"
        standardButtons: Dialog.Close

        ScrollView {
            anchors.fill: parent
            contentWidth: availableWidth
            Label {
                objectName: "summaryText"
                width: parent.width
                text: AppModel.chat.summary
                wrapMode: Text.WordWrap
                color: Theme.text
                Accessible.role: Accessible.StaticText
                Accessible.name: text
            }
        }
    }

    Dialog {
        id: metadataPopup
        objectName: "metadataPopup"

        property var details: ({})

        function show(messageID: real) {
            details = AppModel.chat.messageMetadata(messageID)
            open()
        }

        parent: Overlay.overlay
        anchors.centerIn: parent
        width: Math.min(560, (parent ? parent.width : 600) - 2 * Theme.largeSpacing)
        height: Math.min(implicitHeight, (parent ? parent.height : 600) - 2 * Theme.largeSpacing)
        modal: true
        title: "What the model saw"
        standardButtons: Dialog.Close

        ScrollView {
            anchors.fill: parent
            contentWidth: availableWidth
            Label {
                objectName: "metadataText"
                width: parent.width
                wrapMode: Text.WordWrap
                color: Theme.text
                text: metadataPopup.details.model === undefined
                      ? "Nothing was recorded for this message."
                      : "Model: " + metadataPopup.details.model
                        + "\nTemperature: " + Number(metadataPopup.details.temperature).toFixed(1)
                        + "\nMaximum tokens: " + metadataPopup.details.maxTokens
                        + (metadataPopup.details.speed ? "\nSpeed: " + metadataPopup.details.speed : "")
                        + (metadataPopup.details.device ? "\nRan on: " + metadataPopup.details.device : "")
                        + "\n\nPrompt:\n" + (metadataPopup.details.prompt !== "" ? metadataPopup.details.prompt : "(none)")
                Accessible.role: Accessible.StaticText
                Accessible.name: text
            }
        }
    }
}
