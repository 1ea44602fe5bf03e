// Draws the app's own pictures. The PNGs beside this file were made with it:
//   cmake --build build --target rongdian-make-pictures
//   QT_QPA_PLATFORM=offscreen build/app/ui/rongdian-make-pictures app/ui/pictures
// Run it again after changing a drawing, and commit the PNGs. The desktop
// icon goes to icon/rongdian.png below that folder: it is installed for the
// desktop entry, not compiled into the app.
#include <QDir>
#include <QFont>
#include <QGuiApplication>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QRadialGradient>
#include <cmath>
#include <cstdio>
#include <functional>

namespace {

QString g_dir;

void save(const QString& name, int w, int h, const std::function<void(QPainter&)>& draw) {
  QImage img(w, h, QImage::Format_ARGB32_Premultiplied);
  img.fill(Qt::transparent);
  QPainter p(&img);
  p.setRenderHint(QPainter::Antialiasing);
  p.setRenderHint(QPainter::TextAntialiasing);
  draw(p);
  p.end();
  if (!img.save(g_dir + QLatin1Char('/') + name))
    std::fprintf(stderr, "cannot write %s\n", qPrintable(name));
}

const QColor kPink(0xff, 0x5a, 0x7d);
const QColor kDark(0x33, 0x33, 0x33);

QFont cjkFont(int px, bool bold = false) {
  QFont f(QStringLiteral("Noto Sans CJK SC"));
  f.setPixelSize(px);
  f.setBold(bold);
  return f;
}

void drawFace(QPainter& p, QPointF c, double r, QColor skin) {
  p.setPen(Qt::NoPen);
  p.setBrush(skin);
  p.drawEllipse(c, r * 0.8, r);
  p.setBrush(kDark);
  p.drawEllipse(c + QPointF(-r * 0.3, -r * 0.15), r * 0.08, r * 0.08);
  p.drawEllipse(c + QPointF(r * 0.3, -r * 0.15), r * 0.08, r * 0.08);
  p.setPen(QPen(kDark, r * 0.05, Qt::SolidLine, Qt::RoundCap));
  p.setBrush(Qt::NoBrush);
  p.drawArc(QRectF(c.x() - r * 0.3, c.y() + r * 0.1, r * 0.6, r * 0.4), 200 * 16, 140 * 16);
}

}  // namespace

