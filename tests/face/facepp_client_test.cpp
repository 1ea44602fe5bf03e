// The detection client against an in-process service: the request on the
// wire, and what each kind of answer turns into.
#include <gtest/gtest.h>

#include <QRegularExpression>
#include <QThread>

#include "FaceTestSupport.h"
#include "face/FaceInfo.h"
#include "face/FaceppAPI.h"
#include "face/FaceppClient.h"
#include "shell/NotificationCenter.h"

using namespace facetest;

namespace {

const QString kWarm = QStringLiteral("温馨提示");
const QString kSingle = QStringLiteral("当前版本,仅支持单人测试");
const QString kAgain = QStringLiteral("换一个图片，稍后再试：)");

class FaceppClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server.setReply({200, oneFaceAnswer()});
    FaceppClient::reset();
    FaceppAPI::initWithApiKey(QStringLiteral("K"), QStringLiteral("S"), 0);
    FaceppClient::setServer(server.url() + "/v2/");
    FaceppAPI::setDebugMode(true);
    observer = NotificationCenter::defaultCenter().addObserver(
        Notifications::FaceInfoRefresh, nullptr, [this](const Notification& n) {
          posted.append(n.object.value<FaceInfoPtr>());
          postThreads.append(QThread::currentThread());
        });
  }
  void TearDown() override {
    NotificationCenter::defaultCenter().removeObserver(observer);
    FaceppClient::reset();
  }
  FaceppResultPtr detect(const QByteArray& jpeg = QByteArray("\xff\xd8jpeg\x00\xff\xd9", 9)) {
    return FaceppAPI::detection().detectWithURL(QString(), jpeg, 1, 15);
  }
  void answer(int status, const QByteArray& body) { server.setReply({status, body}); }

  rdtest::FakeHttpServer server;
  AlertRecorder alerts;
  int observer = 0;
  QList<FaceInfoPtr> posted;
  QList<QThread*> postThreads;
};

}  // namespace

TEST(FaceppParams, AttributesModesAndExtras) {
  EXPECT_EQ(FaceppDetection::attributeText(0), "none");
  EXPECT_EQ(FaceppDetection::attributeText(15), "age,race,gender,smiling");
  EXPECT_EQ(FaceppDetection::attributeText(48), "pose,glass");
  EXPECT_EQ(FaceppDetection::attributeText(1 | 8 | 32), "age,smiling,glass");

  EXPECT_EQ(FaceppDetection::detectParams({}, 1, 15, {}, false, {}),
            QStringList({"mode", "normal", "attribute", "age,race,gender,smiling"}));
  EXPECT_EQ(FaceppDetection::detectParams({}, 0, 0, {}, false, {}),
            QStringList({"attribute", "none"}));
  EXPECT_EQ(FaceppDetection::detectParams({}, 2, 0, {}, false, {}),
            QStringList({"mode", "oneface", "attribute", "none"}));
  // URL first, then tag and async; only pairs of two texts of `others`, a lone last entry dropped.
  EXPECT_EQ(FaceppDetection::detectParams("http://x/a.jpg", -3, 4, "t1", true,
                                          {"a", "1", "b", 2, 3, "c", "d", "4", "e"}),
            QStringList({"url", "http://x/a.jpg", "mode", "oneface", "attribute", "gender", "tag",
                         "t1", "async", "true", "a", "1", "d", "4"}));
}

TEST(FaceppUrl, PrefixAndEscaping) {
  FaceppClient::reset();
  FaceppAPI::initWithApiKey("key", "sec ret", 0);
  FaceppClient::setServer("http://h/v2/");
  EXPECT_EQ(FaceppClient::generateRequestUrlPrefix(
                "detection/detect", FaceppDetection::detectParams({}, 1, 15, {}, false, {})),
            "http://h/v2/detection/detect?api_key=key&api_secret=sec%20ret&mode=normal"
            "&attribute=age,race,gender,smiling");
  // Values are not escaped one by one: the whole text is, and reserved characters stay.
  EXPECT_EQ(FaceppClient::generateRequestUrlPrefix("m", {"tag", "a&b=c/d,e?f:g#h", "n", "容 \"%<>"})
                .toStdString(),
            "http://h/v2/m?api_key=key&api_secret=sec%20ret&tag=a&b=c/d,e?f:g#h"
            "&n=%E5%AE%B9%20%22%25%3C%3E");
  FaceppClient::reset();
}

