// An item's page: the photo with its poster, score, likes and comment count,
// the comments page by page, and the bar to write one (2 to 60 characters).
import QtQuick
import QtQuick.Controls
import Rongdian

BaseViewController {
    id: screen
    objectName: "CommentViewController"
    property var itemInfo: ({})
    property alias commentTableView: comments
    property alias textView: input
    // labComment's text: the item's count, +1 after each comment sent here.
    property string commentCountText: String(itemInfo.commentNum !== undefined ? itemInfo.commentNum : 0)
    title: itemInfo.userlikename || ""
    rightText: "分享"
    onRightClicked: commentRightAction()

    function btnSenderMessageAction() {
        if (!Items.canComment) {
            input.focus = false
            App.pushScreen("LoginViewController", {})
            return
        }
        const error = Items.commentError(input.text)
        if (error.length > 0) {
            Hud.showErrorWithStatus(error)
            return
        }
        Items.createComment(itemInfo.itemId, input.text)
    }
    function commentSent() {
        comments.refreshData()
        input.focus = false
        input.text = ""
        const n = Number(screen.itemInfo.commentNum || 0) + 1
        screen.commentCountText = String(n)
        const copy = Object.assign({}, screen.itemInfo)
        copy.commentNum = n
        screen.itemInfo = copy
        Items.itemChanged(copy)
    }
    function commentRightAction() {
        if (comments.count === 0) {
            Hud.showErrorWithStatus("有评论，才能分享哟")
            return
        }
        const arr = []
        for (let i = 0; i < comments.count; ++i)
            arr.push(FeedRows.toMap(comments.get(i)))
        App.pushScreen("ShareViewController", {
                           "arrComment": arr,
                           "itemInfo": screen.itemInfo
                       })
    }
    function allkeyboardWillHide() {
        input.focus = false
    }

    // The like under way (its request), the like button's tapped look and
    // that look before the tap.
    property int likeRequest: 0
    property bool likeShown: false
    property bool likedBefore: false

    Connections {
        target: Items
        // The same item changed elsewhere, or a like here or a refused one
        // changed its numbers: the labels follow itemInfo.
        function onItemChanged(changed) {
            if (changed.itemId !== undefined && changed.itemId === screen.itemInfo.itemId)
                screen.itemInfo = Object.assign({}, screen.itemInfo, changed)
        }
        function onCommentAnswered(itemId, ok) {
            if (ok && itemId === screen.itemInfo.itemId)
                screen.commentSent()
        }
        function onLikeAnswered(request, ok, refused) {
            if (request !== screen.likeRequest)
                return
            screen.likeRequest = 0
            if (refused)
                screen.likeShown = screen.likedBefore
        }
    }
    CommentTableView {
        id: comments
        itemID: screen.itemInfo.itemId || ""
    }

    FeedList {
        id: list
        objectName: "commentTableView"
        anchors.top: parent.top
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: commentView.top
        table: comments
        onDraggingChanged: if (dragging)
                               screen.allkeyboardWillHide() // commentScrollChang
        header: Rectangle {
            width: list.width
            // The message is read whole: as many lines as it takes.
            height: labMessage.text.length > 0 ? labMessage.y + labMessage.height + 10 : 300
            color: "white"
            MouseArea {
                anchors.fill: parent
                onClicked: screen.allkeyboardWillHide()
            }
            RemoteImage {
                id: imgHead
                objectName: "imgHead"
                x: (parent.width - 200) / 2
                y: 8
                width: 200
                height: 250
                source: screen.itemInfo.imgurl || ""
            }
            NameBadge {
                x: 10
                y: 264
                name: screen.itemInfo.userlikename || ""
            }
            Label {
                id: labScore
                objectName: "labScore"
                x: 48
                y: 268
                text: screen.itemInfo.lookscorebasis || ""
                color: FeedRows.scoreColor(text)
                font.pixelSize: 18
                font.bold: true
            }
            Label {
                id: labMessage
                objectName: "labMessage"
                x: 12
                y: 298
                width: parent.width - 24
                wrapMode: Text.Wrap
                text: screen.itemInfo.imgmessage || ""
                font.pixelSize: 14
            }
            LikeButton {
                id: btnLike
                objectName: "btnLike"
                anchors.right: parent.right
                anchors.rightMargin: 50
                y: 264
                text: FeedRows.likeTitle(screen.itemInfo.like)
                enabled: screen.likeRequest === 0
                liked: screen.likeShown
                onClicked: {
                    screen.likedBefore = screen.likeShown
                    screen.likeShown = true
                    screen.likeRequest = Items.likeAction(screen.itemInfo, true)
                }
            }
            Label {
                id: labComment
                objectName: "labComment"
                anchors.right: parent.right
                anchors.rightMargin: 12
                y: 270
                text: screen.commentCountText
                color: "#888888"
                font.pixelSize: 13
            }
        }
        delegate: Rectangle {
            id: row
            required property var userlikename
            required property var createdAt
            required property var commentmessage
            objectName: "CommentCell"
            width: list.width
            height: Math.max(56, msg.implicitHeight + 34)
            NameBadge {
                x: 10
                y: 10
                name: row.userlikename || ""
            }
            Label {
                objectName: "laballLikeName"
                x: 48
                y: 8
                text: row.userlikename || ""
                color: "#666666"
                font.pixelSize: 12
            }
            Label {
                anchors.right: parent.right
                anchors.rightMargin: 10
                y: 8
                text: FeedRows.timeLabel(row.createdAt || "")
                color: "#aaaaaa"
                font.pixelSize: 11
            }
            Label {
                id: msg
                objectName: "labCommentMessage"
                x: 48
                y: 26
                width: parent.width - 58
                wrapMode: Text.Wrap
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
    Rectangle {
        id: commentView
        objectName: "commentView"
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        anchors.bottomMargin: App.keyboardHeight
        height: 48
        color: "#f4f4f4"
        TextField {
            id: input
            objectName: "textView"
            anchors.left: parent.left
            anchors.right: send.left
            anchors.margins: 6
            anchors.verticalCenter: parent.verticalCenter
            placeholderText: "说点什么吧"
            onAccepted: screen.btnSenderMessageAction()
        }
        Button {
            id: send
            objectName: "btnSender"
            anchors.right: parent.right
            anchors.rightMargin: 6
            anchors.verticalCenter: parent.verticalCenter
            text: "发送"
            onClicked: screen.btnSenderMessageAction()
        }
    }
    Component.onCompleted: comments.refreshData()
}
