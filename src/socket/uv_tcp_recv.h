// Internal: one receive at a time on a stream, delivered from the read callback.
#ifndef ZELSOCKET_SRC_SOCKET_UV_TCP_RECV_H
#define ZELSOCKET_SRC_SOCKET_UV_TCP_RECV_H

#include <uv.h>

#include "zelsocket/buffer.h"
#include "zelsocket/ref_count.h"
#include "zelsocket/tcp.h"

namespace zelsocket {

// Loop thread only.  Each armed receive takes the bytes of one read.  Reading
// is not stopped after a delivery: a sink that arms the next receive (directly
// or through the call queue) costs the system nothing.  It stops when bytes
// arrive and no receive is armed (libuv then asks for a buffer and is given
// none), on end of stream or an error, and on Cancel; so a slow application
// still pushes back on the peer through the operating system.
class UvTcpRecv : public RefCount {
 public:
  UvTcpRecv() = default;
  ~UvTcpRecv() override;

  // 0 when the receive is armed; -1 for a null argument or a receive armed
  // already (until its report has run); else the error of uv_read_start.  Uses
  // the handle's `data` field.
  int Recv(uv_stream_t* handle, IMutableBuffer* buffer, void* ctx, ITcpSink* sink);
  // Stops reading and drops the armed receive: no report follows.
  void Cancel();
  bool IsBusy() const { return m_ctx != nullptr; }

  static void _AllocCallback(uv_handle_t* handle, size_t suggested, uv_buf_t* out);
  static void _RecvCallback(uv_stream_t* handle, ssize_t nread, const uv_buf_t* buf);

 private:
  struct TcpRecvCtx {
    void* userCtx = nullptr;
    RefPtr<UvTcpRecv> self;
    RefPtr<IMutableBuffer> buffer;
    RefPtr<ITcpSink> sink;
  };

  void _StopReading();
  void _Deliver(ssize_t nread);

  TcpRecvCtx* m_ctx = nullptr;       // the armed receive; null when idle
  uv_stream_t* m_reading = nullptr;  // the stream while libuv reads it
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_SOCKET_UV_TCP_RECV_H
