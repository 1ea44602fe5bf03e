#include "ItemApi.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QLoggingCategory>

#include "service/HeadApi.h"
#include "service/KADO_JSON.h"
#include "service/LocalUserInfo.h"
#include "shell/MessageBar.h"
#include "shell/ProgressHud.h"

Q_LOGGING_CATEGORY(lcItemApi, "rd.service.api", QtInfoMsg)

namespace {

// A value set on the body only when given (a null text is "not given").
void setIfGiven(QJsonObject& body, const char* key, const QString& value) {
  if (!value.isNull()) body.insert(QLatin1String(key), value);
}

bool hasError(const QJsonValue& reply) {
  return reply.isObject() && reply.toObject().contains(QStringLiteral("error"));
}

QString messageOf(const QJsonValue& reply) {
  const QJsonValue m = reply.toObject().value(QStringLiteral("message"));
  if (m.isUndefined() || m.isNull()) return {};
  return KADO_JSON::text(m);
}

void showNetworkError(int, const QString&) {
  ProgressHud::instance()->showErrorWithStatus(ProgressHud::kNetworkErrorText);
}

// The network text, then the caller's own step when it has one.
HeadApi::FailureHandler networkError(std::function<void()> failed) {
  return [failed = std::move(failed)](int status, const QString& error) {
    showNetworkError(status, error);
    if (failed) failed();
  };
}

QJsonObject commandBody(const QString& cmd) {
  QJsonObject body;
  body.insert(QStringLiteral("cmd"), cmd);
  return body;
}

QString commandQuery(const QString& cmd) { return QStringLiteral("cmd=%1").arg(cmd); }

}  // namespace

void ItemApi::createItem(const QString& userId, const QString& imgUrl,
                         const QString& lookscoreBasis, bool isenablePhoto,
                         const QString& imgMessage, const QString& cmd, BoolBlock block) {
  QJsonObject body = commandBody(cmd);
  setIfGiven(body, "user_id", userId);
  setIfGiven(body, "base_image_url", imgUrl);
  body.insert(QStringLiteral("num_look_score"), KADO_JSON::integerValue(lookscoreBasis));
  setIfGiven(body, "description", imgMessage);
  body.insert(QStringLiteral("is_enabled_photo"), isenablePhoto);
  // The publish command always goes to cmd=rd_add_item, whatever `cmd` says.
  HeadApi::postCommand(
      QStringLiteral("cmd=rd_add_item"), body,
      [block](const QJsonValue& reply) {
        if (hasError(reply)) {
          ProgressHud::instance()->showErrorWithStatus(messageOf(reply));
          return;
        }
        KADO_JSON::jsonToUserInfo(reply);  // always maps: the reply counts as success
        if (block) block(true);
      },
      showNetworkError);
}

void ItemApi::listItem(int limit, int page, const QString& rank, const QString& userId,
                       const QString& itemId, const QString& cmd, ItemsBlock block,
                       std::function<void()> failed) {
  QJsonObject body = commandBody(cmd);
  body.insert(QStringLiteral("limit"), limit);
  body.insert(QStringLiteral("page"), page);
  if (rank == QLatin1String("lookscorbasis"))
    body.insert(QStringLiteral("sort_by"), QStringLiteral("sort_by"));
  setIfGiven(body, "user_id", userId);
  setIfGiven(body, "item_id", itemId);
  HeadApi::postCommand(
      commandQuery(cmd), body,
      [block](const QJsonValue& reply) {
        qCDebug(lcItemApi).noquote() << "list items:" << KADO_JSON::text(reply);
        if (hasError(reply)) {
          ProgressHud::instance()->showErrorWithStatus(messageOf(reply));
          if (block) block(std::nullopt);
          return;
        }
        const QJsonArray items = reply.toObject().value(QStringLiteral("items")).toArray();
        if (items.isEmpty()) {
          if (block) block(std::nullopt);
          return;
        }
        QList<Item> list;
        list.reserve(items.size());
        for (const QJsonValue& v : items) list.append(KADO_JSON::jsonToItem(v));
        if (block) block(list);
      },
      networkError(std::move(failed)),
      // The own-photo list names its user by number: the session proves it is his.
      !userId.isNull() && LocalUserInfo::isLoggedIn() ? LocalUserInfo::tokenID() : QString());
}

