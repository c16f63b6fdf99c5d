// Internal: one uv_write at a time, with a record that outlives the socket.
#ifndef ZELSOCKET_SRC_SOCKET_UV_TCP_SEND_H
#define ZELSOCKET_SRC_SOCKET_UV_TCP_SEND_H

#include <uv.h>

#include "zelsocket/buffer.h"
#include "zelsocket/tcp.h"

namespace zelsocket {

// Loop thread only.  The record holds the buffer (libuv reads its bytes in
// place until the report), the sink and the op itself.
class UvTcpSend : public RefCount {
 public:
  UvTcpSend() = default;
  ~UvTcpSend() override;

  // 0 when _OnSend will run; -1 for a null argument or a write in flight (also a
  // cancelled one); else the error of uv_write.
  int Send(uv_stream_t* handle, IConstBuffer* buffer, void* ctx, ITcpSink* sink);
  // Cuts the report off; the request and the buffer stay until libuv reports.
  void Cancel();
  bool IsBusy() const { return m_ctx != nullptr; }

  static void _OnSend(uv_write_t* req, int status);

 private:
  struct TcpSendCtx {
    uv_stream_t* handle = nullptr;
    void* userCtx = nullptr;
    RefPtr<IConstBuffer> buffer;
    RefPtr<ITcpSink> sink;
    RefPtr<UvTcpSend> self;
    uv_write_t req{};
  };

  TcpSendCtx* m_ctx = nullptr;  // the write in flight; null when idle
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_SOCKET_UV_TCP_SEND_H
