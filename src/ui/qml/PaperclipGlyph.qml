import QtQuick
import QtQuick.Shapes
import Corvane

// A paper clip drawn as one wire, so that it shows whatever fonts are installed.
Item {
    id: glyph

    property color color: Theme.text

    implicitWidth: 12
    implicitHeight: 16

    Shape {
        // Drawn upright in a 16 × 24 box, then leaned like a clip on a page.
        width: 16
        height: 24
        anchors.centerIn: parent
        scale: 0.62
        rotation: 35
        antialiasing: true

        ShapePath {
            strokeColor: glyph.color
            strokeWidth: 2.2
            fillColor: "transparent"
            capStyle: ShapePath.RoundCap
            PathSvg {
                path: "M 6 6 V 16 A 2 2 0 0 0 10 16 V 5 A 4 4 0 0 0 2 5 V 17 A 6 6 0 0 0 14 17 V 9"
            }
        }
    }
}
