// The feedback form of the settings screen: a text and, when the device has a
// microphone, a voice note; "发送" sends both to the server.
pragma ComponentBehavior: Bound
import QtQuick
import QtQuick.Controls
import Rongdian

BaseViewController {
    id: screen
    objectName: "FeedbackViewController"
    title: "意见反馈"
    rightText: "发送"
    property bool sending: false

    function send() {
        if (sending || recorder.recording)
            return
        sending = true
        Contact.sendFeedback(feedback.text, recorder.filePath)
    }
    onRightClicked: send()

    // A form left while it was being sent hears nothing more.
    Connections {
        target: Contact
        function onFeedbackAnswered(ok) {
            screen.sending = false
            if (!ok)
                return
            recorder.discard()
            if (screen.StackView.status === StackView.Active)
                AppDelegate.popScreen()
        }
    }

    VoiceRecorder {
        id: recorder
        onFailed: function (message) { ProgressHud.showErrorWithStatus(message) }
    }

    Column {
        anchors.fill: parent
        anchors.margins: 12
        spacing: 12

        ScrollView {
            width: parent.width
            height: parent.height * 0.5
            TextArea {
                id: feedback
                objectName: "feedbackText"
                placeholderText: "有什么好的意见，请告诉我们"
                wrapMode: TextEdit.Wrap
                font.pixelSize: 15
                background: Rectangle {
                    border.color: "#dddddd"
                    radius: 6
                }
            }
        }

        Row {
            spacing: 10
            Button {
                id: recordButton
                objectName: "recordButton"
                text: recorder.buttonText
                enabled: recorder.available && !screen.sending
                onClicked: recorder.toggle()
            }
            Button {
                objectName: "discardVoiceButton"
                text: "删除语音"
                visible: recorder.hasVoice
                enabled: !screen.sending
                onClicked: recorder.discard()
            }
        }

        Label {
            objectName: "voiceHint"
            width: parent.width
            wrapMode: Text.Wrap
            color: recorder.available ? "#888888" : "#cc4444"
            font.pixelSize: 13
            text: recorder.hasVoice ? "已录好一段" + recorder.seconds + "秒的语音，发送时一起发出"
                                    : recorder.hint
        }
    }
}
