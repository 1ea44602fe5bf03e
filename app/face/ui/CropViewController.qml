// The crop screen: the photo under a fixed frame of width : height = ratio.
// Drag to move the photo, pinch or scroll to zoom; "确定" hands the part under
// the frame to the capture flow, "取消" leaves without a photo.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

Rectangle {
    id: crop
    objectName: "CropViewController"
    property string imageUrl
    property real ratio: 0.8
    color: "black"

    readonly property real areaHeight: height - 64
    // The top band stays free for the waiting text ("计算中...") that is up
    // while the photo is cropped.
    readonly property real topBand: 48
    // The frame: 90% of the width or of the height below the band, whichever
    // is smaller.
    readonly property real frameWidth: Math.min(width * 0.9, (areaHeight - topBand) * 0.9 * ratio)
    readonly property real frameHeight: frameWidth / ratio
    readonly property real frameX: (width - frameWidth) / 2
    readonly property real frameY: topBand + (areaHeight - topBand - frameHeight) / 2
    // Smallest zoom: the photo covers the frame.
    readonly property real minScale: photo.implicitWidth > 0 ? Math.max(frameWidth / photo.implicitWidth, frameHeight / photo.implicitHeight) : 1

    // The frame in the photo's pixels.
    function cropRect() {
        const s = photo.scale
        return Qt.rect((frameX - photo.x) / s, (frameY - photo.y) / s, frameWidth / s, frameHeight / s)
    }
    function clampPhoto() {
        photo.scale = Math.max(photo.scale, minScale)
        const w = photo.implicitWidth * photo.scale, h = photo.implicitHeight * photo.scale
        photo.x = Math.min(frameX, Math.max(frameX + frameWidth - w, photo.x))
        photo.y = Math.min(frameY, Math.max(frameY + frameHeight - h, photo.y))
    }
    function centre() {
        photo.scale = minScale
        photo.x = frameX + (frameWidth - photo.implicitWidth * minScale) / 2
        photo.y = frameY + (frameHeight - photo.implicitHeight * minScale) / 2
    }

    Item {
        id: area
        width: crop.width
        height: crop.areaHeight
        clip: true
        Image {
            id: photo
            objectName: "cropPhoto"
            source: crop.imageUrl
            transformOrigin: Item.TopLeft
            smooth: true
            onStatusChanged: if (status === Image.Ready)
                                 crop.centre()
            DragHandler {
                target: photo
                onActiveChanged: if (!active)
                                     crop.clampPhoto()
            }
        }
        PinchHandler {
            target: photo
            onActiveChanged: if (!active)
                                 crop.clampPhoto()
        }
        WheelHandler {
            onWheel: event => {
                         photo.scale = Math.max(crop.minScale, photo.scale * (event.angleDelta.y > 0 ? 1.1 : 0.9))
                         crop.clampPhoto()
                     }
        }
        // Shade outside the frame, and the frame.
        Rectangle {
            width: parent.width
            height: crop.frameY
            color: "#99000000"
        }
        Rectangle {
            y: crop.frameY + crop.frameHeight
            width: parent.width
            height: parent.height - y
            color: "#99000000"
        }
        Rectangle {
            y: crop.frameY
            width: crop.frameX
            height: crop.frameHeight
            color: "#99000000"
        }
        Rectangle {
            x: crop.frameX + crop.frameWidth
            y: crop.frameY
            width: parent.width - x
            height: crop.frameHeight
            color: "#99000000"
        }
        Rectangle {
            objectName: "cropFrame"
            x: crop.frameX
            y: crop.frameY
            width: crop.frameWidth
            height: crop.frameHeight
            color: "transparent"
            border.color: "white"
            border.width: 2
        }
    }
    // White on the dark bar, under the mouse and pressed too.
    component CropButton: Button {
        id: button
        width: parent.width / 2
        height: parent.height
        font.pixelSize: 17
        contentItem: Label {
            text: button.text
            font: button.font
            color: "white"
            horizontalAlignment: Text.AlignHCenter
            verticalAlignment: Text.AlignVCenter
        }
        background: Rectangle {
            color: button.down ? "#40ffffff" : (button.hovered ? "#26ffffff" : "transparent")
        }
    }
    Row {
        anchors.bottom: parent.bottom
        width: parent.width
        height: 64
        CropButton {
            objectName: "cropCancel"
            text: "取消"
            onClicked: CaptureController.cropCancelled()
        }
        CropButton {
            objectName: "cropOK"
            text: "确定"
            onClicked: {
                const r = crop.cropRect()
                CaptureController.cropImage(crop.imageUrl, r.x, r.y, r.width, r.height)
            }
        }
    }
}
