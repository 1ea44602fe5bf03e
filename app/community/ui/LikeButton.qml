// A like or dislike button: green with a white title once tapped. vote()
// sends the tap's vote on an item: the button looks tapped and waits for the
// answer; a vote the backend refused puts its look back. `answered` follows.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

Button {
    id: b
    property bool liked: false
    signal answered(bool ok)

    // The vote under way (its request) and the look before it.
    property int request: 0
    property bool likedBefore: false
    function vote(item, isLike) {
        likedBefore = liked
        enabled = false
        liked = true
        request = ItemActions.likeAction(item, isLike)
    }
    Connections {
        target: ItemActions
        function onLikeAnswered(number, ok, refused) {
            if (number !== b.request)
                return
            b.request = 0
            b.enabled = true
            if (refused)
                b.liked = b.likedBefore
            b.answered(ok)
        }
    }

    flat: true
    font.pixelSize: 12
    padding: 4
    contentItem: Label {
        text: b.text
        font: b.font
        color: b.liked ? "white" : "#4dc47a"
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
    }
    background: Rectangle {
        radius: 3
        border.color: "#4dc47a"
        color: b.liked ? Qt.rgba(77 / 255, 196 / 255, 122 / 255, 1) : "white"
    }
}
