#include "community/ui/Community.h"

#include <QClipboard>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QMetaProperty>
#include <QNetworkAccessManager>
#include <QNetworkDiskCache>
#include <QPointer>
#include <QQmlEngine>
#include <QQmlNetworkAccessManagerFactory>
#include <QStandardPaths>
#include <QtQml>

#include "BuildConfig.h"
#include "community/AccountChecks.h"
#include "community/CommentRules.h"
#include "community/CommentTableViews.h"
#include "community/FeedCellText.h"
#include "community/FeedbackClient.h"
#include "community/ItemTableViews.h"
#include "community/LikeTapAction.h"
#include "community/OtherShare.h"
#include "community/ui/VoiceRecorder.h"
#include "service/Endpoints.h"
#include "service/HeadApi.h"
#include "service/ItemApi.h"
#include "service/LocalUserInfo.h"
#include "service/UserInfoApi.h"
#include "shell/NotificationCenter.h"
#include "shell/ui/MessageBarModel.h"
#include "shell/ui/ProgressHud.h"

namespace {

template <typename T>
QVariantMap gadgetMap(const T& g) {
  QVariantMap m;
  const QMetaObject& mo = T::staticMetaObject;
  for (int i = mo.propertyOffset(); i < mo.propertyCount(); ++i) {
    const QMetaProperty p = mo.property(i);
    m.insert(QString::fromLatin1(p.name()), p.readOnGadget(&g));
  }
  return m;
}

}  // namespace

Community* Community::instance() {
  static Community* c = new Community;
  return c;
}

Community::Community(QObject* parent) : QObject(parent) {
  auto& nc = NotificationCenter::defaultCenter();
  nc.addObserver(Notifications::sharMessageSuccded, this,
                 [this](const Notification&) { emit sharMessageSuccded(); });
  nc.addObserver(Notifications::clearAllNewsNum, this,
                 [this](const Notification&) { emit clearAllNewsNum(); });
  nc.addObserver(Notifications::updataNewsNum, this,
                 [this](const Notification&) { emit updataNewsNum(); });
  nc.addObserver(Notifications::userloginsucceed, this, [this](const Notification&) {
    emit sessionChanged();
    emit userloginsucceed();
  });
  nc.addObserver(Notifications::itemDleteSucceed, this,
                 [this](const Notification& n) { emit itemDleteSucceed(n.object.toString()); });
  nc.addObserver(Notifications::fadeViewAction, this,
                 [this](const Notification&) { emit fadeViewAction(); });
}

namespace {
class CachedNetworkFactory : public QQmlNetworkAccessManagerFactory {
 public:
  QNetworkAccessManager* create(QObject* parent) override {
    auto* nam = new QNetworkAccessManager(parent);
    auto* cache = new QNetworkDiskCache(nam);
    QString dir = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
    if (dir.isEmpty()) dir = QDir::tempPath() + QStringLiteral("/rongdian-cache");
    cache->setCacheDirectory(dir + QStringLiteral("/photos"));
    cache->setMaximumCacheSize(100 * 1024 * 1024);
    nam->setCache(cache);
    return nam;
  }
};
}  // namespace

void Community::installImageCache(QQmlEngine* engine) {
  static CachedNetworkFactory factory;
  if (engine && !engine->networkAccessManagerFactory())
    engine->setNetworkAccessManagerFactory(&factory);
}

void Community::registerQmlTypes() {
  static bool done = false;
  if (done) return;
  done = true;
  qmlRegisterSingletonInstance("Rongdian", 1, 0, "Community", instance());
  qmlRegisterType<ShowTableView>("Rongdian", 1, 0, "ShowTableView");
  qmlRegisterType<ValueTableView>("Rongdian", 1, 0, "ValueTableView");
  qmlRegisterType<MyFaceTableView>("Rongdian", 1, 0, "MyFaceTableView");
  qmlRegisterType<CommentTableView>("Rongdian", 1, 0, "CommentTableView");
  qmlRegisterType<SelectCommentTableView>("Rongdian", 1, 0, "SelectCommentTableView");
  qmlRegisterType<VoiceRecorder>("Rongdian", 1, 0, "VoiceRecorder");
}

