pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import QtQuick.Dialogs
import QtQuick.Layouts
import Corvane

// Every model Corvane knows: size, install or remove, which chat and dictation model is in
// use, the running download with Cancel, and installing a file the user already has.
ColumnLayout {
    id: models
    spacing: Theme.spacing / 2

    function sizeText(bytes: real): string {
        return bytes >= 1e9 ? (bytes / 1e9).toFixed(1) + " GB" : Math.round(bytes / 1e6) + " MB"
    }

    function roleText(role: string): string {
        return role === "chat" ? "Chat" : role === "vision" ? "Image support" : "Dictation"
    }

    ButtonGroup { id: chatGroup }
    ButtonGroup { id: dictationGroup }

    Repeater {
        objectName: "modelList"
        model: AppModel.models.modelChoices

        delegate: RowLayout {
            id: entry
            required property var modelData
            readonly property bool selectable: modelData.role !== "vision"
            readonly property bool busy: AppModel.models.busyModelID === modelData.id
            Layout.fillWidth: true
            spacing: Theme.spacing / 2

            RadioButton {
                visible: entry.selectable
                enabled: entry.modelData.installed
                checked: entry.modelData.selected
                ButtonGroup.group: entry.modelData.role === "chat" ? chatGroup : dictationGroup
                Accessible.name: "Use " + entry.modelData.name
                onClicked: {
                    if (entry.modelData.role === "chat")
                        AppModel.settings.selectModel(entry.modelData.id)
                    else
                        AppModel.settings.selectWhisperModel(entry.modelData.id)
                }
            }
            Item {
                visible: !entry.selectable
                implicitWidth: 32
            }
            ColumnLayout {
                Layout.fillWidth: true
                spacing: 0
                Label {
                    Layout.fillWidth: true
                    text: entry.modelData.name
                    elide: Text.ElideRight
                    color: Theme.text
                }
                Label {
                    Layout.fillWidth: true
                    text: models.roleText(entry.modelData.role) + " · " + models.sizeText(entry.modelData.byteCount)
                          + (entry.modelData.installed ? " · installed" : "")
                    font.pixelSize: Theme.smallSize
                    color: Theme.secondaryText
                }
            }
            Button {
                text: entry.modelData.installed ? "Remove" : "Install"
                enabled: !AppModel.isBusy
                Accessible.name: text + " " + entry.modelData.name
                onClicked: {
                    if (entry.modelData.installed)
                        AppModel.models.remove(entry.modelData.id)
                    else
                        AppModel.models.install([entry.modelData.id])
                }
            }
        }
    }

    ColumnLayout {
        objectName: "modelProgress"
        Layout.fillWidth: true
        visible: AppModel.models.busyModelID !== "" && AppModel.models.downloadTotalBytes > 0
        spacing: 2

        ProgressBar {
            Layout.fillWidth: true
            from: 0
            to: Math.max(1, AppModel.models.downloadTotalBytes)
            value: AppModel.models.downloadedBytes
            Accessible.name: "Download progress"
        }
        RowLayout {
            Layout.fillWidth: true
            Label {
                Layout.fillWidth: true
                text: models.sizeText(AppModel.models.downloadedBytes) + " of " + models.sizeText(AppModel.models.downloadTotalBytes)
                      + " (" + Math.floor(100 * AppModel.models.downloadedBytes / Math.max(1, AppModel.models.downloadTotalBytes)) + "%)"
                color: Theme.secondaryText
            }
            Button {
                text: "Cancel"
                Accessible.name: "Cancel download"
                onClicked: AppModel.models.cancelInstall()
            }
        }
    }

    Button {
        text: "Install from file…"
        enabled: !AppModel.isBusy
        Accessible.name: text
        onClicked: fileDialog.open()
    }

    Label {
        objectName: "contextNote"
        Layout.fillWidth: true
        text: "Qwen chat models support 262K tokens natively; Corvane offers up to 64K, because a longer context takes more memory and makes each reply slower to start."
        wrapMode: Text.WordWrap
        font.pixelSize: Theme.smallSize
        color: Theme.secondaryText
        Accessible.role: Accessible.StaticText
        Accessible.name: text
    }

    FileDialog {
        id: fileDialog
        title: "Install a model file"
        nameFilters: ["Model files (*.gguf *.bin)", "All files (*)"]
        onAccepted: AppModel.models.installFromFileUrl(selectedFile)
    }
}
