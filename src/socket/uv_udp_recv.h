// Internal: one armed receive on a uv_udp_t, one-shot or continuous, written by
// libuv straight into the caller's buffer.  Loop thread only.
//
// A one-shot datagram is handed over from the loop's call queue, after libuv's
// callback has returned; a continuous one is handed over inside that callback,
// with nothing posted per datagram.  libuv's truncation flag is not passed on:
// the sink interface has no place for it, and a caller that needs whole
// datagrams reserves a buffer as large as the largest it accepts.
#ifndef ZELSOCKET_SRC_SOCKET_UV_UDP_RECV_H
#define ZELSOCKET_SRC_SOCKET_UV_UDP_RECV_H

#include <uv.h>

#include "loop/callback_anchor.h"
#include "zelsocket/buffer.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/ip_address.h"
#include "zelsocket/ref_count.h"
#include "zelsocket/udp.h"

namespace zelsocket {

class UvUdpRecv : public RefCount {
 public:
  // The least every datagram is offered, whatever the buffer's capacity.
  static constexpr int kMinRecvSize = 0x3000;

  explicit UvUdpRecv(IOLoop* loop) : m_loop(loop) {}
  ~UvUdpRecv() override;

  // Arms a receive; the handle's user data points to this object until Cancel.
  // -1 for bad arguments or while armed, else 0 or the libuv error.
  int Recv(uv_udp_t* handle, bool continuous, IMutableBuffer* buffer, IUdpSink* sink, void* ctx);
  // Stops receiving and drops the record at once: a datagram taken but not yet
  // delivered is lost, and no report comes.
  void Cancel();

  static void _AllocCallback(uv_handle_t* handle, size_t suggested, uv_buf_t* out);
  static void _RecvCallback(uv_udp_t* handle, ssize_t nread, const uv_buf_t* buf, const sockaddr* addr,
                            unsigned int flags);
  void _OnRecv(void* param);

 private:
  struct UdpRecvCtx {
    ~UdpRecvCtx();

    uv_udp_t* handle = nullptr;
    RefPtr<UvUdpRecv> self;
    bool continuous = false;
    void* userCtx = nullptr;
    RefPtr<IMutableBuffer> buffer;
    RefPtr<IUdpSink> sink;
    RefPtr<CallbackAnchor<UvUdpRecv>> anchor;
    ssize_t nread = 0;
    IPEndPoint from;
  };

  IOLoop* const m_loop;
  UdpRecvCtx* m_ctx = nullptr;
  // The record whose datagram is being handed to the sink.  A Cancel from
  // inside that call detaches the record, and _OnRecv frees it afterwards.
  UdpRecvCtx* m_delivering = nullptr;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_SOCKET_UV_UDP_RECV_H
