import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// One message: the user's in a bubble on the right, the assistant's across the full width,
// both as Markdown. Above the first message after a summary, a marker explains it.
Item {
    id: row

    required property real messageID
    required property string role
    required property string text
    required property bool hasImage
    /// The stored image's file name and what the model saw in it; empty when none.
    required property string image
    required property string imageDescription
    required property bool showsSummaryMarker
    /// The reply being written now, not yet stored.
    property bool isLive: false
    /// The message a search led to: marked for a moment.
    property bool isFound: false

    readonly property bool isUser: role === "user"
    /// How fast the reply came, as recorded with it; empty when unknown.
    readonly property string speed: !isUser && !isLive && messageID >= 0
                                    ? (AppModel.chat.messageMetadata(messageID).speed ?? "") : ""
    readonly property real maxBubbleWidth: Math.max(120, width * 0.75)

    signal summaryRequested()
    /// The image is to be shown large.
    signal imageRequested(string image)
    signal metadataRequested(real messageID)
    /// The user wants to change this message and send it again.
    signal editRequested()

    implicitHeight: column.implicitHeight + Theme.spacing

    Accessible.role: Accessible.ListItem
    Accessible.name: (isUser ? "You: " : "Assistant: ") + text

    Rectangle {
        objectName: "foundMark"
        anchors.fill: parent
        color: Theme.found
        opacity: row.isFound ? 1 : 0
        visible: opacity > 0
        Behavior on opacity {
            NumberAnimation { duration: 400 }
        }
    }

    ColumnLayout {
        id: column
        x: Theme.largeSpacing
        y: Theme.spacing / 2
        width: row.width - 2 * Theme.largeSpacing
        spacing: Theme.spacing / 2

        // Where the summary's reach ends: everything above is remembered through it.
        ItemDelegate {
            objectName: "summaryMarker"
            Accessible.ignored: !visible
            visible: row.showsSummaryMarker
            Layout.fillWidth: true
            Accessible.name: "Earlier messages summarized. Click to read the summary."
            onClicked: row.summaryRequested()
            contentItem: ColumnLayout {
                spacing: 2
                Label {
                    Layout.fillWidth: true
                    text: "Earlier messages summarized"
                    Accessible.ignored: true
                    horizontalAlignment: Text.AlignHCenter
                    font.pixelSize: Theme.smallSize
                    font.bold: true
                    color: Theme.secondaryText
                }
                Label {
                    Layout.fillWidth: true
                    text: "Corvane now remembers the messages above through a summary. Click to read it."
                    Accessible.ignored: true
                    horizontalAlignment: Text.AlignHCenter
                    wrapMode: Text.WordWrap
                    font.pixelSize: Theme.smallSize
                    color: Theme.secondaryText
                }
            }
            background: Rectangle {
                color: "transparent"
                border.color: Theme.border
                radius: 6
            }
        }

        // The picture, scaled to the column; a click shows it large.
        Image {
            id: picture
            objectName: "messageImage"
            Accessible.ignored: !visible
            visible: row.image !== "" && status === Image.Ready
            Layout.alignment: row.isUser ? Qt.AlignRight : Qt.AlignLeft
            // At most the column's width and 360 pixels high, so that a tall photo leaves room
            // for its words.
            readonly property real fit: sourceSize.width > 0
                                        ? Math.min(1, row.maxBubbleWidth / sourceSize.width, 360 / sourceSize.height) : 0
            Layout.preferredWidth: sourceSize.width * fit
            Layout.preferredHeight: sourceSize.height * fit
            source: row.image !== "" ? "image://stored/" + row.image : ""
            fillMode: Image.PreserveAspectFit
            cache: false
            Accessible.role: Accessible.Graphic
            Accessible.name: row.imageDescription !== "" ? "Image: " + row.imageDescription : "Image"
            TapHandler {
                onTapped: row.imageRequested(row.image)
            }
        }
        Label {
            objectName: "imageUnavailable"
            Accessible.ignored: !visible
            visible: row.image !== "" && picture.status === Image.Error
            Layout.alignment: row.isUser ? Qt.AlignRight : Qt.AlignLeft
            text: "Image unavailable"
            font.pixelSize: Theme.smallSize
            color: Theme.secondaryText
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }

        Rectangle {
            id: bubble
            // A picture sent without words has no bubble.
            visible: row.text !== "" || row.isLive
            readonly property real available: row.isUser ? row.maxBubbleWidth - 2 * Theme.spacing : column.width
            Layout.alignment: row.isUser ? Qt.AlignRight : Qt.AlignLeft
            Layout.preferredWidth: row.isUser ? Math.min(blocks.usedWidth + 1, available) + 2 * Theme.spacing
                                              : column.width
            Layout.preferredHeight: blocks.implicitHeight + (row.isUser ? Theme.spacing : 0)
            radius: 10
            color: row.isUser ? Theme.userBubble : "transparent"

            // Prose and code blocks in turn. Rows are kept by position, so a reply that grows
            // updates its blocks in place instead of building them again.
            Column {
                id: blocks
                x: row.isUser ? Theme.spacing : 0
                y: row.isUser ? Theme.spacing / 2 : 0
                width: bubble.available
                spacing: Theme.spacing / 2
                readonly property var parts: MarkdownBlocks.split(row.text)
                // The widest line drawn, so that a short message gets a small bubble.
                property real usedWidth: 0

                function measure() {
                    let widest = 0
                    for (let i = 0; i < children.length; ++i)
                        widest = Math.max(widest, children[i].usedWidth ?? 0)
                    usedWidth = widest
                }

                Repeater {
                    model: blocks.parts.length
                    delegate: Loader {
                        required property int index
                        readonly property var part: blocks.parts[index] ?? { "code": false, "text": "", "language": "" }
                        readonly property real usedWidth: item ? item.usedWidth : 0
                        width: blocks.width
                        sourceComponent: part.code ? codeBlock : proseBlock
                        onUsedWidthChanged: blocks.measure()
                    }
                }
            }
        }

        // Copy, edit, regenerate and what the model saw, with the reply's speed.
        RowLayout {
            objectName: "messageActions"
            visible: !row.isLive && row.messageID >= 0
            Layout.alignment: row.isUser ? Qt.AlignRight : Qt.AlignLeft
            spacing: 0

            Label {
                objectName: "replySpeed"
                Accessible.ignored: !visible
                visible: row.speed !== ""
                text: row.speed
                rightPadding: Theme.spacing
                font.pixelSize: Theme.smallSize
                color: Theme.secondaryText
                Accessible.role: Accessible.StaticText
                Accessible.name: text
            }
            MessageAction {
                objectName: "copyMessageButton"
                visible: row.text !== ""
                text: copied.running ? "Copied" : "Copy"
                Accessible.name: "Copy message"
                onClicked: {
                    Clipboard.copy(row.text)
                    copied.restart()
                }
                Timer {
                    id: copied
                    interval: 1500
                }
            }
            MessageAction {
                objectName: "editMessageButton"
                visible: row.isUser && row.messageID === AppModel.chat.editableMessageID
                         && !AppModel.chat.isGenerating && AppModel.chat.editingMessageID < 0
                text: "Edit"
                Accessible.name: "Edit and resend this message"
                onClicked: row.editRequested()
            }
            MessageAction {
                objectName: "regenerateButton"
                visible: !row.isUser && row.messageID === AppModel.chat.regenerableMessageID && AppModel.chat.canRegenerate
                text: "Regenerate"
                Accessible.name: "Regenerate this reply"
                ToolTip.visible: hovered
                ToolTip.text: "Write this reply again (Ctrl+R)"
                onClicked: AppModel.chat.regenerate()
            }
            MessageAction {
                objectName: "metadataButton"
                visible: !row.isUser
                text: "What the model saw"
                onClicked: row.metadataRequested(row.messageID)
            }
        }
    }

    component MessageAction: Button {
        Accessible.ignored: !visible
        flat: true
        padding: 2
        leftPadding: Theme.spacing / 2
        rightPadding: Theme.spacing / 2
        font.pixelSize: Theme.smallSize
        Accessible.name: text
    }

    Component {
        id: proseBlock

        TextEdit {
            objectName: row.isLive ? "liveReplyText" : "messageText"
            Accessible.ignored: !visible
            readonly property real usedWidth: contentWidth
            text: parent?.part.text ?? ""
            textFormat: TextEdit.MarkdownText
            readOnly: true
            selectByMouse: true
            wrapMode: TextEdit.Wrap
            font.pixelSize: Theme.bodySize
            color: Theme.text
            selectionColor: Theme.accent
            Accessible.role: Accessible.StaticText
            Accessible.name: text
            onLinkActivated: (link) => Qt.openUrlExternally(link)
            onTextChanged: MarkdownStyle.apply(textDocument)
            Component.onCompleted: MarkdownStyle.apply(textDocument)

            HoverHandler {
                enabled: parent.hoveredLink !== ""
                cursorShape: Qt.PointingHandCursor
            }
        }
    }

    Component {
        id: codeBlock

        // A code block in a box of its own: its language, a copy button, and the code in a
        // fixed-width font, coloured, scrolling sideways rather than wrapping.
        Rectangle {
            id: box
            objectName: "codeBlock"
            readonly property string code: parent?.part.text ?? ""
            readonly property string language: parent?.part.language ?? ""
            readonly property real usedWidth: width
            implicitHeight: boxColumn.implicitHeight
            color: Theme.codeBackground
            border.color: Theme.border
            radius: 6
            Accessible.role: Accessible.Grouping
            Accessible.name: language !== "" ? "Code, " + language : "Code"

            ColumnLayout {
                id: boxColumn
                width: parent.width
                spacing: 0

                RowLayout {
                    Layout.fillWidth: true
                    Layout.leftMargin: Theme.spacing
                    Label {
                        Layout.fillWidth: true
                        text: box.language !== "" ? box.language : "code"
                        font.pixelSize: Theme.smallSize
                        color: Theme.secondaryText
                        Accessible.ignored: true
                    }
                    MessageAction {
                        objectName: "copyCodeButton"
                        text: codeCopied.running ? "Copied" : "Copy code"
                        Accessible.name: "Copy code"
                        onClicked: {
                            Clipboard.copy(box.code)
                            codeCopied.restart()
                        }
                        Timer {
                            id: codeCopied
                            interval: 1500
                        }
                    }
                }
                Flickable {
                    Layout.fillWidth: true
                    Layout.preferredHeight: codeText.implicitHeight + (sideways.visible ? sideways.height : 0)
                    contentWidth: codeText.implicitWidth
                    contentHeight: codeText.implicitHeight
                    flickableDirection: Flickable.HorizontalFlick
                    boundsBehavior: Flickable.StopAtBounds
                    clip: true
                    ScrollBar.horizontal: ScrollBar {
                        id: sideways
                        policy: codeText.implicitWidth > box.width ? ScrollBar.AlwaysOn : ScrollBar.AlwaysOff
                        Accessible.ignored: !visible
                    }

                    TextEdit {
                        id: codeText
                        objectName: "codeText"
                        leftPadding: Theme.spacing
                        rightPadding: Theme.spacing
                        bottomPadding: Theme.spacing / 2
                        text: box.code
                        textFormat: TextEdit.PlainText
                        readOnly: true
                        selectByMouse: true
                        font.family: Theme.monospace
                        font.pixelSize: Theme.smallSize + 1
                        color: Theme.text
                        selectionColor: Theme.accent
                        Accessible.role: Accessible.StaticText
                        Accessible.name: text
                        Component.onCompleted: CodeHighlighter.attach(textDocument, box.language)
                    }
                }
            }

            onLanguageChanged: CodeHighlighter.attach(codeText.textDocument, language)
        }
    }
}