void Community::call(QJSValue cb, const QJSValueList& args) {
  if (cb.isCallable()) cb.call(args);
}

bool Community::loggedIn() const { return LocalUserInfo::isLoggedIn(); }

QVariantMap Community::user() const { return gadgetMap(LocalUserInfo::getUserInfo()); }

QString Community::tokenText() const {
  const QString t = LocalUserInfo::tokenID();
  return t.isNull() ? QStringLiteral("(null)") : t;
}

bool Community::firstLoginDone() const { return LocalUserInfo::firstLoginDone(); }

bool Community::canLoadAccount() const {
  return LocalUserInfo::isLoggedIn() && !LocalUserInfo::getUserInfo().userinfoId.isEmpty() &&
         !tokenText().isEmpty();
}

bool Community::needsRelogin() const {
  return AccountChecks::needsRelogin(LocalUserInfo::isLoggedIn(),
                                     LocalUserInfo::getUserInfo().userinfoId, tokenText());
}

bool Community::hasOldName() const {
  return AccountChecks::hasOldName(LocalUserInfo::getUserInfo().userOldName);
}

void Community::logout() {
  LocalUserInfo::clearUserInfo();
  emit sessionChanged();
}

QVariantMap Community::toMap(const QVariant& record) const {
  if (record.metaType() == QMetaType::fromType<Item>()) return gadgetMap(record.value<Item>());
  if (record.metaType() == QMetaType::fromType<Comment>())
    return gadgetMap(record.value<Comment>());
  if (record.metaType() == QMetaType::fromType<UserInfo>())
    return gadgetMap(record.value<UserInfo>());
  return record.toMap();
}

QString Community::nameBadge(const QString& name) const { return FeedCellText::nameBadge(name); }
QColor Community::scoreColor(const QString& score) const { return FeedCellText::scoreColor(score); }
QString Community::timeLabel(const QString& createdAt) const {
  return FeedCellText::timeLabel(createdAt);
}
QVariantMap Community::rank(int row) const {
  const auto r = FeedCellText::rank(row);
  return {{QStringLiteral("title"), r.title},
          {QStringLiteral("numberVisible"), r.numberVisible},
          {QStringLiteral("number"), r.number}};
}
bool Community::newestShowsPhotoMark(const QVariant& v) const {
  return FeedCellText::newestShowsPhotoMark(v.toString());
}
bool Community::rankingShowsPhotoMark(const QVariant& v) const {
  return FeedCellText::rankingShowsPhotoMark(v.toString());
}
QString Community::likeTitle(const QVariant& like) const {
  return FeedCellText::likeTitle(like.toString());
}
QString Community::unlikeTitle(const QVariant& count) const {
  return FeedCellText::unlikeTitle(count.toString());
}

QString Community::signUpError(const QString& number, const QString& password) const {
  return AccountChecks::signUpError(number, password);
}
QString Community::logInError(const QString& number, const QString& password) const {
  return AccountChecks::logInError(number, password);
}
QString Community::nameError(const QString& name) const { return AccountChecks::nameError(name); }
QString Community::commentError(const QString& text) const {
  return CommentRules::commentError(text);
}
QString Community::photoMessageError(const QString& text) const {
  return CommentRules::photoMessageError(text);
}
bool Community::canComment() const {
  return CommentRules::canComment(LocalUserInfo::isLoggedIn(),
                                  LocalUserInfo::getUserInfo().userinfoId);
}

