// Test helpers for real peers: child processes (dnsmasq, the test binary itself
// inside a network namespace), a private network namespace, and a hand-built
// DNS query.  Header-only, POSIX.
#ifndef ZELSOCKET_TESTS_SUPPORT_PROCESS_H
#define ZELSOCKET_TESTS_SUPPORT_PROCESS_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace zstest {

// A child process with its output in a file; killed and reaped on destruction.
class ChildProcess {
 public:
  ChildProcess() = default;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() { Kill(); }

  bool Start(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {}) {
    char pattern[] = "/tmp/zs_child_XXXXXX";
    int fd = mkstemp(pattern);
    if (fd < 0) return false;
    m_outputPath = pattern;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fd, 1);
    posix_spawn_file_actions_adddup2(&actions, fd, 2);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e) envStrings.emplace_back(*e);
    for (const auto& e : extraEnv) envStrings.push_back(e);
    std::vector<char*> env;
    for (auto& e : envStrings) env.push_back(const_cast<char*>(e.c_str()));
    env.push_back(nullptr);
    int rc = posix_spawnp(&m_pid, args[0], &actions, nullptr, args.data(), env.data());
    posix_spawn_file_actions_destroy(&actions);
    close(fd);
    if (rc != 0) m_pid = -1;
    return rc == 0;
  }

  // Exit status (as from waitpid) once it ended within `timeout`; -1 otherwise
  // (the child is then killed).
  int Wait(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (m_pid > 0) {
      int status = 0;
      pid_t r = waitpid(m_pid, &status, WNOHANG);
      if (r == m_pid) {
        m_pid = -1;
        return status;
      }
      if (std::chrono::steady_clock::now() > deadline) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    Kill();
    return -1;
  }

  bool Running() {
    if (m_pid <= 0) return false;
    int status = 0;
    if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
      m_pid = -1;
      return false;
    }
    return true;
  }

  void Kill() {
    if (m_pid > 0) {
      kill(m_pid, SIGTERM);
      int status = 0;
      for (int i = 0; i < 300 && waitpid(m_pid, &status, WNOHANG) == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      if (waitpid(m_pid, &status, WNOHANG) == 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, &status, 0);
      }
      m_pid = -1;
    }
  }

  std::string Output() const {
    std::ifstream in(m_outputPath);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }

  pid_t Pid() const { return m_pid; }

 private:
  pid_t m_pid = -1;
  std::string m_outputPath;
};

// A free UDP port on 127.0.0.1 for a program that cannot be told to bind port
// 0 and report it (dnsmasq): bind 0, read the port back, release it.
inline unsigned short FreeUdpPort() {
  int s = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  socklen_t len = sizeof(addr);
  getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len);
  close(s);
  return ntohs(addr.sin_port);
}

// A DNS query for an A record of `name`, with id `id`.
inline std::vector<unsigned char> DnsQuery(std::uint16_t id, const std::string& name) {
  std::vector<unsigned char> q = {static_cast<unsigned char>(id >> 8), static_cast<unsigned char>(id & 0xff),
                                  0x01, 0x00, 0, 1, 0, 0, 0, 0, 0, 0};
  std::stringstream ss(name);
  std::string label;
  while (std::getline(ss, label, '.')) {
    q.push_back(static_cast<unsigned char>(label.size()));
    q.insert(q.end(), label.begin(), label.end());
  }
  q.insert(q.end(), {0, 0, 1, 0, 1});
  return q;
}

// Sends a query to 127.0.0.1:port until an answer comes (dnsmasq is up) or
// `timeout` passes.
inline bool WaitForDns(unsigned short port, std::chrono::milliseconds timeout) {
  int s = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  std::vector<unsigned char> q = DnsQuery(0x4242, "example.test");
  auto deadline = std::chrono::steady_clock::now() + timeout;
  bool ok = false;
  while (!ok && std::chrono::steady_clock::now() < deadline) {
    sendto(s, q.data(), q.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    pollfd p{s, POLLIN, 0};
    if (poll(&p, 1, 50) == 1) {
      unsigned char buf[512];
      ok = recv(s, buf, sizeof(buf), 0) > 2;
    }
  }
  close(s);
  return ok;
}

// dnsmasq answering example.test with 10.1.2.3 on 127.0.0.1:port.
inline bool StartDnsmasq(ChildProcess& child, unsigned short port, const std::string& netns = "") {
  std::vector<std::string> argv;
  if (!netns.empty()) argv = {"ip", "netns", "exec", netns};
  for (const char* a : {"dnsmasq", "--no-daemon", "--listen-address=127.0.0.1", "--bind-interfaces", "--no-resolv",
                        "--no-hosts", "--pid-file=", "--address=/example.test/10.1.2.3"}) {
    argv.emplace_back(a);
  }
  argv.push_back("--port=" + std::to_string(port));
  return child.Start(argv);
}

inline int RunCommand(const std::vector<std::string>& argv) {
  ChildProcess child;
  if (!child.Start(argv)) return -1;
  int status = child.Wait(std::chrono::seconds(20));
  return (status >= 0 && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
}

// A network namespace of the test's own, with lo up and a resolv.conf that
// points at 127.0.0.1; deleted with its files when the object goes, also when
// the test fails.
class NetNamespace {
 public:
  explicit NetNamespace(const std::string& name) : m_name(name) {}
  ~NetNamespace() {
    if (m_created) RunCommand({"ip", "netns", "delete", m_name});
    std::remove(("/etc/netns/" + m_name + "/resolv.conf").c_str());
    rmdir(("/etc/netns/" + m_name).c_str());
  }
  NetNamespace(const NetNamespace&) = delete;
  NetNamespace& operator=(const NetNamespace&) = delete;

  // Empty on success, else why the machine cannot do it.
  std::string Create() {
    if (geteuid() != 0) return "not running as root";
    if (RunCommand({"ip", "netns", "add", m_name}) != 0) return "ip netns add failed";
    m_created = true;
    if (RunCommand({"ip", "netns", "exec", m_name, "ip", "link", "set", "lo", "up"}) != 0) return "lo up failed";
    mkdir("/etc/netns", 0755);
    mkdir(("/etc/netns/" + m_name).c_str(), 0755);
    std::ofstream conf("/etc/netns/" + m_name + "/resolv.conf");
    conf << "nameserver 127.0.0.1\n";
    if (!conf) return "cannot write resolv.conf";
    return "";
  }
  const std::string& Name() const { return m_name; }

 private:
  std::string m_name;
  bool m_created = false;
};

// Runs the tests of this binary that match `filter` inside the namespace with
// ZS_NETNS_CHILD=1 set; true when they ran and passed (none skipped).
inline bool RunSelfInNamespace(const std::string& ns, const std::string& filter, int expectedTests,
                               std::string* output) {
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (n <= 0) return false;
  self[n] = '\0';
  ChildProcess child;
  if (!child.Start({"ip", "netns", "exec", ns, self, "--gtest_filter=" + filter}, {"ZS_NETNS_CHILD=1"})) return false;
  int status = child.Wait(std::chrono::seconds(60));
  *output = child.Output();
  std::string passed = "[  PASSED  ] " + std::to_string(expectedTests) + " test";
  return status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0 && output->find(passed) != std::string::npos &&
         output->find("[  SKIPPED ]") == std::string::npos;
}

inline bool InNamespaceChild() { return std::getenv("ZS_NETNS_CHILD") != nullptr; }

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_PROCESS_H
