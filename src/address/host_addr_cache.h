// Internal: the process-wide cache and request engine behind HostResolve.
//
// Entries come into the cache from successful lookups only (under the write
// lock); nothing removes them.  The age of an entry decides how a request is
// answered: from memory, from memory plus a background refresh, or by waiting
// for the lookup.
#ifndef ZELSOCKET_SRC_ADDRESS_HOST_ADDR_CACHE_H
#define ZELSOCKET_SRC_ADDRESS_HOST_ADDR_CACHE_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "zelsocket/ip_address.h"
#include "zelsocket/sync.h"

struct addrinfo;
struct uv_getaddrinfo_s;
struct uv_loop_s;

namespace zelsocket {

class IOLoop;

struct HostAddrEntry {
  std::string host;
  IPAddress address;
  std::int64_t time = 0;  // wall-clock seconds when the entry was written
};

using HostResolveCallback = std::function<void(int, const char*, const IPAddress&)>;

// What looks a name up: uv_getaddrinfo, or a stand-in of the same shape.
using HostLookup = int (*)(uv_loop_s* loop, uv_getaddrinfo_s* req,
                           void (*done)(uv_getaddrinfo_s*, int, addrinfo*), const char* host,
                           const char* service, const addrinfo* hints);

struct HostResolveCtx {
  IOLoop* loop = nullptr;
  std::string host;
  HostResolveCallback callback;  // called at most once, empty after that
};

class HostAddrCache {
 public:
  // Created on first use, safe against concurrent first calls; never destroyed.
  static HostAddrCache* Instance();

  bool _HostResolve(const char* host, HostResolveCallback callback);

  // Test hook: the lookup that requests not answered from the cache make (null:
  // uv_getaddrinfo), so that unit tests need not ask the machine's resolver.
  static void SetLookupForTesting(HostLookup lookup);
  // Test hook: writes an entry with the given wall-clock time, as a lookup would.
  void PutEntryForTesting(const std::string& host, const IPAddress& address, std::int64_t time);
  // Test hook: reads an entry as the request path does.
  bool GetEntryForTesting(const char* host, IPAddress& address, std::int64_t& time) {
    return _GetCache(host, address, time);
  }

 private:
  HostAddrCache() = default;

  void _OnAsyncHostResolve(HostResolveCtx* ctx);
  static void _OnHostResolveResult(uv_getaddrinfo_s* req, int status, addrinfo* result);
  bool _GetCache(const char* host, IPAddress& address, std::int64_t& time);
  void _PutCache(const std::string& host, const IPAddress& address, std::int64_t time);

  Rwlock m_lock;
  std::map<std::string, HostAddrEntry> m_entries;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_ADDRESS_HOST_ADDR_CACHE_H
