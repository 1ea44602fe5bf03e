#include "community/ui/ItemActions.h"

#include "community/CommentRules.h"
#include "community/LikeTapAction.h"
#include "community/ui/Session.h"
#include "service/ItemApi.h"
#include "service/LocalUserInfo.h"
#include "service/Records.h"
#include "shell/MessageBar.h"
#include "shell/NotificationCenter.h"
#include "shell/ProgressHud.h"
#include "shell/RequestScope.h"

ItemActions* ItemActions::instance() {
  static ItemActions* a = new ItemActions;
  return a;
}

ItemActions::ItemActions(QObject* parent) : QObject(parent) {
  connect(Session::instance(), &Session::sessionChanged, this, &ItemActions::canCommentChanged);
}

bool ItemActions::canComment() const {
  return CommentRules::canComment(LocalUserInfo::isLoggedIn(),
                                  LocalUserInfo::getUserInfo().userinfoId);
}

QString ItemActions::commentError(const QString& text) const {
  return CommentRules::commentError(text);
}
QString ItemActions::photoMessageError(const QString& text) const {
  return CommentRules::photoMessageError(text);
}

void ItemActions::loadFristPoint() {
  ItemApi::getMaxpointItem(QStringLiteral("rd_get_item"), [this](std::optional<QList<Item>> items) {
    if (!items || items->isEmpty()) return;
    topItem_ = recordMap(items->first());
    emit topItemChanged();
  });
}

namespace {
// The counts of a vote's answer, over the item as the views know it.
QVariantMap countedValues(const QVariantMap& item, const Item& counted) {
  QVariantMap out = item;
  out["lookscorebasis"] = counted.lookscorebasis;
  out["like"] = counted.like;
  out["unlike"] = counted.unlike;
  return out;
}
}  // namespace

int ItemActions::likeAction(const QVariant& itemVar, bool isLike) {
  const int request = ++lastRequest_;
  const QVariantMap before = recordMap(itemVar);
  QVariantMap item = before;
  const auto next = LikeTapAction::nextValues(item.value("lookscorebasis").toString(),
                                              item.value("like").toString(), isLike);
  item["lookscorebasis"] = next.score;
  item["like"] = next.like;
  const QString name = item.value("userlikename").toString();
  ItemApi::likeItem(
      item.value("itemId").toString(), isLike, QStringLiteral("rd_like_item"),
      [this, request, name, before](ItemApi::Vote vote, const std::optional<Item>& counted) {
        if (vote == ItemApi::Vote::Counted) {
          MessageBar::instance()->showMessage(LikeTapAction::thanksTitle(),
                                              LikeTapAction::thanksText(name), MessageBar::Success);
          // Every view shows the numbers the backend counted
          // (they differ from ours when the vote replaced an
          // opposite one, or others voted meanwhile).
          if (counted) emit itemChanged(countedValues(before, *counted));
        }
        // Not counted (the photo is gone, a repeated vote): every
        // view shows the numbers of before again.
        if (vote == ItemApi::Vote::Refused) emit itemChanged(before);
        emit likeAnswered(request, vote == ItemApi::Vote::Counted, vote == ItemApi::Vote::Refused);
      });
  emit itemChanged(item);
  return request;
}

void ItemActions::createComment(const QString& itemId, const QString& text) {
  const UserInfo u = LocalUserInfo::getUserInfo();
  ProgressHud::instance()->showWithStatus(QStringLiteral("评论中..."));
  RequestScope scope(RequestScope::screen());
  CommentApi::createComment(
      u.username, itemId, u.userlikename, CommentRules::commentText(text),
      QStringLiteral("rd_add_comments"), [this, itemId](bool ok) {
        if (ok)
          ProgressHud::instance()->dismiss();
        else
          ProgressHud::instance()->showErrorWithStatus(ProgressHud::kNetworkErrorText);
        emit commentAnswered(itemId, ok);
      });
}

void ItemActions::deleteItem(const QString& itemId) {
  ProgressHud::instance()->showWithStatus(QStringLiteral("删除战场中..."));
  ItemApi::deleteItem(itemId, QStringLiteral("rd_remove_item"), [this, itemId](bool ok) {
    // Refused or unanswered: the row stays, the request layer showed why.
    if (ok) {
      // Every list drops the photo's row, then the message.
      NotificationCenter::defaultCenter().postNotification(Notifications::itemDleteSucceed, itemId);
      ProgressHud::instance()->showSuccessWithStatus(QStringLiteral("删除成功"));
    }
    emit deleteAnswered(itemId, ok);
  });
}
