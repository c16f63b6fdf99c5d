// Helpers shared by every test executable: a log recorder, bounded waits, calls
// on a loop's thread, and a trace of events.
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

struct LogLine {
  zelsocket::LOG_LEVEL level;
  std::string tag, message;
};

// Records every line the library logs while it is alive.
class LogRecorder {
 public:
  LogRecorder() {
    Clear();
    zelsocket::SetLogCallback([](zelsocket::LOG_LEVEL level, const char* tag, const char* message) {
      std::lock_guard<std::mutex> lock(s_mutex);
      s_lines.push_back(LogLine{level, tag, message});
    });
  }
  ~LogRecorder() { zelsocket::SetLogCallback(nullptr); }
  std::vector<LogLine> Lines() const {
    std::lock_guard<std::mutex> lock(s_mutex);
    return s_lines;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(s_mutex);
    s_lines.clear();
  }
  int Count(const std::string& m) const {
    return CountIf([&](const LogLine& l) { return l.message == m; });
  }
  int CountPrefix(const std::string& p) const {
    return CountIf([&](const LogLine& l) { return l.message.compare(0, p.size(), p) == 0; });
  }
  int CountIf(const std::function<bool(const LogLine&)>& f) const {
    auto lines = Lines();
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), f));
  }

 private:
  static inline std::mutex s_mutex;
  static inline std::vector<LogLine> s_lines;
};

// Polls `done` until it is true or `timeout` has passed; true when it became true.
inline bool WaitUntil(const std::function<bool()>& done,
                      std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) {
  for (auto deadline = std::chrono::steady_clock::now() + timeout; !done();) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Runs `fn` on the loop's thread and waits for it; a loop that refuses the call
// fails the test.
inline void OnLoop(zelsocket::IOLoop& loop, const std::function<void()>& fn) {
  ASSERT_EQ(loop.SyncCall(fn), 0) << "the loop refused the call";
}

// Blocks until everything queued on `loop` before this call has run, and what
// that queued in turn, two hops deep.
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
  bool WaitForSize(size_t n, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) const {
    return WaitUntil([&] { return Events().size() >= n; }, timeout);
  }

 private:
  mutable std::mutex m_mutex;
  std::vector<Event> m_events;
};

// Where two byte strings part, for strings too long to print: empty when they
// are equal.
inline std::string Mismatch(const std::string& a, const std::string& b) {
  size_t at = std::mismatch(a.begin(), a.begin() + std::min(a.size(), b.size()), b.begin()).first - a.begin();
  if (a == b) return "";
  return "differ at " + std::to_string(at) + " of " + std::to_string(a.size()) + " and " + std::to_string(b.size());
}

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_TEST_SUPPORT_H
