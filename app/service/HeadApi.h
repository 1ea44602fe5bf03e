// Building and sending the backend's requests.
//
// HeadApi's five builders make a request (method, headers, compact JSON body);
// only the POST builder is used by the commands (ItemApi, CommentApi,
// UserInfoApi). postCommand() performs the common sending steps of every
// command: the endpoint with "?" and the query, percent-escaped as UTF-8, one
// asynchronous request per call on the main thread's network manager, and the
// reply parsed as JSON. Screens never call this directly; they use the *Api
// classes.
#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QNetworkRequest>
#include <QString>
#include <QUrl>
#include <functional>

class QNetworkAccessManager;

struct HeadRequest {
  QNetworkRequest request;
  QByteArray method;  // "POST", "GET", "PUT", "DELETE"
  QByteArray body;    // empty when none (or when the dictionary could not be encoded)
};

class HeadApi {
 public:
  // POST with "HTTP_ACCESS_TOKEN: anonymous" and the dictionary as compact JSON.
  static HeadRequest setPostHeadrequest(const QUrl& url, const QJsonObject& bodyDic);
  // POST with "access_token: USERID" and the dictionary as compact JSON.
  static HeadRequest setPostDeleteHeadrequest(const QUrl& url, const QJsonObject& bodyDic,
                                              const QString& userId);
  // GET without headers (the user id is not used).
  static HeadRequest setGetHeadrequest(const QUrl& url, const QString& userId);
  static HeadRequest setPutHeadrequest(const QUrl& url, const QJsonObject& bodyDic);
  static HeadRequest setDeleteHeadrequest(const QUrl& url);

  // Every character outside the URL-legal set becomes %XX of its UTF-8 bytes;
  // "?", "=", ":", "/" and the other legal characters stay.
  static QByteArray percentEscape(const QString& text);
  // The backend endpoint + "?" + query ("cmd=NAME"), escaped and parsed.
  static QUrl commandUrl(const QString& query);

  // The shared network manager of the main thread.
  static QNetworkAccessManager* manager();

  // Outcome of one exchange. On success `reply` is the parsed body: an object,
  // an array, or undefined when the body is not JSON. On failure (no
  // connection, time-out, any status outside 200-299) `status` is the HTTP
  // status or 0 when there was no answer.
  using ReplyHandler = std::function<void(const QJsonValue& reply)>;
  using FailureHandler = std::function<void(int status, const QString& error)>;

  // Sends one built request; handlers run on the main thread, exactly one of
  // them, once, unless the request belongs to a RequestScope whose owner went
  // meanwhile: then it is aborted and neither runs. A request that moves no
  // byte for RequestScope::kCommandStallMs fails. Callable from any thread.
  static void send(const HeadRequest& request, ReplyHandler onReply, FailureHandler onFailure);

  // The common steps of a command: POST `body` to commandUrl(query). With a
  // `session` (the account id kept since sign-up or log-in) the request also
  // carries "Authorization: Bearer SESSION": the backend wants that proof
  // where a body names the account only by its mobile number.
  static void postCommand(const QString& query, const QJsonObject& body, ReplyHandler onReply,
                          FailureHandler onFailure, const QString& session = {});
};
