// The settings screen's feedback form on the real app window against a real
// server: the entry opens it, the record button tells whether a microphone is
// there, the text lands as a row on the server, and a server that is gone
// leaves the form open with the text in place.
#include <gtest/gtest.h>

#include <QAudioDevice>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMediaDevices>

#include "../support/DatabaseRows.h"
#include "../support/ServerProcess.h"
#include "UiTestSupport.h"
#include "community/ui/VoiceRecorder.h"
#include "service/Endpoints.h"
#include "shell/ProgressHud.h"
#include "shell/ui/AppDelegate.h"

using namespace uitest;

namespace {

bool hudShowed(const QString& entry) {
  return waitUntil([&] { return hudShown().contains(entry); }, 15000);
}

QJsonArray feedbackRows(const rdtest::ServerProcess& server) {
  return QJsonDocument::fromJson(QByteArray::fromStdString(rdtest::sqlite_json(
                                     server.data_dir(), "SELECT text, voice_key FROM feedback")))
      .array();
}

QQuickItem* openForm() {
  app().delegate()->pushScreen("SetViewController", QVariantMap{});
  if (!onScreen("SetViewController")) return nullptr;
  QMetaObject::invokeMethod(item(top(), "entry_one"), "clicked");
  if (!onScreen("FeedbackViewController")) return nullptr;
  return top();
}

void send(QQuickItem* form) { QMetaObject::invokeMethod(form, "rightClicked"); }

TEST(FeedbackUi, TheFormSendsItsTextToTheServer) {
  rdtest::ServerProcess server;
  ASSERT_TRUE(server.ok()) << server.startup_output();
  app(AppShell::Options{QString::fromStdString(server.url()), false});
  waitUntil([] { return !app().delegate()->splashPictureShown(); }, 10000);

  QQuickItem* form = openForm();
  ASSERT_TRUE(form);
  QQuickItem* record = item(form, "recordButton");
  ASSERT_TRUE(record);
  if (QMediaDevices::audioInputs().isEmpty()) {
    EXPECT_FALSE(record->isEnabled());
    EXPECT_EQ(text(record), "没有麦克风");
    EXPECT_EQ(text(item(form, "voiceHint")), VoiceRecorder::kNoMicrophoneText);
  } else {
    EXPECT_TRUE(record->isEnabled());
    EXPECT_EQ(text(record), "按一下开始录音");
  }
  screenshot("feedback");

  // Nothing written: refused here, nothing sent.
  send(form);
  EXPECT_TRUE(hudShowed("error:主人，请输入内容"));
  EXPECT_EQ(top(), form);

  item(form, "feedbackText")->setProperty("text", QStringLiteral("希望能保存历史结果"));
  send(form);
  ASSERT_TRUE(hudShowed("success:感谢您的反馈")) << hudShown().join(" | ").toStdString();
  ASSERT_TRUE(onScreen("SetViewController"));
  QJsonArray rows = feedbackRows(server);
  ASSERT_EQ(rows.size(), 1);
  EXPECT_EQ(rows[0].toObject()["text"].toString(), QStringLiteral("希望能保存历史结果"));
  EXPECT_EQ(rows[0].toObject()["voice_key"].toString(), QString());

  // Sent, and the user leaves at once: the answer pops no other screen.
  ASSERT_TRUE(navigationSettled());
  form = openForm();
  ASSERT_TRUE(form);
  item(form, "feedbackText")->setProperty("text", QStringLiteral("发完就走"));
  clearHudShown();
  send(form);
  app().delegate()->popScreen();
  ASSERT_TRUE(hudShowed("success:感谢您的反馈"));
  idleFor(800);  // no late pop
  EXPECT_EQ(top()->objectName(), "SetViewController");
  EXPECT_EQ(feedbackRows(server).size(), 2);

  // The server is gone: the network text, and the form stays with its text.
  ASSERT_TRUE(navigationSettled());
  form = openForm();
  ASSERT_TRUE(form);
  item(form, "feedbackText")->setProperty("text", QStringLiteral("还在吗"));
  server.stop();
  send(form);
  EXPECT_TRUE(hudShowed("error:网络环境差，请稍候再试！：）"));
  EXPECT_EQ(top(), form);
  EXPECT_EQ(text(item(form, "feedbackText")), QStringLiteral("还在吗"));
  Endpoints::reset();
}

}  // namespace
