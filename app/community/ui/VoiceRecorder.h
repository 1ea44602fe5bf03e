// The feedback form's voice note: records from the default microphone with
// Qt Multimedia (QMediaCaptureSession + QAudioInput + QMediaRecorder) into a
// file of its own, at most kMaxSeconds long. Without a microphone it says so
// (`available` false, `hint` the reason) and the form sends text alone.
// QML knows it as VoiceRecorder.
#pragma once

#include <QtQml/qqmlregistration.h>

#include <QAudioInput>
#include <QMediaCaptureSession>
#include <QMediaRecorder>
#include <QObject>
#include <QString>
#include <QTimer>
#include <memory>

class VoiceRecorder : public QObject {
  Q_OBJECT
  QML_ELEMENT
  Q_PROPERTY(bool available READ available NOTIFY changed)
  Q_PROPERTY(bool recording READ recording NOTIFY changed)
  Q_PROPERTY(bool hasVoice READ hasVoice NOTIFY changed)
  Q_PROPERTY(int seconds READ seconds NOTIFY changed)
  Q_PROPERTY(QString filePath READ filePath NOTIFY changed)
  Q_PROPERTY(QString hint READ hint NOTIFY changed)
  Q_PROPERTY(QString buttonText READ buttonText NOTIFY changed)
 public:
  static constexpr int kMaxSeconds = 60;
  static inline const QString kNoMicrophoneText =
      QStringLiteral("没有可用的麦克风，无法录音（文字照样可以发送）");

  explicit VoiceRecorder(QObject* parent = nullptr);
  ~VoiceRecorder() override;

  bool available() const { return available_; }
  bool recording() const { return recording_; }
  bool hasVoice() const { return !file_.isEmpty() && !recording_; }
  int seconds() const { return int(durationMs_ / 1000); }
  QString filePath() const { return hasVoice() ? file_ : QString(); }
  QString hint() const { return hint_; }
  // The record button: "按一下开始录音", "录音中… 12秒（再按一下结束）", "重新录音".
  QString buttonText() const;

  // Starts a new note (an older one is discarded); stop() ends it.
  Q_INVOKABLE void start();
  Q_INVOKABLE void stop();
  Q_INVOKABLE void toggle();
  // Deletes the note (after it was sent, or when the user drops it).
  Q_INVOKABLE void discard();

  // Looks for a microphone again (e.g. after one was plugged in).
  Q_INVOKABLE void refreshDevices();

 signals:
  void changed();
  void failed(const QString& message);

 private:
  void fail(const QString& message);
  QString newFileName() const;

  bool available_ = false;
  bool recording_ = false;
  bool dropNext_ = false;  // the recording being stopped failed: delete it
  qint64 durationMs_ = 0;
  QString file_;
  QString hint_;
  QMediaCaptureSession session_;
  std::unique_ptr<QAudioInput> input_;
  QMediaRecorder recorder_;
  QTimer limit_;
};
