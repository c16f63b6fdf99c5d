// Helpers of every test executable: bounded waits, calls on a loop's thread, a
// trace of events, a log recorder.
#ifndef ZELSOCKET_TESTS_SUPPORT_TEST_SUPPORT_H
#define ZELSOCKET_TESTS_SUPPORT_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zelsocket/io_loop.h"
#include "zelsocket/log.h"

namespace zstest {

// Polls `done` until it is true or `timeout` has passed; true when it became true.
inline bool WaitUntil(const std::function<bool()>& done,
                      std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) {
  for (auto deadline = std::chrono::steady_clock::now() + timeout; !done();) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Runs `fn` on the loop's thread and waits for it; a loop that refuses the call fails the test.
inline void OnLoop(zelsocket::IOLoop& loop, const std::function<void()>& fn) {
  ASSERT_EQ(loop.SyncCall(fn), 0) << "the loop refused the call";
}

// Blocks until what was queued on `loop` has run, and what that queued, two deep.
inline void Drain(zelsocket::IOLoop& loop) {
  for (int i = 0; i < 3; ++i) loop.SyncCall([] {});
}

// What happened, in order, recorded from any thread.
template <typename Event>
class Trace {
 public:
  void Add(Event e) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(std::move(e));
  }
  std::vector<Event> Events() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.clear();
  }
  bool WaitForSize(size_t n, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) const {
    return WaitUntil([&] { return Events().size() >= n; }, timeout);
  }

 private:
  mutable std::mutex m_mutex;
  std::vector<Event> m_events;
};

struct LogLine { zelsocket::LOG_LEVEL level; std::string tag, message; };

// Records every line the library logs while it is alive.
class LogRecorder {
 public:
  LogRecorder() {
    s_lines.Clear();
    zelsocket::SetLogCallback([](zelsocket::LOG_LEVEL level, const char* tag, const char* message) {
      s_lines.Add(LogLine{level, tag, message});
    });
  }
  ~LogRecorder() { zelsocket::SetLogCallback(nullptr); }
  std::vector<LogLine> Lines() const { return s_lines.Events(); }
  int Count(const std::string& m) const { return CountPrefix(m, true); }
  int CountPrefix(const std::string& p, bool whole = false) const {
    auto lines = Lines();
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const LogLine& l) {
      return l.message.compare(0, whole ? std::string::npos : p.size(), p) == 0;
    }));
  }

 private:
  static inline Trace<LogLine> s_lines;
};

// Where two byte strings part, for strings too long to print: empty when equal.
inline std::string Mismatch(const std::string& a, const std::string& b) {
  if (a == b) return "";
  size_t at = std::mismatch(a.begin(), a.begin() + std::min(a.size(), b.size()), b.begin()).first - a.begin();
  return "differ at " + std::to_string(at) + " of " + std::to_string(a.size()) + " and " + std::to_string(b.size());
}

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_TEST_SUPPORT_H
