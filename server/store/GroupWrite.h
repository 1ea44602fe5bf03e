// Writes that come in while others are on their way to the database wait for
// a turn and then go together: one statement and one commit for all of them.
// A commit waits for the disk; many writers that each commit alone wait for
// as many flushes (and round trips), while a batch pays for one.
//
// One thread of its own writes the batches, one after the other: each time
// the oldest waiting writes, at most `max_batch`. With nothing else under way
// a write goes at once, alone; batches grow only while the database is busy.
// Under load the thread goes from one batch to the next without waiting to
// be scheduled, as a writer woken to lead the next batch would on a busy
// machine.
//
// What must follow a batch before its writers go (telling the other
// instances of it) is done by a second thread, while the first one writes
// the next batch.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace rd::store::sql {

// What every queued write carries besides its own input and outcome.
struct Pending {
  bool answered = false;         // its outcome is in
  bool done = false;             // its batch is over
  std::exception_ptr error;      // thrown to its caller
  std::condition_variable wake;  // its caller waits on it (woken alone)
};

template <class Op>  // derived from Pending
class GroupWrite {
 public:
  // What follows a written batch before its writers go; empty: nothing.
  // What it throws is nobody's error (the batch is over).
  using Then = std::function<void()>;
  // `run` writes a batch and fills each write's outcome (marking it
  // answered) or its error; what it throws becomes the error of every write
  // it left without either.
  using Run = std::function<Then(const std::vector<Op*>&)>;

  GroupWrite(Run run, std::size_t max_batch)
      : run_(std::move(run)),
        max_batch_(max_batch),
        writer_([this] { write(); }),
        teller_([this] { tell(); }) {}

  // Writes what is queued, then stops.
  ~GroupWrite() {
    {
      std::lock_guard lock(mu_);
      stopping_ = true;
    }
    queued_.notify_one();
    writer_.join();
    {
      std::lock_guard lock(mu_);
      written_all_ = true;
    }
    written_.notify_one();
    teller_.join();
  }

  GroupWrite(const GroupWrite&) = delete;
  GroupWrite& operator=(const GroupWrite&) = delete;

  // Returns once `op` is written, its outcome in it; throws its error.
  void submit(Op& op) {
    std::unique_lock lock(mu_);
    queue_.push_back(&op);
    if (queue_.size() == 1) queued_.notify_one();
    op.wake.wait(lock, [&] { return op.done; });
    if (op.error) std::rethrow_exception(op.error);
  }

 private:
  void write() {
    std::unique_lock lock(mu_);
    for (;;) {
      queued_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;
      std::vector<Op*> batch;
      while (!queue_.empty() && batch.size() < max_batch_) {
        batch.push_back(queue_.front());
        queue_.pop_front();
      }
      lock.unlock();
      Then then;
      try {
        then = run_(batch);
      } catch (...) {
        for (Op* o : batch)
          if (!o->answered && !o->error) o->error = std::current_exception();
      }
      lock.lock();
      if (then) {
        written_batches_.push_back({std::move(batch), std::move(then)});
        written_.notify_one();
      } else {
        let_go(batch);
      }
    }
  }

  void tell() {
    std::unique_lock lock(mu_);
    for (;;) {
      written_.wait(lock, [&] { return written_all_ || !written_batches_.empty(); });
      if (written_batches_.empty()) return;
      auto [batch, then] = std::move(written_batches_.front());
      written_batches_.pop_front();
      lock.unlock();
      try {
        then();
      } catch (...) {
      }
      lock.lock();
      let_go(batch);
    }
  }

  // With mu_ held (a caller may leave, and its write go, once it sees
  // `done`).
  void let_go(const std::vector<Op*>& batch) {
    for (Op* o : batch) {
      o->done = true;
      o->wake.notify_one();
    }
  }

  const Run run_;
  const std::size_t max_batch_;
  std::mutex mu_;
  std::condition_variable queued_;
  std::deque<Op*> queue_;
  bool stopping_ = false;
  std::condition_variable written_;
  std::deque<std::pair<std::vector<Op*>, Then>> written_batches_;  // for the teller
  bool written_all_ = false;
  // (last: they start once the rest is made)
  std::thread writer_;
  std::thread teller_;
};

}  // namespace rd::store::sql
