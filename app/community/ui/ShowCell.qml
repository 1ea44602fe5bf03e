// A row of the newest feed (ShowCell), and with `header` set the feed's top
// item (ShowOneCell) with its dislike button. `item` is a map of the Item's
// fields as the list or the feed holds them: a like here or a change
// elsewhere changes the list's row (or the feed's top item), and the cell
// follows.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

Rectangle {
    id: cell
    property var item: ({})
    property bool header: false
    property bool ranking: false
    property int row: 0
    signal tapped
    signal headTapped

    readonly property var rankInfo: FeedRows.rank(row)
    // A narrow row (a small screen, the delete button beside it) has no room
    // for the time beside the buttons: it goes up, after the message.
    readonly property bool narrow: width < 300
    // Narrower still (the delete button beside a row of a small screen): a
    // smaller photo leaves the name badge, the score and the message their
    // room, and the time is left out while the button is there.
    readonly property bool compact: width < 220
    readonly property int textX: compact ? 76 : 92

    width: parent ? parent.width : 320
    height: 110
    color: "white"
    objectName: header ? "ShowOneCell" : (ranking ? "ValueCell" : "ShowCell")

    function likeAction(isLike, button) {
        button.vote(cell.item, isLike)
        kiss.play()
    }
    // shakeView: a short shake of the tapped view.
    function shakeView(v) {
        shake.target = v
        shake.restart()
    }
    SequentialAnimation {
        id: shake
        property Item target: null
        NumberAnimation { target: shake.target; property: "rotation"; to: 5; duration: 60 }
        NumberAnimation { target: shake.target; property: "rotation"; to: -5; duration: 120 }
        NumberAnimation { target: shake.target; property: "rotation"; to: 0; duration: 60 }
    }

    MouseArea {
        anchors.fill: parent
        onClicked: cell.tapped()
    }
    RemoteImage {
        id: imgHead
        objectName: "imgHead"
        x: 8
        y: 8
        width: cell.compact ? 60 : 75
        height: cell.compact ? 75 : 94
        source: cell.item.imgurl || ""
        MouseArea {
            anchors.fill: parent
            onClicked: {
                if (cell.header)
                    cell.shakeView(imgHead)
                cell.headTapped()
            }
        }
    }
    NameBadge {
        objectName: "labLikeName"
        x: cell.textX
        y: 8
        name: cell.item.userlikename || ""
    }
    Label {
        objectName: "labName"
        x: cell.textX + 36
        y: 12
        // Up to the score, however narrow the row (a small screen, the delete
        // button beside it).
        width: Math.max(0, labScore.x - 8 - x)
        elide: Text.ElideRight
        text: cell.item.userlikename || ""
        color: "#666666"
        font.pixelSize: 13
    }
    Label {
        id: labScore
        objectName: "labScore"
        anchors.right: parent.right
        anchors.rightMargin: 10
        y: 8
        text: cell.item.lookscorebasis || ""
        color: FeedRows.scoreColor(text)
        font.pixelSize: 20
        font.bold: true
    }
    Label {
        objectName: "labMessage"
        x: cell.textX
        y: 44
        // In the ranking it ends before the rank's title or number, on a
        // narrow row before the time.
        width: (cell.ranking ? Math.min(teachLabel.x, lablookScorNum.x) - 8
                             : labTime.visible && cell.narrow ? labTime.x - 8 : parent.width - 8) - x
        elide: Text.ElideRight
        text: cell.item.imgmessage || ""
        font.pixelSize: 14
    }
    Image {
        objectName: "imgisenablePhoto"
        // In the photo's lower right corner.
        x: imgHead.x + imgHead.width - 23
        y: imgHead.y + imgHead.height - 22
        width: 20
        height: 20
        source: "qrc:/pictures/two.png"
        visible: cell.ranking ? FeedRows.rankingShowsPhotoMark(cell.item.isenablePhoto)
                              : FeedRows.newestShowsPhotoMark(cell.item.isenablePhoto)
    }
    Row {
        x: cell.textX
        y: 74
        spacing: 8
        LikeButton {
            id: btnLike
            objectName: "btnLike"
            text: FeedRows.likeTitle(cell.item.like)
            onClicked: cell.likeAction(true, btnLike)
        }
        LikeButton {
            id: btnunLike
            objectName: "btnunLike"
            visible: cell.header
            text: FeedRows.unlikeTitle(cell.item.unlike)
            onClicked: cell.likeAction(false, btnunLike)
            // The score and like labels follow the item, which already holds
            // the answer's values; the dislike title shows the like count.
            onAnswered: ok => {
                if (ok)
                    btnunLike.text = FeedRows.unlikeTitle(cell.item.like)
            }
        }
        Label {
            objectName: "labComment"
            anchors.verticalCenter: parent.verticalCenter
            text: String(cell.item.commentNum !== undefined ? cell.item.commentNum : 0)
            color: "#888888"
            font.pixelSize: 12
        }
    }
    Label {
        id: labTime
        objectName: "labTime"
        visible: !cell.ranking && !cell.compact
        anchors.right: parent.right
        anchors.rightMargin: 10
        y: cell.narrow ? 46 : 82
        text: FeedRows.timeLabel(cell.item.createdAt || "")
        color: "#aaaaaa"
        font.pixelSize: 11
    }
    Label {
        id: teachLabel
        objectName: "teachLabel"
        visible: cell.ranking
        anchors.right: parent.right
        anchors.rightMargin: 10
        y: 40
        text: cell.rankInfo.title
        color: "#e05a5a"
        font.pixelSize: 14
    }
    Label {
        id: lablookScorNum
        objectName: "lablookScorNum"
        visible: cell.ranking && cell.rankInfo.numberVisible
        anchors.right: parent.right
        anchors.rightMargin: 10
        y: 40
        text: cell.rankInfo.number
        color: "#888888"
        font.pixelSize: 14
    }
    Image {
        id: kissImage
        anchors.centerIn: parent
        width: 40
        height: 40
        opacity: 0
        source: "qrc:/pictures/location_more.png"
        SequentialAnimation {
            id: kiss
            function play() { restart() }
            NumberAnimation { target: kissImage; property: "opacity"; from: 0.5; to: 1; duration: 200 }
            NumberAnimation { target: kissImage; property: "opacity"; to: 0; duration: 300 }
        }
    }
    Rectangle {
        anchors.bottom: parent.bottom
        width: parent.width
        height: 1
        color: "#eeeeee"
    }
}
