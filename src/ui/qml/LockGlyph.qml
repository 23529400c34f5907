import QtQuick
import Corvane

// A padlock drawn from shapes, so that it shows whatever fonts are installed. Open, the
// shackle is lifted and swung aside with one leg free.
Item {
    id: glyph

    property bool open: false
    property color color: Theme.secondaryText

    implicitWidth: 15
    implicitHeight: 14

    // The shackle: the top of a ring, cut off where its legs enter the body.
    Item {
        x: glyph.open ? 6 : 2
        y: glyph.open ? -2 : 0
        width: 8
        height: 7 - y
        clip: true

        Rectangle {
            width: 8
            height: 14
            radius: 4
            color: "transparent"
            border.color: glyph.color
            border.width: 1.5
        }
    }
    Rectangle {
        y: 6
        width: 12
        height: 8
        radius: 2
        color: glyph.color
    }
}
