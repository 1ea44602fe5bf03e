// How long the app waits on the network, and for whom.
//
// A request sent while a RequestScope is open belongs to the scope's owner:
// the screen a person waits on, or a list of that screen. When the owner goes
// (the person left the screen), the request is aborted and its answer dropped,
// with any message it would have shown. Requests sent outside a scope belong
// to the app (likes, the account's refresh) and always finish.
//
//   RequestScope scope(RequestScope::screen());   // the screen shown now
//   CommentApi::createComment(...);
#pragma once

#include <QObject>
#include <functional>

class RequestScope {
 public:
  // A command (a small request and its answer) gives up after this long with
  // no byte moving; an upload, or a photo's analysis that sends a while and
  // then waits for the server's work, after this long without progress.
  static constexpr int kCommandStallMs = 10000;
  static constexpr int kUploadStallMs = 20000;

  explicit RequestScope(QObject* owner);
  ~RequestScope();
  RequestScope(const RequestScope&) = delete;
  RequestScope& operator=(const RequestScope&) = delete;

  // The owner of requests sent now on this thread (null: the app).
  static QObject* current();

  // The screen (or pop-up) a person sees now, as the UI reports it; null
  // without a UI.
  static QObject* screen();
  static void setScreenProvider(std::function<QObject*()> provider);

 private:
  QObject* previous_;
};
