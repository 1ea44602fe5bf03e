#include "FaceTestSupport.h"

#include <QBuffer>
#include <QImageReader>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTransform>
#include <cmath>
#include <cstdlib>

#include "shell/CustomTools.h"

namespace facetest {

QByteArray SeenRequest::header(const QByteArray& name) const {
  for (const auto& [k, v] : headers)
    if (k.compare(name, Qt::CaseInsensitive) == 0) return v;
  return {};
}

// Lives on the server's thread: accepts, reads one request, answers, closes.
class FakeServerWorker : public QObject {
 public:
  explicit FakeServerWorker(FakeDetectServer* owner) : owner_(owner) {}

  quint16 start() {
    server_ = new QTcpServer(this);
    if (!server_->listen(QHostAddress::LocalHost, 0)) return 0;
    connect(server_, &QTcpServer::newConnection, this, [this] {
      while (QTcpSocket* s = server_->nextPendingConnection()) {
        auto* buf = new QByteArray;
        connect(s, &QTcpSocket::readyRead, s, [this, s, buf] { onData(s, buf); });
        connect(s, &QTcpSocket::disconnected, s, [s, buf] {
          delete buf;
          s->deleteLater();
        });
      }
    });
    return server_->serverPort();
  }

 private:
  void onData(QTcpSocket* s, QByteArray* buf) {
    *buf += s->readAll();
    const qsizetype end = buf->indexOf("\r\n\r\n");
    if (end < 0) return;
    SeenRequest req;
    const QList<QByteArray> lines = buf->left(end).split('\n');
    const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
    req.method = first.value(0);
    req.target = first.value(1);
    qsizetype length = 0;
    for (qsizetype i = 1; i < lines.size(); ++i) {
      const QByteArray line = lines[i].trimmed();
      const qsizetype colon = line.indexOf(':');
      if (colon < 0) continue;
      req.headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
      if (line.left(colon).trimmed().compare("content-length", Qt::CaseInsensitive) == 0)
        length = line.mid(colon + 1).trimmed().toLongLong();
    }
    if (buf->size() < end + 4 + length) return;  // body not complete yet
    req.body = buf->mid(end + 4, length);
    buf->clear();

    CannedAnswer a;
    {
      QMutexLocker lock(&owner_->mutex_);
      owner_->requests_.append(req);
      a = owner_->answer_;
    }
    if (a.kind == CannedAnswer::CloseWithoutAnswer) {
      s->disconnectFromHost();
      return;
    }
    QByteArray out = "HTTP/1.1 " + QByteArray::number(a.status) + " X\r\n";
    out += "Content-Type: application/json\r\nConnection: close\r\n";
    out += "Content-Length: " + QByteArray::number(a.body.size()) + "\r\n\r\n" + a.body;
    s->write(out);
    s->disconnectFromHost();
  }

