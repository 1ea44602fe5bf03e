// The round badge with the first character of a name ("未" when empty).
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

Rectangle {
    property string name: ""
    property alias label: badgeText
    width: 30
    height: 30
    radius: 15
    color: "#4dc47a"
    Label {
        id: badgeText
        anchors.centerIn: parent
        text: FeedRows.nameBadge(parent.name)
        color: "white"
        font.pixelSize: 15
    }
}
