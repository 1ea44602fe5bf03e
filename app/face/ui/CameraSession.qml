// The camera behind the camera screen: the session on the front or back
// camera, running while `live`, its preview in `output`, and its
// full-resolution captures and errors handed to the capture controller.
pragma ComponentBehavior: Bound
import QtQuick
import QtMultimedia
import Rongdian

CaptureSession {
    id: session
    property bool front: false
    property bool live: false
    property VideoOutput output: null
    readonly property bool readyForCapture: capture.readyForCapture

    function takePicture() {
        capture.capture()
    }
    function deviceFor(front) {
        const inputs = devices.videoInputs
        for (let i = 0; i < inputs.length; ++i)
            if ((inputs[i].position === CameraDevice.FrontFace) === front)
                return inputs[i]
        return devices.defaultVideoInput
    }

    property MediaDevices devices: MediaDevices {}
    camera: Camera {
        cameraDevice: session.deviceFor(session.front)
        active: session.live
        onErrorOccurred: (error, errorString) => CaptureController.cameraFailed(errorString)
    }
    imageCapture: ImageCapture {
        id: capture
        // The full-resolution frame, not the preview.
        onImageAvailable: (requestId, frame) => CaptureController.cameraFrame(frame)
        onErrorOccurred: (requestId, error, message) => CaptureController.cameraFailed(message)
    }
    videoOutput: output
}
