// Votes and comments that came in together, written together: one call of
// the database's batch function (and for comments their pushes and counts
// with the COMMIT) answers each of them. A batch that fails for one of its
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

}  // namespace

void SqlStore::counted_batch(std::size_t writes, std::chrono::nanoseconds took) {
  local_changes_.fetch_add(1, std::memory_order_release);
  if (on_write_)
    for (std::size_t i = 0; i < writes; ++i) on_write_(took);
}

void SqlStore::write_votes(const std::vector<VoteOp*>& all) {
  // Each user's vote on an item comes once in a batch; its twins (taps
  // twice) wait for it.
  std::vector<VoteOp*> ops, twins;
  std::map<std::pair<std::int64_t, std::string>, VoteOp*> first;
  for (VoteOp* op : all)
    (first.emplace(std::pair(op->id, op->user_id), op).second ? ops : twins).push_back(op);
  // A failed batch goes again one vote at a time, each in a batch of its own
  // (which locks what it writes in the same order as every batch).
  if (!vote_batch(ops)) {
    for (VoteOp* op : ops) {
      try {
        vote_batch({op});
      } catch (...) {
        op->error = std::current_exception();
      }
    }
  }
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
  if (!after.empty()) write_votes(after);
}

// False when the batch failed and may go again.
bool SqlStore::vote_batch(const std::vector<VoteOp*>& ops) {
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
  if (changed) {
    c->announce_change();
    c->tell();
    counted_batch(ops.size(), std::chrono::steady_clock::now() - start);
  }
  for (std::size_t i = 0; i < ops.size(); ++i) {
    ops[i]->out = std::move(outs[i]);
    ops[i]->answered = true;
  }
  return true;
}

void SqlStore::write_comments(const std::vector<CommentOp*>& ops) {
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
  auto c = pool_.get();
  std::vector<std::optional<CommentAdded>> outs(ops.size());
  try {
    c->begin_write();
    c->announce_change();
    auto rows = c->query("SELECT * FROM rongdian_comments(?::BIGINT[], ?::TEXT[], ?::TEXT[], ?)",
                         {int_array(items), text_array(users), text_array(texts), now});
    std::vector<bool> seen(ops.size());
    std::vector<std::vector<std::string>> devices(ops.size());
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
      if (r.cols[11]) devices[n].push_back(r.s(11));
    }
    check_all_answered(seen);
    // The rows every batch locks, in one order: each device's pushes, then
    // the items' counts by item.
    std::vector<KeptPush> pushes;
    std::map<std::int64_t, std::int64_t> counts;
    for (std::size_t i = 0; i < ops.size(); ++i) {
      if (!outs[i]) continue;
      for (auto& p : comment_pushes(*outs[i], ops[i]->push, devices[i]))
        pushes.push_back(std::move(p));
      ++counts[ops[i]->item_id];
    }
    std::stable_sort(pushes.begin(), pushes.end(),
                     [](const KeptPush& a, const KeptPush& b) { return a.token < b.token; });
    keep_pushes(*c, pushes);
    for (const auto& [item, n] : counts)
      c->defer("UPDATE items SET num_comments = num_comments + ? WHERE id = ?", {n, item});
    c->commit();
  } catch (const std::exception&) {
    if (!may_write_again(*c)) throw;
    for (CommentOp* op : ops) {
      try {
        op->out = comment_by_function(op->item_id, op->user_id, op->text, op->now_ms, op->push);
        op->answered = true;
      } catch (...) {
        op->error = std::current_exception();
      }
    }
    return;
  }
  counted_batch(ops.size(), std::chrono::steady_clock::now() - start);
  for (std::size_t i = 0; i < ops.size(); ++i) {
    ops[i]->out = std::move(outs[i]);
    ops[i]->answered = true;
  }
}

}  // namespace rd::store::sql
