// Echo peers on loopback (port 0), each on a libuv loop and thread of its own.
#ifndef ZELSOCKET_TESTS_SUPPORT_PEERS_H
#define ZELSOCKET_TESTS_SUPPORT_PEERS_H

#include <uv.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "core/platform.h"

namespace zstest {

class EchoPeer {
 public:
  ~EchoPeer() {
    uv_async_send(&m_stop);
    m_thread.join();
  }
  unsigned short Port() const { return m_port; }
  int Received() const { return m_received; }  // datagrams, counted after the filter has seen them

 protected:
  // Runs `setup` on the peer's thread (it binds `ip`, port 0), then the loop.
  template <typename Handle>
  void Run(const char* ip, const std::function<void(Handle*, const sockaddr*)>& setup) {
    std::promise<void> ready;
    m_thread = std::thread([&, ip] {
      zelsocket::platform::BlockBrokenPipeOnThisThread();  // an echo may meet a closed connection
      uv_loop_init(&m_loop);
      uv_async_init(&m_loop, &m_stop, [](uv_async_t* a) {
        uv_walk(
            a->loop, [](uv_handle_t* h, void*) { uv_is_closing(h) || (uv_close(h, Free), 0); }, nullptr);
      });
      sockaddr_storage addr{};
      if (uv_ip4_addr(ip, 0, reinterpret_cast<sockaddr_in*>(&addr)) != 0)
        uv_ip6_addr(ip, 0, reinterpret_cast<sockaddr_in6*>(&addr));
      auto* h = New<Handle>(this);
      setup(h, reinterpret_cast<sockaddr*>(&addr));
      int len = sizeof addr;
      GetName(h, reinterpret_cast<sockaddr*>(&addr), &len);
      m_port = ntohs(reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
      ready.set_value();
      uv_run(&m_loop, UV_RUN_DEFAULT);
      uv_loop_close(&m_loop);
    });
    ready.get_future().wait();
  }
  template <typename T>
  static T* New(void* data) {
    auto* h = static_cast<T*>(std::calloc(1, sizeof(T)));
    h->data = data;
    return h;
  }
  static void GetName(uv_tcp_t* h, sockaddr* a, int* n) { uv_tcp_getsockname(h, a, n); }
  static void GetName(uv_udp_t* h, sockaddr* a, int* n) { uv_udp_getsockname(h, a, n); }
  static void Free(uv_handle_t* h) {
    if (h->type != UV_ASYNC) std::free(h);
  }
  static void Alloc(uv_handle_t*, size_t n, uv_buf_t* b) { *b = uv_buf_init(static_cast<char*>(std::malloc(n)), n); }
  template <typename Request>
  static void Done(Request* r, int) { std::free(r->data), std::free(r); }

  uv_loop_t m_loop;
  uv_async_t m_stop;
  std::thread m_thread;
  unsigned short m_port = 0;
  std::atomic<int> m_received{0};
  std::function<bool(const std::string&)> m_answer;
  bool m_deaf = false;
};

// Echoes each datagram unless `answer` (run on the peer's thread) says no.
class UdpEchoPeer : public EchoPeer {
 public:
  explicit UdpEchoPeer(std::function<bool(const std::string&)> answer = nullptr, const char* ip = "127.0.0.1") {
    m_answer = std::move(answer);
    Run<uv_udp_t>(ip, [this](uv_udp_t* udp, const sockaddr* addr) {
      uv_udp_init(&m_loop, udp);
      uv_udp_bind(udp, addr, 0);
      uv_udp_recv_start(udp, Alloc, [](uv_udp_t* h, ssize_t n, const uv_buf_t* buf, const sockaddr* from, unsigned) {
        auto* self = static_cast<UdpEchoPeer*>(h->data);
        bool echo = n >= 0 && from && (!self->m_answer || self->m_answer(std::string(buf->base, n)));
        self->m_received += n >= 0 && from;
        if (!echo) return std::free(buf->base);
        auto* req = New<uv_udp_send_t>(buf->base);
        uv_buf_t out = uv_buf_init(buf->base, static_cast<unsigned>(n));
        uv_udp_send(req, h, &out, 1, from, Done<uv_udp_send_t>);
      });
    });
  }
};

// Accepts any number of connections and echoes what each sends, but closes
// the connection on a read of kHangUp alone; a deaf peer reads nothing.
class TcpEchoPeer : public EchoPeer {
 public:
  static constexpr char kHangUp = '\x04';
  explicit TcpEchoPeer(const char* ip = "127.0.0.1", bool deaf = false) {
    m_deaf = deaf;
    Run<uv_tcp_t>(ip, [this](uv_tcp_t* server, const sockaddr* addr) {
      uv_tcp_init(&m_loop, server);
      uv_tcp_bind(server, addr, 0);
      uv_listen(reinterpret_cast<uv_stream_t*>(server), 64, [](uv_stream_t* s, int status) {
        auto* conn = New<uv_tcp_t>(s->data);
        uv_tcp_init(s->loop, conn);
        if (status != 0 || uv_accept(s, reinterpret_cast<uv_stream_t*>(conn)) != 0)
          return uv_close(reinterpret_cast<uv_handle_t*>(conn), Free);
        if (static_cast<TcpEchoPeer*>(s->data)->m_deaf) return;
        uv_read_start(reinterpret_cast<uv_stream_t*>(conn), Alloc, [](uv_stream_t* c, ssize_t n, const uv_buf_t* buf) {
          bool end = n < 0 || (n == 1 && buf->base[0] == kHangUp);
          if (n <= 0 || end) std::free(buf->base);
          if (end) uv_close(reinterpret_cast<uv_handle_t*>(c), Free);
          if (n <= 0 || end) return;
          auto* req = New<uv_write_t>(buf->base);
          uv_buf_t out = uv_buf_init(buf->base, static_cast<unsigned>(n));
          uv_write(req, c, &out, 1, Done<uv_write_t>);
        });
      });
    });
  }
};

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_PEERS_H