TEST(FaceppUrl, RegionsAndBoundary) {
  FaceppClient::reset();
  FaceppAPI::initWithApiKey("k", "s", 7);  // an unknown region leaves the server unset
  EXPECT_TRUE(FaceppClient::server().isEmpty());
  FaceppAPI::initWithApiKey("k", "s", 0);
  EXPECT_TRUE(FaceppClient::server().endsWith("/v2/"));
  FaceppClient::reset();

  const QRegularExpression uuid(
      "^Boundary-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$");
  const QString b1 = FaceppClient::generateBoundaryString();
  EXPECT_TRUE(uuid.match(b1).hasMatch()) << b1.toStdString();
  EXPECT_NE(b1, FaceppClient::generateBoundaryString());
}

TEST(FaceppUrlDeathTest, ProgrammingErrorsEndTheProcess) {
  EXPECT_DEATH(FaceppClient::generateRequestUrlPrefix("m", {"a", "b", "c"}),
               "\\(params.count%2\\)==0");
  EXPECT_DEATH(FaceppClient::generateRequestUrlPrefix(QString(), {}), "method != NULL");
}

TEST_F(FaceppClientTest, SendsTheMultipartUploadByteForByte) {
  const QByteArray jpeg("\xff\xd8\x00\r\n--x\xff\xd9", 10);
  const FaceppResultPtr r = detect(jpeg);
  ASSERT_TRUE(r);
  const QList<rdtest::Request> seen = server.requests();
  ASSERT_EQ(seen.size(), 1);
  const rdtest::Request& q = seen[0];
  EXPECT_EQ(q.method, "POST");
  EXPECT_EQ(
      q.target,
      "/v2/detection/detect?api_key=K&api_secret=S&mode=normal&attribute=age,race,gender,smiling");
  const QByteArray type = q.header("Content-Type");
  ASSERT_TRUE(type.startsWith("multipart/form-data; boundary=Boundary-")) << type.toStdString();
  const QByteArray boundary = type.mid(type.indexOf('=') + 1);
  EXPECT_EQ(boundary.size(), 9 + 36);
  const QByteArray expected =
      "--" + boundary + "\r\n" +
      "Content-Disposition: form-data; name=\"img\"; filename=\"image.jpeg\"\r\n" +
      "Content-Type: image/jpeg\r\n\r\n" + jpeg + "\r\n--" + boundary + "--\r\n";
  EXPECT_EQ(q.body, expected);
  EXPECT_EQ(q.header("Content-Length"), QByteArray::number(expected.size()));

  // A fresh boundary for every upload.
  detect(jpeg);
  ASSERT_EQ(server.requests().size(), 2);
  EXPECT_NE(server.requests()[1].header("Content-Type"), type);
}

TEST_F(FaceppClientTest, BodyWithoutImageAndPlainRequest) {
  EXPECT_EQ(FaceppClient::multipartBody("Boundary-1", std::nullopt), "--Boundary-1--\r\n");
  FaceppAPI::setDebugMode(false);
  const FaceppResultPtr r = FaceppAPI::detection().detectWithURL("http://e/p.jpg", std::nullopt);
  ASSERT_TRUE(r && r->success);
  const QList<rdtest::Request> seen = server.requests();
  ASSERT_EQ(seen.size(), 1);
  EXPECT_EQ(seen[0].method, "GET");
  EXPECT_EQ(seen[0].target,
            "/v2/detection/detect?api_key=K&api_secret=S&url=http://e/p.jpg&attribute=none");
  EXPECT_TRUE(seen[0].body.isEmpty());
}

TEST_F(FaceppClientTest, NotInitialisedNeverReachesTheNetwork) {
  FaceppClient::reset();
  FaceppClient::setServer(server.url() + "/v2/");
  for (bool debug : {false, true}) {
    FaceppAPI::setDebugMode(debug);
    const FaceppResultPtr r = detect();
    ASSERT_TRUE(r);
    EXPECT_FALSE(r->success);
    ASSERT_TRUE(r->error);
    EXPECT_EQ(r->error->message,
              "FacePlusPlus client has not been initialized yet, please use [FaceppAPI "
              "initWithApiKey: andApiSecret] first");
    EXPECT_EQ(r->error->httpStatusCode, 0);
    EXPECT_EQ(r->error->errorCode, 0);
  }
  EXPECT_TRUE(server.requests().isEmpty());
  EXPECT_TRUE(alerts.alerts().isEmpty());
}

TEST_F(FaceppClientTest, OneFaceIsAnnouncedBeforeTheCallReturns) {
  const FaceppResultPtr r = detect();
  ASSERT_TRUE(r);
  EXPECT_TRUE(r->success);
  EXPECT_FALSE(r->error);
  EXPECT_EQ(r->content.value("img_width").toInt(), 200);
  ASSERT_EQ(posted.size(), 1);
  ASSERT_TRUE(posted[0]);
  EXPECT_EQ(posted[0]->faceID, "f1");
  EXPECT_EQ(postThreads[0], QThread::currentThread());
  EXPECT_TRUE(alerts.alerts().isEmpty());
}

