// Pop-ups presented over a dimmed background (App.presentPopup). Tapping the
// background posts "fadeViewAction"; the screens that care dismiss the pop-up.
// Escape or the back key leaves a pop-up without effect. The pop-up gets the
// keyboard: its field marked `focus: true` is the one typed into.
pragma ComponentBehavior: Bound
import QtQuick
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

    Keys.onEscapePressed: App.dismissPopup()
    Keys.onBackPressed: App.dismissPopup()

    Rectangle {
        anchors.fill: parent
        color: "#80000000"
        MouseArea {
            anchors.fill: parent
            onClicked: App.popupBackgroundTapped()
        }
    }
    Loader {
        id: loader
        anchors.centerIn: parent
        focus: true
    }
}
