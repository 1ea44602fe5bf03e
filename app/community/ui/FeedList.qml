// A server-backed list on a BaseTableView model: pull down past the top to
// reload (a bar says "加载中..." while that runs); drag past the bottom for the
// next page, the footer's text below. A load with a progress text shows it in
// the progress display until it ends; a load that could not reach the server
// leaves its text in the footer, and a tap there asks again.
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
    // A tap on the footer of a failed load asks the list again; a screen
    // that does more sets ownRetry and answers retryTapped.
    property bool ownRetry: false
    signal retryTapped
    // The record a header shows, and what a row (or the header) asks for: to
    // open its item or its poster's photos.
    property var headerRecord: null
    signal rowTapped(var item)
    signal rowHeadTapped(var item)

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
                ProgressHud.dismissWaiting()
            else if (list.table.loadingText.length > 0)
                ProgressHud.showWithStatus(list.table.loadingText)
        }
    }
    onHeaderItemChanged: if (headerItem && contentY <= 0)
                             positionViewAtBeginning()

    onContentYChanged: {
        if (dragging && contentY < originY - 60)
            pulling = true
        // Every scroll towards the end tells the list (its load-more trigger).
        if (table && contentY > originY)
            table.tableViewDidScroll(contentHeight, height, contentY - originY)
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
        // Over the list, at its top, while the pull-to-refresh control runs.
        objectName: "refreshIndicator"
        width: list.width
        height: 32
        z: 2
        visible: list.table !== null && list.table.refreshControlRefreshing
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
    footer: FeedFooter {}
    // A tap on the footer of a failed load.
    Connections {
        target: list.footerItem as FeedFooter
        function onTapped() {
            if (list.ownRetry)
                list.retryTapped()
            else if (list.table)
                list.table.retry()
        }
    }
}
