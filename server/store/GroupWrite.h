// Writes that come in while others are on their way to the database wait for
// a turn and then go together: one statement and one commit for all of them.
// A commit waits for the disk; many writers that each commit alone wait for
// as many flushes (and round trips), while a batch pays for one.
//
// Whoever finds a turn free runs the oldest waiting writes (his own among
// them or before them), at most `max_batch`, with at most `max_running`
// batches under way at once. With nothing else under way a write goes alone
// at once; batches grow only while the database is busy.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <vector>

namespace rd::store::sql {

// What every queued write carries besides its own input and outcome.
struct Pending {
  bool taken = false;            // in a batch under way
  bool answered = false;         // its outcome is in
  bool done = false;             // its batch is over
  std::exception_ptr error;      // thrown to its caller
  std::condition_variable wake;  // its caller waits on it (woken alone)
};

template <class Op>  // derived from Pending
class GroupWrite {
 public:
  // `run` writes a batch and fills each write's outcome (marking it
  // answered) or its error; what it throws becomes the error of every write
  // it left without either.
  using Run = std::function<void(const std::vector<Op*>&)>;

  GroupWrite(Run run, std::size_t max_batch, int max_running)
      : run_(std::move(run)), max_batch_(max_batch), max_running_(max_running) {}

  // Returns once `op` is written, its outcome in it; throws its error.
  void submit(Op& op) {
    std::unique_lock lock(mu_);
    queue_.push_back(&op);
    while (!op.done) {
      if (op.taken || running_ >= max_running_) {
        op.wake.wait(lock);
        continue;
      }
      std::vector<Op*> batch;
      while (!queue_.empty() && batch.size() < max_batch_) {
        batch.push_back(queue_.front());
        batch.back()->taken = true;
        queue_.pop_front();
      }
      ++running_;
      // Room for another batch: the oldest write left leads it.
      if (!queue_.empty() && running_ < max_running_) queue_.front()->wake.notify_one();
      lock.unlock();
      try {
        run_(batch);
      } catch (...) {
        for (Op* o : batch)
          if (!o->answered && !o->error) o->error = std::current_exception();
      }
      lock.lock();
      --running_;
      for (Op* o : batch) {
        o->done = true;
        o->wake.notify_one();
      }
      // The oldest waiting write leads the next batch (unless it is this
      // caller's own, which it leads after this).
      if (!queue_.empty() && queue_.front() != &op) queue_.front()->wake.notify_one();
    }
    if (op.error) std::rethrow_exception(op.error);
  }

 private:
  const Run run_;
  const std::size_t max_batch_;
  const int max_running_;
  std::mutex mu_;
  std::deque<Op*> queue_;
  int running_ = 0;
};

}  // namespace rd::store::sql
