// Peers in child processes, and tests rerun in a network namespace of their
// own.  Where a facility is missing the helpers say why ("needs ...").
#ifndef ZELSOCKET_TESTS_SUPPORT_PROCESS_H
#define ZELSOCKET_TESTS_SUPPORT_PROCESS_H

#include <chrono>
#include <string>
#include <vector>

namespace zstest {

// A child in a process group of its own, its output in a file of Dir() (a
// folder of the test's own under the build tree, emptied at first use: what a
// killed run left goes); group killed and folder removed when the object goes,
// and the child killed by the kernel if the test dies first.
class ChildProcess {
 public:
  ChildProcess() = default;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();
  std::string Start(const std::vector<std::string>& argv);  // empty once started, else why not
  bool Running();                                           // once false, ExitCode() says how it ended
  int ExitCode() const { return m_exit; }
  std::string Output();
  const std::string& Dir();

 private:
  void Kill();
  int m_pid = -1, m_exit = -1;
  std::string m_dir;
  static inline int s_made = 0;
};

// Runs the current test again in a fresh process, inside a network namespace
// with loopback up and a resolver that asks 127.0.0.1, where InNamespace() is
// true; it passes or skips as that run does.
bool InNamespace();
void RerunInNamespace(std::chrono::seconds timeout = std::chrono::seconds(60));

// dnsmasq on 127.0.0.1:53 in the namespace, answering example.test with
// 10.1.2.3 and dns.test with 127.0.0.1: empty once it listens, else why not.
std::string StartDnsmasq(ChildProcess& child);

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_PROCESS_H
