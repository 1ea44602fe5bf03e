// The feedback form of the settings screen: the text is kept on this
// device with the time it was written.
import QtQuick
import QtQuick.Controls
import Rongdian

BaseViewController {
    id: screen
    objectName: "FeedbackViewController"
    title: "意见反馈"
    rightText: "发送"
    onRightClicked: {
        if (feedback.text.trim().length === 0) {
            Hud.showErrorWithStatus("主人，请输入内容")
            return
        }
        if (Community.saveFeedback(feedback.text)) {
            Hud.showSuccessWithStatus("感谢您的反馈")
            App.popScreen()
        }
    }
    ScrollView {
        anchors.fill: parent
        anchors.margins: 12
        TextArea {
            id: feedback
            objectName: "feedbackText"
            placeholderText: "如果您对容点有什么好的意见，请告诉我们"
            wrapMode: TextEdit.Wrap
        }
    }
}
