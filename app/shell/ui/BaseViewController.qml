// The base of the app's full screens: a bar with the centred title "容点",
// the back button on the left, a plain text button on the right and, once
// setleftBtnRedNum() is called, the settings button with its unread badge in
// place of the back button. Screen content goes below the bar.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

Item {
    id: screen
    objectName: "BaseViewController"

    property alias title: labTitle.text
    property string rightText: ""
    property string rightImage: ""
    property bool rightVisible: rightText.length > 0 || rightImage.length > 0
    // The settings button replaces the back button once a count was given.
    property bool settingsInstalled: false
    property int setBntTag: 0
    property bool badgeVisible: false
    property string badgeText: ""
    readonly property real navHeight: 64
    readonly property real barHeight: 44
    default property alias content: body.data
    property alias bar: navBar
    property alias rightButton: rightBtn

    signal rightClicked

    // setleftBtnRedNum: the unread count n (null or undefined: 0).
    function setleftBtnRedNum(n) {
        const badge = AppDelegate.badgeFor(n === undefined || n === null ? 0 : n)
        setBntTag = badge.tag
        badgeVisible = badge.visible
        badgeText = badge.text
        settingsInstalled = true
    }
    // setAction: the settings screen with the last unread count.
    function setAction() {
        AppDelegate.pushScreen("SetViewController", {
                           "unReadNum": setBntTag
                       })
    }
    function popVC() {
        ProgressHud.dismiss()
        AppDelegate.popScreen()
    }

    Rectangle {
        anchors.fill: parent
        color: "white"
    }
    Item {
        id: body
        anchors.top: navBar.bottom
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.bottom: parent.bottom
    }

    Image {
        id: navBar
        objectName: "navBar"
        width: parent.width
        height: screen.barHeight
        source: "qrc:/pictures/base_navBG.png"
        fillMode: Image.Stretch

        Label {
            id: labTitle
            objectName: "labTitle"
            anchors.centerIn: parent
            width: parent.width - 140
            horizontalAlignment: Text.AlignHCenter
            elide: Text.ElideRight
            text: "容点"
            color: "white"
            font.pixelSize: 21
        }
        AbstractButton {
            id: leftBtn
            objectName: "leftBtn"
            visible: !screen.settingsInstalled
            x: 4
            width: 44
            height: 44
            contentItem: Image {
                source: "qrc:/pictures/base_navBack.png"
                fillMode: Image.Pad
                sourceSize.width: 22
                sourceSize.height: 22
            }
            onClicked: screen.popVC()
        }
        Item {
            id: setBgView
            objectName: "setBgView"
            visible: screen.settingsInstalled
            x: 4
            width: 56
            height: 44
            AbstractButton {
                id: setBnt
                objectName: "setBnt"
                width: 44
                height: 44
                contentItem: Image {
                    source: "qrc:/pictures/menus_set.png"
                    fillMode: Image.Pad
                    sourceSize.width: 22
                sourceSize.height: 22
                }
                onClicked: screen.setAction()
            }
            Image {
                id: bgPointred
                objectName: "bgPointred"
                visible: screen.badgeVisible
                x: 28
                y: 4
                width: 18
                height: 18
                source: "qrc:/pictures/menus_unReadRed.png"
                Label {
                    id: unReadNumlab
                    objectName: "unReadNumlab"
                    anchors.fill: parent
                    anchors.rightMargin: 5
                    horizontalAlignment: Text.AlignRight
                    verticalAlignment: Text.AlignVCenter
                    text: screen.badgeText
                    color: "white"
                    font.pixelSize: 13
                }
            }
        }
        Button {
            id: rightBtn
            objectName: "rightBtn"
            visible: screen.rightVisible
            anchors.right: parent.right
            anchors.rightMargin: 6
            anchors.verticalCenter: parent.verticalCenter
            flat: true
            text: screen.rightText
            icon.source: screen.rightImage
            icon.color: "transparent"
            icon.width: 22
            icon.height: 22
            display: screen.rightImage.length > 0 ? AbstractButton.IconOnly : AbstractButton.TextOnly
            font.pixelSize: 13
            palette.buttonText: "white"
            background: Item {}
            onClicked: screen.rightClicked()
        }
    }
}