int main(int argc, char** argv) {
  QGuiApplication app(argc, argv);
  g_dir = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral(".");
  QDir().mkpath(g_dir);

  // Splash picture: warm gradient with a few faces.
  save(QStringLiteral("location_more.png"), 640, 1136, [](QPainter& p) {
    QLinearGradient g(0, 0, 0, 1136);
    g.setColorAt(0, QColor(0xff, 0xd1, 0xdc));
    g.setColorAt(1, QColor(0xff, 0x8f, 0xa8));
    p.fillRect(0, 0, 640, 1136, g);
    const QColor skins[] = {QColor(0xff, 0xe0, 0xc4), QColor(0xf5, 0xcf, 0xa8),
                            QColor(0xe8, 0xbb, 0x90)};
    for (int i = 0; i < 9; ++i)
      drawFace(p, QPointF(110 + (i % 3) * 210, 560 + (i / 3) * 200), 70, skins[i % 3]);
  });
  // Splash title: the name in large type.
  save(QStringLiteral("location_title.png"), 480, 160, [](QPainter& p) {
    p.setPen(kPink);
    p.setFont(cjkFont(110, true));
    p.drawText(QRect(0, 0, 480, 160), Qt::AlignCenter, QStringLiteral("容点"));
  });
  // Bar pictures (drawn at twice the point size).
  save(QStringLiteral("base_navBG.png"), 640, 88,
       [](QPainter& p) { p.fillRect(0, 0, 640, 88, kPink); });
  save(QStringLiteral("base_navBack.png"), 44, 44, [](QPainter& p) {
    p.setPen(QPen(Qt::white, 5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.drawPolyline(QPolygonF({QPointF(28, 8), QPointF(14, 22), QPointF(28, 36)}));
  });
  save(QStringLiteral("menus_set.png"), 44, 44, [](QPainter& p) {
    p.translate(22, 22);
    p.setPen(Qt::NoPen);
    p.setBrush(Qt::white);
    for (int i = 0; i < 8; ++i) {
      p.drawRoundedRect(QRectF(-3.5, -19, 7, 10), 2, 2);
      p.rotate(45);
    }
    p.drawEllipse(QPointF(0, 0), 12, 12);
    p.setBrush(kPink);
    p.drawEllipse(QPointF(0, 0), 5, 5);
  });
  save(QStringLiteral("menus_unReadRed.png"), 36, 36, [](QPainter& p) {
    p.setPen(QPen(Qt::white, 2));
    p.setBrush(QColor(0xe5, 0x1c, 0x23));
    p.drawEllipse(QRectF(2, 2, 32, 32));
  });
  save(QStringLiteral("btn_add.png"), 44, 44, [](QPainter& p) {
    p.setPen(QPen(Qt::white, 5, Qt::SolidLine, Qt::RoundCap));
    p.drawLine(22, 8, 22, 36);
    p.drawLine(8, 22, 36, 22);
  });
  // Photo placeholder while a picture loads.
  save(QStringLiteral("location.png"), 400, 500, [](QPainter& p) {
    p.fillRect(0, 0, 400, 500, QColor(0xee, 0xee, 0xee));
    drawFace(p, QPointF(200, 240), 110, QColor(0xd8, 0xd8, 0xd8));
  });
  // Menu icons.
  auto icon = [](const QString& name, const std::function<void(QPainter&)>& inner) {
    save(name, 60, 60, [inner](QPainter& p) {
      p.setPen(Qt::NoPen);
      p.setBrush(kPink);
      p.drawEllipse(QRectF(2, 2, 56, 56));
      p.setPen(QPen(Qt::white, 4, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
      p.setBrush(Qt::NoBrush);
      inner(p);
    });
  };
  icon(QStringLiteral("icn_close.png"), [](QPainter& p) {
    p.drawLine(20, 20, 40, 40);
    p.drawLine(40, 20, 20, 40);
  });
  icon(QStringLiteral("one.png"), [](QPainter& p) {  // album
    p.drawRect(QRectF(15, 18, 30, 24));
    p.drawPolyline(QPolygonF(
        {QPointF(17, 40), QPointF(27, 29), QPointF(34, 36), QPointF(38, 32), QPointF(44, 40)}));
  });
  icon(QStringLiteral("two.png"), [](QPainter& p) {  // camera
    p.drawRoundedRect(QRectF(14, 21, 32, 22), 3, 3);
    p.drawEllipse(QPointF(30, 32), 6, 6);
    p.drawLine(24, 21, 27, 16);
    p.drawLine(27, 16, 33, 16);
    p.drawLine(33, 16, 36, 21);
  });
  icon(QStringLiteral("icn_4.png"), [](QPainter& p) {  // ranking
    p.drawLine(20, 42, 20, 32);
    p.drawLine(30, 42, 30, 18);
    p.drawLine(40, 42, 40, 26);
  });
  icon(QStringLiteral("icn_5.png"), [](QPainter& p) {  // newest
    p.drawEllipse(QPointF(30, 30), 14, 14);
    p.drawPolyline(QPolygonF({QPointF(30, 21), QPointF(30, 30), QPointF(37, 34)}));
  });
  // The desktop icon: one face on a pink rounded square, the name below it.
  QDir(g_dir).mkpath(QStringLiteral("icon"));
  save(QStringLiteral("icon/rongdian.png"), 256, 256, [](QPainter& p) {
    QLinearGradient g(0, 0, 0, 256);
    g.setColorAt(0, QColor(0xff, 0x8f, 0xa8));
    g.setColorAt(1, kPink);
    p.setPen(Qt::NoPen);
    p.setBrush(g);
    p.drawRoundedRect(QRectF(8, 8, 240, 240), 48, 48);
    drawFace(p, QPointF(128, 104), 64, QColor(0xff, 0xe0, 0xc4));
    p.setPen(Qt::white);
    p.setFont(cjkFont(52, true));
    p.drawText(QRect(0, 172, 256, 68), Qt::AlignCenter, QStringLiteral("容点"));
  });
  // The help sheet's button picture.
  save(QStringLiteral("result_help.png"), 240, 60, [](QPainter& p) {
    p.setPen(kPink);
    p.setFont(cjkFont(30, true));
    p.drawText(QRect(0, 0, 240, 60), Qt::AlignCenter, QStringLiteral("知道啦"));
  });
  return 0;
}
