// Host names answered from a table instead of the machine's resolver, through
// the cache's lookup seam, so that no unit test depends on the machine.  A name
// in the table resolves to its address by a numeric lookup on libuv's pool (so
// the library's own handling of the result runs); "refuse" fails at once,
// "hold" waits for FailHeld; any other name fails on the pool.
#ifndef ZELSOCKET_TESTS_SUPPORT_FAKE_RESOLVER_H
#define ZELSOCKET_TESTS_SUPPORT_FAKE_RESOLVER_H

#include <uv.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "address/host_addr_cache.h"
#include "support/test_support.h"

namespace zstest {

class FakeResolver {
 public:
  explicit FakeResolver(std::map<std::string, std::string> table) {
    std::lock_guard<std::mutex> lock(s_mutex);
    s_table = std::move(table);
    s_lookups.clear();
    s_answered = s_refused = 0;
    zelsocket::HostAddrCache::SetLookupForTesting(&Lookup);
  }
  ~FakeResolver() { zelsocket::HostAddrCache::SetLookupForTesting(nullptr); }
  int Lookups(const std::string& host) const {
    std::lock_guard<std::mutex> lock(s_mutex);
    return static_cast<int>(std::count(s_lookups.begin(), s_lookups.end(), host));
  }
  // Waits until every lookup made so far has been answered and handled.
  bool WaitAnswered() const {
    return WaitUntil([] {
      std::lock_guard<std::mutex> lock(s_mutex);
      return s_answered == s_lookups.size() - s_held.size() - s_refused;
    });
  }
  // Fails the held lookups; on the thread of their loop.
  void FailHeld() {
    std::vector<std::pair<uv_getaddrinfo_t*, uv_getaddrinfo_cb>> held;
    {
      std::lock_guard<std::mutex> lock(s_mutex);
      held.swap(s_held);
    }
    for (auto& [req, done] : held) done(req, UV_EAI_NONAME, nullptr);
    std::lock_guard<std::mutex> lock(s_mutex);
    s_answered += held.size();
  }

 private:
  static int Lookup(uv_loop_t* loop, uv_getaddrinfo_t* req, uv_getaddrinfo_cb done, const char* host, const char*,
                    const addrinfo*) {
    std::lock_guard<std::mutex> lock(s_mutex);
    s_lookups.push_back(host);
    auto it = s_table.find(host);
    std::string answer = it == s_table.end() || it->second.empty() ? "no-such-name" : it->second;
    s_done = done;
    if (answer == "refuse") return ++s_refused, UV_EAI_FAIL;
    if (answer == "hold") return s_held.emplace_back(req, done), 0;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_flags = AI_NUMERICHOST;
    return uv_getaddrinfo(loop, req, &Answered, answer.c_str(), nullptr, &hints);
  }
  static void Answered(uv_getaddrinfo_t* req, int status, addrinfo* result) {
    std::unique_lock<std::mutex> lock(s_mutex);
    uv_getaddrinfo_cb done = s_done;
    lock.unlock();
    done(req, status, result);
    lock.lock();
    ++s_answered;
  }
  static inline std::mutex s_mutex;
  static inline std::map<std::string, std::string> s_table;
  static inline std::vector<std::string> s_lookups;
  static inline std::vector<std::pair<uv_getaddrinfo_t*, uv_getaddrinfo_cb>> s_held;
  static inline uv_getaddrinfo_cb s_done = nullptr;
  static inline size_t s_answered = 0, s_refused = 0;
};

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_FAKE_RESOLVER_H
