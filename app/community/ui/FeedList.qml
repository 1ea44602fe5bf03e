// A server-backed list on a BaseTableView model: pull down past the top to
// reload; the next page comes when the last row comes into the view (the
// model's fetchMore), the footer's text below. While a reload runs a bar at
// the top says so, and a load with a progress text shows it in the progress
// display until it ends; a load that could not reach the server leaves its
// text in the footer, and a tap there asks again.
import QtQuick
import QtQuick.Controls
import Rongdian

ListView {
    id: list
    property var table: null
    model: table
    clip: true
    boundsBehavior: Flickable.DragOverBounds
    flickableDirection: Flickable.VerticalFlick // a pull also when nothing is shown
    property bool pulling: false
    // What a tap on the footer of a failed load does.
    property var retry: function () {
        table.retry()
    }

    // A reload's rows show page 1 from its top. A header that comes while the
    // rows are at their top shows above them.
    Connections {
        target: list.table
        function onRowsReplaced() {
            if (!list.atYBeginning)
                list.positionViewAtBeginning()
        }
        // The progress text of a load stays up until the load ends; a message
        // shown meanwhile (an error, a success) stays its time.
        function onLoadingChanged() {
            if (!list.table.loading)
                Hud.dismissWaiting()
            else if (list.table.loadingText.length > 0)
                Hud.showWithStatus(list.table.loadingText)
        }
    }
    onHeaderItemChanged: if (headerItem && contentY <= 0)
                             positionViewAtBeginning()

    onContentYChanged: {
        if (dragging && contentY < originY - 60)
            pulling = true
    }
    onDraggingChanged: {
        if (!dragging && pulling && table) {
            pulling = false
            table.refreshTriggered()
        }
    }
    Label {
        // In the list's content: just above the first row.
        parent: list.contentItem
        y: list.originY - height - 6
        x: (list.width - width) / 2
        visible: list.contentY < list.originY - 10
        text: list.pulling ? "松开刷新" : "下拉刷新"
        color: "#888888"
        font.pixelSize: 12
    }
    Rectangle {
        // Over the list, at its top.
        objectName: "refreshIndicator"
        width: list.width
        height: 32
        z: 2
        visible: list.table !== null && list.table.reloading
        color: "#fafafa"
        Rectangle {
            anchors.bottom: parent.bottom
            width: parent.width
            height: 1
            color: "#eeeeee"
        }
        Row {
            anchors.centerIn: parent
            spacing: 6
            BusyIndicator {
                running: parent.parent.visible
                width: 20
                height: 20
            }
            Label {
                anchors.verticalCenter: parent.verticalCenter
                text: "加载中..."
                color: "#888888"
                font.pixelSize: 13
            }
        }
    }
    footer: Item {
        id: footerView
        objectName: "footerView"
        readonly property bool failed: list.table !== null && list.table.loadFailed
        // A failed load with nothing above it fills the view.
        readonly property bool alone: failed && list.count === 0
        width: list.width
        height: alone ? Math.max(list.height - (list.headerItem ? list.headerItem.height : 0), 200)
                      : footerColumn.height + 24
        visible: list.table !== null && list.table.footerText.length > 0
        MouseArea {
            anchors.fill: parent
            enabled: footerView.failed
            onClicked: list.retry()
        }
        Column {
            id: footerColumn
            anchors.centerIn: parent
            spacing: 10
            Image {
                anchors.horizontalCenter: parent.horizontalCenter
                visible: footerView.alone
                source: "qrc:/pictures/location.png"
                width: 96
                height: 120
            }
            Row {
                anchors.horizontalCenter: parent.horizontalCenter
                spacing: 6
                BusyIndicator {
                    running: list.table !== null && list.table.footerSpinning
                    visible: running
                    width: 20
                    height: 20
                }
                Label {
                    objectName: "footerLabel"
                    anchors.verticalCenter: parent.verticalCenter
                    text: list.table ? list.table.footerText : ""
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
}
