// The development host's task queue for the HTTP library's server, and the
// bare server's beside it in bench/, so both are measured on the same pool.
//
// The server gives a connection one thread from its first byte to its close,
// idle keep-alive time included (and a connection that drips a byte every few
// seconds keeps it for good), so a fixed pool is taken up by a few dozen idle
// or slow connections, as browser tabs keep, and a new request waits for one
// of them to time out. Here a connection that finds no thread free starts one,
// up to kMaxThreads; a thread idle for kLinger goes, down to kWarmThreads.
// shutdown() lets the queued work finish and joins every thread.
#pragma once

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

namespace webapihost {

class Threads : public httplib::TaskQueue {
 public:
  static constexpr size_t kMaxThreads = 256;
  static constexpr size_t kWarmThreads = 8;
  static constexpr auto kLinger = std::chrono::seconds(10);

  void enqueue(std::function<void()> job) override;
  void shutdown() override;

 private:
  void Work(std::list<std::thread>::iterator self);

  std::mutex mu_;
  std::condition_variable work_, gone_;
  std::deque<std::function<void()>> jobs_;
  std::list<std::thread> running_;
  std::vector<std::thread> ended_;
  size_t idle_ = 0;
  bool stopping_ = false;
};

}  // namespace webapihost
