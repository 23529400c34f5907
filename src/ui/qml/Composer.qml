import QtQuick
import QtQuick.Controls
import QtQuick.Dialogs
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

    ColumnLayout {
        id: layout
        anchors.fill: parent
        anchors.margins: Theme.spacing
        spacing: Theme.spacing / 2

        // Editing the user's last message: sending resends it, and its reply is written again.
        RowLayout {
            objectName: "editingBar"
            visible: AppModel.chat.editingMessageID >= 0
            spacing: Theme.spacing / 2

            Label {
                Layout.fillWidth: true
                text: "Editing your last message. Its reply will be written again."
                font.pixelSize: Theme.smallSize
                color: Theme.secondaryText
                Accessible.role: Accessible.StaticText
                Accessible.name: text
                Accessible.ignored: !parent.visible
            }
            Button {
                objectName: "cancelEditingButton"
                Accessible.ignored: !visible
                text: "Cancel"
                flat: true
                font.pixelSize: Theme.smallSize
                Accessible.name: "Cancel editing"
                onClicked: {
                    AppModel.chat.cancelEditing()
                    input.forceActiveFocus()
                }
            }
        }

        // The image waiting to go with the next message.
        RowLayout {
            visible: AppModel.images.pendingImage !== "" || AppModel.images.isImporting
            spacing: Theme.spacing / 2

            Image {
                objectName: "pendingImage"
                Accessible.ignored: !visible
                Layout.preferredWidth: 72
                Layout.preferredHeight: 72
                sourceSize: Qt.size(144, 144)
                source: AppModel.images.pendingImage !== "" ? "image://stored/" + AppModel.images.pendingImage : ""
                fillMode: Image.PreserveAspectFit
                cache: false
                Accessible.role: Accessible.Graphic
                Accessible.name: "Image to send"
            }
            BusyIndicator {
                visible: AppModel.images.isImporting
                running: visible
                Accessible.name: "Reading the image"
                Accessible.ignored: !visible
            }
            Button {
                objectName: "removePendingImage"
                Accessible.ignored: !visible
                visible: AppModel.images.pendingImage !== ""
                text: "Remove"
                flat: true
                Accessible.name: "Remove the image"
                onClicked: AppModel.images.removePendingImage()
            }
        }

        RowLayout {
            Layout.fillWidth: true
            spacing: Theme.spacing / 2

            Button {
                objectName: "attachImageButton"
                Accessible.ignored: !visible
                Layout.alignment: Qt.AlignBottom
                text: "Image…"
                flat: true
                leftPadding: Theme.spacing + clip.width
                PaperclipGlyph {
                    id: clip
                    anchors.left: parent.left
                    anchors.leftMargin: Theme.spacing / 2
                    anchors.verticalCenter: parent.verticalCenter
                    color: parent.enabled ? Theme.text : Theme.secondaryText
                }
                ToolTip.visible: hovered
                ToolTip.text: AppModel.models.hasImageSupport ? "Attach an image" : "Install image support in Settings to attach images"
                Accessible.name: "Attach an image"
                Accessible.description: AppModel.models.hasImageSupport ? "" : ToolTip.text
                // Without image support the banner says what to install.
                onClicked: AppModel.models.hasImageSupport ? imagePicker.open() : AppModel.images.attachImage("")
            }

            ScrollView {
                id: inputScroller
                Accessible.ignored: !visible
                Layout.fillWidth: true
                Layout.preferredHeight: Math.min(Math.max(input.implicitHeight, 40), 160)
                ScrollBar.vertical: ScrollBar {
                    parent: inputScroller
                    x: inputScroller.width - width
                    height: inputScroller.availableHeight
                    active: inputScroller.ScrollBar.horizontal.active
                    Accessible.ignored: !visible
                }
                ScrollBar.horizontal: ScrollBar {
                    parent: inputScroller
                    y: inputScroller.height - height
                    width: inputScroller.availableWidth
                    active: inputScroller.ScrollBar.vertical.active
                    Accessible.ignored: !visible
                }

                TextArea {
                    id: input
                    objectName: "composerInput"
                    Accessible.ignored: !visible
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
                    // A picture on the clipboard is attached instead of pasted as text.
                    Keys.onPressed: (event) => {
                        event.accepted = event.matches(StandardKey.Paste) && AppModel.images.pasteImage()
                    }
                    // Up in an empty composer edits the last message; Escape leaves the edit.
                    Keys.onUpPressed: (event) => {
                        event.accepted = text === "" && AppModel.chat.editableMessageID >= 0 && !AppModel.chat.isGenerating
                        if (event.accepted)
                            AppModel.chat.startEditing()
                    }
                    Keys.onEscapePressed: (event) => {
                        event.accepted = AppModel.chat.editingMessageID >= 0
                        if (event.accepted)
                            AppModel.chat.cancelEditing()
                    }
                    Keys.onReturnPressed: (event) => handleEnter(event)
                    Keys.onEnterPressed: (event) => handleEnter(event)
                }
            }

            Button {
                objectName: "microphoneButton"
                Accessible.ignored: !visible
                Layout.alignment: Qt.AlignBottom
                readonly property bool recording: AppModel.speech.isRecording
                text: recording ? "Stop " + Math.floor(AppModel.speech.recordedSeconds / 60) + ":"
                                  + String(AppModel.speech.recordedSeconds % 60).padStart(2, "0")
                                : AppModel.speech.isTranscribing ? "Transcribing…" : "Dictate"
                flat: !recording
                enabled: !AppModel.speech.isTranscribing && !AppModel.chat.isGenerating
                ToolTip.visible: hovered
                ToolTip.text: recording ? "Stop and transcribe (Ctrl+Shift+D)" : "Dictate a message (Ctrl+Shift+D)"
                Accessible.name: recording ? "Stop dictation" : "Dictate"
                onClicked: AppModel.speech.toggleRecording()

                // How loud the microphone hears the user, under the button while recording.
                Rectangle {
                    visible: parent.recording
                    anchors.bottom: parent.bottom
                    anchors.left: parent.left
                    height: 3
                    width: parent.width * AppModel.speech.level
                    color: Theme.accent
                    Accessible.ignored: true
                }
            }

            Button {
                objectName: "stopSpeakingButton"
                Accessible.ignored: !visible
                Layout.alignment: Qt.AlignBottom
                visible: AppModel.speech.isSpeaking
                text: "Stop speaking"
                flat: true
                ToolTip.visible: hovered
                ToolTip.text: "Stop reading the reply aloud (Escape)"
                Accessible.name: "Stop speaking"
                onClicked: AppModel.speech.stopSpeaking()
            }

            Button {
                objectName: "sendButton"
                Accessible.ignored: !visible
                Layout.alignment: Qt.AlignBottom
                readonly property bool editing: AppModel.chat.editingMessageID >= 0
                text: AppModel.chat.isGenerating ? "Stop" : editing ? "Resend" : "Send"
                enabled: AppModel.chat.isGenerating || composer.canSend
                highlighted: !AppModel.chat.isGenerating
                Accessible.name: AppModel.chat.isGenerating ? "Stop reply" : editing ? "Resend edited message" : "Send message"
                onClicked: {
                    if (AppModel.chat.isGenerating)
                        AppModel.chat.stopReply()
                    else
                        AppModel.chat.send()
                }
            }
        }
    }

    Shortcut {
        sequence: "Ctrl+Shift+D"
        enabled: !AppModel.speech.isTranscribing && !AppModel.chat.isGenerating
        onActivated: AppModel.speech.toggleRecording()
    }

    FileDialog {
        id: imagePicker
        title: "Attach an image"
        nameFilters: ["Images (*.png *.jpg *.jpeg *.gif *.bmp *.webp *.tif *.tiff *.heic)", "All files (*)"]
        onAccepted: AppModel.images.attachImage(selectedFile.toString())
    }
}
