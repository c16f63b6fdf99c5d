// Internal: one read at a time on a stream, stopped after every delivery.
#ifndef ZELSOCKET_SRC_SOCKET_UV_TCP_RECV_H
#define ZELSOCKET_SRC_SOCKET_UV_TCP_RECV_H

#include <uv.h>

#include "loop/callback_anchor.h"
#include "zelsocket/buffer.h"
#include "zelsocket/tcp.h"

namespace zelsocket {

// Loop thread only.  A read is delivered from the loop's call queue, after the
// libuv callback has returned, so the sink may arm the next read or close the
// socket.  uv_read_stop ends every claim of libuv on a read, so Cancel drops the
// record at once; a delivery already posted then finds its anchor disconnected.
class UvTcpRecv : public RefCount {
 public:
  UvTcpRecv() = default;
  ~UvTcpRecv() override;

  // 0 when the read is armed; -1 for a null argument or a read armed already
  // (until its report has run); else the error of uv_read_start.  Uses the
  // handle's `data` field.
  int Recv(uv_stream_t* handle, IMutableBuffer* buffer, void* ctx, ITcpSink* sink);
  // Stops reading and drops the record: no report follows.
  void Cancel();
  bool IsBusy() const { return m_ctx != nullptr; }

  static void _AllocCallback(uv_handle_t* handle, size_t suggested, uv_buf_t* out);
  static void _RecvCallback(uv_stream_t* handle, ssize_t nread, const uv_buf_t* buf);
  void _OnRecv(void* arg);

 private:
  struct TcpRecvCtx {
    ~TcpRecvCtx() {
      if (anchor) anchor->Disconnect();
    }
    uv_stream_t* handle = nullptr;
    void* userCtx = nullptr;
    RefPtr<UvTcpRecv> self;
    RefPtr<IMutableBuffer> buffer;
    RefPtr<ITcpSink> sink;
    ssize_t nread = 0;
    RefPtr<CallbackAnchor<UvTcpRecv>> anchor;
  };

  TcpRecvCtx* m_ctx = nullptr;  // the armed read; null when idle
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_SOCKET_UV_TCP_RECV_H