  FakeDetectServer* owner_;
  QTcpServer* server_ = nullptr;
};

FakeDetectServer::FakeDetectServer() {
  answer_.body = oneFaceAnswer();
  auto* w = new FakeServerWorker(this);
  worker_ = w;
  w->moveToThread(&thread_);
  QObject::connect(&thread_, &QThread::finished, w, &QObject::deleteLater);
  thread_.start();
  QMetaObject::invokeMethod(
      w, [this, w] { port_ = w->start(); }, Qt::BlockingQueuedConnection);
}

FakeDetectServer::~FakeDetectServer() {
  thread_.quit();
  thread_.wait();
}

void FakeDetectServer::setAnswer(CannedAnswer a) {
  QMutexLocker lock(&mutex_);
  answer_ = std::move(a);
}

QString FakeDetectServer::baseUrl() const {
  return QStringLiteral("http://127.0.0.1:%1/v2/").arg(port_);
}

QList<SeenRequest> FakeDetectServer::requests() const {
  QMutexLocker lock(&mutex_);
  return requests_;
}

namespace {

QByteArray face(const char* id, double cx, double cy) {
  return QStringLiteral(
             R"({"attribute":{"age":{"range":5,"value":25},"gender":{"confidence":99.9,"value":"Female"},)"
             R"("race":{"confidence":90.1,"value":"Asian"},"smiling":{"value":50}},"face_id":"%1",)"
             R"("position":{"center":{"x":%2,"y":%3},"eye_left":{"x":35,"y":40},"eye_right":{"x":65,"y":40},)"
             R"("height":60,"mouth_left":{"x":38,"y":70},"mouth_right":{"x":62,"y":70},)"
             R"("nose":{"x":50,"y":55},"width":60},"tag":""})")
      .arg(QLatin1String(id))
      .arg(cx)
      .arg(cy)
      .toUtf8();
}

QByteArray answer(const QByteArray& faces) {
  return R"({"face":[)" + faces +
         R"(],"img_height":250,"img_id":"img0","img_width":200,"session_id":"s0","url":null})";
}

}  // namespace

QByteArray oneFaceAnswer() { return answer(face("f1", 50, 50)); }
QByteArray twoFacesAnswer() { return answer(face("f1", 30, 30) + "," + face("f2", 70, 70)); }
QByteArray noFaceAnswer() { return answer({}); }

QByteArray withExifOrientation(const QByteArray& jpeg, int orientation) {
  // APP1: "Exif\0\0", big-endian TIFF header, one IFD with the orientation tag.
  QByteArray tiff("MM\x00\x2a\x00\x00\x00\x08", 8);
  tiff += QByteArray("\x00\x01", 2);                          // one entry
  tiff += QByteArray("\x01\x12\x00\x03\x00\x00\x00\x01", 8);  // 0x0112, SHORT, count 1
  tiff += char(0);
  tiff += char(orientation);
  tiff += QByteArray(2, '\0');  // value padding
  tiff += QByteArray(4, '\0');  // no next IFD
  const QByteArray payload = QByteArray("Exif\x00\x00", 6) + tiff;
  const int len = static_cast<int>(payload.size()) + 2;
  QByteArray seg("\xff\xe1", 2);
  seg += char((len >> 8) & 0xff);
  seg += char(len & 0xff);
  seg += payload;
  return jpeg.left(2) + seg + jpeg.mid(2);
}

QImage storedFor(const QImage& upright, int orientation) {
  const QImage cw = upright.transformed(QTransform().rotate(90));
  const QImage ccw = upright.transformed(QTransform().rotate(-90));
  switch (orientation) {
    case 2:
      return upright.mirrored(true, false);
    case 3:
      return upright.transformed(QTransform().rotate(180));
    case 4:
      return upright.mirrored(false, true);
    case 5:
      return cw.mirrored(true, false);  // transposed
    case 6:
      return ccw;  // shown turned a quarter clockwise
    case 7:
      return ccw.mirrored(true, false);  // transversed
    case 8:
      return cw;  // shown turned a quarter anticlockwise
    default:
      return upright;
  }
}

QImage samplePortrait() {
  QImageReader r(QStringLiteral(RD_MODELS_DIR "/demo/sample1.jpg"));
  r.setAutoTransform(false);
  r.setClipRect(QRect(280, 170, 480, 600));
  return r.read().convertToFormat(QImage::Format_RGB32);
}

double meanDiff(const QImage& a0, const QImage& b0) {
  if (a0.size() != b0.size() || a0.isNull()) return 1e9;
  const QImage a = a0.convertToFormat(QImage::Format_RGB32);
  const QImage b = b0.convertToFormat(QImage::Format_RGB32);
  double sum = 0;
  for (int y = 0; y < a.height(); ++y) {
    const auto* pa = reinterpret_cast<const QRgb*>(a.constScanLine(y));
    const auto* pb = reinterpret_cast<const QRgb*>(b.constScanLine(y));
    for (int x = 0; x < a.width(); ++x)
      sum += std::abs(qRed(pa[x]) - qRed(pb[x])) + std::abs(qGreen(pa[x]) - qGreen(pb[x])) +
             std::abs(qBlue(pa[x]) - qBlue(pb[x]));
  }
  return sum / (3.0 * a.width() * a.height());
}

AlertRecorder::AlertRecorder()
    : mutex_(std::make_shared<QMutex>()), list_(std::make_shared<QList<Alert>>()) {
  AlertAdapter::setPresenter(
      [m = mutex_, l = list_](const QString& t, const QString& msg, const QStringList& b) {
        QMutexLocker lock(m.get());
        l->append({t, msg, b});
      });
}

AlertRecorder::~AlertRecorder() { AlertAdapter::setPresenter(nullptr); }

QList<AlertRecorder::Alert> AlertRecorder::alerts() const {
  QMutexLocker lock(mutex_.get());
  return *list_;
}

}  // namespace facetest
