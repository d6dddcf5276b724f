#include "threads.h"

#include <iterator>

namespace webapihost {

void Threads::enqueue(std::function<void()> job) {
  std::vector<std::thread> ended;
  {
    std::lock_guard<std::mutex> lock(mu_);
    jobs_.push_back(std::move(job));
    ended.swap(ended_);
    if (idle_ < jobs_.size() && running_.size() < kMaxThreads) {
      // The thread waits for the lock before it looks at its own entry.
      running_.emplace_back();
      running_.back() = std::thread(&Threads::Work, this, std::prev(running_.end()));
    }
  }
  work_.notify_one();
  for (std::thread& t : ended) t.join();
}

void Threads::shutdown() {
  std::unique_lock<std::mutex> lock(mu_);
  stopping_ = true;
  work_.notify_all();
  gone_.wait(lock, [this] { return running_.empty(); });
  std::vector<std::thread> ended;
  ended.swap(ended_);
  lock.unlock();
  for (std::thread& t : ended) t.join();
}

void Threads::Work(std::list<std::thread>::iterator self) {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    ++idle_;
    const bool woken = work_.wait_for(lock, kLinger, [this] { return !jobs_.empty() || stopping_; });
    --idle_;
    if (jobs_.empty()) {
      if (stopping_ || (!woken && running_.size() > kWarmThreads)) break;
      continue;
    }
    std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    lock.lock();
  }
  // Joined by the next enqueue() or by shutdown(); a thread cannot join itself.
  ended_.push_back(std::move(*self));
  running_.erase(self);
  gone_.notify_all();
}

}  // namespace webapihost
