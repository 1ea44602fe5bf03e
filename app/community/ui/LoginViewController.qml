// The sign-up screen: mobile number and password, then the name pop-up. The
// bar's right button opens the log-in pop-up.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

BaseViewController {
    id: screen
    objectName: "LoginViewController"
    title: "注册"
    rightText: "登录"
    onRightClicked: rightBtnAction()
    property alias textEail: textEail
    property alias textPassword: textPassword

    function dismissallKeyboard() {
        textEail.focus = false
        textPassword.focus = false
    }
    function signUpAction() {
        const error = Session.signUpError(textEail.text, textPassword.text)
        if (error.length > 0) {
            ProgressHud.showErrorWithStatus(error)
            return
        }
        dismissallKeyboard()
        AppDelegate.presentPopup("SelectNameViewController", {
                             "loginVC": screen
                         })
    }
    function loginSuccess(name) {
        Session.signUp(textEail.text, textPassword.text, name)
    }
    function rightBtnAction() {
        dismissallKeyboard()
        AppDelegate.presentPopup("UserLogInViewController", {
                             "loginVC": screen,
                             "type": "login"
                         })
    }
    function dismissPopupVC() {
        AppDelegate.popScreen()
    }

    Connections {
        target: Notices
        function onFadeViewAction() {
            AppDelegate.dismissPopup()
        }
    }
    Connections {
        target: Session
        function onSignedUp() {
            screen.dismissPopupVC()
        }
    }

    MouseArea {
        id: btndissKey
        anchors.fill: parent
        onClicked: screen.dismissallKeyboard()
    }
    Column {
        id: loginView
        objectName: "loginView"
        anchors.horizontalCenter: parent.horizontalCenter
        y: AppDelegate.keyboardHeight > 0 ? 20 : 60
        width: parent.width - 40
        spacing: 14
        Label {
            text: "用手机号注册容点"
            color: "#666666"
            font.pixelSize: 15
        }
        TextField {
            id: textEail
            objectName: "textEail"
            width: parent.width
            placeholderText: "手机号"
            inputMethodHints: Qt.ImhDialableCharactersOnly
        }
        TextField {
            id: textPassword
            objectName: "textPassword"
            width: parent.width
            placeholderText: "密码"
            echoMode: TextInput.Password
            // The dots of a Latin font: the Chinese font's are as wide as a
            // Chinese character each.
            font.family: "DejaVu Sans"
            onAccepted: screen.signUpAction()
        }
        Button {
            objectName: "signUpButton"
            width: parent.width
            text: "注册"
            onClicked: screen.signUpAction()
        }
    }
    Component.onCompleted: {
        if (Session.needsRelogin)
            rightBtnAction()
    }
    // Once in view the number is typed at once, unless the log-in pop-up
    // opened with the screen and has the keys.
    StackView.onActivated: {
        if (!Session.needsRelogin)
            textEail.forceActiveFocus()
    }
}
