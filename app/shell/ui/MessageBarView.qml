// The message bar: slides in at the top with a title and a description.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

Rectangle {
    id: bar
    objectName: "messageBar"
    height: Math.max(56, texts.implicitHeight + 20)
    y: MessageBar.visible ? 0 : -height - 4
    visible: y > -height - 4
    color: MessageBar.type === 0 ? "#d9c0392b" : (MessageBar.type === 1 ? "#d927ae60" : "#d92c3e50")
    Behavior on y {
        NumberAnimation {
            duration: 250
        }
    }
    Column {
        id: texts
        anchors.verticalCenter: parent.verticalCenter
        x: 14
        width: parent.width - 28
        spacing: 2
        Label {
            objectName: "messageBarTitle"
            width: parent.width
            text: MessageBar.title
            color: "white"
            font.pixelSize: 16
            font.bold: true
        }
        Label {
            objectName: "messageBarDescription"
            width: parent.width
            text: MessageBar.description
            visible: text.length > 0
            color: "white"
            wrapMode: Text.Wrap
            font.pixelSize: 14
        }
    }
    MouseArea {
        anchors.fill: parent
        onClicked: MessageBar.hide()
    }
}
