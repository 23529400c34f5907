import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// Where the user writes: Enter sends, Shift+Enter starts a new line. The send button turns
// into Stop while a reply is being written.
Rectangle {
    id: composer

    // Nothing is sent while a folder's chats are being encrypted or decrypted.
    readonly property bool canSend: AppModel.chat.canSend && !AppModel.locks.isSealing

    function focusInput() {
        input.forceActiveFocus()
    }

    implicitHeight: layout.implicitHeight + Theme.spacing * 2
    color: Theme.window

    RowLayout {
        id: layout
        anchors.fill: parent
        anchors.margins: Theme.spacing
        spacing: Theme.spacing / 2

        ScrollView {
            Layout.fillWidth: true
            Layout.preferredHeight: Math.min(Math.max(input.implicitHeight, 40), 160)

            TextArea {
                id: input
                objectName: "composerInput"
                text: AppModel.chat.composer
                placeholderText: "Message " + AppModel.chat.agentName
                wrapMode: TextEdit.Wrap
                font.pixelSize: Theme.bodySize
                selectByMouse: true
                Accessible.role: Accessible.EditableText
                Accessible.name: "Message"
                background: Rectangle {
                    color: Theme.surface
                    border.color: input.activeFocus ? Theme.accent : Theme.border
                    radius: 8
                }
                onTextChanged: {
                    if (text !== AppModel.chat.composer)
                        AppModel.chat.composer = text
                }

                function handleEnter(event: var) {
                    // Shift+Enter falls through to the text area, which adds a line break.
                    if (event.modifiers & Qt.ShiftModifier) {
                        event.accepted = false
                        return
                    }
                    event.accepted = true
                    if (composer.canSend)
                        AppModel.chat.send()
                }
                Keys.onReturnPressed: (event) => handleEnter(event)
                Keys.onEnterPressed: (event) => handleEnter(event)
            }
        }

        Button {
            objectName: "sendButton"
            Layout.alignment: Qt.AlignBottom
            text: AppModel.chat.isGenerating ? "Stop" : "Send"
            enabled: AppModel.chat.isGenerating || composer.canSend
            highlighted: !AppModel.chat.isGenerating
            Accessible.name: AppModel.chat.isGenerating ? "Stop reply" : "Send message"
            onClicked: {
                if (AppModel.chat.isGenerating)
                    AppModel.chat.stopReply()
                else
                    AppModel.chat.send()
            }
        }
    }
}
