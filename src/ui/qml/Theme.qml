pragma Singleton
import QtQuick

// Colours, sizes and spacing shared by every view.
QtObject {
    readonly property color window: "#f7f6f3"
    readonly property color surface: "#ffffff"
    readonly property color text: "#1f1f1f"
    readonly property color secondaryText: "#5c5c5c"
    readonly property color accent: "#2f6feb"
    readonly property color error: "#b3261e"
    readonly property color errorBackground: "#fbe9e7"
    readonly property color sidebar: "#efede8"
    readonly property color border: "#dcdad4"
    readonly property color selection: "#d6e2fb"
    readonly property color folderSelection: "#e4e2dc"
    readonly property color userBubble: "#e3ebfb"
    readonly property color found: "#fdf0b8"
    readonly property color codeBackground: "#f1efea"

    readonly property string monospace: "monospace"

    readonly property int spacing: 12
    readonly property int largeSpacing: 24
    readonly property int titleSize: 28
    readonly property int bodySize: 15
    readonly property int smallSize: 13
    readonly property int headingSize: 20
    readonly property int indent: 16
    readonly property int sidebarWidth: 260
    readonly property int contentWidth: 560
}
