// Settings: the account (name, gold coins), the unread badge on the own
// photos entry, feedback, contact, rating, and log-in or log-out.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

BaseViewController {
    id: screen
    objectName: "SetViewController"
    title: "设置"
    property int unReadNum: 0
    property string showType: ""
    property bool badgeVisible: false
    property string badgeText: ""
    property bool logged: Session.loggedIn

    function isShowUnreadNum(n) {
        const b = AppDelegate.badgeFor(n === undefined || n === null ? 0 : n)
        badgeVisible = b.visible
        badgeText = b.text
    }
    function loadSetData() {
        Session.refreshUser()
    }
    function setUserTypeView() {
        logged = Session.loggedIn
    }
    function myselfVCAction() {
        if (!Session.loggedIn) {
            ProgressHud.showErrorWithStatus("主人,请注册或登录")
            return
        }
        const u = Session.user
        AppDelegate.pushScreen("MyFaceViewController", {
                           "userLikeName": u.userlikename,
                           "userName": u.username,
                           "jumpType": "set"
                       })
    }
    function oneAction() { AppDelegate.pushScreen("FeedbackViewController", {}) }
    function twoAction() { AlertCenter.actionSheet(Contact.contactText, [], "取消") }
    // The review page in the browser; without one, its address to type in.
    function threwAction() {
        const url = Contact.reviewUrl
        if (!Qt.openUrlExternally(url))
            ProgressHud.showErrorWithStatus("没有可打开网页的浏览器，请访问 " + url)
    }
    function logoutAlert() { AlertCenter.alert("温馨提示", "是否退出登录", ["取消", "确定"]) }
    function fourAction() {
        if (Session.loggedIn)
            logoutAlert()
        else
            AppDelegate.pushScreen("LoginViewController", {})
    }
    function loginAction() {
        if (Session.loggedIn)
            logoutAlert()
        else
            AppDelegate.presentPopup("UserLogInViewController", {
                                 "setVC": screen,
                                 "type": "set"
                             })
    }

    Connections {
        target: Notices
        // A tap beside the log-in pop-up closes it.
        function onFadeViewAction() { AppDelegate.dismissPopup() }
        function onUserloginsucceed() { screen.setUserTypeView() }
        function onClearAllNewsNum() { screen.isShowUnreadNum(0) }
        function onUpdataNewsNum() { screen.loadSetData() }
    }
    Connections {
        target: Session
        function onSessionChanged() { screen.setUserTypeView() }
        // The signed-in account's count, whichever refresh brought it.
        function onUserRefreshed(request, user) {
            screen.isShowUnreadNum(user.numComments)
        }
    }
    Connections {
        target: AlertCenter
        function onAlertAnswered(title, index) {
            if (title !== "温馨提示" || index !== 1 || !screen.logged)
                return
            Session.logout()
            ProgressHud.showSuccessWithStatus("退出成功")
            screen.setUserTypeView()
            screen.isShowUnreadNum(0)
        }
    }

    Column {
        anchors.fill: parent
        Rectangle {
            id: loginView
            objectName: "loginView"
            width: parent.width
            height: 90
            color: "#fafafa"
            NameBadge {
                x: 16
                y: 22
                width: 46
                height: 46
                radius: 23
                name: screen.logged ? (Session.user.userlikename || "") : ""
            }
            Label {
                id: lablikeName
                objectName: "lablikeName"
                x: 76
                y: 20
                // A long name ends before the button (smaller first).
                width: labQuestion.x - 8 - x
                fontSizeMode: Text.HorizontalFit
                minimumPixelSize: 12
                elide: Text.ElideRight
                visible: screen.logged
                text: Session.user.userlikename || ""
                font.pixelSize: 17
            }
            Label {
                id: labUserScore
                objectName: "labUserScore"
                x: 76
                y: 50
                // Smaller rather than cut where the button leaves little room.
                width: labQuestion.x - 8 - x
                fontSizeMode: Text.HorizontalFit
                minimumPixelSize: 10
                elide: Text.ElideRight
                text: screen.logged ? "用户金币: " + Session.user.userScore : "用户金币: 无"
                color: "#888888"
                font.pixelSize: 13
                MouseArea {
                    anchors.fill: parent
                    onClicked: {} // userScoreAction: the gold-coin screen is empty
                }
            }
            Button {
                id: labQuestion
                objectName: "labQuestion"
                anchors.right: parent.right
                anchors.rightMargin: 12
                anchors.verticalCenter: parent.verticalCenter
                text: screen.logged ? "退出登录" : "登录"
                onClicked: screen.loginAction()
            }
        }
        Repeater {
            model: [["myself", "我的照片"], ["one", "意见反馈"], ["two", "联系我们"], ["threw", "给容点评分"],
                ["four", screen.logged ? "退出登录" : "注册"]]
            delegate: ItemDelegate {
                id: entry
                required property var modelData
                objectName: "entry_" + modelData[0]
                width: parent.width
                height: 50
                text: modelData[1]
                onClicked: {
                    switch (modelData[0]) {
                    case "myself": screen.myselfVCAction(); break
                    case "one": screen.oneAction(); break
                    case "two": screen.twoAction(); break
                    case "threw": screen.threwAction(); break
                    case "four": screen.fourAction(); break
                    }
                }
                Image {
                    id: unredRedImg
                    objectName: entry.modelData[0] === "myself" ? "unredRedImg" : ""
                    visible: entry.modelData[0] === "myself" && screen.badgeVisible
                    anchors.right: parent.right
                    anchors.rightMargin: 16
                    anchors.verticalCenter: parent.verticalCenter
                    width: 20
                    height: 20
                    source: "qrc:/pictures/menus_unReadRed.png"
                    Label {
                        objectName: entry.modelData[0] === "myself" ? "unredRedLab" : ""
                        anchors.centerIn: parent
                        text: screen.badgeText
                        color: "white"
                        font.pixelSize: 12
                    }
                }
            }
        }
    }
    Component.onCompleted: {
        if (showType === "enableFristLogin2.3")
            AppDelegate.presentPopup("UserLogInViewController", {
                                 "setVC": screen,
                                 "type": "set"
                             })
        if (Session.loggedIn)
            loadSetData()
        isShowUnreadNum(unReadNum)
    }
}
