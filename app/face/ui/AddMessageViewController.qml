// The message pop-up of a photo being published: 1 to 100 characters, then
// the result screen (ResultVC) publishes with it.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

Rectangle {
    id: popup
    objectName: "AddMessageViewController"
    property var resultVC // the result screen that opened it (ResultVC)
    property alias text: textMessage.text
    width: 280
    height: 210
    radius: 10
    color: "white"

    // disSelectVCAction: validates and hands the text back.
    function disSelectVCAction() {
        const message = textMessage.text
        const error = ItemActions.photoMessageError(message)
        if (error.length > 0) {
            ProgressHud.showErrorWithStatus(error)
            return
        }
        textMessage.focus = false
        const result = resultVC
        AppDelegate.dismissPopup()
        Qt.callLater(function () {
            result.addMessageSuccess(message)
        })
    }

    Column {
        anchors.fill: parent
        anchors.margins: 14
        spacing: 12
        ScrollView {
            width: parent.width
            height: 120
            focus: true
            TextArea {
                id: textMessage
                objectName: "textMessage"
                wrapMode: TextEdit.Wrap
                font.pixelSize: 15
                focus: true
                background: Rectangle {
                    border.color: "#dddddd"
                    radius: 6
                }
                // The placeholder, wrapped over as many lines as it takes
                // (the control's own stays on one line and is cut off).
                Label {
                    objectName: "placeholder"
                    x: textMessage.leftPadding
                    y: textMessage.topPadding
                    width: textMessage.width - textMessage.leftPadding - textMessage.rightPadding
                    visible: textMessage.length === 0 && textMessage.preeditText.length === 0
                    text: "写句话，让大家给你点赞吧！1个赞增加100容点哟：）"
                    wrapMode: Text.Wrap
                    font: textMessage.font
                    color: "#999999"
                }
            }
        }
        Button {
            id: btnOK
            objectName: "btnOK"
            anchors.horizontalCenter: parent.horizontalCenter
            text: "确定"
            implicitWidth: 120
            font.pixelSize: 16
            onClicked: popup.disSelectVCAction()
        }
    }
}
