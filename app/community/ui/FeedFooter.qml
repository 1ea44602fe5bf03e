// The footer of a FeedList: the list's footer text, with a spinner while a
// page loads. After a load that could not reach the server it shows the
// network text, filling the view when nothing is above it, and a tap on it is
// `tapped`.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls

Item {
    id: footerView
    objectName: "footerView"
    readonly property ListView list: ListView.view as ListView
    readonly property var table: list ? list.model : null
    readonly property bool failed: table !== null && table.loadFailed
    // A failed load with nothing above it fills the view.
    readonly property bool alone: failed && list.count === 0
    signal tapped

    // What the view shows below its header (an item page's photo and text).
    readonly property real room: list ? list.height - (list.headerItem ? list.headerItem.height : 0) : 0

    width: list ? list.width : 0
    // Alone, it fills the room left and its texts stay in view: the picture
    // goes when the room is short.
    height: alone ? Math.max(room, footerColumn.height + 24) : footerColumn.height + 24
    visible: table !== null && table.footerText.length > 0
    MouseArea {
        anchors.fill: parent
        enabled: footerView.failed
        onClicked: footerView.tapped()
    }
    Column {
        id: footerColumn
        anchors.centerIn: parent
        spacing: 10
        Image {
            anchors.horizontalCenter: parent.horizontalCenter
            visible: footerView.alone && footerView.room >= 220
            source: "qrc:/pictures/location.png"
            width: 96
            height: 120
        }
        Row {
            anchors.horizontalCenter: parent.horizontalCenter
            spacing: 6
            BusyIndicator {
                running: footerView.table !== null && footerView.table.footerSpinning
                visible: running
                width: 20
                height: 20
            }
            Label {
                objectName: "footerLabel"
                anchors.verticalCenter: parent.verticalCenter
                text: footerView.table ? footerView.table.footerText : ""
                color: "#888888"
                font.pixelSize: 13
            }
        }
        Label {
            anchors.horizontalCenter: parent.horizontalCenter
            visible: footerView.failed
            text: "轻点这里或下拉，再试一次"
            color: "#aaaaaa"
            font.pixelSize: 12
        }
    }
}
