// A user's published photos; the user's own (opened from the settings) can
// be deleted. Opening this screen counts as having seen the news.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

BaseViewController {
    id: screen
    objectName: "MyFaceViewController"
    property string userName: ""
    property string userLikeName: ""
    property string itemId: ""
    property string jumpType: ""
    property bool editState: true
    property bool editing: false
    property alias myFaceTableView: table
    title: userLikeName.length > 0 ? userLikeName : "容点"
    rightText: jumpType === "set" ? (editing ? "完成" : "删除") : ""
    onRightClicked: rightbtnAction()

    function rightbtnAction() { editing = !editing }
    function didSelectItem(item) {
        if (Number(item.like || 0) === 0 && Number(item.unlike || 0) === 0) {
            ProgressHud.showErrorWithStatus("有赞才能查看哦")
            return
        }
        AppDelegate.pushScreen("CommentViewController", {
                           "itemInfo": item
                       })
    }
    // A deleted photo leaves every list through "itemDleteSucceed"; one
    // removal at a time.
    property string deleting: ""
    function deleteRow(row) {
        if (deleting.length > 0)
            return
        deleting = FeedRows.toMap(table.get(row)).itemId
        ItemActions.deleteItem(deleting)
    }

    MyFaceTableView {
        id: table
        userName: screen.userName
        itemId: screen.itemId
    }
    // The row goes where it stands: the rows and pages around it stay.
    Connections {
        target: Notices
        function onItemDleteSucceed(itemId) { table.removeRecords("itemId", itemId) }
    }
    Connections {
        target: ItemActions
        function onDeleteAnswered(itemId, ok) {
            if (itemId === screen.deleting)
                screen.deleting = ""
        }
    }
    Connections {
        target: ItemActions
        function onItemChanged(changed) { table.updateRecords("itemId", changed) }
    }
    FeedList {
        id: list
        objectName: "myFaceTableView"
        anchors.fill: parent
        table: table
        delegate: Item {
            id: row
            required property int index
            required property var modelData
            width: list.width
            height: cell.height
            ShowCell {
                id: cell
                width: parent.width - (deleteButton.visible ? 70 : 0)
                item: FeedRows.toMap(row.modelData)
                onTapped: screen.didSelectItem(item)
                onHeadTapped: screen.didSelectItem(item)
            }
            Button {
                id: deleteButton
                objectName: "deleteButton" + row.index
                // The delete style only while editState is false (the user's own list).
                visible: !screen.editState && screen.editing
                anchors.right: parent.right
                width: 70
                height: parent.height
                text: "删除"
                // White on red, as the style's own panel washes the red out.
                contentItem: Label {
                    text: deleteButton.text
                    color: "white"
                    font.pixelSize: 15
                    horizontalAlignment: Text.AlignHCenter
                    verticalAlignment: Text.AlignVCenter
                }
                background: Rectangle {
                    color: deleteButton.down ? "#c04848" : "#e05a5a"
                }
                onClicked: screen.deleteRow(row.index)
            }
        }
    }
    Component.onCompleted: {
        if (jumpType === "set")
            editState = false
        table.refreshData()
        Notices.post("clearAllNewsNum")
    }
}
