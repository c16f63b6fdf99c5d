// Helpers shared by the test executables: a log recorder and bounded waits.
#ifndef ZELSOCKET_TESTS_SUPPORT_TEST_SUPPORT_H
#define ZELSOCKET_TESTS_SUPPORT_TEST_SUPPORT_H

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zelsocket/log.h"

namespace zstest {

struct LogLine {
  zelsocket::LOG_LEVEL level;
  std::string tag;
  std::string message;
};

// Records every line the library logs while it is alive.
class LogRecorder {
 public:
  LogRecorder();
  ~LogRecorder();

  std::vector<LogLine> Lines() const;
  // Lines whose message equals `message` exactly.
  int Count(const std::string& message) const;
  // Lines whose message starts with `prefix`.
  int CountPrefix(const std::string& prefix) const;
  bool Has(zelsocket::LOG_LEVEL level, const std::string& tag, const std::string& message) const;
  void Clear();

 private:
  static void Callback(zelsocket::LOG_LEVEL level, const char* tag, const char* message);
};

// Polls `done` until it is true or `timeout` has passed; true when it became true.
bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_TEST_SUPPORT_H
