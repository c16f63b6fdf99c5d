// Internal: the IHostResolveSink handed to HostResolve instead of its owner.
// A resolution cannot be cancelled; the request holds a reference to the anchor
// until its one callback has come (or the request was dropped), and an owner
// that went away first has disconnected it, so the callback reaches nothing.
#ifndef ZELSOCKET_SRC_CHANNEL_HOST_RESOLVE_SINK_ANCHOR_H
#define ZELSOCKET_SRC_CHANNEL_HOST_RESOLVE_SINK_ANCHOR_H

#include <atomic>

#include "zelsocket/host_resolve.h"

namespace zelsocket {

template <typename Owner>
class HostResolveSinkAnchor : public RefCountBase, public IHostResolveSink {
 public:
  using Method = void (Owner::*)(int, const char*, const IPAddress&, void*);

  HostResolveSinkAnchor(Owner* owner, Method method) : m_owner(owner), m_method(method) {}

  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  bool Resolve(const char* host, void* ctx) { return HostResolve(host, this, ctx); }

  void OnHostResolve(int err, const char* host, const IPAddress& address, void* ctx) override {
    Owner* owner = m_owner.load(std::memory_order_acquire);
    if (owner && m_method) (owner->*m_method)(err, host, address, ctx);
  }

  void Disconnect() { m_owner.store(nullptr, std::memory_order_release); }

 private:
  std::atomic<Owner*> m_owner;
  const Method m_method;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_CHANNEL_HOST_RESOLVE_SINK_ANCHOR_H
