// The comment picker of the sharing screen.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

BaseViewController {
    id: screen
    objectName: "SelectCommentViewController"
    property var itemInfo: ({})
    property var sharVC: null
    title: "选择评论"

    function didSelectCommentTableView(c) {
        if (sharVC)
            sharVC.updataCommenView(c)
        AppDelegate.popScreen()
    }

    SelectCommentTableView {
        id: table
        itemID: screen.itemInfo.itemId || ""
    }
    FeedList {
        id: list
        objectName: "selectCommentTableView"
        anchors.fill: parent
        table: table
        delegate: Rectangle {
            id: row
            required property int index
            required property var userlikename
            required property var commentmessage
            width: list.width
            height: 52
            objectName: "selectCommentRow" + index
            MouseArea {
                anchors.fill: parent
                onClicked: screen.didSelectCommentTableView(table.get(row.index))
            }
            NameBadge {
                x: 10
                y: 10
                name: row.userlikename || ""
            }
            Label {
                x: 48
                y: 16
                width: parent.width - 58
                elide: Text.ElideRight
                text: row.commentmessage || ""
                font.pixelSize: 14
            }
            Rectangle {
                anchors.bottom: parent.bottom
                width: parent.width
                height: 1
                color: "#eeeeee"
            }
        }
    }
    Component.onCompleted: table.refreshData()
}
