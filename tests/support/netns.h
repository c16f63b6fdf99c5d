// Runs part of a test in a network namespace of its own, in a child process.
#ifndef ZELSOCKET_TESTS_SUPPORT_NETNS_H
#define ZELSOCKET_TESTS_SUPPORT_NETNS_H

#include <chrono>
#include <functional>
#include <string>

namespace zstest {

struct NamespaceRun {
  bool skipped = false;  // the machine allows no namespace: `output` says why
  bool timedOut = false;
  int exitCode = -1;
  std::string output;  // what the body wrote to its `report`
};

// Forks; the child enters a new network namespace (as root, or inside a new
// user namespace otherwise), brings loopback up and runs `body`, whose result
// is the child's exit code.  The namespace, and everything the body put into it
// (addresses, firewall rules), disappears with the child, also when it fails.
// Call it before the test has started any thread.
NamespaceRun RunInNetworkNamespace(const std::function<int(std::string& report)>& body,
                                   std::chrono::seconds timeout = std::chrono::seconds(60));

// Runs a shell command; true when it exited with 0.  Its output goes to `out`.
bool RunCommand(const std::string& command, std::string* out = nullptr);

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_NETNS_H
