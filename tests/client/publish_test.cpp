// Upload token, the uploader's single retry, and the publishing steps.
#include <gtest/gtest.h>

#include <QFile>
#include <QImage>
#include <QImageReader>
#include <QJsonDocument>
#include <QJsonObject>
#include <optional>

#include "ClientTestSupport.h"
#include "publish/PhotoPublisher.h"
#include "publish/QiniuAuthPolicy.h"
#include "publish/QiniuSimpleUploader.h"
#include "service/Endpoints.h"
#include "service/LocalUserInfo.h"
#include "shell/NotificationCenter.h"

using namespace clienttest;

namespace {

TEST(UploadToken, DeadlineAndKeys) {
  QiniuAuthPolicy p;
  p.scope = "rongdian";
  QJsonObject o = QJsonDocument::fromJson(p.marshal(1000).toUtf8()).object();
  EXPECT_EQ(o.keys(), (QStringList{"deadline", "scope"}));
  EXPECT_EQ(o["deadline"].toInteger(), 4600);
  p.expires = -5;
  EXPECT_EQ(QJsonDocument::fromJson(p.marshal(1000).toUtf8()).object()["deadline"].toInteger(),
            4600);
  p.expires = 120;
  p.escape = 1;
  p.customer = "c";
  o = QJsonDocument::fromJson(p.marshal(1000).toUtf8()).object();
  EXPECT_EQ(o["deadline"].toInteger(), 1120);
  EXPECT_EQ(o["escape"].toInteger(), 1);
  EXPECT_EQ(o["customer"], "c");
  EXPECT_FALSE(p.marshal(1000).contains(' '));
}

TEST(UploadToken, MatchesAnIndependentComputation) {
  // Expected value made with the openssl and base64 command-line tools.
  QiniuAuthPolicy p;
  p.scope = "rongdian";
  const QString token = p.makeToken("rongdian-dev-ak", "rongdian-dev-sk", 1700000000);
  EXPECT_EQ(token,
            "rongdian-dev-ak:WaWzxCkQcBVzaXlW46907xgEJwM=:"
            "eyJkZWFkbGluZSI6MTcwMDAwMzYwMCwic2NvcGUiOiJyb25nZGlhbiJ9");
  const QStringList parts = p.makeToken("ak", "sk").split(':');
  ASSERT_EQ(parts.size(), 3);
  EXPECT_EQ(parts[1].size(), 28);
  EXPECT_TRUE(parts[1].endsWith('='));
  const QByteArray policy =
      QByteArray::fromBase64(parts[2].toLatin1(), QByteArray::Base64UrlEncoding);
  EXPECT_EQ(QJsonDocument::fromJson(policy).object()["scope"], "rongdian");
}

struct Outcome {
  std::optional<QJsonObject> ret;
  std::optional<QiniuUploadError> error;
  QList<double> progress;
  bool progressBeforeEnd = true;
  bool done() const { return ret || error; }
};

class Uploader : public ::testing::Test {
 protected:
  void SetUp() override {
    Endpoints::setServerUrl(server.url());
    server.setHandler([this](const Request& r) {
      if (r.target == "/upload") return primary;
      return backup;
    });
  }
  void TearDown() override { Endpoints::reset(); }

  Outcome upload(const QByteArray& data, const QString& key) {
    QiniuSimpleUploader up("tok:en:x");
    Outcome out;
    QObject::connect(&up, &QiniuSimpleUploader::uploadProgressUpdated,
                     [&](const QString&, double f) {
                       if (out.done()) out.progressBeforeEnd = false;
                       out.progress << f;
                     });
    QObject::connect(&up, &QiniuSimpleUploader::uploadSucceeded,
                     [&](const QString&, const QJsonObject& r) { out.ret = r; });
    QObject::connect(&up, &QiniuSimpleUploader::uploadFailed,
                     [&](const QString&, const QiniuUploadError& e) { out.error = e; });
    up.uploadFileData(data, key);
    EXPECT_TRUE(waitUntil([&] { return out.done(); }));
    idleFor(100);  // nothing further arrives
    return out;
  }
  QStringList targets() const {
    QStringList t;
    for (const Request& r : server.requests()) t << QString::fromLatin1(r.target);
    return t;
  }

