// Votes and comments that came in together, written together: one call of
// the database's batch function answers each of them (for comments, sent
// with the COMMIT: one round trip). A batch that fails for one of its
// writes (an item removed meanwhile) is written again one write at a time,
// so that each hears only its own outcome; one whose end is unknown (the
// connection broke) is not written again.
#include <algorithm>
#include <map>

#include "store/SqlStore.h"

namespace rd::store::sql {

namespace {

std::string int_array(const std::vector<std::int64_t>& v) {
  std::string out = "{";
  for (std::size_t i = 0; i < v.size(); ++i) out += (i ? "," : "") + std::to_string(v[i]);
  return out + "}";
}

// Each element quoted, with its quotes and backslashes escaped.
std::string text_array(const std::vector<std::string>& v) {
  std::string out = "{";
  for (std::size_t i = 0; i < v.size(); ++i) {
    out += i ? ",\"" : "\"";
    for (char ch : v[i]) {
      if (ch == '"' || ch == '\\') out += '\\';
      out += ch;
    }
    out += '"';
  }
  return out + "}";
}

// The write a row answers (the function numbers them from 1).
template <class Op>
std::size_t answered(const Row& r, const std::vector<Op*>& ops, std::vector<bool>& seen) {
  const auto n = r.i(0);
  if (n < 1 || n > static_cast<std::int64_t>(ops.size()))
    throw Error("a batch answered a write it was not sent");
  seen[static_cast<std::size_t>(n - 1)] = true;
  return static_cast<std::size_t>(n - 1);
}

void check_all_answered(const std::vector<bool>& seen) {
  if (std::find(seen.begin(), seen.end(), false) != seen.end())
    throw Error("a batch left a write unanswered");
}

// After a failed batch on `c`: whether it may be written again (its
// transaction was rolled back); false when the connection broke on the way
// (the batch may have committed: its writes hear of the error, nothing is
// written twice).
bool may_write_again(Conn& c) {
  c.rollback();
  return c.usable();
}

// Writes `ops` as one batch (`batch` false: it failed and may go again);
// after a failure, one write at a time, each in a batch of its own (which
// locks what it writes in the same order as every batch).
template <class Op, class Batch>
void in_batches(const std::vector<Op*>& ops, Batch batch) {
  if (batch(ops)) return;
  for (Op* op : ops) {
    try {
      batch(std::vector<Op*>{op});
    } catch (...) {
      op->error = std::current_exception();
    }
  }
}

// Pushes made alike: the same devices, words and keep.
bool same_push(const CommentPush* a, const CommentPush* b) {
  if (!a || !b) return a == b;
  return a->device_pattern == b->device_pattern && a->alert_joiner == b->alert_joiner &&
         a->sound == b->sound && a->keep == b->keep;
}

}  // namespace

// Writes with `write` and returns what tells of its batches once they are
// over. What went to the database is told even when a later batch throws.
std::function<void()> SqlStore::batch_end(const std::function<void(Told&)>& write) {
  Told told;
  auto tell = [this](Told notices) {
    if (dialect_.remote_changes && dialect_.remote_changes->announce(notices)) return;
    auto c = pool_.get();
    c->add_notices(notices);
    c->tell();
  };
  try {
    write(told);
  } catch (...) {
    if (!told.empty()) tell(std::move(told));
    throw;
  }
  if (told.empty()) return {};
  return [tell, told = std::move(told)] { tell(told); };
}

void SqlStore::counted_batch(std::size_t writes, std::chrono::nanoseconds took) {
  local_changes_.fetch_add(1, std::memory_order_release);
  if (on_write_)
    for (std::size_t i = 0; i < writes; ++i) on_write_(took);
}

void SqlStore::write_votes(const std::vector<VoteOp*>& all, Told& told) {
  // Each user's vote on an item comes once in a batch; its twins (taps
  // twice) wait for it.
  std::vector<VoteOp*> ops, twins;
  std::map<std::pair<std::int64_t, std::string>, VoteOp*> first;
  for (VoteOp* op : all)
    (first.emplace(std::pair(op->id, op->user_id), op).second ? ops : twins).push_back(op);
  in_batches(ops, [&](const std::vector<VoteOp*>& batch) { return vote_batch(batch, told); });
  // The same vote again is answered by the first one's outcome: refused
  // alike, or a repeat. An opposite one goes in a batch after it.
  std::vector<VoteOp*> after;
  for (VoteOp* twin : twins) {
    const VoteOp* one = first.at({twin->id, twin->user_id});
    if (twin->like != one->like || !one->answered) {
      after.push_back(twin);
      continue;
    }
    const auto r = one->out.result;
    const bool refused =
        r == VoteResult::NoSuchUser || r == VoteResult::NoSuchItem || r == VoteResult::OwnPhoto;
    twin->out = {refused ? r : VoteResult::Repeated, std::nullopt};
    twin->answered = true;
  }
  if (!after.empty()) write_votes(after, told);
}

// False when the batch failed and may go again.
bool SqlStore::vote_batch(const std::vector<VoteOp*>& ops, Told& told) {
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::int64_t> items, likes;
  std::vector<std::string> users;
  std::int64_t now = 0;
  for (const VoteOp* op : ops) {
    items.push_back(op->id);
    users.push_back(op->user_id);
    likes.push_back(op->like ? 1 : 0);
    now = std::max(now, op->now_ms);
  }
  auto c = pool_.get();
  std::vector<Vote> outs(ops.size());
  bool changed = false;
  try {
    auto rows = c->query("SELECT * FROM rongdian_votes(?::BIGINT[], ?::TEXT[], ?::BIGINT[], ?)",
                         {int_array(items), text_array(users), int_array(likes), now});
    std::vector<bool> seen(ops.size());
    for (auto& r : rows) {
      Vote& out = outs[answered(r, ops, seen)];
      const auto result = r.i(1);
      if (result == -1) {
        out = {VoteResult::NoSuchUser, std::nullopt};
      } else if (result == -2) {
        out = {VoteResult::NoSuchItem, std::nullopt};
      } else if (result == -3) {
        out = {VoteResult::OwnPhoto, std::nullopt};
      } else if (result == 2) {
        out = {VoteResult::Repeated, std::nullopt};
      } else {
        r.cols.erase(r.cols.begin(), r.cols.begin() + 2);
        out = {result ? VoteResult::Changed : VoteResult::Counted, to_item(r)};
        changed = true;
      }
    }
    check_all_answered(seen);
  } catch (const std::exception&) {
    if (!may_write_again(*c)) throw;
    if (ops.size() > 1) return false;
    ops[0]->error = std::current_exception();
    return true;
  }
  if (changed) counted_batch(ops.size(), std::chrono::steady_clock::now() - start);
  for (std::size_t i = 0; i < ops.size(); ++i) {
    ops[i]->out = std::move(outs[i]);
    ops[i]->answered = true;
  }
  // Written and answered: the other instances hear of it before the voters
  // are let go.
  if (changed) {
    c->announce_change();
    told.merge(c->take_notices());
  }
  return true;
}

void SqlStore::write_comments(const std::vector<CommentOp*>& all, Told& told) {
  // A batch's comments push alike; the others go in a batch after it.
  std::vector<CommentOp*> ops, after;
  for (CommentOp* op : all) (same_push(op->push, all[0]->push) ? ops : after).push_back(op);
  in_batches(ops, [&](const std::vector<CommentOp*>& batch) { return comment_batch(batch, told); });
  if (!after.empty()) write_comments(after, told);
}

// False when the batch failed and may go again.
bool SqlStore::comment_batch(const std::vector<CommentOp*>& ops, Told& told) {
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::int64_t> items;
  std::vector<std::string> users, texts;
  std::int64_t now = 0;
  for (const CommentOp* op : ops) {
    items.push_back(op->item_id);
    users.push_back(op->user_id);
    texts.push_back(op->text);
    now = std::max(now, op->now_ms);
  }
  const CommentPush* push = ops[0]->push;
  auto c = pool_.get();
  std::vector<std::optional<CommentAdded>> outs(ops.size());
  try {
    c->begin_write();
    c->announce_change();
    auto rows = c->query_and_commit(
        "SELECT * FROM rongdian_comments(?::BIGINT[], ?::TEXT[], ?::TEXT[], ?, ?, ?, ?, ?)",
        {int_array(items), text_array(users), text_array(texts), now,
         push ? Param(push->device_pattern) : Param(nullptr),
         push ? push->alert_joiner : std::string(), push ? push->sound : std::string(),
         std::int64_t{push ? std::max(push->keep, 1) : 1}});
    std::vector<bool> seen(ops.size());
    for (auto& r : rows) {
      const auto n = answered(r, ops, seen);
      if (r.i(1) != 0) continue;  // no such user or item: none added
      if (!outs[n]) {
        Row comment;
        comment.cols.assign(r.cols.begin() + 2, r.cols.begin() + 9);
        outs[n].emplace();
        outs[n]->comment = to_comment(comment);
        outs[n]->owner_id = r.s(9);
        outs[n]->owner_unread = r.i(10);
      }
      if (r.cols[11]) outs[n]->pushed.push_back(r.s(11));
    }
    check_all_answered(seen);
  } catch (const std::exception& e) {
    if (!may_write_again(*c)) throw;
    if (ops.size() > 1) return false;
    // Alone: its item (or its author) went away meanwhile (no comment), or
    // its own error.
    if (dynamic_cast<const ForeignKeyViolation*>(&e))
      ops[0]->answered = true;
    else
      ops[0]->error = std::current_exception();
    return true;
  }
  for (const auto& out : outs)
    if (out)
      for (const auto& token : out->pushed) c->announce_push(token);
  counted_batch(ops.size(), std::chrono::steady_clock::now() - start);
  for (std::size_t i = 0; i < ops.size(); ++i) {
    ops[i]->out = std::move(outs[i]);
    ops[i]->answered = true;
  }
  // Written and answered: the other instances hear of it before the writers
  // are let go.
  told.merge(c->take_notices());
  return true;
}

}  // namespace rd::store::sql
