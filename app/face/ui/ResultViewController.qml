// The result screen: the photo with rounded corners, the counting number,
// the attribute lines, the sub-scores as labels and bars, " ? " for help,
// publishing with a message and the share panel. `vc` is its ResultLogic.
import QtQuick
import QtQuick.Controls
import Rongdian

BaseViewController {
    id: screen
    objectName: "ResultViewController"
    property var vc
    rightText: "再测一次"
    onRightClicked: vc.rightBtnAction()

    // The share panel's senders come with the sharing screens.
    signal shareRequested(string target)

    function showAnima() {
        popShardView.shown = true
    }
    function disAble() {
        popShardView.shown = false
    }

    Component.onCompleted: vc.viewDidLoad()
    StackView.onActivating: vc.viewWillAppear()

    Flickable {
        anchors.fill: parent
        contentHeight: page.height
        clip: true
        Item {
            id: page
            width: screen.width
            height: 520

            Image {
                id: imgHead
                objectName: "imgHead"
                x: 14
                y: 14
                width: 128
                height: 160
                source: vc ? vc.photoUrl : ""
                fillMode: Image.PreserveAspectCrop
                MouseArea {
                    anchors.fill: parent
                    onClicked: vc.bigButtonTapped()
                }
            }
            Column {
                x: 158
                y: 10
                width: page.width - 170
                spacing: 4
                Row {
                    spacing: 4
                    Label {
                        objectName: "textLayer"
                        text: vc ? vc.textLayer.text : ""
                        color: "#ff5a7d"
                        font.pixelSize: 44
                        font.bold: true
                    }
                    Button {
                        objectName: "bntPoint"
                        anchors.verticalCenter: parent.verticalCenter
                        text: " ? "
                        font.pixelSize: 14
                        implicitWidth: 34
                        implicitHeight: 30
                        onClicked: vc.bntPointAction()
                    }
                }
                Label {
                    text: "容点"
                    color: "#999999"
                    font.pixelSize: 13
                }
                Item {
                    width: 1
                    height: 6
                }
                Label {
                    objectName: "labAge"
                    text: vc ? vc.labAge : ""
                    font.pixelSize: 15
                    color: "#333333"
                }
                Label {
                    objectName: "labSex"
                    text: vc ? vc.labSex : ""
                    font.pixelSize: 15
                    color: "#333333"
                }
                Label {
                    objectName: "labSmiling"
                    text: vc ? vc.labSmiling : ""
                    font.pixelSize: 15
                    color: "#333333"
                }
            }

            // Sub-score labels above the bars, in the chart's order.
            Row {
                id: pointLabels
                x: 14 + chart.axisLeft
                y: 192
                width: chart.width - chart.axisLeft
                Repeater {
                    model: ["labEyePoint", "labNosePoint", "labMouthPoint", "labOtherPoint"]
                    delegate: Label {
                        objectName: modelData
                        width: pointLabels.width / 4
                        horizontalAlignment: Text.AlignHCenter
                        text: vc ? vc[modelData] : ""
                        font.pixelSize: 16
                        font.bold: true
                        color: "#333333"
                    }
                }
            }
            BarChart {
                id: chart
                objectName: "barChart"
                x: 14
                y: 218
                width: page.width - 28
                height: 170
                titles: vc ? vc.chartTitles : []
                values: vc ? vc.chartValues : []
                maximum: 100
            }
            Row {
                anchors.horizontalCenter: parent.horizontalCenter
                y: 410
                spacing: 20
                Button {
                    objectName: "publishButton"
                    text: "发布"
                    // Busy while the upload and the publish command run; a
                    // refused publish command (its error replaces the waiting
                    // display) lets the user try again.
                    enabled: vc && !(vc.publishing && Hud.modal)
                    implicitWidth: 120
                    font.pixelSize: 16
                    onClicked: vc.addMessage()
                }
                Button {
                    objectName: "shareButton"
                    text: "分享"
                    implicitWidth: 120
                    font.pixelSize: 16
                    onClicked: screen.showAnima()
                }
            }
        }
    }

    // The share panel, hidden until showAnima().
    Item {
        id: popShardView
        objectName: "popShardView"
        property bool shown: false
        anchors.fill: parent
        visible: opacity > 0
        opacity: shown ? 1 : 0
        Behavior on opacity {
            NumberAnimation {
                duration: 300
            }
        }
        Rectangle {
            anchors.fill: parent
            color: "#66000000"
            MouseArea {
                anchors.fill: parent
                onClicked: screen.disAble()
            }
        }
        Rectangle {
            anchors.bottom: parent.bottom
            width: parent.width
            height: 170
            color: "white"
            Label {
                objectName: "popShardViewtitle"
                x: 14
                y: 12
                text: "分享到"
                font.pixelSize: 15
                color: "#333333"
            }
            Rectangle {
                objectName: "popShardViewLine"
                y: 40
                width: parent.width
                height: 1
                color: "#eeeeee"
            }
            Row {
                y: 52
                anchors.horizontalCenter: parent.horizontalCenter
                spacing: 14
                Repeater {
                    model: [["popShardViewQQ", "QQ"], ["popShardViewWX", "微信"], ["popShardViewPY", "朋友圈"], ["popShardViewSina", "微博"]]
                    delegate: Button {
                        objectName: modelData[0]
                        text: modelData[1]
                        implicitWidth: 62
                        font.pixelSize: 13
                        onClicked: {
                            screen.disAble()
                            screen.shareRequested(modelData[0])
                        }
                    }
                }
            }
            Rectangle {
                objectName: "popShardViewLine2"
                y: 108
                width: parent.width
                height: 1
                color: "#eeeeee"
            }
            Button {
                objectName: "popShardViewCancleBtn"
                y: 118
                anchors.horizontalCenter: parent.horizontalCenter
                text: "取消"
                flat: true
                font.pixelSize: 15
                onClicked: screen.disAble() // cancleAtion
            }
        }
    }
}
