#include "socket/tcp_impl.h"

#include <cstdlib>
#include <utility>

#include "core/check.h"
#include "loop/async_impl.h"
#include "loop/run_on_loop.h"
#include "core/logging.h"

namespace zelsocket {

namespace {

void FreeHandle(uv_handle_t* handle) { std::free(handle); }

}  // namespace

ITcp::ITcp() = default;
ITcp::ITcp(const ITcp& other) = default;
ITcp::~ITcp() = default;
ITcp& ITcp::operator=(const ITcp& other) = default;

TcpImpl::TcpImpl(IOLoop* loop)
    : m_loop(loop ? loop : IOLoop::GetLoop()),
      m_async(m_loop),
      m_connectOp(new TcpOpHolder<UvTcpConnect>()),
      m_sendOp(new TcpOpHolder<UvTcpSend>()),
      m_recvOp(new TcpOpHolder<UvTcpRecv>()) {
  m_sinkAnchor.Attach(new TcpSinkAnchor<TcpImpl>(this, &TcpImpl::_OnConnect, &TcpImpl::_OnSend, &TcpImpl::_OnRecv));
}

// The last Release may come on any thread.  Completions of this socket run on
// the loop thread, so the anchor is disconnected and the libuv state torn down
// there; a socket released without Close has its handle closed too.
TcpImpl::~TcpImpl() {
  RunFinalOnLoop(m_loop, [this] { _Teardown(); });
}

void TcpImpl::_Teardown() {
  m_sinkAnchor->Disconnect();
  m_async.Cancel();
  _DiscardQueues();
  m_recvOp.reset();
  m_sendOp.reset();
  m_connectOp.reset();
  uv_tcp_t* handle = m_handle.exchange(nullptr);
  if (handle) uv_close(reinterpret_cast<uv_handle_t*>(handle), FreeHandle);
}

bool TcpImpl::_Keep(RefPtr<TcpImpl>& keep) {
  if (!InternalTryAddRef()) return false;
  keep.Attach(this);
  return true;
}

void TcpImpl::SetSink(ITcpSink* sink) { m_sink = sink; }

int TcpImpl::Open(const IPEndPoint& address) {
  if (!m_loop) return -1;
  int ret = 0;
  RunOnLoop(m_loop, [&] { _Open(address, ret); });
  return ret;
}

void TcpImpl::_Open(const IPEndPoint& address, int& ret) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  ret = 0;
  // A second handle would replace the first without closing it.
  if (m_handle.load()) {
    ret = -1;
    return;
  }
  auto* block = static_cast<uv_tcp_t*>(std::calloc(1, sizeof(uv_tcp_t)));
  int rc = uv_tcp_init(m_loop->Loop(), block);
  if (rc != 0) {
    LogInfo(tag::kTcp, "Open, uv_tcp_init fail, err=%d, %s", rc, uv_strerror(rc));
    std::free(block);
    ret = rc;
    return;
  }
  rc = uv_tcp_bind(block, address.GetSockAddr(), 0);
  if (rc != 0) {
    LogInfo(tag::kTcp, "Open, uv_tcp_bind fail, err=%d, %s", rc, uv_strerror(rc));
    uv_close(reinterpret_cast<uv_handle_t*>(block), FreeHandle);
    ret = rc;
    return;
  }
  m_handle.store(block);
}

// The implicit open of Connect and Send.  Two threads that Send on a closed
// socket at once must not make one of them fail, so an open that finds the
// socket opened meanwhile counts as success.
int TcpImpl::_OpenIfClosed() {
  if (!m_loop) return -1;
  int ret = 0;
  RunOnLoop(m_loop, [&] {
    if (!m_handle.load()) _Open(IPEndPoint(IPAddress::Any, 0), ret);
  });
  return ret;
}

int TcpImpl::Connect(const IPEndPoint& address, void* ctx) {
  if (!address.IsValid()) return -1;
  // The bound reference keeps the socket alive until the hop has run or died.
  RefPtr<TcpImpl> self(this);
  int rc = m_async.AsyncCall([this, address, ctx, self] { _AsyncConnect(address, ctx); });
  if (rc != 0) {
    LogInfo(tag::kTcp, "Connect, AsyncCall fail, ret=%d", rc);
    return rc;
  }
  return 0;
}

