// The result screen: the photo with rounded corners, the counting number,
// the attribute lines, the sub-scores as labels and bars, " ? " for help,
// publishing with a message and sharing. `vc` is its ResultController.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

BaseViewController {
    id: screen
    objectName: "ResultViewController"
    property ResultController vc
    rightText: "再测一次"
    onRightClicked: screen.vc.rightBtnAction()

    // Sharing sends or saves the picture of the whole screen.
    function sharAction() {
        popShardView.showAnima()
    }
    function disAble() {
        popShardView.disAble()
    }
    function sharOtherAction(tag) {
        popShardView.sharOtherAction(tag)
    }

    // A tap beside the message pop-up closes it.
    Connections {
        target: Notices
        function onFadeViewAction() {
            AppDelegate.dismissPopup()
        }
    }
    Component.onCompleted: screen.vc.viewDidLoad()
    StackView.onActivating: screen.vc.viewWillAppear()

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
                // Smaller on a narrow screen, to leave the score its room.
                width: Math.max(80, Math.min(128, page.width - 190))
                height: width * 1.25
                source: screen.vc ? screen.vc.photoUrl : ""
                fillMode: Image.PreserveAspectCrop
                MouseArea {
                    anchors.fill: parent
                    onClicked: screen.vc.bigButtonTapped()
                }
            }
            Column {
                id: attributes
                x: imgHead.x + imgHead.width + 16
                y: 10
                width: page.width - x - 12
                spacing: 4
                Row {
                    spacing: 4
                    Label {
                        objectName: "textLayer"
                        // The whole number beside " ? ", smaller when it must be.
                        width: Math.min(implicitWidth, attributes.width - 38)
                        fontSizeMode: Text.HorizontalFit
                        minimumPixelSize: 20
                        text: screen.vc ? screen.vc.textLayer.text : ""
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
                        onClicked: screen.vc.bntPointAction()
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
                    text: screen.vc ? screen.vc.labAge : ""
                    font.pixelSize: 15
                    color: "#333333"
                }
                Label {
                    objectName: "labSex"
                    text: screen.vc ? screen.vc.labSex : ""
                    font.pixelSize: 15
                    color: "#333333"
                }
                Label {
                    objectName: "labSmiling"
                    text: screen.vc ? screen.vc.labSmiling : ""
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
                        required property string modelData
                        objectName: modelData
                        width: pointLabels.width / 4
                        horizontalAlignment: Text.AlignHCenter
                        text: screen.vc ? screen.vc[modelData] : ""
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
                titles: screen.vc ? screen.vc.chartTitles : []
                values: screen.vc ? screen.vc.chartValues : []
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
                    enabled: screen.vc && !(screen.vc.publishing && ProgressHud.waiting)
                    implicitWidth: Math.min(120, (page.width - 48) / 2)
                    font.pixelSize: 16
                    onClicked: screen.vc.addMessage()
                }
                Button {
                    objectName: "shareButton"
                    text: "分享"
                    implicitWidth: Math.min(120, (page.width - 48) / 2)
                    font.pixelSize: 16
                    onClicked: screen.sharAction()
                }
            }
        }
    }

    SharePanel {
        id: popShardView
        picture: screen
    }
}
