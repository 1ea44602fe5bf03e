// The head of an item's page: the photo with its poster, score, message, like
// button and comment count, for the record the list's header shows. A tap
// beside the buttons is `tapped`.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

Rectangle {
    id: header
    readonly property FeedList list: ListView.view as FeedList
    readonly property var itemInfo: list && list.headerRecord ? list.headerRecord : ({})
    signal tapped

    width: list ? list.width : 0
    // The message is read whole: as many lines as it takes.
    height: labMessage.text.length > 0 ? labMessage.y + labMessage.height + 10 : labMessage.y + 2
    color: "white"
    MouseArea {
        anchors.fill: parent
        onClicked: header.tapped()
    }
    RemoteImage {
        id: imgHead
        objectName: "imgHead"
        x: (parent.width - width) / 2
        y: 8
        // Smaller in a short view, to leave room below for the comments.
        height: header.list ? Math.min(250, Math.round(header.list.height / 2)) : 250
        width: height * 0.8
        source: header.itemInfo.imgurl || ""
    }
    NameBadge {
        x: 10
        y: imgHead.y + imgHead.height + 6
        name: header.itemInfo.userlikename || ""
    }
    Label {
        id: labScore
        objectName: "labScore"
        x: 48
        y: imgHead.y + imgHead.height + 10
        text: header.itemInfo.lookscorebasis || ""
        color: FeedRows.scoreColor(text)
        font.pixelSize: 18
        font.bold: true
    }
    Label {
        id: labMessage
        objectName: "labMessage"
        x: 12
        y: imgHead.y + imgHead.height + 40
        width: parent.width - 24
        wrapMode: Text.Wrap
        text: header.itemInfo.imgmessage || ""
        font.pixelSize: 14
    }
    LikeButton {
        id: btnLike
        objectName: "btnLike"
        anchors.right: parent.right
        anchors.rightMargin: 50
        y: imgHead.y + imgHead.height + 6
        text: FeedRows.likeTitle(header.itemInfo.like)
        onClicked: vote(header.itemInfo, true)
    }
    Label {
        id: labComment
        objectName: "labComment"
        anchors.right: parent.right
        anchors.rightMargin: 12
        y: imgHead.y + imgHead.height + 12
        // The item's count (+1 after each comment sent from its page).
        text: String(header.itemInfo.commentNum !== undefined ? header.itemInfo.commentNum : 0)
        color: "#888888"
        font.pixelSize: 13
    }
}