void TcpImpl::_AsyncConnect(const IPEndPoint& address, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  int code = -1;
  if (!IsOpen()) {
    int ret = _OpenIfClosed();
    if (ret != 0) {
      LogInfo(tag::kTcp, "_AsyncConnect, Open fail, ret=%d", ret);
      code = ret;
    }
  }
  if (IsOpen()) {
    if ((*m_connectOp)->Connect(m_handle.load(), address, ctx, m_sinkAnchor)) return;
    code = -1;
  }
  RefPtr<ITcpSink> sink = m_sink;
  if (sink) sink->OnConnect(code, IPEndPoint(), ctx);
}

void TcpImpl::_OnConnect(int status, const IPEndPoint& address, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  RefPtr<TcpImpl> self;
  if (!_Keep(self)) return;
  RefPtr<ITcpSink> sink = m_sink;
  if (sink) sink->OnConnect(status, address, ctx);
}

int TcpImpl::Accept(const IPEndPoint& /*address*/, void* /*ctx*/) { return 0; }

int TcpImpl::Send(IConstBuffer* buffer, void* ctx) {
  if (!buffer || buffer->GetLength() == 0) {
    LogInfo(tag::kTcp, "TcpImpl::Send, buffer is empty");
    return -1;
  }
  if (!IsOpen()) {
    int ret = _OpenIfClosed();
    if (ret != 0) {
      LogInfo(tag::kTcp, "TcpImpl::Send, Open fail, ret=%d", ret);
      return ret;
    }
  }
  RefPtr<IConstBuffer> held(buffer);
  int rc = AsyncImpl::Of(&m_async)->Post([this, held = std::move(held), ctx] { _AsyncSend(held, ctx); });
  if (rc != 0) {
    LogInfo(tag::kTcp, "TcpImpl::Send, AsyncCall fail");
    return rc;
  }
  return 0;
}

void TcpImpl::_AsyncSend(const RefPtr<IConstBuffer>& buffer, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  std::int32_t length = buffer->GetLength();
  // The new buffer counts: one buffer larger than the limit never goes out.
  if (static_cast<std::int64_t>(length) + m_queuedBytes > kMaxQueuedBytes) {
    LogInfo(tag::kTcp, "TcpImpl::Send, buffer overflowed, drop data, queue-size=%u, data-size=%u",
            static_cast<unsigned>(m_queuedBytes), static_cast<unsigned>(length));
    RefPtr<TcpImpl> self;
    if (!_Keep(self)) return;
    RefPtr<ITcpSink> sink = m_sink;
    if (sink) sink->OnSend(-1, buffer, ctx);
    return;
  }
  // Nothing ahead of it: straight to the socket, without a queue record.
  if (m_sendQueue.empty() && !m_flags.IsFlagOn(kSending)) {
    _StartSend(buffer, ctx);
    return;
  }
  m_sendQueue.push_back(new TcpSendRecord{buffer, ctx});
  m_queuedBytes += length;
  _SendQueueData();
}

void TcpImpl::_SendQueueData() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  if (m_sendQueue.empty() || m_flags.IsFlagOn(kSending)) return;
  TcpSendRecord* rec = m_sendQueue.front();
  m_sendQueue.pop_front();
  m_queuedBytes -= rec->buffer->GetLength();
  _StartSend(rec->buffer, rec->ctx);
  delete rec;
}

void TcpImpl::_StartSend(const RefPtr<IConstBuffer>& buffer, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  int ret = (*m_sendOp)->Send(reinterpret_cast<uv_stream_t*>(m_handle.load()), buffer, ctx, m_sinkAnchor);
  if (ret != 0) {
    LogInfo(tag::kTcp, "TcpImpl::Send, Send fail, ret=%d", ret);
    // Reported from the loop's queue, never from inside this call.
    RefPtr<IConstBuffer> held = buffer;
    m_async.AsyncCall([this, held, ctx, ret] { _OnSend(ret, held, ctx); });
  }
  m_flags.SetFlag(kSending);
}

