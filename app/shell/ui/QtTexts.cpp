#include "QtTexts.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QTranslator>

namespace {

// Texts of Qt's file dialog that Qt's Chinese catalogue lacks.
class MissingTexts : public QTranslator {
 public:
  using QTranslator::QTranslator;
  QString translate(const char* context, const char* sourceText, const char* = nullptr,
                    int = -1) const override {
    if (qstrcmp(context, "FileDialog") != 0) return {};
    if (qstrcmp(sourceText, "Filter") == 0) return QStringLiteral("类型");
    if (qstrcmp(sourceText, "File name") == 0) return QStringLiteral("文件名");
    return {};
  }
  bool isEmpty() const override { return false; }
};

}  // namespace

QLocale QtTexts::locale() {
  const QLocale system = QLocale::system();
  return system.language() == QLocale::Chinese ? system : QLocale(QLocale::Chinese, QLocale::China);
}

bool QtTexts::install() {
  static bool done = false;
  static bool found = false;
  if (done) return found;
  done = true;
  auto* app = QCoreApplication::instance();
  const QLocale chosen = locale();
  QLocale::setDefault(chosen);
  const QString dir = QLibraryInfo::path(QLibraryInfo::TranslationsPath);
  for (const char* catalogue : {"qtbase", "qtdeclarative"}) {
    auto* t = new QTranslator(app);
    if (t->load(chosen, QString::fromLatin1(catalogue), QStringLiteral("_"), dir)) {
      QCoreApplication::installTranslator(t);
      found = found || qstrcmp(catalogue, "qtbase") == 0;
    } else {
      delete t;
    }
  }
  QCoreApplication::installTranslator(new MissingTexts(app));
  return found;
}
