// A like or dislike button: green with a white title once tapped.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls

Button {
    id: b
    property bool liked: false
    flat: true
    font.pixelSize: 12
    padding: 4
    contentItem: Label {
        text: b.text
        font: b.font
        color: b.liked ? "white" : "#4dc47a"
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
    }
    background: Rectangle {
        radius: 3
        border.color: "#4dc47a"
        color: b.liked ? Qt.rgba(77 / 255, 196 / 255, 122 / 255, 1) : "white"
    }
}
