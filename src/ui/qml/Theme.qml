pragma Singleton
import QtQuick

// Colours, sizes and spacing shared by every view. Every colour has a light and a dark form;
// which one shows follows the appearance the user chose or the desktop's scheme.
QtObject {
    /// Set by the main window from the application's appearance.
    property bool dark: false

    readonly property color window: dark ? "#1e1f22" : "#f7f6f3"
    readonly property color surface: dark ? "#2a2b2f" : "#ffffff"
    readonly property color text: dark ? "#e6e4df" : "#1f1f1f"
    readonly property color secondaryText: dark ? "#b3b1ab" : "#5c5c5c"
    readonly property color accent: dark ? "#8ab4ff" : "#1f58c9"
    readonly property color error: dark ? "#ff8a80" : "#b3261e"
    readonly property color errorBackground: dark ? "#3b1f1d" : "#fbe9e7"
    readonly property color sidebar: dark ? "#25262a" : "#efede8"
    readonly property color border: dark ? "#3a3b40" : "#dcdad4"
    readonly property color selection: dark ? "#2c3e63" : "#d6e2fb"
    readonly property color folderSelection: dark ? "#34353a" : "#e4e2dc"
    /// A sidebar row under the pointer: a shade off the sidebar, fainter than a selection.
    readonly property color hover: dark ? "#2e2f34" : "#e6e4df"
    readonly property color userBubble: dark ? "#263452" : "#e3ebfb"
    readonly property color found: dark ? "#4a3d0f" : "#fdf0b8"
    readonly property color codeBackground: dark ? "#2b2c30" : "#f1efea"

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
