#include "address/host_addr_cache.h"

#include <uv.h>  // addrinfo: from ws2tcpip.h on Windows, netdb.h elsewhere

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <new>

#include "core/check.h"
#include "core/logging.h"
#include "core/platform.h"
#include "zelsocket/host_resolve.h"
#include "zelsocket/io_loop.h"

namespace zelsocket {

namespace {

constexpr std::uint64_t kFreshSeconds = 1200;
constexpr std::uint64_t kUsableSeconds = 7200;

// Owns a request record until the posted call takes it, so that a loop that
// drops the call (it is stopping) still frees the record.
struct CtxHolder {
  explicit CtxHolder(HostResolveCtx* c) : ctx(c) {}
  ~CtxHolder() { delete ctx; }
  CtxHolder(const CtxHolder&) = delete;
  CtxHolder& operator=(const CtxHolder&) = delete;
  HostResolveCtx* ctx;
};

HostAddrCache* g_cache = nullptr;
std::once_flag g_cacheOnce;
std::atomic<HostLookup> g_lookup{&uv_getaddrinfo};

}  // namespace

HostAddrCache* HostAddrCache::Instance() {
  std::call_once(g_cacheOnce, [] { g_cache = new HostAddrCache(); });
  return g_cache;
}

bool HostAddrCache::_HostResolve(const char* host, HostResolveCallback callback) {
  IOLoop* loop = IOLoop::GetLoop();
  if (!loop) {
    LogError(tag::kHostResolve, "_HostResolve, loop is NULL");
    return false;
  }
  auto* ctx = new HostResolveCtx();
  ctx->loop = loop;
  ctx->host = host;
  ctx->callback = std::move(callback);
  auto holder = std::make_shared<CtxHolder>(ctx);
  int rc = loop->AsyncCall([this, holder] {
    HostResolveCtx* taken = holder->ctx;
    holder->ctx = nullptr;
    _OnAsyncHostResolve(taken);
  });
  if (rc != 0) {
    LogInfo(tag::kHostResolve, "_HostResolve, AsyncCallSafe fail, host=%s.", host);
    return false;
  }
  return true;
}

void HostAddrCache::_OnAsyncHostResolve(HostResolveCtx* ctx) {
  ZS_ASSERT_LOOP_THREAD(ctx->loop);
  std::unique_ptr<HostResolveCtx> owned(ctx);
  IPAddress literal;
  if (literal.Parse(ctx->host.c_str())) {
    HostResolveCallback callback;
    callback.swap(ctx->callback);
    callback(0, ctx->host.c_str(), literal);
    return;
  }

  IPAddress cached;
  std::int64_t time = 0;
  _GetCache(ctx->host.c_str(), cached, time);
  // Unsigned, so that a time stamp from the future counts as very old.
  std::uint64_t age = static_cast<std::uint64_t>(platform::WallClockSeconds()) - static_cast<std::uint64_t>(time);
  if (age < kUsableSeconds) {
    HostResolveCallback callback;
    callback.swap(ctx->callback);
    callback(0, ctx->host.c_str(), cached);
    if (age < kFreshSeconds) return;
  }

  auto* req = static_cast<uv_getaddrinfo_t*>(std::calloc(1, sizeof(uv_getaddrinfo_t)));
  if (!req) throw std::bad_alloc();
  req->data = owned.release();
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  int rc = g_lookup.load()(ctx->loop->Loop(), req, _OnHostResolveResult, ctx->host.c_str(), nullptr, &hints);
  if (rc != 0) {
    LogInfo(tag::kHostResolve, "_OnAsyncHostResolve, uv_getaddrinfo fail, host=%s, err=%d.", ctx->host.c_str(), rc);
    _OnHostResolveResult(req, rc, nullptr);
  }
}

void HostAddrCache::_OnHostResolveResult(uv_getaddrinfo_t* req, int status, addrinfo* result) {
  std::unique_ptr<HostResolveCtx> ctx(static_cast<HostResolveCtx*>(req->data));
  ScopeExit cleanup([req, result] {
    std::free(req);
    if (result) uv_freeaddrinfo(result);
  });
  ZS_ASSERT_LOOP_THREAD(ctx->loop);

  int err = -1;
  IPAddress address;
  if (status == 0) {
    for (addrinfo* ai = result; ai; ai = ai->ai_next) {
      if (ai->ai_family == AF_INET && ai->ai_addrlen == sizeof(sockaddr_in)) {
        address = IPAddress(reinterpret_cast<const sockaddr_in*>(ai->ai_addr)->sin_addr);
        err = 0;
        LogInfo(tag::kHostResolve, "_OnHostResolveResult, ok, host=%s->%s", ctx->host.c_str(),
                address.GetString().c_str());
        Instance()->_PutCache(ctx->host, address, platform::WallClockSeconds());
        break;
      }
    }
  } else {
    LogInfo(tag::kHostResolve, "_OnHostResolveResult, fail, host=%s, err=%d", ctx->host.c_str(), status);
  }

  if (ctx->callback) {
    HostResolveCallback callback;
    callback.swap(ctx->callback);
    callback(err, ctx->host.c_str(), address);
  }
}

bool HostAddrCache::_GetCache(const char* host, IPAddress& address, std::int64_t& time) {
  time = 0;
  address = IPAddress();
  if (!host || !*host) return false;
  HostAddrEntry copy;
  bool found = false;
  m_lock.RLock();
  auto it = m_entries.find(host);
  if (it != m_entries.end()) {
    copy = it->second;
    found = true;
  }
  m_lock.RUnlock();
  if (!found || copy.host.empty() || !copy.address.IsValid()) return false;
  time = copy.time;
  address = copy.address;
  return true;
}

void HostAddrCache::_PutCache(const std::string& host, const IPAddress& address, std::int64_t time) {
  if (host.empty() || !address.IsValid()) return;
  m_lock.WLock();
  HostAddrEntry& entry = m_entries[host];
  entry.host = host;
  entry.address = address;
  entry.time = time;
  m_lock.WUnlock();
}

void HostAddrCache::SetLookupForTesting(HostLookup lookup) { g_lookup.store(lookup ? lookup : &uv_getaddrinfo); }

void HostAddrCache::PutEntryForTesting(const std::string& host, const IPAddress& address, std::int64_t time) {
  _PutCache(host, address, time);
}

namespace {

void CallSink(const RefPtr<IHostResolveSink>& sink, void* ctx, int err, const char* host, const IPAddress& address) {
  sink->OnHostResolve(err, host, address, ctx);
}

}  // namespace

bool HostResolve(const char* host, IHostResolveSink* sink, void* ctx) {
  if (!host || !*host || !sink) return false;
  using std::placeholders::_1;
  using std::placeholders::_2;
  using std::placeholders::_3;
  // The request holds a reference to the sink until its callback has run or
  // the request has been dropped (by a stopping loop), so a caller need not
  // keep the sink alive for it.
  return HostAddrCache::Instance()->_HostResolve(host,
                                                 std::bind(&CallSink, RefPtr<IHostResolveSink>(sink), ctx, _1, _2, _3));
}

}  // namespace zelsocket