void TcpImpl::_OnSend(int status, IConstBuffer* buffer, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  // The sink may release the last reference to the socket; and a socket whose
  // last reference is gone is being torn down: it reports nothing more.
  RefPtr<TcpImpl> self;
  if (!_Keep(self)) return;
  m_flags.ResetFlag(kSending);
  _SendQueueData();
  RefPtr<ITcpSink> sink = m_sink;
  if (sink) sink->OnSend(status, buffer, ctx);
}

int TcpImpl::Recv(IMutableBuffer* buffer, void* ctx) {
  if (!buffer) {
    LogInfo(tag::kTcp, "TcpImpl::Recv, buffer is NULL.");
    return -1;
  }
  if (!IsOpen()) {
    LogInfo(tag::kTcp, "TcpImpl::Recv, IsOpen false.");
    return -1;
  }
  RefPtr<IMutableBuffer> held(buffer);
  int rc = AsyncImpl::Of(&m_async)->Post([this, held = std::move(held), ctx] { _AsyncRecv(held, ctx); });
  if (rc != 0) {
    LogInfo(tag::kTcp, "TcpImpl::Recv, AsyncCall, fail, ret=%u.", static_cast<unsigned>(rc));
    return rc;
  }
  return 0;
}

void TcpImpl::_AsyncRecv(const RefPtr<IMutableBuffer>& buffer, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  if (m_recvQueue.empty() && !m_flags.IsFlagOn(kReceiving)) {
    _StartRecv(buffer, ctx);
    return;
  }
  m_recvQueue.push_back(new TcpRecvRecord{buffer, ctx});
  _RecvQueueData();
}

void TcpImpl::_RecvQueueData() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  if (m_recvQueue.empty() || m_flags.IsFlagOn(kReceiving)) return;
  TcpRecvRecord* rec = m_recvQueue.front();
  m_recvQueue.pop_front();
  _StartRecv(rec->buffer, rec->ctx);
  delete rec;
}

void TcpImpl::_StartRecv(const RefPtr<IMutableBuffer>& buffer, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  int ret = (*m_recvOp)->Recv(reinterpret_cast<uv_stream_t*>(m_handle.load()), buffer, ctx, m_sinkAnchor);
  if (ret != 0) {
    RefPtr<IMutableBuffer> held = buffer;
    m_async.AsyncCall([this, held, ctx, ret] { _OnRecv(ret, held, ctx); });
  }
  m_flags.SetFlag(kReceiving);
}

void TcpImpl::_OnRecv(int status, IMutableBuffer* buffer, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  RefPtr<TcpImpl> self;
  if (!_Keep(self)) return;
  m_flags.ResetFlag(kReceiving);
  _RecvQueueData();
  RefPtr<ITcpSink> sink = m_sink;
  if (sink) sink->OnRecv(status, buffer, ctx);
}

int TcpImpl::CancelRecv() {
  if (!m_loop) return -1;
  RunOnLoop(m_loop, [this] { _CancelRecv(); });
  return 0;
}

void TcpImpl::_CancelRecv() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  m_flags.ResetFlag(kReceiving);
  std::deque<TcpRecvRecord*> dropped;
  dropped.swap(m_recvQueue);
  for (TcpRecvRecord* rec : dropped) delete rec;
  (*m_recvOp)->Cancel();
}

int TcpImpl::Close() {
  if (!m_loop) return -1;
  RunOnLoop(m_loop, [this] { _Close(); });
  return 0;
}

void TcpImpl::_Close() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  // First, so that nothing below can reach the application.
  m_sink = nullptr;
  m_flags.ResetAll();
  m_async.Cancel();
  (*m_connectOp)->Cancel();
  (*m_recvOp)->Cancel();
  (*m_sendOp)->Cancel();
  _DiscardQueues();
  uv_tcp_t* handle = m_handle.exchange(nullptr);
  if (handle) uv_close(reinterpret_cast<uv_handle_t*>(handle), FreeHandle);
}

