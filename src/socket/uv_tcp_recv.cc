#include "socket/uv_tcp_recv.h"

#include "core/check.h"
#include "core/logging.h"

namespace zelsocket {

UvTcpRecv::~UvTcpRecv() { ZS_DCHECK(m_ctx == nullptr && m_reading == nullptr); }

int UvTcpRecv::Recv(uv_stream_t* handle, IMutableBuffer* buffer, void* ctx, ITcpSink* sink) {
  if (!handle || !buffer || !sink) return -1;
  if (m_ctx) {
    LogError(tag::kOp, "UvTcpRecv::Recv, in progress.");
    return -1;
  }
  auto* rec = new TcpRecvCtx();
  rec->self = this;
  rec->sink = sink;
  rec->buffer = buffer;
  rec->userCtx = ctx;
  // The callbacks find the op, and through it the record, from here on.
  handle->data = this;
  m_ctx = rec;
  if (m_reading == handle) return 0;
  if (m_reading) _StopReading();
  int rc = uv_read_start(handle, &UvTcpRecv::_AllocCallback, &UvTcpRecv::_RecvCallback);
  if (rc != 0) {
    LogInfo(tag::kOp, "UvTcpRecv::Recv, uv_read_start fail, err=%d, %s", rc, uv_strerror(rc));
    m_ctx = nullptr;
    delete rec;  // `this` is still held by the caller
    return rc;
  }
  m_reading = handle;
  return 0;
}

void UvTcpRecv::_StopReading() {
  if (!m_reading) return;
  uv_read_stop(m_reading);
  m_reading = nullptr;
}

void UvTcpRecv::Cancel() {
  _StopReading();
  TcpRecvCtx* rec = m_ctx;
  if (!rec) return;
  rec->sink = nullptr;
  rec->userCtx = nullptr;
  // Cleared before the record goes: its destruction may release the op itself.
  m_ctx = nullptr;
  delete rec;
}

void UvTcpRecv::_AllocCallback(uv_handle_t* handle, size_t suggested, uv_buf_t* out) {
  auto* op = static_cast<UvTcpRecv*>(handle->data);
  // The record holds the buffer until the delivery.
  IMutableBuffer* buffer = op->m_ctx ? op->m_ctx->buffer.Get() : nullptr;
  if (!buffer) {
    // No receive armed: libuv answers UV_ENOBUFS, and reading stops there.
    *out = uv_buf_init(nullptr, 0);
    return;
  }
  // The size comes from libuv alone; on failure libuv gets what the buffer had.
  buffer->Resize(static_cast<int>(suggested));
  *out = uv_buf_init(reinterpret_cast<char*>(buffer->GetBuf()), static_cast<unsigned int>(buffer->GetLength()));
}

void UvTcpRecv::_RecvCallback(uv_stream_t* handle, ssize_t nread, const uv_buf_t* /*buf*/) {
  auto* op = static_cast<UvTcpRecv*>(handle->data);
  if (nread < 0) {
    // libuv has stopped reading after an end of stream or an error; a missing
    // buffer stops it here.  A later receive starts it again.
    op->_StopReading();
    if (nread == UV_ENOBUFS && !op->m_ctx) return;
  } else if (nread == 0) {
    // Nothing to read after all (libuv hands the buffer back): the receive
    // stays armed for the next bytes.
    return;
  }
  op->_Deliver(nread);
}

// Delivered from inside libuv's read callback, which allows the sink to arm
// the next receive, cancel, or close the socket there.
void UvTcpRecv::_Deliver(ssize_t nread) {
  TcpRecvCtx* rec = m_ctx;
  // Idle before the report, so that the next receive can be armed inside it.
  m_ctx = nullptr;
  if (!rec) {
    LogError(tag::kOp, "UvTcpRecv::_OnRecv, ctx is NULL");
    return;
  }
  int status = 0;
  int length = 0;
  if (nread == UV_EOF) {
    status = 0;
  } else if (nread < 0) {
    status = static_cast<int>(nread);
  } else {
    length = static_cast<int>(nread);
  }
  rec->buffer->Resize(length);
  rec->sink->OnRecv(status, rec->buffer, rec->userCtx);
  delete rec;  // the op may die here
}

}  // namespace zelsocket
