#include "socket/uv_tcp_connect.h"

#include "core/check.h"
#include "core/logging.h"

namespace zelsocket {

UvTcpConnect::~UvTcpConnect() { ZS_DCHECK(m_ctx == nullptr); }

bool UvTcpConnect::Connect(uv_tcp_t* handle, const IPEndPoint& address, void* ctx, ITcpSink* sink) {
  if (!handle || !sink || !address.IsValid()) {
    LogInfo(tag::kOp, "UvTcpConnect::Connect, Invalid Args.");
    return false;
  }
  if (m_ctx) {
    LogInfo(tag::kOp, "Connect, ctx not null, in process.");
    return false;
  }
  auto* rec = new TcpConnectCtx();
  rec->self = this;
  rec->req.data = this;
  int rc = uv_tcp_connect(&rec->req, handle, address.GetSockAddr(), &UvTcpConnect::_OnConnect);
  if (rc != 0) {
    LogInfo(tag::kOp, "Connect, uv_tcp_connect fail, err=%d, %s", rc, uv_strerror(rc));
    delete rec;
    return false;
  }
  rec->handle = handle;
  rec->sink = sink;
  rec->address = address;
  rec->userCtx = ctx;
  m_ctx = rec;
  return true;
}

void UvTcpConnect::Cancel() {
  if (!m_ctx) return;
  m_ctx->sink = nullptr;
  m_ctx->userCtx = nullptr;
}

void UvTcpConnect::_OnConnect(uv_connect_t* req, int status) {
  auto* op = static_cast<UvTcpConnect*>(req->data);
  TcpConnectCtx* rec = op->m_ctx;
  op->m_ctx = nullptr;
  if (!rec) {
    LogError(tag::kOp, "UvTcpConnect::_OnConnect, ctx is NULL, fatal error.");
    return;
  }
  if (!rec->sink) {
    LogInfo(tag::kOp, "UvTcpConnect::_OnConnect, canceled.");
  } else {
    rec->sink->OnConnect(status, rec->address, rec->userCtx);
  }
  // Releases the sink and `self`: the op may die here.
  delete rec;
}

}  // namespace zelsocket
