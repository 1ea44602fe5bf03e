// The camera screen: the live preview (enlarged 1.5 times) under the overlay
// with the hint line, the two "+" eye marks, "转", "取消" and "拍照".
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import QtMultimedia
import Rongdian

Rectangle {
    id: cameraScreen
    objectName: "CameraViewController"
    color: "black"

    // Off as soon as the screen starts to leave: the camera stops before
    // its session goes away with the screen.
    property bool live: true
    StackView.onDeactivating: live = false
    StackView.onRemoved: live = false

    MediaDevices {
        id: mediaDevices
    }
    // The capture session only where there is a camera to run it on (a
    // session without a device is of no use, and tearing one down in the
    // media framework is not free); without one the screen still shows its
    // overlay and takes frames handed to the capture.
    Loader {
        id: sessionLoader
        active: mediaDevices.videoInputs.length > 0
        source: "CameraSession.qml"
    }
    readonly property CameraSession session: sessionLoader.item as CameraSession
    Binding {
        target: cameraScreen.session
        property: "front"
        value: CaptureController.frontCamera
        when: cameraScreen.session !== null
    }
    Binding {
        target: cameraScreen.session
        property: "live"
        value: cameraScreen.live
        when: cameraScreen.session !== null
    }
    Binding {
        target: cameraScreen.session
        property: "output"
        value: preview
        when: cameraScreen.session !== null
    }
    readonly property bool readyForCapture: session !== null && session.readyForCapture
    Item {
        id: previewParent
        anchors.fill: parent
        clip: true
        VideoOutput {
            id: preview
            anchors.fill: parent
            scale: 1.5
            fillMode: VideoOutput.PreserveAspectCrop
            // The front camera's preview as a mirror shows it.
            transform: Scale {
                origin.x: preview.width / 2
                xScale: CaptureController.frontCamera ? -1 : 1
            }
        }
        // The switch's transition: a ripple of light from the top.
        Rectangle {
            id: ripple
            width: parent.width
            height: parent.height
            opacity: 0
            gradient: Gradient {
                GradientStop {
                    position: 0
                    color: "#ccffffff"
                }
                GradientStop {
                    position: 1
                    color: "#00ffffff"
                }
            }
            SequentialAnimation {
                id: rippleEffect
                NumberAnimation {
                    target: ripple
                    property: "opacity"
                    to: 1
                    duration: 300
                    easing.type: Easing.OutQuad
                }
                NumberAnimation {
                    target: ripple
                    property: "opacity"
                    to: 0
                    duration: 700
                    easing.type: Easing.OutQuad
                }
            }
        }
    }
    Connections {
        target: CaptureController
        function onCameraDeviceChanged() {
            rippleEffect.restart()
        }
        function onTakePictureRequested() {
            if (cameraScreen.readyForCapture)
                cameraScreen.session.takePicture()
        }
    }

    // The overlay.
    Rectangle {
        objectName: "overlayHint"
        y: 20
        width: parent.width
        height: 36
        color: "#66000000"
        Label {
            anchors.centerIn: parent
            text: "将眼睛尽量放在标示上，以便精确计算"
            color: "white"
            font.pixelSize: 14
        }
    }
    Repeater {
        model: 2
        delegate: Label {
            required property int index
            objectName: "eyeMark" + index
            x: cameraScreen.width * (index === 0 ? 0.33 : 0.67) - width / 2
            y: cameraScreen.height * 0.38 - height / 2
            text: "+"
            color: "white"
            font.pixelSize: 40
        }
    }
    Rectangle {
        anchors.bottom: parent.bottom
        width: parent.width
        height: 80
        color: "#88000000"
    }
    Row {
        anchors.bottom: parent.bottom
        width: parent.width
        height: 80
        Button {
            objectName: "bntChangeType"
            width: parent.width / 3
            height: parent.height
            flat: true
            text: "转"
            palette.buttonText: "white"
            font.pixelSize: 18
            onClicked: CaptureController.bntChangeTypeAction()
        }
        Button {
            objectName: "savePhoto"
            width: parent.width / 3
            height: parent.height
            flat: true
            text: "拍照"
            enabled: cameraScreen.readyForCapture
            palette.buttonText: "white"
            font.pixelSize: 18
            onClicked: CaptureController.savePhoto()
        }
        Button {
            objectName: "cancelCamera"
            width: parent.width / 3
            height: parent.height
            flat: true
            text: "取消"
            palette.buttonText: "white"
            font.pixelSize: 18
            onClicked: CaptureController.cancelCamera()
        }
    }
}
