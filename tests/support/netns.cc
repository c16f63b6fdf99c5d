#include "support/netns.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace zstest {

namespace {

bool WriteFile(const std::string& path, const std::string& text) {
  std::ofstream f(path);
  f << text;
  return static_cast<bool>(f.flush());
}

// Returns an empty string on success, else the reason.
std::string EnterNamespace() {
  if (unshare(CLONE_NEWNET) == 0) return "";
  int rootErrno = errno;
  uid_t uid = getuid();
  gid_t gid = getgid();
  if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
    return std::string("no network namespace: unshare(CLONE_NEWNET): ") + std::strerror(rootErrno) +
           "; unshare(CLONE_NEWUSER|CLONE_NEWNET): " + std::strerror(errno);
  }
  WriteFile("/proc/self/setgroups", "deny");
  if (!WriteFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1\n") ||
      !WriteFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1\n")) {
    return "no network namespace: user namespace mapping refused";
  }
  return "";
}

}  // namespace

bool RunCommand(const std::string& command, std::string* out) {
  std::string full = command + " 2>&1";
  FILE* pipe = popen(full.c_str(), "r");
  if (!pipe) return false;
  char buffer[512];
  std::string text;
  while (std::fgets(buffer, sizeof buffer, pipe)) text += buffer;
  int status = pclose(pipe);
  if (out) *out = text;
  return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

NamespaceRun RunInNetworkNamespace(const std::function<int(std::string& report)>& body,
                                   std::chrono::seconds timeout) {
  NamespaceRun run;
  int fds[2];
  if (pipe(fds) != 0) {
    run.skipped = true;
    run.output = "pipe failed";
    return run;
  }
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    std::string report;
    int code;
    std::string reason = EnterNamespace();
    std::string ipOut;
    if (!reason.empty()) {
      report = "SKIP " + reason;
      code = 77;
    } else if (!RunCommand("ip link set lo up", &ipOut)) {
      report = "SKIP cannot bring loopback up in the namespace: " + ipOut;
      code = 77;
    } else {
      code = body(report);
    }
    (void)!write(fds[1], report.data(), report.size());
    close(fds[1]);
    _exit(code);  // no atexit handlers of the test runner in the child
  }
  close(fds[1]);
  if (pid < 0) {
    close(fds[0]);
    run.skipped = true;
    run.output = "fork failed";
    return run;
  }
  auto deadline = std::chrono::steady_clock::now() + timeout;
  char buffer[4096];
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      run.timedOut = true;
      kill(pid, SIGKILL);
      break;
    }
    pollfd p{fds[0], POLLIN, 0};
    int n = poll(&p, 1, static_cast<int>(left.count()));
    if (n <= 0) continue;
    ssize_t got = read(fds[0], buffer, sizeof buffer);
    if (got <= 0) break;
    run.output.append(buffer, static_cast<size_t>(got));
  }
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (run.exitCode == 77 && run.output.rfind("SKIP ", 0) == 0) {
    run.skipped = true;
    run.output = run.output.substr(5);
  }
  return run;
}

}  // namespace zstest
