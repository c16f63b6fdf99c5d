#include "support/test_support.h"

namespace zstest {

namespace {
std::mutex g_mutex;
std::vector<LogLine>* g_lines = nullptr;
}  // namespace

LogRecorder::LogRecorder() {
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines = new std::vector<LogLine>();
  }
  zelsocket::SetLogCallback(&LogRecorder::Callback);
}

LogRecorder::~LogRecorder() {
  zelsocket::SetLogCallback(nullptr);
  std::lock_guard<std::mutex> lock(g_mutex);
  delete g_lines;
  g_lines = nullptr;
}

void LogRecorder::Callback(zelsocket::LOG_LEVEL level, const char* tag, const char* message) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_lines) g_lines->push_back(LogLine{level, tag, message});
}

std::vector<LogLine> LogRecorder::Lines() const {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_lines ? *g_lines : std::vector<LogLine>();
}

int LogRecorder::Count(const std::string& message) const {
  int n = 0;
  for (const LogLine& line : Lines()) n += line.message == message;
  return n;
}

int LogRecorder::CountPrefix(const std::string& prefix) const {
  int n = 0;
  for (const LogLine& line : Lines()) n += line.message.compare(0, prefix.size(), prefix) == 0;
  return n;
}

bool LogRecorder::Has(zelsocket::LOG_LEVEL level, const std::string& tag, const std::string& message) const {
  for (const LogLine& line : Lines()) {
    if (line.level == level && line.tag == tag && line.message == message) return true;
  }
  return false;
}

void LogRecorder::Clear() {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_lines) g_lines->clear();
}

bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace zstest
