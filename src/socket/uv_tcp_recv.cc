#include "socket/uv_tcp_recv.h"

#include "core/check.h"
#include "core/logging.h"

namespace zelsocket {

UvTcpRecv::~UvTcpRecv() { ZS_DCHECK(m_ctx == nullptr); }

int UvTcpRecv::Recv(uv_stream_t* handle, IMutableBuffer* buffer, void* ctx, ITcpSink* sink) {
  if (!handle || !buffer || !sink) return -1;
  if (m_ctx) {
    LogError(tag::kOp, "UvTcpRecv::Recv, in progress.");
    return -1;
  }
  auto* rec = new TcpRecvCtx();
  rec->self = this;
  rec->anchor.Attach(new CallbackAnchor<UvTcpRecv>(this, &UvTcpRecv::_OnRecv));
  rec->handle = handle;
  rec->sink = sink;
  rec->buffer = buffer;
  rec->userCtx = ctx;
  // The callbacks find the op, and through it the record, from here on.
  handle->data = this;
  m_ctx = rec;
  int rc = uv_read_start(handle, &UvTcpRecv::_AllocCallback, &UvTcpRecv::_RecvCallback);
  if (rc != 0) {
    LogInfo(tag::kOp, "UvTcpRecv::Recv, uv_read_start fail, err=%d, %s", rc, uv_strerror(rc));
    m_ctx = nullptr;
    delete rec;  // `this` is still held by the caller
    return rc;
  }
  return 0;
}

void UvTcpRecv::Cancel() {
  TcpRecvCtx* rec = m_ctx;
  if (!rec) return;
  if (rec->handle) {
    uv_read_stop(rec->handle);
    rec->handle = nullptr;
  }
  rec->sink = nullptr;
  rec->userCtx = nullptr;
  // Cleared before the record goes: its destruction may release the op itself.
  m_ctx = nullptr;
  delete rec;
}

void UvTcpRecv::_AllocCallback(uv_handle_t* handle, size_t suggested, uv_buf_t* out) {
  auto* op = static_cast<UvTcpRecv*>(handle->data);
  RefPtr<IMutableBuffer> buffer = op->m_ctx ? op->m_ctx->buffer : RefPtr<IMutableBuffer>();
  if (!buffer) {
    *out = uv_buf_init(nullptr, 0);
    return;
  }
  // The size comes from libuv alone; on failure libuv gets what the buffer had.
  buffer->Resize(static_cast<int>(suggested));
  *out = uv_buf_init(reinterpret_cast<char*>(buffer->GetBuf()), static_cast<unsigned int>(buffer->GetLength()));
}

void UvTcpRecv::_RecvCallback(uv_stream_t* handle, ssize_t nread, const uv_buf_t* /*buf*/) {
  // One shot: nothing more is taken from the system until the next Recv.
  uv_read_stop(handle);
  auto* op = static_cast<UvTcpRecv*>(handle->data);
  TcpRecvCtx* rec = op->m_ctx;
  if (!rec) return;
  rec->nread = nread;
  // Delivered after this callback has returned.  If the loop refuses (it is
  // stopping), the record stays until Cancel.
  IOLoop* loop = IOLoop::GetLoop();
  if (loop) loop->AsyncCall(rec->anchor, op);
}

void UvTcpRecv::_OnRecv(void* /*arg*/) {
  TcpRecvCtx* rec = m_ctx;
  // Idle before the report, so that the next read can be armed inside it.
  m_ctx = nullptr;
  if (!rec) {
    LogError(tag::kOp, "UvTcpRecv::_OnRecv, ctx is NULL");
    return;
  }
  int status = 0;
  int length = 0;
  if (rec->nread == UV_EOF) {
    status = 0;
  } else if (rec->nread < 0) {
    status = static_cast<int>(rec->nread);
  } else if (rec->nread == 0) {
    LogInfo(tag::kOp, "UvTcpRecv::_OnRecv, nread==0");
  } else {
    length = static_cast<int>(rec->nread);
  }
  rec->buffer->Resize(length);
  rec->sink->OnRecv(status, rec->buffer, rec->userCtx);
  delete rec;  // the op may die here
}

}  // namespace zelsocket
