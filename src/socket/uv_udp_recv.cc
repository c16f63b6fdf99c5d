#include "socket/uv_udp_recv.h"

#include "core/check.h"
#include "core/logging.h"

namespace zelsocket {

UvUdpRecv::UdpRecvCtx::~UdpRecvCtx() {
  // Disconnected before anything else goes, so that a delivery already posted
  // finds nobody.
  if (anchor) anchor->Disconnect();
}

UvUdpRecv::~UvUdpRecv() { ZS_DCHECK(m_ctx == nullptr); }

int UvUdpRecv::Recv(uv_udp_t* handle, bool continuous, IMutableBuffer* buffer, IUdpSink* sink, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  if (!handle || !buffer || !sink) {
    LogInfo(tag::kOp, "UvUdpRecv::Recv, invalid args.");
    return -1;
  }
  if (m_ctx) {
    LogInfo(tag::kOp, "UvUdpRecv::Recv, in progress.");
    return -1;
  }
  auto* record = new UdpRecvCtx();
  record->self = this;
  record->anchor.Attach(new CallbackAnchor<UvUdpRecv>(this, &UvUdpRecv::_OnRecv));
  // Whole before libuv can call back.
  record->handle = handle;
  record->buffer = buffer;
  record->sink = sink;
  record->userCtx = ctx;
  record->continuous = continuous;
  handle->data = this;
  m_ctx = record;
  int rc = uv_udp_recv_start(handle, &UvUdpRecv::_AllocCallback, &UvUdpRecv::_RecvCallback);
  if (rc != 0) {
    LogInfo(tag::kOp, "UvUdpRecv::Recv, uv_udp_recv_start fail, ret=%d, %s", rc, uv_strerror(rc));
    m_ctx = nullptr;
    handle->data = nullptr;
    delete record;
    return rc;
  }
  return 0;
}

void UvUdpRecv::Cancel() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  UdpRecvCtx* record = m_ctx;
  if (!record) return;
  if (record->handle) {
    uv_udp_recv_stop(record->handle);
    record->handle->data = nullptr;
    record->handle = nullptr;
  }
  m_ctx = nullptr;
  if (record->anchor) record->anchor->Disconnect();
  if (record == m_delivering) return;  // _OnRecv frees it once the sink returns
  record->sink = nullptr;
  record->userCtx = nullptr;
  // May release the last reference to this object.
  delete record;
}

void UvUdpRecv::_AllocCallback(uv_handle_t* handle, size_t /*suggested*/, uv_buf_t* out) {
  auto* self = static_cast<UvUdpRecv*>(handle->data);
  *out = uv_buf_init(nullptr, 0);
  if (!self || !self->m_ctx) return;
  ZS_ASSERT_LOOP_THREAD(self->m_loop);
  RefPtr<IMutableBuffer> buffer = self->m_ctx->buffer;
  int size = buffer->GetCapacity();
  if (size < kMinRecvSize) size = kMinRecvSize;
  buffer->Resize(size);
  *out = uv_buf_init(reinterpret_cast<char*>(buffer->GetBuf()), static_cast<unsigned int>(buffer->GetLength()));
}

void UvUdpRecv::_RecvCallback(uv_udp_t* handle, ssize_t nread, const uv_buf_t* buf, const sockaddr* addr,
                              unsigned int flags) {
  // A datagram cut to fit the buffer (UV_UDP_PARTIAL) is delivered as it came.
  auto* self = static_cast<UvUdpRecv*>(handle->data);
  if (!self || !self->m_ctx) return;
  ZS_ASSERT_LOOP_THREAD(self->m_loop);
  // A cut datagram fills the whole buffer, but libuv on Windows may report it
  // with a count of 0 (Winsock leaves the count of a WSAEMSGSIZE read unset).
  if ((flags & UV_UDP_PARTIAL) && addr && nread >= 0) nread = static_cast<ssize_t>(buf->len);
  if (nread == 0) {
    // Both "nothing to read" and an empty datagram: neither is delivered.  Only
    // the datagram is logged: libuv on Windows reports "nothing to read" after
    // many a wake-up, which would flood the log.
    if (addr) LogInfo(tag::kOp, "UvUdpRecv::_RecvCallback, nread=0");
    return;
  }
  UdpRecvCtx* record = self->m_ctx;
  record->nread = nread;
  record->from.FromSockaddr(addr);
  if (record->continuous) {
    self->_OnRecv(nullptr);
    return;
  }
  uv_udp_recv_stop(handle);
  int rc = self->m_loop->AsyncCall(record->anchor, self);
  if (rc != 0) LogInfo(tag::kOp, "UvUdpRecv::_RecvCallback, AsyncCall fail, ret=%d", rc);
}

void UvUdpRecv::_OnRecv(void* /*param*/) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  UdpRecvCtx* record = m_ctx;
  if (!record || !record->sink) {
    LogError(tag::kOp, "UvUdpRecv::_OnRecv, ctx is NULL, fatal error.");
    return;
  }
  // The sink may release the socket, and with it the last reference to us.
  RefPtr<UvUdpRecv> keep(this);
  const bool continuous = record->continuous;
  // A one-shot op is idle from here on, so that the sink may arm the next one.
  if (!continuous) m_ctx = nullptr;
  record->buffer->Resize(record->nread >= 0 ? static_cast<int>(record->nread) : 0);
  int status = record->nread >= 0 ? 0 : static_cast<int>(record->nread);
  UdpRecvCtx* outer = m_delivering;
  m_delivering = record;
  record->sink->OnRecv(status, record->buffer, record->from, record->userCtx);
  m_delivering = outer;
  // A continuous record cancelled inside the call was left for us to free.
  if (!continuous || m_ctx != record) delete record;
}

}  // namespace zelsocket
