// The app's PushClient against the real server's gateway (docs/push.md): the
// register hello gets a token of the documented form, a comment on the
// owner's photo arrives as a push, its ack makes the server forget it, and a
// push sent while the device was away comes once when it presents its token.
#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <memory>

#include "../support/ServerProcess.h"
#include "UiTestSupport.h"
#include "service/Endpoints.h"
#include "shell/ui/PushClient.h"

using namespace uitest;

namespace {

QJsonObject api(unsigned short port, const QString& cmd, QJsonObject body) {
  body["cmd"] = cmd;
  auto r = rdtest::http_request(port, "POST", ("/api?cmd=" + cmd).toStdString(),
                                QJsonDocument(body).toJson(QJsonDocument::Compact).toStdString(),
                                {{"HTTP_ACCESS_TOKEN", "anonymous"}});
  return QJsonDocument::fromJson(QByteArray::fromStdString(r.body)).object();
}

// One device: a PushClient and what it reported.
struct Device {
  explicit Device(unsigned short port, const QString& token = {}) {
    client.setUrl(QUrl(QStringLiteral("ws://127.0.0.1:%1/push").arg(port)));
    client.setDeviceToken(token);
    QObject::connect(&client, &PushClient::registered, [this](const QString& t) { tokens << t; });
    QObject::connect(&client, &PushClient::received, [this](const QVariantMap& p) { pushes << p; });
    QObject::connect(&client, &PushClient::registrationFailed,
                     [this](const QString& e) { errors << e; });
    client.registerForRemoteNotifications();
  }
  ~Device() { client.close(); }
  PushClient client;
  QStringList tokens, errors;
  QList<QVariantMap> pushes;
};

QString alertOf(const QVariantMap& push) {
  return push.value("aps").toMap().value("alert").toString();
}

TEST(PushGateway, TheAppsClientSpeaksTheServersProtocol) {
  rdtest::ServerProcess server({"--trust-claimed-scores"});  // the score here is made up
  ASSERT_TRUE(server.ok()) << server.startup_output();
  const unsigned short port = server.port();
  Endpoints::setServerUrl(QString::fromStdString(server.url()));
  struct Reset {
    ~Reset() { Endpoints::reset(); }
  } resetEndpoints;

  // First start: a new token of the documented form.
  auto phone = std::make_unique<Device>(port);
  ASSERT_TRUE(waitUntil([&] { return !phone->tokens.isEmpty(); }, 10000));
  const QString token = phone->tokens.first();
  EXPECT_TRUE(QRegularExpression("^<[0-9a-f]{8}( [0-9a-f]{8}){7}>$").match(token).hasMatch())
      << token.toStdString();
  EXPECT_TRUE(phone->errors.isEmpty());

  // The owner logs in from this phone; someone comments on his photo.
  QJsonObject owner = api(port, "rd_register_user",
                          {{"mobile", "13800000091"},
                           {"password", "pw"},
                           {"nickname", "小美"},
                           {"device_token", token},
                           {"device", "ios"}});
  ASSERT_FALSE(owner.contains("error")) << QJsonDocument(owner).toJson().toStdString();
  QJsonObject added = api(port, "rd_add_item",
                          {{"user_id", owner["id"]},
                           {"base_image_url", uploadPhoto()},
                           {"num_look_score", 5000},
                           {"description", "看我"},
                           {"is_enabled_photo", true}});
  const QString itemId = QString::number(added["item"].toObject()["id"].toInteger());
  QJsonObject other = api(port, "rd_register_user",
                          {{"mobile", "13800000092"}, {"password", "pw"}, {"nickname", "小明"}});
  auto comment = [&](const QString& text) {
    QJsonObject r = api(port, "rd_add_comments",
                        {{"item_id", itemId}, {"comments", text}, {"user_id", other["id"]}});
    EXPECT_FALSE(r.contains("error")) << QJsonDocument(r).toJson().toStdString();
  };
  comment(QStringLiteral("好看呀"));
  ASSERT_TRUE(waitUntil([&] { return phone->pushes.size() == 1; }, 10000));
  EXPECT_EQ(alertOf(phone->pushes[0]), QStringLiteral("小明 评论了你的照片：好看呀"));
  EXPECT_EQ(phone->pushes[0].value("aps").toMap().value("badge").toInt(), 1);
  idleFor(300);  // the ack reaches the server (the gateway does not answer acks)

  // Next start with the stored token: the acknowledged push does not come again.
  phone.reset();
  phone = std::make_unique<Device>(port, token);
  ASSERT_TRUE(waitUntil([&] { return !phone->tokens.isEmpty(); }, 10000));
  EXPECT_EQ(phone->tokens.first(), token);
  idleFor(800);  // no push comes again
  EXPECT_TRUE(phone->pushes.isEmpty());

  // A comment while the phone is off arrives, once, when it is back.
  phone.reset();
  comment(QStringLiteral("再来一张"));
  phone = std::make_unique<Device>(port, token);
  ASSERT_TRUE(waitUntil([&] { return phone->pushes.size() == 1; }, 10000));
  EXPECT_EQ(alertOf(phone->pushes[0]), QStringLiteral("小明 评论了你的照片：再来一张"));
  idleFor(300);  // the ack reaches the server
  phone.reset();
  phone = std::make_unique<Device>(port, token);
  ASSERT_TRUE(waitUntil([&] { return !phone->tokens.isEmpty(); }, 10000));
  idleFor(800);  // no push comes again
  EXPECT_TRUE(phone->pushes.isEmpty());
  EXPECT_TRUE(phone->errors.isEmpty());
}

}  // namespace
