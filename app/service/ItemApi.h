// The backend's commands, one static method each; the last argument is the
// completion, called at most once, on the main thread. Failures are not
// returned: they are shown through ProgressHud / MessageBar, and on a
// transport failure most completions are not called at all (a screen waiting
// for one keeps waiting). Callers pass the command names of the backend
// ("rd_list_items", ...) as `cmd`.
//
//   ItemApi::listItem(10, 1, "lookscorbasis", {}, {}, "rd_list_items",
//                     [](std::optional<QList<Item>> items) { ... });
//
// A null QString argument means "not given": its field is left out of the
// request body.
#pragma once

#include <QList>
#include <QString>
#include <functional>
#include <optional>

#include "service/Records.h"

using BoolBlock = std::function<void(bool ok)>;
// nil (std::nullopt) says "no more pages" as well as "failed".
using ItemsBlock = std::function<void(std::optional<QList<Item>> items)>;
using CommentsBlock = std::function<void(std::optional<QList<Comment>> comments)>;
using UserBlock = std::function<void(const UserInfo& user)>;

class ItemApi {
 public:
  // "rd_add_item" (the URL always says cmd=rd_add_item). Calls back with true
  // on a reply without "error"; an error reply shows its message and stops.
  static void createItem(const QString& userId, const QString& imgUrl,
                         const QString& lookscoreBasis, bool isenablePhoto,
                         const QString& imgMessage, const QString& cmd, BoolBlock block);
  // "rd_list_items": `rank` "lookscorbasis" sorts by score ("sort_by" sent),
  // anything else by time. Delivers nil for an empty page or an error reply.
  // A transport failure calls `failed` (when given) after its message.
  static void listItem(int limit, int page, const QString& rank, const QString& userId,
                       const QString& itemId, const QString& cmd, ItemsBlock block,
                       std::function<void()> failed = {});
  // "rd_get_item": the top item as a one-element list, or nil (no message).
  static void getMaxpointItem(const QString& cmd, ItemsBlock block);
  // "rd_remove_item" for the stored user. false on an error reply, and on a
  // transport failure (shown as "删除失败").
  static void deleteItem(const QString& itemId, const QString& cmd, BoolBlock block);
  // "rd_like_item" for the stored user (the first argument is not used). false
  // on an error reply (shown in the message bar) and on a transport failure.
  static void isLikeItem(const QString& unused, const QString& itemId, bool isLike,
                         const QString& cmd, BoolBlock block);
  // The same, telling a vote the backend refused (an error reply: the photo
  // is gone, a repeated vote) from one that never reached it; a counted vote
  // comes with the item as the backend now counts it, when the reply holds it.
  enum class Vote { Counted, Refused, Unanswered };
  static void likeItem(const QString& itemId, bool isLike, const QString& cmd,
                       std::function<void(Vote, std::optional<Item> counted)> block);
};

class CommentApi {
 public:
  // "rd_add_comments" for the stored user; the first argument and the
  // nickname are not sent.
  static void createComment(const QString& unused, const QString& itemID,
                            const QString& userLikename, const QString& commentMessage,
                            const QString& cmd, BoolBlock block);
  // "rd_list_comments": nil when the page is empty or on an error reply (no
  // message); `failed` as for listItem.
  static void listItemComment(int limit, int page, const QString& itemID, const QString& cmd,
                              CommentsBlock block, std::function<void()> failed = {});
};

// Score commands: none.
class ScoreApi {};
