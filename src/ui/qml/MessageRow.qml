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
    readonly property real maxBubbleWidth: Math.max(120, width * 0.75)

    signal summaryRequested()
    /// The image is to be shown large.
    signal imageRequested(string image)
    signal metadataRequested(real messageID)

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
            // A picture sent without words has no bubble.
            visible: row.text !== "" || row.isLive
            Layout.alignment: row.isUser ? Qt.AlignRight : Qt.AlignLeft
            Layout.preferredWidth: row.isUser ? Math.min(body.contentWidth + 1, row.maxBubbleWidth - 2 * Theme.spacing) + 2 * Theme.spacing
                                              : column.width
            Layout.preferredHeight: body.implicitHeight + (row.isUser ? Theme.spacing : 0)
            radius: 10
            color: row.isUser ? Theme.userBubble : "transparent"

            TextEdit {
                id: body
                objectName: row.isLive ? "liveReplyText" : "messageText"
                Accessible.ignored: !visible
                x: row.isUser ? Theme.spacing : 0
                y: row.isUser ? Theme.spacing / 2 : 0
                width: row.isUser ? row.maxBubbleWidth - 2 * Theme.spacing : column.width
                text: row.text
                textFormat: TextEdit.MarkdownText
                readOnly: true
                selectByMouse: true
                wrapMode: TextEdit.Wrap
                font.pixelSize: Theme.bodySize
                color: Theme.text
                selectionColor: Theme.accent
                Accessible.role: Accessible.StaticText
                Accessible.name: row.text
                onLinkActivated: (link) => Qt.openUrlExternally(link)
                onTextChanged: MarkdownStyle.apply(textDocument)
                Component.onCompleted: MarkdownStyle.apply(textDocument)

                HoverHandler {
                    enabled: body.hoveredLink !== ""
                    cursorShape: Qt.PointingHandCursor
                }
            }
        }

        Button {
            objectName: "metadataButton"
            Accessible.ignored: !visible
            visible: !row.isUser && !row.isLive && row.messageID >= 0
            flat: true
            padding: 2
            text: "What the model saw"
            font.pixelSize: Theme.smallSize
            Accessible.name: text
            onClicked: row.metadataRequested(row.messageID)
        }
    }
}