TEST_F(FaceppClientTest, DebugModeAnswersWithoutASingleFaceAlertAndGiveNothing) {
  struct Case {
    const char* what;
    rdtest::Reply answer;
    QString message;
  };
  const QList<Case> cases = {
      {"two faces", {200, twoFacesAnswer()}, kSingle},
      {"no face", {200, noFaceAnswer()}, kAgain},
      {"error_code",
       {400, R"({"error":"IMAGE_ERROR_UNSUPPORTED_FORMAT","error_code":1021})"},
       kAgain},
      {"garbage", {200, "<html>busy</html>"}, kAgain},
      {"face not an array", {200, R"({"face":{"a":1}})"}, kAgain},
      {"empty body", {200, ""}, kAgain},
      {"no answer", {0, {}, true}, kAgain},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    server.setReply(c.answer);
    const int before = static_cast<int>(alerts.alerts().size());
    EXPECT_FALSE(detect());
    const auto all = alerts.alerts();
    ASSERT_EQ(all.size(), before + 1);
    EXPECT_EQ(all.last().title, kWarm);
    EXPECT_EQ(all.last().message, c.message);
    EXPECT_EQ(all.last().buttons, QStringList{"确定"});
  }
  EXPECT_TRUE(posted.isEmpty());

  // Nobody listening at all.
  FaceppClient::setServer(QStringLiteral("http://127.0.0.1:1/v2/"));
  EXPECT_FALSE(detect());
  EXPECT_EQ(alerts.alerts().last().message, kAgain);
}

TEST_F(FaceppClientTest, OutsideDebugModeErrorsComeBackAsFailedResults) {
  FaceppAPI::setDebugMode(false);

  answer(400, R"({"error":"IMAGE_ERROR_UNSUPPORTED_FORMAT","error_code":1021})");
  FaceppResultPtr r = detect();
  ASSERT_TRUE(r && r->error);
  EXPECT_FALSE(r->success);
  EXPECT_EQ(r->error->message, "IMAGE_ERROR_UNSUPPORTED_FORMAT");
  EXPECT_EQ(r->error->httpStatusCode, 400);
  EXPECT_EQ(r->error->errorCode, 1021);
  EXPECT_TRUE(r->content.isEmpty());

  answer(200, R"({"error":"x","error_code":"1004","face":[]})");  // code as text
  r = detect();
  ASSERT_TRUE(r && r->error);
  EXPECT_EQ(r->error->errorCode, 1004);
  EXPECT_EQ(r->error->httpStatusCode, 200);

  answer(502, "garbage");
  r = detect();
  ASSERT_TRUE(r && r->error);
  EXPECT_FALSE(r->success);
  EXPECT_FALSE(r->error->message.isEmpty());
  EXPECT_EQ(r->error->httpStatusCode, 502);
  EXPECT_EQ(r->error->errorCode, 0);

  answer(200, "[1,2]");  // JSON, but no object
  r = detect();
  ASSERT_TRUE(r && r->error);
  EXPECT_FALSE(r->success);

  server.setReply({0, {}, true});
  r = detect();
  ASSERT_TRUE(r && r->error);
  EXPECT_FALSE(r->success);
  EXPECT_FALSE(r->error->message.isEmpty());
  EXPECT_EQ(r->error->httpStatusCode, 0);

  answer(200, twoFacesAnswer());  // the face count is a debug-mode duty only
  r = detect();
  ASSERT_TRUE(r);
  EXPECT_TRUE(r->success);
  EXPECT_EQ(r->content.value("face").toArray().size(), 2);

  EXPECT_TRUE(posted.isEmpty());
  EXPECT_TRUE(alerts.alerts().isEmpty());
}

TEST(FaceppResultBuilding, BodyAndTransportErrorTogether) {
  FaceppClient::reset();
  FaceppAPI::setDebugMode(false);
  FaceppResultPtr r = FaceppClient::generateResultWithResponseData(std::nullopt, std::nullopt, 0);
  ASSERT_TRUE(r && r->error);
  EXPECT_EQ(r->error->message, "no response data");
  // A transport error wins over a good body, and explains a bad one.
  r = FaceppClient::generateResultWithResponseData(QByteArray(R"({"face":[]})"), QString("reset"),
                                                   200);
  ASSERT_TRUE(r && r->error);
  EXPECT_FALSE(r->success);
  EXPECT_EQ(r->error->message, "reset");
  EXPECT_EQ(r->error->httpStatusCode, 200);
  r = FaceppClient::generateResultWithResponseData(QByteArray("{\"fa"), QString("cut off"), 200);
  ASSERT_TRUE(r && r->error);
  EXPECT_EQ(r->error->message, "cut off");
  FaceppClient::reset();
}
