// The message bar: a short notice sliding in at the top of the screen with a
// title and a description, gone after a few seconds or a tap. A notice that
// comes while another is shown waits its turn (a few at most), so none is lost
// behind the next. Callable from any thread. QML draws it (MessageBarView.qml).
#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QTimer>

class MessageBar : public QObject {
  Q_OBJECT
  Q_PROPERTY(bool visible READ visible NOTIFY changed)
  Q_PROPERTY(QString title READ title NOTIFY changed)
  Q_PROPERTY(QString description READ description NOTIFY changed)
  Q_PROPERTY(int type READ type NOTIFY changed)
 public:
  // The bar's styles: 0 error, 1 success, 2 info.
  enum Type { Error = 0, Success = 1, Info = 2 };
  Q_ENUM(Type)

  explicit MessageBar(QObject* parent = nullptr);
  static MessageBar* instance();

  bool visible() const { return visible_; }
  QString title() const { return title_; }
  QString description() const { return description_; }
  int type() const { return type_; }

  Q_INVOKABLE void showMessage(const QString& title, const QString& description,
                               int type = Success);
  Q_INVOKABLE void hide();

  static constexpr int kShowMs = 3000;
  static constexpr int kQueued = 4;  // notices kept waiting; older ones go

 signals:
  void changed();
  // Every notice as it comes, on the bar's thread, shown at once or queued.
  void posted(const QString& title, const QString& description, int type);

 private:
  struct Notice {
    QString title, description;
    int type;
  };
  void present(const Notice& n);
  QList<Notice> waiting_;
  bool visible_ = false;
  QString title_, description_;
  int type_ = Success;
  QTimer hideTimer_;
};
