// The share panel: QQ, Weibo, WeChat chat and moments (tags 3001-3004), and
// the way out on a machine without those apps: save the picture, copy the text.
import QtQuick
import QtQuick.Controls
import Rongdian

Rectangle {
    id: panel
    objectName: "popShardView"
    signal sharOtherAction(int tag)
    signal saveAction
    signal copyAction
    property bool shown: false
    function showAnima() { shown = true }
    function disAble() { shown = false }

    visible: shown
    width: parent ? parent.width : 320
    height: 170
    y: parent ? parent.height - height : 0
    color: "#f8f8f8"
    border.color: "#dddddd"

    readonly property var targets: [[3001, "QQ"], [3002, "新浪微博"], [3003, "微信好友"], [3004, "朋友圈"]]
    Grid {
        id: grid
        anchors.horizontalCenter: parent.horizontalCenter
        y: 14
        columns: 4
        spacing: 10
        Repeater {
            model: panel.targets
            delegate: Button {
                objectName: "shareButton" + modelData[0]
                width: 68
                text: modelData[1]
                font.pixelSize: 12
                onClicked: panel.sharOtherAction(modelData[0])
            }
        }
    }
    Row {
        anchors.horizontalCenter: parent.horizontalCenter
        y: 70
        spacing: 10
        Button {
            objectName: "savePictureButton"
            text: "保存图片"
            onClicked: panel.saveAction()
        }
        Button {
            objectName: "copyTextButton"
            text: "复制文字"
            onClicked: panel.copyAction()
        }
        Button {
            objectName: "closeShareButton"
            text: "取消"
            onClicked: panel.disAble()
        }
    }
    Label {
        anchors.horizontalCenter: parent.horizontalCenter
        y: 124
        width: parent.width - 20
        wrapMode: Text.Wrap
        horizontalAlignment: Text.AlignHCenter
        text: "没有安装社交应用时，可保存图片并复制文字后自行分享"
        color: "#999999"
        font.pixelSize: 11
    }
}
