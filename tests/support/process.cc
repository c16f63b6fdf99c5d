#include "support/process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "support/test_support.h"

#ifndef _WIN32
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace zstest {

namespace {
std::map<std::string, ChildMain>& Registry() {
  static std::map<std::string, ChildMain> registry;
  return registry;
}
const char kReportMark[] = "\n@@report@@\n";
}  // namespace

ChildRegistration::ChildRegistration(const char* name, ChildMain main) { Registry()[name] = main; }

std::vector<unsigned char> DnsQuery(std::uint16_t id, const std::string& name) {
  std::string q = {char(id >> 8), char(id), 1, 0, 0, 1, 0, 0, 0, 0, 0, 0};
  for (size_t at = 0, dot; at <= name.size(); at = dot + 1) {
    dot = std::min(name.find('.', at), name.size());
    q += char(dot - at) + name.substr(at, dot - at);
  }
  q += std::string("\0\0\1\0\1", 5);  // the root label, type A, class IN
  return {q.begin(), q.end()};
}

#ifdef _WIN32
// Child processes, namespaces and SIGPIPE are POSIX facilities.
ChildProcess::~ChildProcess() = default;
ChildRun RunInNamespace(const std::string&, std::chrono::seconds) { return {true, -1, "needs network namespaces"}; }
std::string StartDnsmasq(ChildProcess&, unsigned short*) { return "needs POSIX child processes"; }
std::string StartHttpServer(ChildProcess&, const std::map<std::string, std::string>&, unsigned short*) {
  return "needs POSIX child processes";
}
std::string SigpipeNotDefault(bool) { return "needs SIGPIPE"; }
#else
std::string SigpipeNotDefault(bool reset) {
  struct sigaction action = {};
  sigaction(SIGPIPE, reset ? &action : nullptr, &action);  // a zeroed action is SIG_DFL
  sigaction(SIGPIPE, nullptr, &action);
  return action.sa_handler == SIG_DFL ? "" : "SIGPIPE is not SIG_DFL";
}

ChildProcess::~ChildProcess() {
  Kill();
  std::error_code ignored;
  if (!m_dir.empty()) std::filesystem::remove_all(m_dir, ignored);
}

const std::string& ChildProcess::Dir() {
  std::error_code ignored;
  std::string path = (std::filesystem::temp_directory_path(ignored) / "zs_child_XXXXXX").string();
  if (m_dir.empty() && mkdtemp(path.data())) m_dir = path;
  return m_dir;
}

std::string ChildProcess::Start(const std::vector<std::string>& argv) {
  Kill();
  int out = open((Dir() + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (out < 0) return "needs a scratch file";
  std::vector<char*> args;  // built before fork: after it, only exec
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t parent = getpid();
  m_pid = fork();
  if (m_pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test killed by its timeout takes its children along
    if (getppid() != parent) _exit(127);
    dup2(out, 1);
    dup2(out, 2);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(out);
  return m_pid > 0 ? "" : "needs fork";
}

bool ChildProcess::Running() {
  int status = 0;
  if (m_pid > 0 && waitpid(m_pid, &status, WNOHANG) != 0)
    m_pid = -1, m_exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return m_pid > 0;
}

void ChildProcess::Kill() {
  if (m_pid > 0 && kill(m_pid, SIGKILL) == 0) waitpid(m_pid, nullptr, 0);
  m_pid = -1;
}

std::string ChildProcess::Output() {
  std::ifstream f(Dir() + "/out", std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

ChildRun RunInNamespace(const std::string& name, std::chrono::seconds timeout) {
  ChildProcess child;
  std::error_code error;
  std::string self = std::filesystem::read_symlink("/proc/self/exe", error).string();
  std::ofstream(child.Dir() + "/resolv.conf") << "nameserver 127.0.0.1\n";
  // 77 where the namespaces, loopback or the mount are refused.  The child's
  // resolver asks the namespace's own server.  Unfiltered: the environments are
  // set up, and the child dispatched, only when tests are to run.
  const char* script =
      "unshare -rnm true || exit 77; exec unshare -rnm sh -c "
      "'ip link set lo up && mount --bind \"$0\" /etc/resolv.conf || exit 77; exec \"$1\"' \"$0\" \"$@\"";
  std::string why = child.Start({"env", "ZS_CHILD=" + name, "sh", "-c", script, child.Dir() + "/resolv.conf", self});
  if (!why.empty()) return {true, -1, why};
  ChildRun run;
  if (WaitUntil([&] { return !child.Running(); }, timeout)) run.exitCode = child.ExitCode();
  run.skipped = run.exitCode == 77;
  std::string out = child.Output();
  size_t mark = out.rfind(kReportMark);
  if (mark != std::string::npos) run.report = out.substr(mark + sizeof kReportMark - 1);
  if (mark == std::string::npos) run.report = (run.skipped ? "needs network namespaces: " : "") + out;
  return run;
}

namespace {
// In a child started by RunInNamespace: runs the registered function before
// any test, and ends the process with its result.
struct ChildDispatch : ::testing::Environment {
  void SetUp() override {
    const char* name = std::getenv("ZS_CHILD");
    if (!name) return;
    std::string report;
    auto it = Registry().find(name);
    int code = it != Registry().end() ? it->second(report) : (report = "no child function", 2);
    std::printf("%s%s", kReportMark, report.c_str());
    std::fflush(nullptr);
    std::_Exit(code);
  }
};
::testing::Environment* const g_dispatch = ::testing::AddGlobalTestEnvironment(new ChildDispatch);

// Starts a server until its output says it listens; else why not.
std::string Started(ChildProcess& child, const std::vector<std::string>& argv, const std::string& mark) {
  std::string why = child.Start(argv);
  if (!why.empty()) return why;
  WaitUntil([&] { return !child.Running() || child.Output().find(mark) != std::string::npos; },
            std::chrono::seconds(10));
  return child.Running() ? "" : "needs " + argv[0] + ": " + child.Output();
}
}  // namespace

// dnsmasq cannot take port 0: another process may take the port found here
// before it binds it, so it has a few tries.
std::string StartDnsmasq(ChildProcess& child, unsigned short* port) {
  std::string why;
  for (int attempt = 0, fixed = *port; attempt < (fixed ? 1 : 5) && (attempt == 0 || !why.empty()); ++attempt) {
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    addr.sin_family = AF_INET;
    bind(s, reinterpret_cast<sockaddr*>(&addr), len);
    getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len);
    close(s);
    *port = fixed ? fixed : ntohs(addr.sin_port);
    why = Started(child,
                  {"dnsmasq", "--no-daemon", "--log-facility=-", "--user=root", "--listen-address=127.0.0.1",
                   "--bind-interfaces", "--no-resolv", "--no-hosts", "--pid-file=", "--address=/example.test/10.1.2.3",
                   "--port=" + std::to_string(*port)},
                  "started");
  }
  return why;
}

std::string StartHttpServer(ChildProcess& child, const std::map<std::string, std::string>& files,
                            unsigned short* port) {
  for (const auto& [name, body] : files) std::ofstream(child.Dir() + "/" + name, std::ios::binary) << body;
  std::string why =
      Started(child, {"python3", "-u", "-m", "http.server", "0", "--bind", "127.0.0.1", "--directory", child.Dir()},
              "Serving HTTP on 127.0.0.1 port ");
  std::string out = child.Output();
  if (why.empty()) *port = static_cast<unsigned short>(std::stoi(out.substr(out.find(" port ") + 6)));
  return why;
}
#endif

}  // namespace zstest
