#include "support/process.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <sstream>
#include <thread>

#ifndef _WIN32
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

extern char** environ;
#endif

namespace zstest {

namespace {

std::map<std::string, ChildMain>& Registry() {
  static std::map<std::string, ChildMain> registry;
  return registry;
}

const char kChildVar[] = "ZS_CHILD";
const char kReportMark[] = "\n@@report@@\n";

}  // namespace

ChildRegistration::ChildRegistration(const char* name, ChildMain main) { Registry()[name] = main; }

std::vector<unsigned char> DnsQuery(std::uint16_t id, const std::string& name) {
  std::vector<unsigned char> q = {
      static_cast<unsigned char>(id >> 8), static_cast<unsigned char>(id & 0xff), 1, 0, 0, 1, 0, 0, 0, 0, 0, 0};
  std::stringstream ss(name);
  std::string label;
  while (std::getline(ss, label, '.')) {
    q.push_back(static_cast<unsigned char>(label.size()));
    q.insert(q.end(), label.begin(), label.end());
  }
  q.insert(q.end(), {0, 0, 1, 0, 1});
  return q;
}

#ifdef _WIN32

// The peers that need child processes skip here, saying so.
std::string ChildProcess::Start(const std::vector<std::string>&, const std::vector<std::string>&) {
  return "needs POSIX child processes";
}
int ChildProcess::Wait(std::chrono::milliseconds) { return -1; }
bool ChildProcess::Running() { return false; }
void ChildProcess::Kill() {}
const std::string& ChildProcess::Output() { return m_output; }
ChildRun RunInNamespace(const std::string&, std::chrono::seconds) { return {true, -1, "needs network namespaces"}; }
std::string StartDnsmasq(ChildProcess&, unsigned short*) { return "needs dnsmasq"; }
ChildProcess::~ChildProcess() {}
std::string StartHttpServer(ChildProcess&, const std::map<std::string, std::string>&, unsigned short*) {
  return "needs python3";
}
std::string RunCommand(const std::vector<std::string>&) { return "needs POSIX child processes"; }

#else

ChildProcess::~ChildProcess() {
  Kill();
  if (m_scratchDir.empty()) return;
  if (DIR* dir = opendir(m_scratchDir.c_str())) {
    while (dirent* e = readdir(dir)) unlink((m_scratchDir + "/" + e->d_name).c_str());
    closedir(dir);
  }
  rmdir(m_scratchDir.c_str());
}

std::string ChildProcess::Start(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
  Kill();
  m_output.clear();
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return "needs a pipe";
  // Everything the child needs is built before fork: after it, only exec.
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::vector<std::string> envStrings(env);
  for (char** e = environ; *e; ++e) envStrings.emplace_back(*e);
  std::vector<char*> envp;
  for (auto& e : envStrings) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test killed by its timeout takes its children along
    if (getppid() != parent) _exit(127);
    dup2(fds[1], 1);
    dup2(fds[1], 2);
    execvpe(args[0], args.data(), envp.data());
    _exit(127);
  }
  close(fds[1]);
  if (pid < 0) {
    close(fds[0]);
    return "needs fork";
  }
  m_pid = pid;
  m_out = fds[0];
  fcntl(m_out, F_SETFL, O_NONBLOCK);
  return "";
}

const std::string& ChildProcess::Output() {
  char buffer[4096];
  ssize_t n;
  while (m_out >= 0 && (n = read(m_out, buffer, sizeof buffer)) > 0) m_output.append(buffer, static_cast<size_t>(n));
  return m_output;
}

int ChildProcess::Wait(std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (m_pid > 0) {
    int status = 0;
    if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
      m_pid = -1;
      Output();
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    if (std::chrono::steady_clock::now() > deadline) break;
    pollfd p{m_out, POLLIN, 0};
    if (poll(&p, 1, 10) > 0) Output();  // a full pipe would stall the child
  }
  Kill();
  return -1;
}

bool ChildProcess::Running() {
  if (m_pid <= 0) return false;
  if (waitpid(m_pid, nullptr, WNOHANG) != m_pid) return true;
  m_pid = -1;
  return false;
}

void ChildProcess::Kill() {
  if (m_pid > 0) {
    kill(m_pid, SIGTERM);
    for (int i = 0; i < 200 && waitpid(m_pid, nullptr, WNOHANG) == 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));  // a grace period, not synchronisation
    if (kill(m_pid, SIGKILL) == 0) waitpid(m_pid, nullptr, 0);
    m_pid = -1;
  }
  Output();
  if (m_out >= 0) close(m_out);
  m_out = -1;
}

std::string RunCommand(const std::vector<std::string>& argv) {
  ChildProcess child;
  std::string why = child.Start(argv);
  if (!why.empty()) return why;
  int code = child.Wait(std::chrono::seconds(20));
  return code == 0 ? "" : "exit " + std::to_string(code) + ": " + child.Output();
}

namespace {

sockaddr_in Loopback(unsigned short port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  return addr;
}

unsigned short FreePort(int type) {
  int s = socket(AF_INET, type, 0);
  sockaddr_in addr = Loopback(0);
  socklen_t len = sizeof addr;
  bind(s, reinterpret_cast<sockaddr*>(&addr), len);
  getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len);
  close(s);
  return ntohs(addr.sin_port);
}

