// The log-in pop-up; for an account from before the password-reset rule it
// also sets the password anew, once.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

Rectangle {
    id: popup
    objectName: "UserLogInViewController"
    property string type: "login"
    property var loginVC: null
    property var setVC: null
    property bool isEnableUpdataPassword: false
    property alias textName: textName
    property alias textpassword: textpassword
    property alias labTitle: labTitle
    width: 280
    height: 230
    radius: 8
    color: "white"

    function disSelectVCAction() {
        const error = Session.logInError(textName.text, textpassword.text)
        if (error.length > 0) {
            ProgressHud.showErrorWithStatus(error)
            return
        }
        Session.logIn(textName.text, textpassword.text, isEnableUpdataPassword)
    }
    Connections {
        target: Session
        function onLoggedInAnswered(ok) {
            if (!ok)
                return
            textName.focus = false
            textpassword.focus = false
            // Only the pop-up closes: its opener (the sign-up screen or the
            // settings) stays.
            AppDelegate.dismissPopup()
        }
    }

    Column {
        anchors.centerIn: parent
        spacing: 12
        width: parent.width - 40
        Button {
            id: labTitle
            objectName: "labTitle"
            width: parent.width
            flat: true
            text: "登录"
            font.pixelSize: 16
        }
        TextField {
            id: textName
            objectName: "textName"
            width: parent.width
            placeholderText: "手机号"
            focus: true
        }
        TextField {
            id: textpassword
            objectName: "textpassword"
            width: parent.width
            placeholderText: "密码"
            echoMode: TextInput.Password
            font.family: "DejaVu Sans" // (the Chinese font's dots are oversized)
            onAccepted: popup.disSelectVCAction()
        }
        Button {
            objectName: "loginButton"
            width: parent.width
            text: "登录"
            onClicked: popup.disSelectVCAction()
        }
    }
    Component.onCompleted: {
        if (Session.hasOldName) {
            isEnableUpdataPassword = !Session.firstLoginDone
            labTitle.text = "请重新设置密码"
            textName.text = Session.user.userOldName
            textName.readOnly = true
            if (type === "set" && !Session.firstLoginDone)
                textpassword.forceActiveFocus()
        } else {
            isEnableUpdataPassword = false
        }
    }
}
