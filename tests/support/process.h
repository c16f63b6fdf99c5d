// Real peers in child processes, and parts of a test that run in a network
// namespace of their own.  Everything POSIX lives in process.cc; where a
// facility is missing the helpers say so and the test skips with the reason.
#ifndef ZELSOCKET_TESTS_SUPPORT_PROCESS_H
#define ZELSOCKET_TESTS_SUPPORT_PROCESS_H

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zstest {

// A child with its output in a pipe; killed (SIGTERM, then SIGKILL) and reaped
// when the object goes, and killed by the kernel if the test dies first.
class ChildProcess {
 public:
  ChildProcess() = default;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  // Empty on success, else "needs ..." (why it could not start).
  std::string Start(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});
  // The exit code once it has ended within `timeout`; -1 (and killed) otherwise.
  int Wait(std::chrono::milliseconds timeout);
  bool Running();
  void Kill();
  const std::string& Output();  // what it has written so far

 private:
  friend std::string StartHttpServer(ChildProcess&, const std::map<std::string, std::string>&, unsigned short*);
  int m_pid = -1;
  int m_out = -1;
  std::string m_output;
  std::string m_scratchDir;  // removed with its files once the child has gone
};

// A function that runs in a fresh process of this test binary, inside a
// network namespace of its own with loopback up and a resolver that asks
// 127.0.0.1.  It returns the exit code and may write a report.
using ChildMain = int (*)(std::string& report);
struct ChildRegistration {
  ChildRegistration(const char* name, ChildMain main);
};

struct ChildRun {
  bool skipped = false;  // `report` then says what the machine lacks
  int exitCode = -1;
  std::string report;
};
ChildRun RunInNamespace(const std::string& name, std::chrono::seconds timeout = std::chrono::seconds(60));

// Runs the registered child and fails the test unless it succeeds.
#define ZS_EXPECT_CHILD_PASSES(name)                          \
  do {                                                        \
    ::zstest::ChildRun run_ = ::zstest::RunInNamespace(name); \
    if (run_.skipped) GTEST_SKIP() << run_.report;            \
    EXPECT_EQ(run_.exitCode, 0) << run_.report;               \
  } while (0)

// dnsmasq on 127.0.0.1:port answering example.test with 10.1.2.3.  Empty on
// success once it answers, else why not.  Port 0: a free one, written back.
std::string StartDnsmasq(ChildProcess& child, unsigned short* port);
// A DNS query for the A record of `name`.
std::vector<unsigned char> DnsQuery(std::uint16_t id, const std::string& name);

// `python3 -m http.server` on 127.0.0.1 serving `files` (name to content)
// from a directory that goes with the child; empty on success.
std::string StartHttpServer(ChildProcess& child, const std::map<std::string, std::string>& files, unsigned short* port);

// Runs a command to its end; empty on success, else its output.
std::string RunCommand(const std::vector<std::string>& argv);

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_PROCESS_H
