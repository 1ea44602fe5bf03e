// Pop-ups presented over a dimmed background (AppDelegate.presentPopup). Tapping the
// background posts "fadeViewAction"; the screens that care dismiss the pop-up.
// Escape, the back key or the close control on its corner leave a pop-up
// without effect. The pop-up gets the keyboard: its field marked
// `focus: true` is the one typed into.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

FocusScope {
    id: host
    objectName: "popupHost"
    visible: loader.item !== null
    property alias popup: loader.item

    function present(url, properties) {
        loader.setSource(url, properties)
        host.forceActiveFocus()
    }
    function dismiss() {
        loader.source = ""
        host.focus = false
    }

    Keys.onEscapePressed: AppDelegate.dismissPopup()
    Keys.onBackPressed: AppDelegate.dismissPopup()

    Rectangle {
        anchors.fill: parent
        color: "#80000000"
        MouseArea {
            anchors.fill: parent
            onClicked: AppDelegate.popupBackgroundTapped()
        }
    }
    Loader {
        id: loader
        anchors.centerIn: parent
        focus: true
        // A pop-up narrower than its design on a small screen, with a margin
        // each side.
        onLoaded: {
            const designed = item.width
            item.width = Qt.binding(() => Math.min(designed, host.width - 24))
        }
    }
    // The close control on the pop-up's top right corner: a touch leaves
    // every pop-up with it, as a key does with Escape.
    AbstractButton {
        id: closeButton
        objectName: "popupClose"
        visible: loader.item !== null
        x: loader.x + loader.width - width + 10
        y: loader.y - 10
        width: 32
        height: 32
        background: Rectangle {
            radius: width / 2
            color: closeButton.down ? "#dddddd" : "white"
            border.color: "#cccccc"
        }
        contentItem: Label {
            text: "✕"
            color: "#666666"
            font.pixelSize: 15
            horizontalAlignment: Text.AlignHCenter
            verticalAlignment: Text.AlignVCenter
        }
        onClicked: AppDelegate.dismissPopup()
    }
}
