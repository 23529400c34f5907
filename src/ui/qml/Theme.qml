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

    readonly property int spacing: 12
    readonly property int largeSpacing: 24
    readonly property int titleSize: 28
    readonly property int bodySize: 15
    readonly property int contentWidth: 560
}