void Community::loadFristPoint(const QJSValue& cb) {
  ItemApi::getMaxpointItem(QStringLiteral("rd_get_item"),
                           [this, cb](std::optional<QList<Item>> items) {
                             if (!items || items->isEmpty()) return;
                             call(cb, {qjsEngine(this)->toScriptValue(gadgetMap(items->first()))});
                           });
}

void Community::loadSetData(const QJSValue& cb) {
  const UserInfo u = LocalUserInfo::getUserInfo();
  UserInfoApi::getUserInfo(u.userinfoId, LocalUserInfo::tokenID(), QStringLiteral("rd_get_user"),
                           [this, cb](const UserInfo& fresh) {
                             emit sessionChanged();
                             call(cb, {qjsEngine(this)->toScriptValue(gadgetMap(fresh))});
                           });
}

QVariantMap Community::likeAction(const QVariant& itemVar, bool isLike, const QJSValue& cb) {
  const QVariantMap before = toMap(itemVar);
  QVariantMap item = before;
  const auto next = LikeTapAction::nextValues(item.value("lookscorebasis").toString(),
                                              item.value("like").toString(), isLike);
  item["lookscorebasis"] = next.score;
  item["like"] = next.like;
  const QString name = item.value("userlikename").toString();
  ItemApi::likeItem(item.value("itemId").toString(), isLike, QStringLiteral("rd_like_item"),
                    [this, cb, name, next, before](ItemApi::Vote vote) {
                      if (vote == ItemApi::Vote::Counted)
                        MessageBarModel::instance()->showMessage(LikeTapAction::thanksTitle(),
                                                                 LikeTapAction::thanksText(name),
                                                                 MessageBarModel::Success);
                      if (vote != ItemApi::Vote::Refused) {
                        call(cb, {vote == ItemApi::Vote::Counted, next.score, next.like, false});
                        return;
                      }
                      // Not counted (the photo is gone, a repeated vote): every
                      // view shows the numbers of before again.
                      emit itemChanged(before);
                      call(cb, {false, before.value("lookscorebasis").toString(),
                                before.value("like").toString(), true});
                    });
  emit itemChanged(item);
  return item;
}

void Community::createComment(const QString& itemId, const QString& text, const QJSValue& cb) {
  const UserInfo u = LocalUserInfo::getUserInfo();
  ProgressHud::instance()->showWithStatus(QStringLiteral("评论中..."));
  CommentApi::createComment(
      u.username, itemId, u.userlikename, text, QStringLiteral("rd_add_comments"),
      [this, cb](bool ok) {
        if (ok)
          ProgressHud::instance()->dismiss();
        else
          ProgressHud::instance()->showErrorWithStatus(HeadApi::kNetworkErrorText);
        call(cb, {ok});
      });
}

void Community::signUp(const QString& number, const QString& password, const QString& name,
                       const QJSValue& cb) {
  ProgressHud::instance()->showWithStatus(QStringLiteral("注册中..."));
  UserInfoApi::UserSignin(
      number, password, name, QStringLiteral("rd_register_user"), [this, cb](const UserInfo&) {
        ProgressHud::instance()->showSuccessWithStatus(QStringLiteral("注册成功"));
        emit sessionChanged();
        call(cb, {true});
      });
}

void Community::logIn(const QString& number, const QString& password, bool reset,
                      const QJSValue& cb) {
  ProgressHud::instance()->showWithStatus(QStringLiteral("加载中..."));
  UserInfoApi::UserLogIn(
      number, password, QStringLiteral("rd_login_user"), reset, [this, cb](bool ok) {
        if (ok) {
          ProgressHud::instance()->showSuccessWithStatus(QStringLiteral("登录成功"));
          if (!LocalUserInfo::firstLoginDone()) LocalUserInfo::setFirstLoginDone(true);
          emit sessionChanged();
        } else {
          ProgressHud::instance()->showErrorWithStatus(HeadApi::kNetworkErrorText);
        }
        call(cb, {ok});
      });
}

