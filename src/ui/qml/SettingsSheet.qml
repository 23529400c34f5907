pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Corvane

// Settings for everything: the assistant's name and instructions, how replies are generated,
// the downloaded models, locked folders, and erasing all data. Texts are kept when the sheet
// closes.
Dialog {
    id: sheet
    objectName: "settingsSheet"

    // Approximate extra memory of each context size over 4K. Figured for a 2B chat model
    // with an f16 KV cache of about 24 KB per token (keys and values at 2 bytes, a few
    // grouped KV heads): 8K +0.1 GB, 16K +0.3 GB, 32K +0.7 GB, 64K +1.5 GB.
    readonly property var contextChoices: [
        { tokens: 4096, label: "4K", memory: "baseline" },
        { tokens: 8192, label: "8K", memory: "+0.1 GB" },
        { tokens: 16384, label: "16K", memory: "+0.3 GB" },
        { tokens: 32768, label: "32K", memory: "+0.7 GB" },
        { tokens: 65536, label: "64K", memory: "+1.5 GB" }
    ]
    readonly property var responseChoices: [300, 512, 1024, 2048]

    parent: Overlay.overlay
    anchors.centerIn: parent
    width: Math.min(640, (parent ? parent.width : 700) - 2 * Theme.largeSpacing)
    height: (parent ? parent.height : 700) - 2 * Theme.largeSpacing
    modal: true
    // Nothing may be changed, nor the sheet left, while everything is being erased.
    closePolicy: AppModel.isErasing ? Popup.NoAutoClose : Popup.CloseOnEscape | Popup.CloseOnPressOutside
    title: "Settings"
    standardButtons: Dialog.Close

    onOpened: {
        AppModel.speech.loadVoices()
        agentName.text = AppModel.settings.globalAgentName
        globalPrompt.text = AppModel.settings.globalPrompt
    }
    onClosed: {
        if (agentName.text !== AppModel.settings.globalAgentName)
            AppModel.settings.setGlobalAgentName(agentName.text)
        if (globalPrompt.text !== AppModel.settings.globalPrompt)
            AppModel.settings.setGlobalPrompt(globalPrompt.text)
    }

    component Heading: Label {
        Layout.fillWidth: true
        Layout.topMargin: Theme.spacing
        font.pixelSize: Theme.headingSize - 2
        font.bold: true
        color: Theme.text
        Accessible.role: Accessible.Heading
        Accessible.name: text
    }
    component Note: Label {
        Layout.fillWidth: true
        wrapMode: Text.WordWrap
        font.pixelSize: Theme.smallSize
        color: Theme.secondaryText
        Accessible.role: Accessible.StaticText
        Accessible.name: text
    }

    ScrollView {
        id: scroll
        anchors.fill: parent
        // Nothing changes under erasing, nor while a folder's lock is changing.
        enabled: !AppModel.isErasing && !AppModel.locks.isSealing
        contentWidth: availableWidth

        ColumnLayout {
            width: scroll.availableWidth
            spacing: Theme.spacing / 2

            Heading { text: "Assistant name" }
            TextField {
                id: agentName
                objectName: "globalAgentNameField"
                Layout.fillWidth: true
                placeholderText: "Corvane"
                selectByMouse: true
                Accessible.name: "Assistant name"
                onEditingFinished: AppModel.settings.setGlobalAgentName(text)
            }
            Note {
                objectName: "agentNameNote"
                text: "Folders and chats can use their own name. Corvane is used when this is empty."
            }

            Heading { text: "Instructions included in every reply" }
            ScrollView {
                Layout.fillWidth: true
                Layout.preferredHeight: 100
                TextArea {
                    id: globalPrompt
                    objectName: "globalPromptField"
                    wrapMode: TextEdit.Wrap
                    background: Rectangle {
                        color: Theme.surface
                        border.color: Theme.border
                        radius: 4
                    }
                    selectByMouse: true
                    Accessible.name: "Instructions included in every reply"
                }
            }
            Note { text: "Applies to every folder and chat." }

            Heading { text: "Response generation" }
            RowLayout {
                Layout.fillWidth: true
                Label {
                    text: "Temperature"
                    color: Theme.text
                }
                Slider {
                    id: temperature
                    objectName: "temperatureSlider"
                    Layout.fillWidth: true
                    from: 0
                    to: 1.5
                    stepSize: 0.1
                    snapMode: Slider.SnapAlways
                    value: AppModel.settings.temperature
                    Accessible.name: "Temperature"
                    onMoved: AppModel.settings.setTemperature(Math.round(value * 10) / 10)
                }
                Label {
                    text: temperature.value.toFixed(1)
                    color: Theme.secondaryText
                    Accessible.ignored: true
                }
            }
            RowLayout {
                Layout.fillWidth: true
                Label {
                    text: "Maximum response"
                    color: Theme.text
                }
                ComboBox {
                    objectName: "maxResponseChoice"
                    Layout.fillWidth: true
                    model: sheet.responseChoices.map(n => n + " tokens")
                    currentIndex: sheet.responseChoices.indexOf(AppModel.settings.maxResponseTokens)
                    Accessible.name: "Maximum response"
                    onActivated: (i) => {
                        AppModel.settings.setMaxResponseTokens(sheet.responseChoices[i])
                        // Show what the model kept, which follows later changes too.
                        currentIndex = Qt.binding(() => sheet.responseChoices.indexOf(AppModel.settings.maxResponseTokens))
                    }
                }
            }
            RowLayout {
                Layout.fillWidth: true
                Label {
                    text: "Conversation context"
                    color: Theme.text
                }
                ComboBox {
                    objectName: "contextChoice"
                    Layout.fillWidth: true
                    model: sheet.contextChoices.map(c => c.label + " tokens (" + c.memory + ")")
                    currentIndex: sheet.contextChoices.findIndex(c => c.tokens === AppModel.settings.contextTokens)
                    Accessible.name: "Conversation context"
                    onActivated: (i) => {
                        // Refused while a reply is being generated: the box then shows the
                        // size still in use.
                        AppModel.settings.setContextTokens(sheet.contextChoices[i].tokens)
                        currentIndex = Qt.binding(() => sheet.contextChoices.findIndex(c => c.tokens === AppModel.settings.contextTokens))
                    }
                }
            }
            Note {
                objectName: "generationNote"
                text: "Lower temperature is more predictable; higher is more varied. RAM figures are approximate extra memory compared with 4K, and longer context is slower to read. When a chat outgrows its context, older messages are summarized in the background and the full chat stays visible. The maximum response is a limit, not a target."
            }

            RowLayout {
                Layout.fillWidth: true
                Label {
                    text: "Run replies on"
                    color: Theme.text
                }
                ComboBox {
                    objectName: "deviceChoice"
                    Layout.fillWidth: true
                    readonly property var entries: AppModel.compute.choices
                    model: entries.map(c => c.label)
                    currentIndex: entries.findIndex(c => c.id === AppModel.compute.preference)
                    Accessible.name: "Run replies on"
                    onActivated: (i) => {
                        AppModel.compute.setPreference(entries[i].id)
                        currentIndex = Qt.binding(() => entries.findIndex(c => c.id === AppModel.compute.preference))
                    }
                }
            }
            Note {
                objectName: "deviceNote"
                text: AppModel.compute.runsOn === ""
                      ? "Looking for a graphics card…"
                      : "Replies run on " + AppModel.compute.runsOn + ". Automatic picks the fastest graphics card and leaves some of its memory free for the desktop; a model that does not start on it runs on the CPU until you choose again."
            }

            Heading { text: "Downloaded models" }
            ModelSettings {
                Layout.fillWidth: true
            }

            Heading { text: "Voice" }
            RowLayout {
                Layout.fillWidth: true
                Label {
                    text: "Spoken replies"
                    color: Theme.text
                }
                ComboBox {
                    id: voiceChoice
                    objectName: "voiceChoice"
                    Layout.fillWidth: true
                    // The system's default first, then every installed voice by language.
                    readonly property var entries: [{ id: "", name: "System default", language: "" }].concat(AppModel.speech.voices)
                    model: entries.map(v => v.language === "" ? v.name : v.name + " (" + v.language + ")")
                    currentIndex: Math.max(0, entries.findIndex(v => v.id === AppModel.settings.selectedVoiceID))
                    Accessible.name: "Voice for spoken replies"
                    onActivated: (i) => {
                        AppModel.speech.selectVoice(entries[i].id)
                        currentIndex = Qt.binding(() => Math.max(0, entries.findIndex(v => v.id === AppModel.settings.selectedVoiceID)))
                    }
                }
            }
            Note {
                text: "Chats with Auto play on speak each completed reply with this voice."
            }

            Heading { text: "Appearance" }
            RowLayout {
                Layout.fillWidth: true
                Label {
                    text: "Colours"
                    color: Theme.text
                }
                ComboBox {
                    objectName: "appearanceChoice"
                    Layout.fillWidth: true
                    readonly property var choices: ["system", "light", "dark"]
                    model: ["Same as the system", "Light", "Dark"]
                    currentIndex: choices.indexOf(AppModel.appearance.choice)
                    Accessible.name: "Colours"
                    onActivated: (i) => {
                        AppModel.appearance.choice = choices[i]
                        currentIndex = Qt.binding(() => choices.indexOf(AppModel.appearance.choice))
                    }
                }
            }

            Heading { text: "Locked folders" }
            LockSettings {
                objectName: "lockSettings"
                Layout.fillWidth: true
            }

            Heading { text: "Erase all Corvane data" }
            Note { text: "Removes chats, folders, scripts, prompts, settings, and downloaded models." }
            Button {
                objectName: "eraseButton"
                text: "Erase all Corvane data…"
                enabled: !AppModel.isBusy
                palette.buttonText: Theme.error
                Accessible.name: "Erase all Corvane data"
                onClicked: eraseDialog.open()
            }
        }
    }

    ConfirmDialog {
        id: eraseDialog
        objectName: "eraseDialog"
        title: "Erase all Corvane data?"
        text: "This permanently deletes all chats, folders, scripts, prompts, settings, and downloaded models from this computer. You will need to download models again."
        acceptText: "Erase"
        onAccepted: AppModel.eraseAllData()
    }

    Binding {
        target: sheet.footer
        property: "enabled"
        value: !AppModel.isErasing
    }

    Connections {
        target: AppModel
        function onErasingFinished(erased) {
            if (!erased)
                return
            // The fields still hold what was erased; closing must not store it again.
            agentName.text = AppModel.settings.globalAgentName
            globalPrompt.text = AppModel.settings.globalPrompt
            sheet.close()
        }
    }
}
