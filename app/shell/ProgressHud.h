// The app's one progress display, where user feedback of background work
// goes: a waiting text while work is under way, a progress fraction, then a
// success or error text that goes away by itself. Every method may be called
// from any thread; the state changes on the object's own (main) thread, in
// the order of the calls. QML draws it (ProgressHudView.qml).
#pragma once

#include <QObject>
#include <QString>
#include <QTimer>

class ProgressHud : public QObject {
  Q_OBJECT
  Q_PROPERTY(Mode mode READ mode NOTIFY changed)
  Q_PROPERTY(QString status READ status NOTIFY changed)
  Q_PROPERTY(double progress READ progress NOTIFY changed)
  Q_PROPERTY(bool visible READ visible NOTIFY changed)
  // Work is under way (a waiting or progress display). The display takes no
  // touch; a screen that must not start the same work twice asks this.
  Q_PROPERTY(bool waiting READ waiting NOTIFY changed)
 public:
  enum Mode { Hidden, Waiting, Progress, Success, Error };
  Q_ENUM(Mode)

  explicit ProgressHud(QObject* parent = nullptr);
  static ProgressHud* instance();  // the app's display (created on first use)

  // The text of any request that could not reach the server.
  static const QString kNetworkErrorText;  // "网络环境差，请稍候再试！：）"

  Mode mode() const { return mode_; }
  QString status() const { return status_; }
  double progress() const { return progress_; }
  bool visible() const { return mode_ != Hidden; }
  bool waiting() const { return mode_ == Waiting || mode_ == Progress; }

  Q_INVOKABLE void show();  // waiting, no text
  Q_INVOKABLE void showWithStatus(const QString& status);
  Q_INVOKABLE void showProgress(double fraction, const QString& status);
  Q_INVOKABLE void showSuccessWithStatus(const QString& status);
  Q_INVOKABLE void showErrorWithStatus(const QString& status);
  Q_INVOKABLE void dismiss();
  // Takes down a waiting or progress display; a success or error text stays
  // its time (a list's load that ends after a message was shown).
  Q_INVOKABLE void dismissWaiting();

 signals:
  void changed();

 private:
  void apply(Mode mode, const QString& status, double progress);
  Mode mode_ = Hidden;
  QString status_;
  double progress_ = 0;
  QTimer autoDismiss_;
};
