#include "socket/uv_tcp_send.h"

#include "core/check.h"
#include "core/logging.h"

namespace zelsocket {

UvTcpSend::~UvTcpSend() { ZS_DCHECK(m_ctx == nullptr); }

int UvTcpSend::Send(uv_stream_t* handle, IConstBuffer* buffer, void* ctx, ITcpSink* sink) {
  if (!handle || !buffer || !sink) return -1;
  if (m_ctx) {
    LogInfo(tag::kOp, "UvTcpSend::Send, in progress.");
    return -1;
  }
  auto* rec = new TcpSendCtx();
  rec->self = this;
  rec->req.data = this;
  // libuv only reads through this pointer.
  uv_buf_t buf = uv_buf_init(const_cast<char*>(reinterpret_cast<const char*>(buffer->GetBuf())),
                             static_cast<unsigned int>(buffer->GetLength()));
  int rc = uv_write(&rec->req, handle, &buf, 1, &UvTcpSend::_OnSend);
  if (rc != 0) {
    LogInfo(tag::kOp, "UvTcpSend::Send, uv_write fail, ret=%d, %s", rc, uv_strerror(rc));
    delete rec;
    return rc;
  }
  rec->handle = handle;
  rec->sink = sink;
  rec->buffer = buffer;
  rec->userCtx = ctx;
  m_ctx = rec;
  return 0;
}

void UvTcpSend::Cancel() {
  if (!m_ctx) return;
  m_ctx->sink = nullptr;
  m_ctx->userCtx = nullptr;
}

void UvTcpSend::_OnSend(uv_write_t* req, int status) {
  auto* op = static_cast<UvTcpSend*>(req->data);
  TcpSendCtx* rec = op->m_ctx;
  // Idle before the report, so that the sink's owner can start the next write.
  op->m_ctx = nullptr;
  if (!rec) {
    LogError(tag::kOp, "UvTcpSend::_OnSend, ctx is NULL.");
    return;
  }
  if (!rec->sink) {
    LogError(tag::kOp, "UvTcpSend::_OnSend, canceled.");
  } else {
    rec->sink->OnSend(status, rec->buffer, rec->userCtx);
  }
  delete rec;  // the op may die here
}

}  // namespace zelsocket
