// The share panel of the result screen and of the photo-with-comments screen:
// QQ, Weibo, WeChat chat and moments (tags 3001-3004), and the way out on a
// machine without those apps: save the picture, copy the text. It covers its
// parent; a tap beside it closes it.
//
// `picture` is the item whose picture is sent or saved. The panel keeps
// itself out of that picture; pictureTaking() and pictureTaken() let the
// screen hide more (the edit buttons of the photo-with-comments screen).
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

Item {
    id: panel
    objectName: "popShardView"
    property Item picture: null
    property bool shown: false
    signal pictureTaking
    signal pictureTaken

    function showAnima() {
        shown = true
        fadeIn.restart()
    }
    function disAble() {
        shown = false
    }
    // Runs then(image) with the picture (a null image when it cannot be taken).
    function takePicture(then) {
        const wasShown = shown
        shown = false
        pictureTaking()
        const started = picture && picture.grabToImage(function (result) {
            if (wasShown)
                panel.shown = true
            panel.pictureTaken()
            then(result.image)
        })
        if (!started) {
            shown = wasShown
            pictureTaken()
            then(null)
        }
    }
    // The four targets: the target's message while its app is missing (the
    // panel stays), otherwise the panel closes and the picture is sent.
    function sharOtherAction(tag) {
        if (!Sharing.isShareTag(tag))
            return
        if (!Sharing.isInstalled(tag)) {
            Sharing.sharOtherAction(tag, null)
            return
        }
        disAble()
        takePicture(function (image) {
            Sharing.sharOtherAction(tag, image)
        })
    }
    function saveAction() {
        takePicture(function (image) {
            Sharing.savePicture(image)
        })
    }
    function copyAction() {
        Sharing.copyText(3002)
    }

    anchors.fill: parent
    visible: shown
    z: 10

    NumberAnimation {
        id: fadeIn
        target: panel
        property: "opacity"
        from: 0
        to: 1
        duration: 300
    }
    Rectangle {
        anchors.fill: parent
        color: "#66000000"
        MouseArea {
            anchors.fill: parent
            onClicked: panel.disAble()
        }
    }
    Rectangle {
        id: sheet
        anchors.bottom: parent.bottom
        width: parent.width
        height: 170
        color: "#f8f8f8"
        border.color: "#dddddd"
        MouseArea {
            anchors.fill: parent // taps on the sheet stay on it
        }

        readonly property var targets: [[3001, "QQ"], [3002, "新浪微博"], [3003, "微信好友"], [3004, "朋友圈"]]
        Grid {
            anchors.horizontalCenter: parent.horizontalCenter
            y: 14
            columns: 4
            spacing: 10
            Repeater {
                model: sheet.targets
                delegate: Button {
                    required property var modelData
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
}
