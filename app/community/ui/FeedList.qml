// A server-backed list on a BaseTableView model: pull down past the top to
// reload, scroll past the bottom for the next page, the footer's text below.
import QtQuick
import QtQuick.Controls
import Rongdian

ListView {
    id: list
    property var table: null
    model: table
    clip: true
    boundsBehavior: Flickable.DragOverBounds
    property bool pulling: false

    onContentYChanged: {
        if (!table)
            return
        if (dragging && contentY < originY - 60)
            pulling = true
        table.tableViewDidScroll(contentHeight, height, contentY - originY, pulling)
    }
    onDraggingChanged: {
        if (!dragging && pulling && table) {
            pulling = false
            table.refreshTriggered()
        }
    }
    Label {
        // In the list's content: just above the first row.
        y: list.originY - height - 6
        x: (list.width - width) / 2
        visible: list.contentY < list.originY - 10
        text: list.pulling ? "松开刷新" : "下拉刷新"
        color: "#888888"
        font.pixelSize: 12
    }
    footer: Item {
        width: list.width
        height: 44
        visible: list.table !== null && list.table.footerText.length > 0
        Row {
            anchors.centerIn: parent
            spacing: 6
            BusyIndicator {
                running: list.table !== null && list.table.footerSpinning
                visible: running
                width: 20
                height: 20
            }
            Label {
                objectName: "footerLabel"
                text: list.table ? list.table.footerText : ""
                color: "#888888"
                font.pixelSize: 13
            }
        }
    }
}
