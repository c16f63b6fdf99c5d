// Host names answered from a table instead of the machine's resolver, through
// the cache's lookup seam, so that no unit test depends on the machine.  A name
// in the table resolves to its address, any other fails; the answer is posted
// to the loop, so Drain waits for it.  "refuse" fails at once; "hold" waits
// for FailHeld.
#ifndef ZELSOCKET_TESTS_SUPPORT_FAKE_RESOLVER_H
#define ZELSOCKET_TESTS_SUPPORT_FAKE_RESOLVER_H

#include <uv.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "address/host_addr_cache.h"
#include "zelsocket/io_loop.h"

namespace zstest {

class FakeResolver {
 public:
  explicit FakeResolver(std::map<std::string, std::string> table) {
    std::lock_guard<std::mutex> lock(s_mutex);
    s_table = std::move(table);
    s_lookups.clear();
    zelsocket::HostAddrCache::SetLookupForTesting(&Lookup);
  }
  ~FakeResolver() { zelsocket::HostAddrCache::SetLookupForTesting(nullptr); }
  int Lookups(const std::string& host) const {
    std::lock_guard<std::mutex> lock(s_mutex);
    return static_cast<int>(std::count(s_lookups.begin(), s_lookups.end(), host));
  }
  // Fails the held lookups; on the thread of their loop.
  void FailHeld() {
    std::vector<std::pair<uv_getaddrinfo_t*, uv_getaddrinfo_cb>> held;
    std::unique_lock<std::mutex> lock(s_mutex);
    held.swap(s_held);
    lock.unlock();
    for (auto& [req, done] : held) done(req, UV_EAI_NONAME, nullptr);
  }

 private:
  static int Lookup(uv_loop_t* loop, uv_getaddrinfo_t* req, uv_getaddrinfo_cb done, const char* host, const char*,
                    const addrinfo*) {
    std::lock_guard<std::mutex> lock(s_mutex);
    s_lookups.push_back(host);
    std::string answer = s_table.count(host) ? s_table[host] : "";
    if (answer == "refuse") return UV_EAI_FAIL;
    if (answer == "hold") return s_held.emplace_back(req, done), 0;
    // A numeric lookup without a callback runs at once and never asks a
    // resolver; its result is one that the library's uv_freeaddrinfo can free.
    uv_getaddrinfo_t numeric;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_flags = AI_NUMERICHOST;
    int status = uv_getaddrinfo(loop, &numeric, nullptr, answer.empty() ? "-" : answer.c_str(), nullptr, &hints);
    addrinfo* result = status == 0 ? numeric.addrinfo : nullptr;
    return zelsocket::IOLoop::CurrentLoop()->AsyncCall([=] { done(req, status, result); });
  }
  static inline std::mutex s_mutex;
  static inline std::map<std::string, std::string> s_table;
  static inline std::vector<std::string> s_lookups;
  static inline std::vector<std::pair<uv_getaddrinfo_t*, uv_getaddrinfo_cb>> s_held;
};

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_FAKE_RESOLVER_H
