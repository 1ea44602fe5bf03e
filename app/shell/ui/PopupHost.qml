// Pop-ups presented over a dimmed background (App.presentPopup). Tapping the
// background posts "fadeViewAction"; the screens that care dismiss the pop-up.
import QtQuick
import Rongdian

Item {
    id: host
    objectName: "popupHost"
    visible: loader.item !== null
    property alias popup: loader.item

    function present(url, properties) {
        loader.setSource(url, properties)
    }
    function dismiss() {
        loader.source = ""
    }

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
    }
}