void ItemApi::getMaxpointItem(const QString& cmd, ItemsBlock block) {
  HeadApi::postCommand(
      commandQuery(cmd), commandBody(cmd),
      [block](const QJsonValue& reply) {
        if (!reply.isObject() || hasError(reply)) {
          if (block) block(std::nullopt);
          return;
        }
        if (block) block(QList<Item>{KADO_JSON::jsonToItem(reply)});
      },
      showNetworkError);
}

void ItemApi::deleteItem(const QString& itemId, const QString& cmd, BoolBlock block) {
  QJsonObject body = commandBody(cmd);
  setIfGiven(body, "item_id", itemId);
  setIfGiven(body, "user_id", LocalUserInfo::getUserInfo().userinfoId);
  HeadApi::postCommand(
      commandQuery(cmd), body,
      [block](const QJsonValue& reply) {
        if (hasError(reply)) {
          ProgressHud::instance()->showErrorWithStatus(messageOf(reply));
          if (block) block(false);
          return;
        }
        if (block) block(true);
      },
      [block](int, const QString&) {
        ProgressHud::instance()->showErrorWithStatus(QStringLiteral("删除失败"));
        if (block) block(false);
      });
}

void ItemApi::isLikeItem(const QString& /*unused*/, const QString& itemId, bool isLike,
                         const QString& cmd, BoolBlock block) {
  likeItem(itemId, isLike, cmd, [block](Vote vote, const std::optional<Item>&) {
    if (block) block(vote == Vote::Counted);
  });
}

void ItemApi::likeItem(const QString& itemId, bool isLike, const QString& cmd,
                       std::function<void(Vote, std::optional<Item>)> block) {
  QJsonObject body = commandBody(cmd);
  setIfGiven(body, "item_id", itemId);
  setIfGiven(body, "user_id", LocalUserInfo::getUserInfo().userinfoId);
  body.insert(QStringLiteral("is_liked"), isLike);
  HeadApi::postCommand(
      commandQuery(cmd), body,
      [block](const QJsonValue& reply) {
        if (hasError(reply)) {
          MessageBar::instance()->showMessage(QStringLiteral("温馨提示"), messageOf(reply),
                                              MessageBar::Error);
          if (block) block(Vote::Refused, std::nullopt);
          return;
        }
        if (reply.isUndefined()) {
          if (block) block(Vote::Unanswered, std::nullopt);
          return;
        }
        std::optional<Item> counted;
        if (reply.toObject().contains(QStringLiteral("id"))) counted = KADO_JSON::jsonToItem(reply);
        if (block) block(Vote::Counted, counted);
      },
      [block](int, const QString&) {
        ProgressHud::instance()->showErrorWithStatus(ProgressHud::kNetworkErrorText);
        if (block) block(Vote::Unanswered, std::nullopt);
      });
}

void CommentApi::createComment(const QString& /*unused*/, const QString& itemID,
                               const QString& /*userLikename*/, const QString& commentMessage,
                               const QString& cmd, BoolBlock block) {
  QJsonObject body = commandBody(cmd);
  setIfGiven(body, "item_id", itemID);
  setIfGiven(body, "user_id", LocalUserInfo::tokenID());
  setIfGiven(body, "comments", commentMessage);
  HeadApi::postCommand(
      commandQuery(cmd), body,
      [block](const QJsonValue& reply) {
        if (hasError(reply)) {
          ProgressHud::instance()->showErrorWithStatus(messageOf(reply));
          return;
        }
        if (block) block(!reply.isUndefined());
      },
      showNetworkError);
}

void CommentApi::listItemComment(int limit, int page, const QString& itemID, const QString& cmd,
                                 CommentsBlock block, std::function<void()> failed) {
  QJsonObject body = commandBody(cmd);
  setIfGiven(body, "item_id", itemID);
  body.insert(QStringLiteral("limit"), limit);
  body.insert(QStringLiteral("page"), page);
  HeadApi::postCommand(
      commandQuery(cmd), body,
      [block](const QJsonValue& reply) {
        const QJsonValue comments = reply.toObject().value(QStringLiteral("comments"));
        if (hasError(reply) || !comments.isArray() || comments.toArray().isEmpty()) {
          if (block) block(std::nullopt);
          return;
        }
        QList<Comment> list;
        for (const QJsonValue& v : comments.toArray()) list.append(KADO_JSON::jsonToComment(v));
        if (block) block(list);
      },
      networkError(std::move(failed)));
}
