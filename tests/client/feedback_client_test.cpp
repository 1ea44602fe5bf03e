// FeedbackClient against a real rongdian-server: what it sends lands as a
// row (with the voice file), what the server refuses comes back as its
// message, and a server that is gone gives the network text.
#include <gtest/gtest.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <optional>

#include "ClientTestSupport.h"
#include "community/FeedbackClient.h"
#include "service/Endpoints.h"
#include "service/LocalUserInfo.h"
#include "shell/ProgressHud.h"
#include "support/DatabaseRows.h"
#include "support/ServerProcess.h"

using namespace clienttest;

namespace {

// 0.1 s of silence as a 16-bit mono WAV.
QByteArray silentWav() {
  auto le = [](quint32 v, int n) {
    QByteArray b;
    for (int i = 0; i < n; ++i) b.append(char((v >> (8 * i)) & 0xFF));
    return b;
  };
  QByteArray data(1600, '\0');
  QByteArray fmt =
      le(16, 4) + le(1, 2) + le(1, 2) + le(8000, 4) + le(16000, 4) + le(2, 2) + le(16, 2);
  QByteArray body = "WAVE" + QByteArray("fmt ") + fmt + "data" + le(data.size(), 4) + data;
  return "RIFF" + le(body.size(), 4) + body;
}

class Feedback : public RealServerTest {
 protected:
  FeedbackClient::Result send(const QString& text, const QString& voice = {}) {
    std::optional<FeedbackClient::Result> out;
    FeedbackClient::send(text, voice, [&](const FeedbackClient::Result& r) { out = r; });
    EXPECT_TRUE(waitUntil([&] { return out.has_value(); }, 20000));
    return out.value_or(FeedbackClient::Result{});
  }

  QJsonArray rows() {
    auto json = rdtest::sqlite_json(
        server.data_dir(),
        "SELECT id, text, user_id, device_token, voice_key, voice_mime FROM feedback ORDER BY id");
    return QJsonDocument::fromJson(QByteArray::fromStdString(json)).array();
  }

  QString writeFile(const QString& name, const QByteArray& bytes) {
    QFile f(dir.filePath(name));
    EXPECT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(bytes);
    return f.fileName();
  }

  QTemporaryDir dir;
};

TEST_F(Feedback, TextAndVoiceReachTheServerWithTheSession) {
  auto plain = send(QStringLiteral("拍照按钮太小了"));
  ASSERT_TRUE(plain.ok) << plain.message.toStdString();
  EXPECT_GT(plain.id, 0);

  // Signed in, with a push token: both go along.
  LocalUserInfo::storeSignedIn(QJsonObject{
      {"id", "0123456789abcdef0123456789abcdef"}, {"nickname", "小明"}, {"mobile", "13800000001"}});
  LocalUserInfo::setDeviceToken(QStringLiteral("<0123abcd 4567ef01>"));
  const QByteArray wav = silentWav();
  auto spoken = send(QStringLiteral("听听这个"), writeFile("note.wav", wav));
  ASSERT_TRUE(spoken.ok) << spoken.message.toStdString();
  EXPECT_GT(spoken.id, plain.id);

  QJsonArray all = rows();
  ASSERT_EQ(all.size(), 2);
  QJsonObject first = all[0].toObject(), second = all[1].toObject();
  EXPECT_EQ(first["text"].toString(), QStringLiteral("拍照按钮太小了"));
  EXPECT_EQ(first["voice_key"].toString(), QString());
  EXPECT_EQ(first["user_id"].toString(), QString());
  EXPECT_EQ(second["user_id"].toString(), QStringLiteral("0123456789abcdef0123456789abcdef"));
  EXPECT_EQ(second["device_token"].toString(), QStringLiteral("<0123abcd 4567ef01>"));
  EXPECT_EQ(second["voice_mime"].toString(), QStringLiteral("audio/wav"));
  QFile stored(QString::fromStdString(server.data_dir()) + "/feedback/" +
               second["voice_key"].toString());
  ASSERT_TRUE(stored.open(QIODevice::ReadOnly));
  EXPECT_EQ(stored.readAll(), wav);
}

TEST_F(Feedback, RefusalsCarryTheServersTextAndNothingIsStored) {
  auto blank = send(QStringLiteral("   "));
  EXPECT_FALSE(blank.ok);
  EXPECT_EQ(blank.status, 400);
  EXPECT_EQ(blank.error, QStringLiteral("empty_text"));
  EXPECT_EQ(blank.message, QStringLiteral("请输入反馈内容"));

  auto notAudio = send(QStringLiteral("看"), writeFile("note.wav", "just some words"));
  EXPECT_EQ(notAudio.status, 415);
  EXPECT_EQ(notAudio.error, QStringLiteral("not_audio"));
  EXPECT_FALSE(notAudio.message.isEmpty());

  // Checked here before anything is sent.
  auto missing = send(QStringLiteral("看"), dir.filePath("never-recorded.m4a"));
  EXPECT_EQ(missing.error, QStringLiteral("voice_unreadable"));
  EXPECT_EQ(missing.status, 0);
  auto huge =
      send(QStringLiteral("看"),
           writeFile("huge.wav", silentWav() + QByteArray(FeedbackClient::kMaxVoiceBytes, '\0')));
  EXPECT_EQ(huge.error, QStringLiteral("voice_too_large"));

  EXPECT_TRUE(rows().isEmpty());

  server.stop();
  auto gone = send(QStringLiteral("有人吗"));
  EXPECT_FALSE(gone.ok);
  EXPECT_EQ(gone.error, QStringLiteral("network"));
  EXPECT_EQ(gone.message, ProgressHud::kNetworkErrorText);
}

TEST(FeedbackEndpoints, FollowTheServerUrl) {
  Endpoints::setServerUrl(QStringLiteral("http://127.0.0.1:9/"));
  EXPECT_EQ(Endpoints::feedbackUrl(), QStringLiteral("http://127.0.0.1:9/feedback"));
  Endpoints::reset();
  EXPECT_TRUE(Endpoints::feedbackUrl().endsWith(QStringLiteral("/feedback")));
  EXPECT_EQ(FeedbackClient::voiceContentType(QStringLiteral("/tmp/a.M4A")),
            QStringLiteral("audio/mp4"));
}

}  // namespace
