// What the community screens (feeds, item page, accounts, sharing, own
// photos, settings) ask of the app, as the QML singleton "Community": the
// session, the backend commands with their progress texts, the named
// notifications as signals, the row texts and the share senders.
//
// Callbacks given from QML are JavaScript functions; they run on the main
// thread when the command completes (and not at all when it never does, as
// with a transport failure of most commands).
#pragma once

#include <QImage>
#include <QJSValue>
#include <QObject>
#include <QVariant>
#include <QVariantMap>

#include "community/OtherShare.h"

class Community : public QObject {
  Q_OBJECT
  Q_PROPERTY(bool loggedIn READ loggedIn NOTIFY sessionChanged)
  Q_PROPERTY(QVariantMap user READ user NOTIFY sessionChanged)
 public:
  static Community* instance();
  // Registers the singleton and the list types with the "Rongdian" module.
  static void registerQmlTypes();
  // Photos from the network go through a disk cache in the app's cache folder.
  static void installImageCache(class QQmlEngine* engine);

  // Session ("userStae", the stored user, "usertokenID", "enableFristLogin2.3").
  bool loggedIn() const;
  QVariantMap user() const;
  Q_INVOKABLE QString tokenText() const;  // "(null)" when missing
  Q_INVOKABLE bool firstLoginDone() const;
  // The home screen's start-up account test: "userStae", a stored user id and
  // the token formatted as text not empty (a missing token passes).
  Q_INVOKABLE bool canLoadAccount() const;
  // The sign-up screen's re-login test.
  Q_INVOKABLE bool needsRelogin() const;
  Q_INVOKABLE bool hasOldName() const;
  Q_INVOKABLE void logout();

  // A record (Item, Comment, UserInfo or a map of their fields) as a map.
  Q_INVOKABLE QVariantMap toMap(const QVariant& record) const;

  // Row texts.
  Q_INVOKABLE QString nameBadge(const QString& name) const;
  Q_INVOKABLE QColor scoreColor(const QString& score) const;
  Q_INVOKABLE QString timeLabel(const QString& createdAt) const;
  Q_INVOKABLE QVariantMap rank(int row) const;  // {title, numberVisible, number}
  Q_INVOKABLE bool newestShowsPhotoMark(const QVariant& isenablePhoto) const;
  Q_INVOKABLE bool rankingShowsPhotoMark(const QVariant& isenablePhoto) const;
  Q_INVOKABLE QString likeTitle(const QVariant& like) const;
  Q_INVOKABLE QString unlikeTitle(const QVariant& count) const;

  // Checks (empty text: accepted).
  Q_INVOKABLE QString signUpError(const QString& number, const QString& password) const;
  Q_INVOKABLE QString logInError(const QString& number, const QString& password) const;
  Q_INVOKABLE QString nameError(const QString& name) const;
  Q_INVOKABLE QString commentError(const QString& text) const;
  Q_INVOKABLE QString photoMessageError(const QString& text) const;
  Q_INVOKABLE bool canComment() const;

  // Commands.
  // The top item: cb(item) with the first element when the answer has one.
  Q_INVOKABLE void loadFristPoint(const QJSValue& cb);
  // The own account: cb(user) with the fresh record.
  Q_INVOKABLE void loadSetData(const QJSValue& cb);
  // The like of every item view: changes `item` (a map of the Item's fields)
  // at once and returns it; the backend is told, and cb(ok, score, like) runs
  // when it answered. On success the thank-you bar shows; a vote the backend
  // refuses shows its message and puts the numbers of before back
  // (itemChanged, and score and like of before to cb).
  Q_INVOKABLE QVariantMap likeAction(const QVariant& item, bool isLike, const QJSValue& cb);
  // "评论中..." and the comment; cb(ok).
  Q_INVOKABLE void createComment(const QString& itemId, const QString& text, const QJSValue& cb);
  // "注册中..." and the sign-up; cb(ok) ("注册成功" shown on success).
  Q_INVOKABLE void signUp(const QString& number, const QString& password, const QString& name,
                          const QJSValue& cb);
  // "加载中..." and the log-in; "登录成功" and the first-log-in flag on success; cb(ok).
  Q_INVOKABLE void logIn(const QString& number, const QString& password, bool reset,
                         const QJSValue& cb);
  // "删除战场中..." and the removal; on success "itemDleteSucceed" with the
  // item id and "删除成功"; cb(ok).
  Q_INVOKABLE void deleteItem(const QString& itemId, const QJSValue& cb);

  // Sharing: by tag, {installed, message}; when installed the request is
  // made from the picture. savePicture writes it to the pictures folder and
  // returns the path ("" on failure, with the reason shown); copyText puts the
  // target's text on the clipboard.
  Q_INVOKABLE QVariantMap sharOtherAction(int tag, const QVariant& picture);
  Q_INVOKABLE QString savePicture(const QVariant& picture);
  Q_INVOKABLE void copyText(int tag);
  Q_INVOKABLE QString shareText(int tag) const;
  Q_INVOKABLE bool isShareTag(int tag) const;
  Q_INVOKABLE bool isInstalled(int tag) const;
  Q_INVOKABLE QString lastSavedPicture() const { return lastSaved_; }
  Q_INVOKABLE int sentRequests() const { return sent_; }
  const OtherShare::Request& lastRequest() const { return lastRequest_; }

  // Settings: the contact text (with the contact address) and the store's
  // review page of the app.
  Q_INVOKABLE QString contactText() const;
  Q_INVOKABLE QString reviewUrl() const;
  // The feedback form: "主人，请输入内容" for an empty text, otherwise
  // "发送中..." and the text (with the voice note at `voicePath`, if any) to the
  // server; "感谢您的反馈" or the server's (or the network) error; cb(ok).
  Q_INVOKABLE void sendFeedback(const QString& text, const QString& voicePath, const QJSValue& cb);

  // Notifications.
  Q_INVOKABLE void post(const QString& name);

 signals:
  void sessionChanged();
  // An item's record changed on one screen (its score and likes, its comment
  // count); every list and row showing that item takes the new fields.
  void itemChanged(const QVariantMap& item);
  void sharMessageSuccded();
  void clearAllNewsNum();
  void updataNewsNum();
  void userloginsucceed();
  // An own photo was deleted (its item id): the lists showing it drop it.
  void itemDleteSucceed(const QString& itemId);
  void fadeViewAction();

 private:
  explicit Community(QObject* parent = nullptr);
  void call(QJSValue cb, const QJSValueList& args);
  QString lastSaved_;
  int sent_ = 0;
  OtherShare::Request lastRequest_;
};
