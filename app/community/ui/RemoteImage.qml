// A photo loaded from its address, with "location.png" while it loads or
// when it cannot be loaded.
pragma ComponentBehavior: Bound
import QtQuick

Item {
    id: root
    property alias source: photo.source
    readonly property bool ready: photo.status === Image.Ready
    property alias image: photo

    Image {
        anchors.fill: parent
        visible: !root.ready
        source: "qrc:/pictures/location.png"
        fillMode: Image.PreserveAspectFit
    }
    Image {
        id: photo
        anchors.fill: parent
        fillMode: Image.PreserveAspectCrop
        // Decoded at the size it is shown at, not at the photo's own.
        sourceSize.width: Math.ceil(root.width * Screen.devicePixelRatio)
        sourceSize.height: Math.ceil(root.height * Screen.devicePixelRatio)
        clip: true
        asynchronous: true
        cache: true
        visible: root.ready
    }
}
