#include "socket/uv_udp_send.h"

#include "core/check.h"
#include "core/logging.h"

namespace zelsocket {

namespace {
// A marker carried in the failure line, so that it can be told from others.
constexpr int kSendCheck = static_cast<int>(0xAABBCCDDu);
}  // namespace

UvUdpSend::~UvUdpSend() {
  // The record holds a reference to this object until libuv reports.
  ZS_DCHECK(m_ctx == nullptr);
}

int UvUdpSend::Send(uv_udp_t* handle, IConstBuffer* buffer, const IPEndPoint& dest, IUdpSink* sink, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  if (!handle || !buffer || !sink || !dest.IsValid()) {
    LogInfo(tag::kOp, "UvUdpSend::Send, Invalid Arg");
    return -1;
  }
  if (m_ctx) {
    LogInfo(tag::kOp, "UvUdpSend::Send, sending in progress.");
    return -1;
  }
  auto* record = new UdpSendCtx();
  record->self = this;
  record->req.data = this;
  // libuv reads the caller's bytes in place; the record keeps them alive.
  uv_buf_t buf = uv_buf_init(reinterpret_cast<char*>(const_cast<unsigned char*>(buffer->GetBuf())),
                             static_cast<unsigned int>(buffer->GetLength()));
  int rc = uv_udp_send(&record->req, handle, &buf, 1, dest.GetSockAddr(), &UvUdpSend::_OnSend);
  if (rc != 0) {
    LogInfo(tag::kOp, "UvUdpSend, uv_udp_send fail, check=%d, ret=%d, %s", kSendCheck, rc, uv_strerror(rc));
    delete record;
    return rc;
  }
  record->handle = handle;
  record->sink = sink;
  record->buffer = buffer;
  record->dest = dest;
  record->userCtx = ctx;
  m_ctx = record;
  return 0;
}

void UvUdpSend::Cancel() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  if (!m_ctx) return;
  m_ctx->sink = nullptr;
  m_ctx->userCtx = nullptr;
}

void UvUdpSend::_OnSend(uv_udp_send_t* req, int status) {
  auto* self = static_cast<UvUdpSend*>(req->data);
  ZS_ASSERT_LOOP_THREAD(self->m_loop);
  UdpSendCtx* record = self->m_ctx;
  // Idle from here on, so that the sink may start the next datagram.
  self->m_ctx = nullptr;
  if (!record) {
    LogError(tag::kOp, "UvUdpSend::_OnSend, ctx is NULL, fatal error.");
    return;
  }
  ZS_DCHECK(&record->req == req);
  if (!record->sink) {
    LogInfo(tag::kOp, "UvUdpSend::_OnSend, canceled.");
  } else {
    record->sink->OnSend(status, record->buffer, record->dest, record->userCtx);
  }
  // May release the last reference to `self`.
  delete record;
}

}  // namespace zelsocket
