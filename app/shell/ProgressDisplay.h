// The app's progress display and message bar: the one place user feedback of
// background work goes (a waiting text, a fraction, a success or error text;
// short notices in a bar at the top of the screen).
//
// The UI installs a presenter at start-up (ProgressDisplay::setPresenter with
// a function that drives its overlay; MessageBar::setPresenter likewise).
// Without one, everything is written to the log. Tests install a recorder.
// Calls may come from any thread; presenters are always called on the main
// (GUI) thread, in the order the calls were made.
#pragma once

#include <QString>
#include <functional>

class ProgressDisplay {
 public:
  enum class Kind {
    Show,      // waiting: text may be empty (spinner only)
    Progress,  // waiting with a fraction 0.0 .. 1.0 and a text
    Success,   // a success text that goes away by itself
    Error,     // an error text that goes away by itself
  };
  // fraction is only meaningful for Kind::Progress (negative otherwise).
  using Presenter = std::function<void(Kind kind, const QString& text, double fraction)>;

  // Replaces the presenter; an empty function restores the logging default.
  static void setPresenter(Presenter p);

  // The text of any request that could not reach the server.
  static const QString kNetworkErrorText;  // "网络环境差，请稍候再试！：）"

  static void show(const QString& status = {});
  static void showProgress(double fraction, const QString& status);
  static void showSuccessWithStatus(const QString& status);
  static void showErrorWithStatus(const QString& status);

  static const char* kindName(Kind kind);
};

// The bar of short notices at the top of the screen.
class MessageBar {
 public:
  // The bar's kinds; the first is the one the app uses for notices.
  enum class Type { Error = 0, Success = 1, Info = 2 };
  using Presenter =
      std::function<void(const QString& title, const QString& description, Type type)>;

  static void setPresenter(Presenter p);
  static void show(const QString& title, const QString& description, Type type = Type::Error);
};