void Community::deleteItem(const QString& itemId, const QJSValue& cb) {
  ProgressHud::instance()->showWithStatus(QStringLiteral("删除战场中..."));
  ItemApi::deleteItem(itemId, QStringLiteral("rd_remove_item"), [this, cb, itemId](bool ok) {
    if (ok) {
      // Every list drops the photo (the own list reloads), then the message.
      NotificationCenter::defaultCenter().postNotification(Notifications::itemDleteSucceed, itemId);
      ProgressHud::instance()->showSuccessWithStatus(QStringLiteral("删除成功"));
    }
    call(cb, {ok});
  });
}

QVariantMap Community::sharOtherAction(int tag, const QVariant& picture) {
  QVariantMap out{{QStringLiteral("installed"), false}, {QStringLiteral("message"), QString()}};
  if (!OtherShare::isShareTag(tag)) return out;
  if (!OtherShare::isInstalled(tag)) {
    const QString message = OtherShare::missingAppMessage(tag);
    ProgressHud::instance()->showErrorWithStatus(message);
    out[QStringLiteral("message")] = message;
    return out;
  }
  lastRequest_ = OtherShare::requestFor(tag, picture.value<QImage>());
  ++sent_;
  out[QStringLiteral("installed")] = true;
  return out;
}

QString Community::savePicture(const QVariant& picture) {
  QString error;
  const QString path =
      OtherShare::savePicture(picture.value<QImage>(), OtherShare::defaultPictureDir(), &error);
  if (path.isEmpty())
    ProgressHud::instance()->showErrorWithStatus(error);
  else
    ProgressHud::instance()->showSuccessWithStatus(QStringLiteral("图片已保存：%1").arg(path));
  lastSaved_ = path;
  return path;
}

void Community::copyText(int tag) {
  const QString text = OtherShare::shareText(tag);
  if (text.isEmpty()) return;
  if (auto* cb = QGuiApplication::clipboard()) cb->setText(text);
  ProgressHud::instance()->showSuccessWithStatus(QStringLiteral("文字已复制"));
}

QString Community::shareText(int tag) const { return OtherShare::shareText(tag); }
bool Community::isShareTag(int tag) const { return OtherShare::isShareTag(tag); }
bool Community::isInstalled(int tag) const { return OtherShare::isInstalled(tag); }

QString Community::contactText() const {
  return QStringLiteral("如果您对容点有什么好的意见，或者合作请联系我。") +
         Endpoints::onServer(QString::fromUtf8(rd::build::kContactEmail));
}

QString Community::reviewUrl() const {
  return Endpoints::onServer(QString::fromUtf8(rd::build::kStoreReviewUrl))
      .replace(QStringLiteral("{id}"), QString::fromUtf8(rd::build::kStoreId));
}

void Community::sendFeedback(const QString& text, const QString& voicePath, const QJSValue& cb) {
  ProgressHud* hud = ProgressHud::instance();
  if (text.trimmed().isEmpty()) {
    hud->showErrorWithStatus(QStringLiteral("主人，请输入内容"));
    call(cb, {false});
    return;
  }
  if (text.size() > FeedbackClient::kMaxTextLength) {
    hud->showErrorWithStatus(
        QStringLiteral("主人，请删除一些内容（最多%1个字）").arg(FeedbackClient::kMaxTextLength));
    call(cb, {false});
    return;
  }
  hud->showWithStatus(QStringLiteral("发送中..."));
  QPointer<Community> self(this);
  FeedbackClient::send(text, voicePath, [self, cb](const FeedbackClient::Result& r) {
    if (!self) return;
    if (r.ok)
      ProgressHud::instance()->showSuccessWithStatus(QStringLiteral("感谢您的反馈"));
    else
      ProgressHud::instance()->showErrorWithStatus(r.message);
    self->call(cb, {r.ok});
  });
}

void Community::post(const QString& name) {
  NotificationCenter::defaultCenter().postNotification(name);
}