  FakeHttpServer server;
  Reply primary{200, R"({"key":"k.jpeg","hash":"h"})", false};
  Reply backup{200, R"({"key":"k.jpeg","hash":"b"})", false};
};

TEST_F(Uploader, MultipartFormAndProgress) {
  const QByteArray bytes(20000, 'x');
  const Outcome o = upload(bytes, "abc.jpeg");
  ASSERT_TRUE(o.ret);
  EXPECT_EQ(o.ret->value("hash"), "h");
  EXPECT_FALSE(o.progress.isEmpty());
  EXPECT_TRUE(o.progressBeforeEnd);
  EXPECT_DOUBLE_EQ(o.progress.last(), 1.0);
  ASSERT_EQ(server.requestCount(), 1);
  const Request r = server.requests()[0];
  EXPECT_EQ(r.method, "POST");
  EXPECT_TRUE(r.header("content-type").startsWith("multipart/form-data; boundary="));
  EXPECT_TRUE(r.body.contains("name=\"key\"\r\n\r\nabc.jpeg\r\n"));
  EXPECT_TRUE(r.body.contains("name=\"token\"\r\n\r\ntok:en:x\r\n"));
  EXPECT_TRUE(r.body.contains("name=\"file\"; filename=\"abc.jpeg\""));
  EXPECT_TRUE(r.body.contains("application/octet-stream"));
  EXPECT_TRUE(r.body.contains(bytes));
}

TEST_F(Uploader, QuestionMarkKeyIsNotSent) {
  ASSERT_TRUE(upload("data", "?").ret);
  EXPECT_FALSE(server.requests()[0].body.contains("name=\"key\""));
  ASSERT_TRUE(upload("data", QString()).ret);
  EXPECT_FALSE(server.requests()[1].body.contains("name=\"key\""));
}

TEST_F(Uploader, RetriesOnceAgainstTheBackupOnlyForRetryableFailures) {
  primary = Reply{503, R"({"error":"busy"})", false};
  Outcome o = upload("d", "k.jpeg");
  ASSERT_TRUE(o.ret);
  EXPECT_EQ(o.ret->value("hash"), "b");
  EXPECT_EQ(targets(), (QStringList{"/upload", "/upload-backup"}));

  server.clearRequests();
  primary = Reply{0, {}, true};  // no answer at all
  ASSERT_TRUE(upload("d", "k.jpeg").ret);
  // (the network layer itself may reconnect once to the silent primary)
  EXPECT_EQ(targets().first(), "/upload");
  EXPECT_EQ(targets().last(), "/upload-backup");
  EXPECT_EQ(targets().count("/upload-backup"), 1);

  for (int status : {579, 599, 401, 614}) {
    server.clearRequests();
    primary = Reply{status, R"({"error":"no"})", false};
    o = upload("d", "k.jpeg");
    ASSERT_TRUE(o.error) << status;
    EXPECT_EQ(o.error->status, status);
    EXPECT_EQ(targets(), QStringList{"/upload"}) << status;
  }

  // A repeat that fails is reported, not repeated.
  server.clearRequests();
  primary = Reply{503, "{}", false};
  backup = Reply{503, "{}", false};
  o = upload("d", "k.jpeg");
  ASSERT_TRUE(o.error);
  EXPECT_EQ(targets(), (QStringList{"/upload", "/upload-backup"}));
}

class Publishing : public ::testing::Test {
 protected:
  void SetUp() override {
    clearSettings();
    LocalUserInfo::storeSignedIn(QJsonDocument::fromJson(R"({"id":"owner-1"})").object());
    Endpoints::setServerUrl(server.url());
    server.setHandler([this](const Request& r) {
      if (r.target.startsWith("/upload")) {
        if (uploadFails) return Reply{401, R"({"error":"bad token"})", false};
        const qsizetype at = r.body.indexOf("name=\"key\"\r\n\r\n") + 14;
        const QByteArray key = r.body.mid(at, r.body.indexOf("\r\n", at) - at);
        return Reply{200, R"({"key":")" + key + R"("})", false};
      }
      return Reply{200, R"({"id":"owner-1"})", false};
    });
  }
  void TearDown() override { Endpoints::reset(); }
  QImage photo() {
    QImage img(640, 480, QImage::Format_RGB32);
    img.fill(QColor(200, 120, 80));
    return img;
  }
  FakeHttpServer server;
  HudRecorder hud;
  bool uploadFails = false;
};

TEST_F(Publishing, SavesUploadsAndRegistersTheItem) {
  int posted = 0;
  QObject owner;
  NotificationCenter::defaultCenter().addObserver(Notifications::sharMessageSuccded, &owner,
                                                  [&](const Notification&) { ++posted; });
  PhotoPublisher pub(PhotoPublisher::makeDefaultToken());
  bool published = false;
  QObject::connect(&pub, &PhotoPublisher::published, [&] { published = true; });
  pub.addMessageSuccess("我的照片", photo(), "87", true);
  ASSERT_TRUE(waitUntil([&] { return published; }));
  EXPECT_EQ(posted, 1);

  // The saved copy: 200x250 JPEG under the fresh name, left in place.
  const QString path = PhotoPublisher::documentsDir() + "/" + pub.imgLocationName;
  QImageReader reader(path);
  EXPECT_EQ(reader.format(), "jpeg");
  EXPECT_EQ(reader.size(), QSize(200, 250));
  EXPECT_EQ(pub.imgLocationName.size(), 32 + 10);

  ASSERT_EQ(server.requestCount(), 2);
  EXPECT_TRUE(server.requests()[0].body.contains("name=\"key\"\r\n\r\n" +
                                                 pub.imgLocationName.toLatin1() + ".jpeg\r\n"));
  EXPECT_EQ(server.requests()[1].target, "/api?cmd=rd_add_item");
  const QJsonObject item = QJsonDocument::fromJson(server.requests()[1].body).object();
  EXPECT_EQ(item["base_image_url"],
            server.url() + "/files/" + pub.imgLocationName + ".jpeg?attname=");
  EXPECT_EQ(item["user_id"], "owner-1");
  EXPECT_EQ(item["num_look_score"], 87);
  EXPECT_EQ(item["description"], "我的照片");
  EXPECT_EQ(item["is_enabled_photo"], true);

  // Feedback: a bare waiting display, progress, then the after-upload text.
  ASSERT_GE(hud.events.size(), 3);
  EXPECT_EQ(hud.events[0].kind, Kind::Show);
  EXPECT_TRUE(hud.events[0].text.isEmpty());
  EXPECT_EQ(hud.events[1].kind, Kind::Progress);
  EXPECT_EQ(hud.events[1].text, "化妆中...");
  EXPECT_EQ(hud.events.last().kind, Kind::Show);
  EXPECT_EQ(hud.events.last().text, "正在打扫战场");
}

TEST_F(Publishing, FailedUploadSendsNothingToTheBackend) {
  uploadFails = true;
  PhotoPublisher pub(PhotoPublisher::makeDefaultToken());
  bool failed = false, published = false;
  QObject::connect(&pub, &PhotoPublisher::uploadFailed, [&] { failed = true; });
  QObject::connect(&pub, &PhotoPublisher::published, [&] { published = true; });
  pub.addMessageSuccess("x", photo(), "60", false);
  ASSERT_TRUE(waitUntil([&] { return failed; }));
  idleFor(100);
  EXPECT_FALSE(published);
  EXPECT_EQ(server.requestCount(), 1);  // 401: no retry, no item
  EXPECT_EQ(hud.errors(), QStringList{"呀，网络不好，稍候再试"});
  EXPECT_TRUE(QFile::exists(PhotoPublisher::documentsDir() + "/" + pub.imgLocationName));
}

}  // namespace