void TcpImpl::_DiscardQueues() {
  std::deque<TcpSendRecord*> sends;
  sends.swap(m_sendQueue);
  m_queuedBytes = 0;
  std::deque<TcpRecvRecord*> recvs;
  recvs.swap(m_recvQueue);
  for (TcpSendRecord* rec : sends) delete rec;
  for (TcpRecvRecord* rec : recvs) delete rec;
}

bool TcpImpl::IsOpen() { return m_handle.load() != nullptr; }

int TcpImpl::GetLocalAddress(IPEndPoint& address) {
  if (!m_loop) return -1;
  int ret = 0;
  RunOnLoop(m_loop, [&] { _GetAddress(address, ret, false); });
  return ret;
}

int TcpImpl::GetRemoteAddress(IPEndPoint& address) {
  if (!m_loop) return -1;
  int ret = 0;
  RunOnLoop(m_loop, [&] { _GetAddress(address, ret, true); });
  return ret;
}

void TcpImpl::_GetAddress(IPEndPoint& address, int& ret, bool remote) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  uv_tcp_t* handle = m_handle.load();
  if (!handle) {
    address = IPEndPoint();
    ret = -1;
    return;
  }
  // libuv writes the whole block, so IPv6 works as well as IPv4.
  int length = static_cast<int>(sizeof(sockaddr_storage));
  ret = remote ? uv_tcp_getpeername(handle, address.GetSockAddr(), &length)
               : uv_tcp_getsockname(handle, address.GetSockAddr(), &length);
}

int TcpImpl::SetSendBufferSize(unsigned int /*size*/) { return -1; }
int TcpImpl::SetRecvBufferSize(unsigned int /*size*/) { return -1; }

bool CreateTcp(ITcp** out, IOLoop* loop) {
  if (!out) return false;
  *out = nullptr;
  *out = new TcpImpl(loop);
  return true;
}

bool CreateTcp(RefPtr<ITcp>& out, IOLoop* loop) {
  out = nullptr;
  out.Attach(new TcpImpl(loop));
  return true;
}

UvTcp::UvTcp() : _tcp(nullptr), _owned(false) {}

UvTcp::UvTcp(IOLoop* loop) : _tcp(nullptr), _owned(true) { CreateTcp(&_tcp, loop); }

UvTcp::UvTcp(const UvTcp& other) : _tcp(other._tcp), _owned(false) {}

UvTcp::~UvTcp() {
  if (_owned && _tcp) _tcp->Release();
}

UvTcp& UvTcp::operator=(const UvTcp& other) {
  if (this == &other) return *this;
  ITcp* old = _owned ? _tcp : nullptr;
  _tcp = other._tcp;
  _owned = false;
  if (old) old->Release();
  return *this;
}

UvTcp::operator ITcp*() const { return _tcp; }

void UvTcp::SetSink(ITcpSink* sink) { _tcp->SetSink(sink); }
int UvTcp::Open(const IPEndPoint& address) { return _tcp->Open(address); }
int UvTcp::Connect(const IPEndPoint& address, void* ctx) { return _tcp->Connect(address, ctx); }
int UvTcp::Accept(const IPEndPoint& address, void* ctx) { return _tcp->Accept(address, ctx); }
int UvTcp::Send(IConstBuffer* buffer, void* ctx) { return _tcp->Send(buffer, ctx); }
int UvTcp::Recv(IMutableBuffer* buffer, void* ctx) { return _tcp->Recv(buffer, ctx); }
int UvTcp::CancelRecv() { return _tcp->CancelRecv(); }
int UvTcp::Close() { return _tcp->Close(); }
bool UvTcp::IsOpen() { return _tcp->IsOpen(); }
int UvTcp::GetLocalAddress(IPEndPoint& address) { return _tcp->GetLocalAddress(address); }
int UvTcp::GetRemoteAddress(IPEndPoint& address) { return _tcp->GetRemoteAddress(address); }
int UvTcp::SetSendBufferSize(unsigned int size) { return _tcp->SetSendBufferSize(size); }
int UvTcp::SetRecvBufferSize(unsigned int size) { return _tcp->SetRecvBufferSize(size); }

}  // namespace zelsocket
