#include "community/ui/VoiceRecorder.h"

#include <QAudioDevice>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QMediaDevices>
#include <QMediaFormat>
#include <QStandardPaths>
#include <QUrl>

namespace {

// A compressed format the backend can write, best first; the server takes
// all of them. Without one, the backend's default.
QMediaFormat voiceFormat() {
  const std::pair<QMediaFormat::FileFormat, QMediaFormat::AudioCodec> wanted[] = {
      {QMediaFormat::Mpeg4Audio, QMediaFormat::AudioCodec::AAC},
      {QMediaFormat::Ogg, QMediaFormat::AudioCodec::Opus},
      {QMediaFormat::Ogg, QMediaFormat::AudioCodec::Vorbis},
      {QMediaFormat::WebM, QMediaFormat::AudioCodec::Opus},
      {QMediaFormat::MP3, QMediaFormat::AudioCodec::MP3},
  };
  for (const auto& [file, codec] : wanted) {
    QMediaFormat f(file);
    f.setAudioCodec(codec);
    if (f.isSupported(QMediaFormat::Encode)) return f;
  }
  return QMediaFormat();
}

QString suffixOf(const QMediaFormat& f) {
  switch (f.fileFormat()) {
    case QMediaFormat::Mpeg4Audio:
      return QStringLiteral("m4a");
    case QMediaFormat::Ogg:
      return QStringLiteral("ogg");
    case QMediaFormat::WebM:
      return QStringLiteral("webm");
    case QMediaFormat::MP3:
      return QStringLiteral("mp3");
    case QMediaFormat::Wave:
      return QStringLiteral("wav");
    default:
      return QString();
  }
}

}  // namespace

VoiceRecorder::VoiceRecorder(QObject* parent) : QObject(parent) {
  session_.setRecorder(&recorder_);
  recorder_.setMediaFormat(voiceFormat());
  recorder_.setQuality(QMediaRecorder::NormalQuality);
  limit_.setSingleShot(true);
  connect(&limit_, &QTimer::timeout, this, &VoiceRecorder::stop);
  connect(&recorder_, &QMediaRecorder::durationChanged, this, [this](qint64 ms) {
    durationMs_ = ms;
    emit changed();
  });
  connect(&recorder_, &QMediaRecorder::recorderStateChanged, this,
          [this](QMediaRecorder::RecorderState state) {
            if (state != QMediaRecorder::StoppedState) return;
            limit_.stop();
            recording_ = false;
            // The backend may have added its own suffix.
            const QUrl actual = recorder_.actualLocation();
            if (actual.isLocalFile()) file_ = actual.toLocalFile();
            if (dropNext_) {
              dropNext_ = false;
              if (!file_.isEmpty()) QFile::remove(file_);
              file_.clear();
            }
            if (!file_.isEmpty() && !QFile::exists(file_)) file_.clear();
            emit changed();
          });
  connect(&recorder_, &QMediaRecorder::errorOccurred, this,
          [this](QMediaRecorder::Error, const QString& text) {
            fail(QStringLiteral("录音失败：%1").arg(text));
          });
  refreshDevices();
}

VoiceRecorder::~VoiceRecorder() {
  if (recording_) recorder_.stop();
  if (!file_.isEmpty()) QFile::remove(file_);
}

void VoiceRecorder::refreshDevices() {
  const QAudioDevice device = QMediaDevices::defaultAudioInput();
  available_ = !device.isNull();
  if (available_) {
    input_ = std::make_unique<QAudioInput>(device);
    session_.setAudioInput(input_.get());
    hint_ = QStringLiteral("可以附上一段语音，最长%1秒").arg(kMaxSeconds);
  } else {
    session_.setAudioInput(nullptr);
    input_.reset();
    hint_ = kNoMicrophoneText;
  }
  emit changed();
}

QString VoiceRecorder::buttonText() const {
  if (!available_) return QStringLiteral("没有麦克风");
  if (recording_) return QStringLiteral("录音中… %1秒（再按一下结束）").arg(seconds());
  if (hasVoice()) return QStringLiteral("重新录音");
  return QStringLiteral("按一下开始录音");
}

QString VoiceRecorder::newFileName() const {
  QString dir = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
  if (dir.isEmpty()) dir = QDir::tempPath();
  QDir().mkpath(dir + QStringLiteral("/voice"));
  QString name = dir + QStringLiteral("/voice/feedback-") +
                 QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd-HHmmss-zzz"));
  const QString suffix = suffixOf(recorder_.mediaFormat());
  return suffix.isEmpty() ? name : name + QLatin1Char('.') + suffix;
}

void VoiceRecorder::start() {
  if (!available_) {
    fail(kNoMicrophoneText);
    return;
  }
  if (recording_) return;
  discard();
  file_ = newFileName();
  durationMs_ = 0;
  recorder_.setOutputLocation(QUrl::fromLocalFile(file_));
  recording_ = true;
  recorder_.record();
  limit_.start(kMaxSeconds * 1000);
  emit changed();
}

void VoiceRecorder::stop() {
  if (!recording_) return;
  recorder_.stop();  // the file is complete on StoppedState
}

void VoiceRecorder::toggle() {
  if (recording_)
    stop();
  else
    start();
}

void VoiceRecorder::discard() {
  if (recording_) return;
  if (!file_.isEmpty()) QFile::remove(file_);
  file_.clear();
  durationMs_ = 0;
  emit changed();
}

void VoiceRecorder::fail(const QString& message) {
  limit_.stop();
  if (recording_) {
    dropNext_ = true;
    recorder_.stop();
  }
  recording_ = false;
  if (!file_.isEmpty()) QFile::remove(file_);
  file_.clear();
  emit changed();
  emit failed(message);
}
