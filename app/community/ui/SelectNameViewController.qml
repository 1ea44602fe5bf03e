// The pop-up in which a new user chooses a display name.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

Rectangle {
    id: popup
    objectName: "SelectNameViewController"
    property var loginVC: null
    property alias textName: textName
    width: 280
    height: 190
    radius: 8
    color: "white"

    function disSelectVCAction() {
        const error = Session.nameError(textName.text)
        if (error.length > 0) {
            ProgressHud.showErrorWithStatus(error)
            return
        }
        const name = textName.text
        const vc = loginVC
        textName.focus = false
        AppDelegate.dismissPopup()
        if (vc)
            vc.loginSuccess(name)
    }

    Column {
        anchors.centerIn: parent
        spacing: 12
        width: parent.width - 40
        Row {
            spacing: 10
            Rectangle {
                width: 44
                height: 44
                radius: 22
                color: "#4dc47a"
                Label {
                    id: labUserName
                    objectName: "labUserName"
                    anchors.centerIn: parent
                    color: "white"
                    font.pixelSize: 20
                }
            }
            Label {
                anchors.verticalCenter: parent.verticalCenter
                text: "给自己起个名字吧"
                font.pixelSize: 15
            }
        }
        TextField {
            id: textName
            objectName: "textName"
            width: parent.width
            placeholderText: "名字"
            focus: true
            onTextChanged: if (text.length > 0)
                               labUserName.text = FeedRows.nameBadge(text) // textFieldDidChange
            onAccepted: popup.disSelectVCAction()
        }
        Button {
            objectName: "btnOK"
            width: parent.width
            text: "确定"
            onClicked: popup.disSelectVCAction()
        }
    }
}
