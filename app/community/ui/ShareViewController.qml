// The photo with a chosen comment, as a picture to share. The two edit
// buttons pick another comment; they are kept out of the shared picture.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

BaseViewController {
    id: screen
    objectName: "ShareViewController"
    property var arrComment: []
    property var itemInfo: ({})
    property var comment: arrComment.length > 0 ? arrComment[0] : ({})
    property alias shareInfoView: shareInfoView
    property alias popShardView: panel
    title: "分享"
    rightText: "分享"
    onRightClicked: shardAction()

    function shardAction() { panel.showAnima() }
    function updataCommenView(c) { comment = FeedRows.toMap(c) }
    function sharOtherAction(tag) { panel.sharOtherAction(tag) }
    // The edit buttons stay out of the picture; they come back unless the
    // item has exactly one comment.
    function showEditButtons(show) {
        editBtn.visible = show
        editBtn2.visible = show
    }
    function editAction() {
        AppDelegate.pushScreen("SelectCommentViewController", {
                           "itemInfo": screen.itemInfo,
                           "sharVC": screen
                       })
    }

    // The card keeps its size (it is the picture shared); a short window
    // scrolls it.
    Flickable {
        anchors.fill: parent
        contentWidth: width
        contentHeight: shareInfoView.height + 20
        clip: true
        boundsBehavior: Flickable.StopAtBounds
        Rectangle {
            id: shareInfoView
            objectName: "shareInfoView"
            anchors.horizontalCenter: parent.horizontalCenter
            y: 10
            width: Math.min(280, parent.width - 20)
            height: 380
            color: "white"
            border.color: "#eeeeee"
            RemoteImage {
                id: photo
                x: (parent.width - width) / 2
                y: 10
                width: 200
                height: 250
                source: screen.itemInfo.imgurl || ""
            }
            Label {
                objectName: "shareScore"
                x: 10
                y: 268
                text: "容点 " + (screen.itemInfo.lookscorebasis || "")
                color: FeedRows.scoreColor(screen.itemInfo.lookscorebasis || "")
                font.pixelSize: 16
                font.bold: true
            }
            NameBadge {
                x: 10
                y: 296
                name: screen.comment.userlikename || ""
            }
            Label {
                objectName: "shareComment"
                x: 48
                y: 300
                width: parent.width - 58
                wrapMode: Text.Wrap
                maximumLineCount: 3
                elide: Text.ElideRight
                text: screen.comment.commentmessage || ""
                font.pixelSize: 14
            }
            Button {
                id: editBtn
                objectName: "editBtn"
                anchors.right: parent.right
                y: 262
                text: "换评论"
                font.pixelSize: 11
                visible: screen.arrComment.length !== 1
                onClicked: screen.editAction()
            }
            Button {
                id: editBtn2
                objectName: "editBtn2"
                // Under the name badge, clear of the comment's three lines.
                x: 4
                y: 332
                width: 42
                leftPadding: 2
                rightPadding: 2
                text: "编辑"
                font.pixelSize: 11
                visible: screen.arrComment.length !== 1
                onClicked: screen.editAction()
            }
        }
    }
    SharePanel {
        id: panel
        picture: shareInfoView
        onPictureTaking: screen.showEditButtons(false)
        onPictureTaken: screen.showEditButtons(screen.arrComment.length !== 1)
    }
}