// One query, and up to 50 ms for its answer.
bool AnswersDns(unsigned short port) {
  int s = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in addr = Loopback(port);
  std::vector<unsigned char> q = DnsQuery(0x4242, "example.test");
  sendto(s, q.data(), q.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  pollfd p{s, POLLIN, 0};
  unsigned char buf[512];
  bool ok = poll(&p, 1, 50) == 1 && recv(s, buf, sizeof buf, 0) > 2;
  close(s);
  return ok;
}

bool WriteFile(const std::string& path, const std::string& text) {
  std::ofstream f(path);
  f << text;
  return static_cast<bool>(f.flush());
}

// Empty on success, else what the machine lacks.
std::string EnterNamespace() {
  if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
    uid_t uid = getuid();
    gid_t gid = getgid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS) != 0)
      return std::string("needs network namespaces: ") + std::strerror(errno);
    WriteFile("/proc/self/setgroups", "deny");
    if (!WriteFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1\n") ||
        !WriteFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1\n"))
      return "needs a user namespace mapping";
  }
  // The resolver of this process asks the namespace's own server.
  char path[] = "/tmp/zs_resolv_XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) return "needs a temporary file";
  const char conf[] = "nameserver 127.0.0.1\n";
  bool written = write(fd, conf, sizeof conf - 1) == static_cast<ssize_t>(sizeof conf - 1);
  close(fd);
  bool mounted = written && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                 mount(path, "/etc/resolv.conf", nullptr, MS_BIND, nullptr) == 0;
  int mountErrno = errno;
  unlink(path);
  if (!mounted) return std::string("needs a bind mount over /etc/resolv.conf: ") + std::strerror(mountErrno);
  int s = socket(AF_INET, SOCK_DGRAM, 0);
  ifreq lo{};
  std::strcpy(lo.ifr_name, "lo");
  bool up = ioctl(s, SIOCGIFFLAGS, &lo) == 0 && (lo.ifr_flags |= IFF_UP, ioctl(s, SIOCSIFFLAGS, &lo) == 0);
  close(s);
  return up ? "" : "needs loopback up in the namespace";
}

// In a child started by RunInNamespace: runs the registered function before
// any test, and ends the process with its result.
class ChildDispatch : public ::testing::Environment {
 public:
  void SetUp() override {
    const char* name = std::getenv(kChildVar);
    if (!name) return;
    std::string report;
    int code = 77;
    auto it = Registry().find(name);
    if (it == Registry().end()) {
      report = std::string("no child function ") + name;
      code = 2;
    } else if ((report = EnterNamespace()).empty()) {
      code = it->second(report);
    }
    std::fflush(nullptr);
    std::string out = kReportMark + report;
    (void)!write(1, out.data(), out.size());
    _exit(code);
  }
};
::testing::Environment* const g_dispatch = ::testing::AddGlobalTestEnvironment(new ChildDispatch);

}  // namespace

ChildRun RunInNamespace(const std::string& name, std::chrono::seconds timeout) {
  ChildRun run;
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return ChildRun{true, -1, "needs /proc/self/exe"};
  self[n] = '\0';
  ChildProcess child;
  // Unfiltered: the environments are set up (and the child dispatched) only when tests are to run.
  std::string why = child.Start({self}, {std::string(kChildVar) + "=" + name});
  if (!why.empty()) return ChildRun{true, -1, why};
  run.exitCode = child.Wait(timeout);
  const std::string& out = child.Output();
  size_t mark = out.rfind(kReportMark);
  run.report = mark == std::string::npos ? out : out.substr(mark + sizeof kReportMark - 1);
  run.skipped = run.exitCode == 77;
  return run;
}

namespace {

// Starts the server on a free port (or the fixed `*port`) until it answers;
// another process may take a port between our look and the server's bind.
std::string StartServer(ChildProcess& child, int type, unsigned short* port,
                        const std::function<std::vector<std::string>(const std::string&)>& argv,
                        const std::function<bool(unsigned short)>& answers) {
  std::string why;
  for (int attempt = 0; attempt < 5; ++attempt) {
    unsigned short p = *port ? *port : FreePort(type);
    std::vector<std::string> args = argv(std::to_string(p));
    if (!(why = child.Start(args)).empty()) return why;
    for (int i = 0; i < 300 && child.Running(); ++i) {
      if (answers(p)) return (*port = p, "");
    }
    child.Kill();
    why = "needs " + args[0] + ": " + child.Output();
    if (*port) break;  // a fixed port will not come free by trying again
  }
  return why;
}

}  // namespace

std::string StartDnsmasq(ChildProcess& child, unsigned short* port) {
  return StartServer(
      child, SOCK_DGRAM, port,
      [](const std::string& p) {
        return std::vector<std::string>{
            "dnsmasq",     "--no-daemon", "--user=root", "--listen-address=127.0.0.1",       "--bind-interfaces",
            "--no-resolv", "--no-hosts",  "--pid-file=", "--address=/example.test/10.1.2.3", "--port=" + p};
      },
      AnswersDns);
}

std::string StartHttpServer(ChildProcess& child, const std::map<std::string, std::string>& files,
                            unsigned short* port) {
  char dir[] = "/tmp/zs_http_XXXXXX";
  if (!mkdtemp(dir)) return "needs a temporary directory";
  child.m_scratchDir = dir;
  for (const auto& [name, body] : files) std::ofstream(child.m_scratchDir + "/" + name, std::ios::binary) << body;
  *port = 0;
  return StartServer(
      child, SOCK_STREAM, port,
      [&](const std::string& p) {
        return std::vector<std::string>{"python3", "-m", "http.server", p, "--bind", "127.0.0.1", "--directory", dir};
      },
      [](unsigned short p) {
        int s = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr = Loopback(p);
        bool up = connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        close(s);
        if (!up) std::this_thread::sleep_for(std::chrono::milliseconds(20));  // bounded poll for the listener
        return up;
      });
}

#endif

}  // namespace zstest
