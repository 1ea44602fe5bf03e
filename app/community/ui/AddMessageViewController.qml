// The pop-up in which the user writes the message of a photo being
// published (1 to 100 characters); the text goes back to the result screen.
import QtQuick
import QtQuick.Controls
import Rongdian

Rectangle {
    id: popup
    objectName: "AddMessageViewController"
    property var ResultVC: null
    property alias textMessage: textMessage
    width: 290
    height: 220
    radius: 8
    color: "white"

    function disSelectVCAction() {
        const error = Community.photoMessageError(textMessage.text)
        if (error.length > 0) {
            Hud.showErrorWithStatus(error)
            return
        }
        const text = textMessage.text
        const vc = ResultVC
        textMessage.focus = false
        App.dismissPopup()
        if (vc && vc.addMessageSuccess)
            vc.addMessageSuccess(text)
    }

    ScrollView {
        x: 12
        y: 12
        width: parent.width - 24
        height: 140
        TextArea {
            id: textMessage
            objectName: "textMessage"
            placeholderText: "写句话，让大家给你点赞吧！1个赞增加100容点哟：）"
            wrapMode: TextEdit.Wrap
            focus: true
        }
    }
    Button {
        id: btnOK
        objectName: "btnOK"
        anchors.horizontalCenter: parent.horizontalCenter
        anchors.bottom: parent.bottom
        anchors.bottomMargin: 10
        width: parent.width - 24
        text: "发表"
        onClicked: popup.disSelectVCAction()
    }
}
