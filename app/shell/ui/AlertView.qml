// An alert: title, message and its buttons over a dimmed screen.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

Item {
    id: root
    objectName: "alertView"
    visible: AlertCenter.alertVisible

    Rectangle {
        anchors.fill: parent
        color: "#66000000"
        MouseArea {
            anchors.fill: parent
        }
    }
    Rectangle {
        anchors.centerIn: parent
        width: Math.min(270, root.width - 40)
        height: content.implicitHeight
        radius: 12
        color: "#f7f7f7"
        Column {
            id: content
            width: parent.width
            Item {
                width: 1
                height: 18
            }
            Label {
                objectName: "alertTitle"
                width: parent.width - 32
                x: 16
                text: AlertCenter.alertTitle
                visible: text.length > 0
                wrapMode: Text.Wrap
                horizontalAlignment: Text.AlignHCenter
                font.pixelSize: 17
                font.bold: true
            }
            Label {
                objectName: "alertMessage"
                width: parent.width - 32
                x: 16
                text: AlertCenter.alertMessage
                visible: text.length > 0
                wrapMode: Text.Wrap
                horizontalAlignment: Text.AlignHCenter
                font.pixelSize: 13
            }
            Item {
                width: 1
                height: 16
            }
            Repeater {
                model: AlertCenter.alertButtons
                delegate: Column {
                    id: alertRow
                    required property int index
                    required property var modelData
                    width: content.width
                    Rectangle {
                        width: parent.width
                        height: 1
                        color: "#dddddd"
                    }
                    AbstractButton {
                        objectName: "alertButton" + alertRow.index
                        width: parent.width
                        height: 44
                        contentItem: Label {
                            text: alertRow.modelData
                            color: "#007aff"
                            font.pixelSize: 17
                            horizontalAlignment: Text.AlignHCenter
                            verticalAlignment: Text.AlignVCenter
                        }
                        onClicked: AlertCenter.answerAlert(alertRow.index)
                    }
                }
            }
        }
    }
}
