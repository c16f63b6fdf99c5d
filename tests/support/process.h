// Real peers in child processes, and parts of a test that run in a network
// namespace of their own.  Where a facility is missing the helpers say why
// ("needs ...") and the test skips with the reason.
#ifndef ZELSOCKET_TESTS_SUPPORT_PROCESS_H
#define ZELSOCKET_TESTS_SUPPORT_PROCESS_H

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zstest {

// A child whose output goes to a file in its scratch directory Dir(); killed
// when the object goes, and by the kernel if the test dies first.
class ChildProcess {
 public:
  ChildProcess() = default;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();
  std::string Start(const std::vector<std::string>& argv);  // empty once started, else why not
  bool Running();                                           // once false, ExitCode() says how it ended
  int ExitCode() const { return m_exit; }
  void Kill();
  std::string Output();
  const std::string& Dir();

 private:
  int m_pid = -1, m_exit = -1;
  std::string m_dir;
};

// A registered function that runs in a fresh process of this test binary,
// inside a network namespace with loopback up and a resolver that asks
// 127.0.0.1.  It returns the exit code (77: skipped) and may write a report.
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

#define ZS_EXPECT_CHILD_PASSES(name)                          \
  do {                                                        \
    ::zstest::ChildRun run_ = ::zstest::RunInNamespace(name); \
    if (run_.skipped) GTEST_SKIP() << run_.report;            \
    EXPECT_EQ(run_.exitCode, 0) << run_.report;               \
  } while (0)

// dnsmasq on 127.0.0.1 answering example.test with 10.1.2.3, and python3's
// http.server on 127.0.0.1 serving `files` (name to content).  Empty once the
// server listens (its port written back), else why not.  dnsmasq takes
// `*port`, or any free port if it is 0.
std::string StartDnsmasq(ChildProcess& child, unsigned short* port);
std::string StartHttpServer(ChildProcess& child, const std::map<std::string, std::string>& files, unsigned short* port);
std::vector<unsigned char> DnsQuery(std::uint16_t id, const std::string& name);  // for the A record of `name`
// Empty while SIGPIPE's action is the default one, which ends the process on a
// write to a broken pipe; `reset` restores the default first.
std::string SigpipeNotDefault(bool reset = false);

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_PROCESS_H
