pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import QtQuick.Dialogs
import QtQuick.Layouts
import Corvane

// Shown while no chat model is installed: what Corvane is, and the chat models to download
// first, with progress while one downloads.
Item {
    id: screen

    /// The user chose to look around without a model.
    signal skipped()

    Accessible.role: Accessible.Pane
    Accessible.name: title.text

    function sizeText(bytes: real): string {
        return bytes >= 1e9 ? (bytes / 1e9).toFixed(1) + " GB" : Math.round(bytes / 1e6) + " MB"
    }

    ScrollView {
        anchors.fill: parent
        contentWidth: availableWidth

        ColumnLayout {
            width: Math.min(parent.width - 2 * Theme.largeSpacing, Theme.contentWidth)
            x: (parent.width - width) / 2
            spacing: Theme.spacing

            Item { Layout.preferredHeight: Theme.largeSpacing * 2 }

            Label {
                id: title
                objectName: "firstRunTitle"
                Layout.fillWidth: true
                text: "Welcome to Corvane"
                font.pixelSize: Theme.titleSize
                font.bold: true
                color: Theme.text
                horizontalAlignment: Text.AlignHCenter
                Accessible.role: Accessible.Heading
                Accessible.name: text
            }

            Label {
                objectName: "firstRunIntro"
                Layout.fillWidth: true
                text: "Corvane runs entirely on your computer, so your chats stay private. Download a chat model to get started. After that, everything works offline."
                wrapMode: Text.WordWrap
                font.pixelSize: Theme.bodySize
                color: Theme.text
                horizontalAlignment: Text.AlignHCenter
                Accessible.role: Accessible.StaticText
                Accessible.name: text
            }

            Label {
                objectName: "firstRunModels"
                Layout.fillWidth: true
                text: "Smaller chat models reply faster; larger ones write better but need more memory. Each chat model can also read images. Dictation turns your voice into text. You can change models later in Settings."
                wrapMode: Text.WordWrap
                font.pixelSize: Theme.bodySize
                color: Theme.secondaryText
                horizontalAlignment: Text.AlignHCenter
                Accessible.role: Accessible.StaticText
                Accessible.name: text
            }

            Repeater {
                id: choices
                objectName: "firstRunModelList"
                model: AppModel.models.chatModelChoices

                delegate: RowLayout {
                    id: row
                    required property var modelData
                    Layout.fillWidth: true
                    spacing: Theme.spacing

                    Label {
                        Layout.fillWidth: true
                        text: row.modelData.name
                        font.pixelSize: Theme.bodySize
                        color: Theme.text
                        elide: Text.ElideRight
                    }
                    Label {
                        text: screen.sizeText(row.modelData.byteCount)
                        color: Theme.secondaryText
                    }
                    Button {
                        text: "Download"
                        enabled: !AppModel.isBusy && !row.modelData.installed
                        Accessible.name: "Download " + row.modelData.name
                        onClicked: AppModel.models.install([row.modelData.id])
                    }
                }
            }

            ColumnLayout {
                objectName: "firstRunProgress"
                Layout.fillWidth: true
                visible: AppModel.models.busyModelID !== ""
                spacing: Theme.spacing / 2

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
                        text: screen.sizeText(AppModel.models.downloadedBytes) + " of "
                              + screen.sizeText(AppModel.models.downloadTotalBytes) + " ("
                              + Math.floor(100 * AppModel.models.downloadedBytes / Math.max(1, AppModel.models.downloadTotalBytes)) + "%)"
                        color: Theme.secondaryText
                    }
                    Button {
                        text: "Cancel"
                        Accessible.name: "Cancel download"
                        onClicked: AppModel.models.cancelInstall()
                    }
                }
            }

            Label {
                objectName: "firstRunStatus"
                Layout.fillWidth: true
                visible: text !== ""
                text: AppModel.status.text
                wrapMode: Text.WordWrap
                color: AppModel.status.isError ? Theme.error : Theme.secondaryText
                horizontalAlignment: Text.AlignHCenter
                Accessible.role: AppModel.status.isError ? Accessible.AlertMessage : Accessible.StaticText
                Accessible.name: text
            }

            RowLayout {
                Layout.alignment: Qt.AlignHCenter
                spacing: Theme.spacing

                Button {
                    text: "Install from file…"
                    enabled: !AppModel.isBusy
                    Accessible.name: text
                    onClicked: fileDialog.open()
                }
                Button {
                    objectName: "firstRunSkip"
                    text: "Skip for now"
                    flat: true
                    Accessible.name: text
                    onClicked: screen.skipped()
                }
            }
        }
    }

    FileDialog {
        id: fileDialog
        title: "Install a model file"
        nameFilters: ["Model files (*.gguf *.bin)", "All files (*)"]
        onAccepted: AppModel.models.installFromFileUrl(selectedFile)
    }
}
