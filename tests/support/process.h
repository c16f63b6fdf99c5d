// Peers in child processes, and tests rerun in a network namespace of their
// own.  Where a facility is missing the helpers say why ("needs ...").
#ifndef ZELSOCKET_TESTS_SUPPORT_PROCESS_H
#define ZELSOCKET_TESTS_SUPPORT_PROCESS_H

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/test_support.h"

#ifndef _WIN32
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace zstest {

inline bool InNamespace() { return std::getenv("ZS_IN_NAMESPACE") != nullptr; }

#ifdef _WIN32
// Child processes and namespaces are POSIX facilities.
class ChildProcess {};
inline void RerunInNamespace() { GTEST_SKIP() << "needs network namespaces"; }
inline std::string StartDnsmasq(ChildProcess&) { return "needs POSIX child processes"; }
#else
// A child in a process group of its own, its output in a file of Dir() (a
// folder of the test's own under the build tree, emptied at first use: what a
// killed run left goes); group killed and folder removed when the object goes,
// and the child killed by the kernel if the test dies first.
class ChildProcess {
 public:
  ChildProcess() = default;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() {
    if (m_pid > 0 && kill(-m_pid, SIGKILL) == 0) waitpid(m_pid, nullptr, 0);
    std::error_code ignored;
    if (!m_dir.empty()) std::filesystem::remove_all(m_dir, ignored);
  }

  // Empty once started, else why not.
  std::string Start(const std::vector<std::string>& argv) {
    int out = open((Dir() + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (out < 0) return "needs a scratch file";
    std::vector<char*> args;  // built before fork: after it, only exec
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t parent = getpid();
    m_pid = fork();
    if (m_pid == 0) {
      setpgid(0, 0);                     // so that the kill takes whatever the child starts
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test killed by its timeout takes its children along
      if (getppid() != parent) _exit(127);
      dup2(out, 1);
      dup2(out, 2);
      execvp(args[0], args.data());
      _exit(127);
    }
    close(out);
    if (m_pid > 0) setpgid(m_pid, m_pid);  // before the kill could need it, whichever side runs first
    return m_pid > 0 ? "" : "needs fork";
  }
  bool Running() {  // once false, ExitCode() says how it ended
    int status = 0;
    if (m_pid > 0 && waitpid(m_pid, &status, WNOHANG) != 0)
      m_pid = -1, m_exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return m_pid > 0;
  }
  int ExitCode() const { return m_exit; }
  std::string Output() {
    std::ifstream f(Dir() + "/out", std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), {});
  }
  const std::string& Dir() {
    if (m_dir.empty()) {
      const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
      m_dir = std::string(ZS_TEST_SCRATCH) + "/" + test->test_suite_name() + "." + test->name() +
              (InNamespace() ? ".ns" : "") + "/child" + std::to_string(++s_made);
      std::error_code ignored;
      std::filesystem::remove_all(m_dir, ignored);
      std::filesystem::create_directories(m_dir, ignored);
    }
    return m_dir;
  }

 private:
  int m_pid = -1, m_exit = -1;
  std::string m_dir;
  static inline int s_made = 0;
};

// Runs the current test again in a fresh process, inside a network namespace
// with loopback up and a resolver that asks 127.0.0.1, where InNamespace() is
// true; it passes or skips as that run does.
inline void RerunInNamespace() {
  const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
  ChildProcess child;
  std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  std::ofstream(child.Dir() + "/resolv.conf") << "nameserver 127.0.0.1\n";
  // 77 where the namespaces, loopback or the mount are refused.  The child's
  // resolver asks the namespace's own server.
  const char* script =
      "unshare -rnm true || exit 77; exec unshare -rnm sh -c "
      "'ip link set lo up && mount --bind \"$0\" /etc/resolv.conf || exit 77; exec \"$@\"' \"$0\" \"$@\"";
  std::string why = child.Start({"env", "ZS_IN_NAMESPACE=1", "sh", "-c", script, child.Dir() + "/resolv.conf", self,
                                 std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name()});
  if (!why.empty()) GTEST_SKIP() << why;
  int code = WaitUntil([&] { return !child.Running(); }, std::chrono::seconds(60)) ? child.ExitCode() : -1;
  std::string out = child.Output();
  if (code == 77) GTEST_SKIP() << "needs network namespaces: " << out;
  if (code == 0 && out.find("[  SKIPPED ]") != std::string::npos) GTEST_SKIP() << out;
  EXPECT_EQ(code, 0) << out;
}

// dnsmasq on 127.0.0.1:53 in the namespace, answering example.test with
// 10.1.2.3 and dns.test with 127.0.0.1: empty once it listens, else why not.
// Inside a namespace port 53 is free, and what asks the resolver finds it.
inline std::string StartDnsmasq(ChildProcess& child) {
  std::string why = child.Start({"dnsmasq", "--no-daemon", "--log-facility=-", "--user=root",
                                 "--listen-address=127.0.0.1", "--bind-interfaces", "--no-resolv", "--no-hosts",
                                 "--pid-file=", "--address=/example.test/10.1.2.3", "--address=/dns.test/127.0.0.1"});
  if (!why.empty()) return why;
  WaitUntil([&] { return !child.Running() || child.Output().find("started") != std::string::npos; },
            std::chrono::seconds(10));
  return child.Running() ? "" : "needs dnsmasq: " + child.Output();
}
#endif

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_PROCESS_H
