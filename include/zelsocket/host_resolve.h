// Public header: asynchronous resolution of a host name to one address.
#ifndef ZELSOCKET_HOST_RESOLVE_H
#define ZELSOCKET_HOST_RESOLVE_H

#include "zelsocket/export.h"
#include "zelsocket/ip_address.h"
#include "zelsocket/ref_count.h"

namespace zelsocket {

// Implemented by the application (or by an adapter of the library).
class ZELSOCKET_API IHostResolveSink : public IRefCount {
 public:
  // `err` is 0 with the address, or -1 with an unset address (the system's error
  // only goes to the log).  `host` and `address` are valid during the call only;
  // `ctx` is HostResolve's.  Runs on the loop thread of the request.
  virtual void OnHostResolve(int err, const char* host, const IPAddress& address, void* ctx) = 0;
};

// Resolves `host` to one IPv4 address (an IPv4 or IPv6 literal is answered as it
// is, without a lookup).  Callable on any thread; never blocks on the lookup.
// The request runs on IOLoop::GetLoop() of the calling thread, and the sink is
// called there exactly once, never from inside this call.  A process-wide cache
// answers names resolved in the last 20 minutes from memory, and names resolved
// in the last 2 hours from memory while refreshing them in the background.
// The request holds a reference to the sink until the callback has run (or a
// stopping loop dropped the request, without calling it).  There is no cancel.  False (and no callback) for a null or empty host, a null sink,
// no loop, or a loop that refused the request.
ZELSOCKET_API bool HostResolve(const char* host, IHostResolveSink* sink, void* ctx);

}  // namespace zelsocket

#endif  // ZELSOCKET_HOST_RESOLVE_H
