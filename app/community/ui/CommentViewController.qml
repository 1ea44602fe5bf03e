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
    title: itemInfo.userlikename || ""
    rightText: "分享"
    onRightClicked: commentRightAction()

    function btnSenderMessageAction() {
        if (!ItemActions.canComment) {
            input.focus = false
            AppDelegate.pushScreen("LoginViewController", {})
            return
        }
        const error = ItemActions.commentError(input.text)
        if (error.length > 0) {
            ProgressHud.showErrorWithStatus(error)
            return
        }
        // One comment at a time: a second tap while "评论中..." waits sends nothing.
        if (sending)
            return
        sending = true
        ItemActions.createComment(itemInfo.itemId, input.text)
    }
    property bool sending: false
    Connections {
        target: ProgressHud
        function onChanged() {
            if (!ProgressHud.waiting)
                screen.sending = false
        }
    }
    function commentSent() {
        comments.refreshData()
        input.focus = false
        input.text = ""
        const n = Number(screen.itemInfo.commentNum || 0) + 1
        const copy = Object.assign({}, screen.itemInfo)
        copy.commentNum = n
        screen.itemInfo = copy
        ItemActions.itemChanged(copy)
    }
    function commentRightAction() {
        if (comments.count === 0) {
            ProgressHud.showErrorWithStatus("有评论，才能分享哟")
            return
        }
        const arr = []
        for (let i = 0; i < comments.count; ++i)
            arr.push(FeedRows.toMap(comments.get(i)))
        AppDelegate.pushScreen("ShareViewController", {
                           "arrComment": arr,
                           "itemInfo": screen.itemInfo
                       })
    }
    function allkeyboardWillHide() {
        input.focus = false
    }

    Connections {
        target: ItemActions
        // The same item changed elsewhere, or a like here or a refused one
        // changed its numbers: the header follows itemInfo.
        function onItemChanged(changed) {
            if (changed.itemId !== undefined && changed.itemId === screen.itemInfo.itemId)
                screen.itemInfo = Object.assign({}, screen.itemInfo, changed)
        }
        function onCommentAnswered(itemId, ok) {
            if (ok && itemId === screen.itemInfo.itemId)
                screen.commentSent()
        }
    }
    Connections {
        target: list.headerItem as CommentHeader
        function onTapped() {
            screen.allkeyboardWillHide()
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
        // The item itself above its comments.
        headerRecord: screen.itemInfo
        header: CommentHeader {}
        delegate: Rectangle {
            id: row
            required property var userlikename
            required property var createdAt
            required property var commentmessage
            objectName: "CommentCell"
            width: ListView.view.width
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
        anchors.bottomMargin: AppDelegate.keyboardHeight
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
