// Internal: one uv_tcp_connect at a time, with a record that outlives the socket.
#ifndef ZELSOCKET_SRC_SOCKET_UV_TCP_CONNECT_H
#define ZELSOCKET_SRC_SOCKET_UV_TCP_CONNECT_H

#include <uv.h>

#include "zelsocket/ip_address.h"
#include "zelsocket/tcp.h"

namespace zelsocket {

// Loop thread only.  The record holds the op (`self`) and the sink until libuv
// reports, because libuv keeps its pointer to the request until then.
class UvTcpConnect : public RefCount {
 public:
  UvTcpConnect() = default;
  ~UvTcpConnect() override;

  // True when _OnConnect will run.  False for bad arguments (port 0 included), a
  // connect in flight (also a cancelled one), or a refusal of libuv (logged).
  bool Connect(uv_tcp_t* handle, const IPEndPoint& address, void* ctx, ITcpSink* sink);
  // Cuts the report off; the request stays with libuv and the op stays busy.
  void Cancel();
  bool IsBusy() const { return m_ctx != nullptr; }

  static void _OnConnect(uv_connect_t* req, int status);

 private:
  struct TcpConnectCtx {
    uv_tcp_t* handle = nullptr;
    void* userCtx = nullptr;
    uv_connect_t req{};
    IPEndPoint address;
    RefPtr<UvTcpConnect> self;
    RefPtr<ITcpSink> sink;
  };

  TcpConnectCtx* m_ctx = nullptr;  // the connect in flight; null when idle
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_SOCKET_UV_TCP_CONNECT_H
