// An action sheet: a title and a column of buttons at the bottom of the
// screen; a button may carry a picture instead of text. Escape or the back
// key is its cancel button.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

FocusScope {
    id: root
    objectName: "actionSheet"
    visible: AlertCenter.sheetVisible
    onVisibleChanged: if (visible)
                          forceActiveFocus()
    Keys.onEscapePressed: cancel()
    Keys.onBackPressed: cancel()
    function cancel() {
        if (AlertCenter.sheetCancel.length > 0)
            AlertCenter.answerSheet(-1)
    }

    Rectangle {
        anchors.fill: parent
        color: "#66000000"
        MouseArea {
            anchors.fill: parent
            onClicked: root.cancel()
        }
    }
    Rectangle {
        anchors.bottom: parent.bottom
        width: parent.width
        height: sheet.implicitHeight + 12
        color: "#f2f2f2"
        Column {
            id: sheet
            y: 6
            width: parent.width
            spacing: 6
            Label {
                objectName: "sheetTitle"
                x: 14
                width: parent.width - 28
                visible: text.length > 0
                text: AlertCenter.sheetTitle
                wrapMode: Text.Wrap
                color: "#666666"
                font.pixelSize: 13
                lineHeight: 1.1
            }
            Repeater {
                model: AlertCenter.sheetButtons
                delegate: AbstractButton {
                    id: sheetButton
                    required property int index
                    required property var modelData
                    objectName: "sheetButton" + index
                    x: 10
                    width: sheet.width - 20
                    height: 44
                    background: Rectangle {
                        radius: 8
                        color: "white"
                    }
                    contentItem: Item {
                        Image {
                            anchors.centerIn: parent
                            visible: sheetButton.modelData.image.length > 0
                            source: sheetButton.modelData.image
                            height: 30
                            fillMode: Image.PreserveAspectFit
                        }
                        Label {
                            anchors.centerIn: parent
                            text: sheetButton.modelData.text
                            color: "#007aff"
                            font.pixelSize: 17
                        }
                    }
                    onClicked: AlertCenter.answerSheet(index)
                }
            }
            AbstractButton {
                visible: AlertCenter.sheetCancel.length > 0
                x: 10
                width: sheet.width - 20
                height: 44
                background: Rectangle {
                    radius: 8
                    color: "white"
                }
                contentItem: Label {
                    text: AlertCenter.sheetCancel
                    color: "#007aff"
                    font.pixelSize: 17
                    font.bold: true
                    horizontalAlignment: Text.AlignHCenter
                    verticalAlignment: Text.AlignVCenter
                }
                onClicked: root.cancel()
            }
        }
    }
}
