// The progress display: a dark box in the middle with a spinner, a progress
// bar or a mark, and the text. A heads-up only: it takes no touch, so the
// screen under it (its back button above all) stays in reach while it waits.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

Item {
    id: root
    objectName: "progressHud"
    visible: ProgressHud.visible

    // While a photo is being cropped the display waits as a single line in
    // the band the crop screen keeps free at its top (not over the face).
    readonly property bool cropping: typeof CaptureController !== "undefined" && CaptureController.cropping

    Rectangle {
        objectName: "hudBox"
        anchors.horizontalCenter: parent.horizontalCenter
        y: root.cropping ? 8 : (root.height - height) / 2
        width: Math.max(110, Math.min(root.width - 60, label.implicitWidth + 32))
        height: column.implicitHeight + (root.cropping ? 12 : 28)
        radius: 10
        color: "#d9000000"
        Column {
            id: column
            anchors.centerIn: parent
            spacing: 10
            BusyIndicator {
                anchors.horizontalCenter: parent.horizontalCenter
                visible: ProgressHud.mode === ProgressHud.Waiting && !root.cropping
                running: visible
                width: 36
                height: 36
                // Basic draws the spinner in "dark", Fusion in "text".
                palette.dark: "white"
                palette.text: "white"
            }
            ProgressBar {
                anchors.horizontalCenter: parent.horizontalCenter
                visible: ProgressHud.mode === ProgressHud.Progress
                width: 90
                value: ProgressHud.progress
            }
            Label {
                anchors.horizontalCenter: parent.horizontalCenter
                visible: ProgressHud.mode === ProgressHud.Success || ProgressHud.mode === ProgressHud.Error
                text: ProgressHud.mode === ProgressHud.Success ? "✓" : "✕"
                color: "white"
                font.pixelSize: 28
            }
            Label {
                id: label
                objectName: "hudText"
                anchors.horizontalCenter: parent.horizontalCenter
                width: Math.min(implicitWidth, root.width - 92)
                visible: text.length > 0
                text: ProgressHud.status
                color: "white"
                wrapMode: Text.Wrap
                horizontalAlignment: Text.AlignHCenter
                font.pixelSize: 15
            }
        }
    }
}
