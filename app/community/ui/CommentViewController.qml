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
        if (!Community.canComment()) {
            input.focus = false
            App.pushScreen("LoginViewController", {})
            return
        }
        const error = Community.commentError(input.text)
        if (error.length > 0) {
            Hud.showErrorWithStatus(error)
            return
        }
        Community.createComment(itemInfo.itemId, input.text, function (ok) {
            if (!ok)
                return
            comments.refreshData()
            input.focus = false
            input.text = ""
            const n = Number(screen.itemInfo.commentNum || 0) + 1
            screen.commentCountText = String(n)
            const copy = Object.assign({}, screen.itemInfo)
            copy.commentNum = n
            screen.itemInfo = copy
            Community.itemChanged(copy)
        })
    }
    function commentRightAction() {
        if (comments.count === 0) {
            Hud.showErrorWithStatus("有评论，才能分享哟")
            return
        }
        const arr = []
        for (let i = 0; i < comments.count; ++i)
            arr.push(Community.toMap(comments.get(i)))
        App.pushScreen("ShareViewController", {
                           "arrComment": arr,
                           "itemInfo": screen.itemInfo
                       })
    }
    function allkeyboardWillHide() {
        input.focus = false
    }

    // The same item changed elsewhere, or a refused like put its numbers back.
    Connections {
        target: Community
        function onItemChanged(changed) {
            if (changed.itemId !== undefined && changed.itemId === screen.itemInfo.itemId)
                screen.itemInfo = Object.assign({}, screen.itemInfo, changed)
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
                color: Community.scoreColor(text)
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
                text: Community.likeTitle(screen.itemInfo.like)
                onClicked: {
                    const wasLiked = btnLike.liked
                    btnLike.enabled = false
                    btnLike.liked = true
                    screen.itemInfo = Community.likeAction(screen.itemInfo, true, function (ok, score, like, refused) {
                        // The labels follow itemInfo, which holds the new values.
                        btnLike.enabled = true
                        if (refused)
                            btnLike.liked = wasLiked
                    })
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
            objectName: "CommentCell"
            width: list.width
            height: Math.max(56, msg.implicitHeight + 34)
            NameBadge {
                x: 10
                y: 10
                name: userlikename || ""
            }
            Label {
                objectName: "laballLikeName"
                x: 48
                y: 8
                text: userlikename || ""
                color: "#666666"
                font.pixelSize: 12
            }
            Label {
                anchors.right: parent.right
                anchors.rightMargin: 10
                y: 8
                text: Community.timeLabel(createdAt || "")
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
                text: commentmessage || ""
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
        anchors.bottomMargin: Qt.inputMethod.visible ? Qt.inputMethod.keyboardRectangle.height : 0
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
