#include "support/peers.h"

#include <uv.h>

#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>

namespace zstest {

// A loop on its own thread; `setup` runs there first and gives the port.
struct PeerLoop {
  uv_loop_t loop;
  uv_async_t stop;
  std::thread thread;

  explicit PeerLoop(const std::function<unsigned short(uv_loop_t*)>& setup, unsigned short* port) {
    std::promise<unsigned short> ready;
    thread = std::thread([&] {
      uv_loop_init(&loop);
      uv_async_init(&loop, &stop, [](uv_async_t* a) {
        uv_walk(
            a->loop,
            [](uv_handle_t* h, void*) {
              if (!uv_is_closing(h)) uv_close(h, FreeIfHeap);
            },
            nullptr);
      });
      ready.set_value(setup(&loop));
      uv_run(&loop, UV_RUN_DEFAULT);
      uv_loop_close(&loop);
    });
    *port = ready.get_future().get();
  }
  ~PeerLoop() {
    uv_async_send(&stop);
    thread.join();
  }
  // Handles other than `stop` are heap blocks whose data says so.
  static void FreeIfHeap(uv_handle_t* h) {
    if (h->type != UV_ASYNC) std::free(h);
  }
  static void Alloc(uv_handle_t*, size_t suggested, uv_buf_t* buf) {
    *buf = uv_buf_init(static_cast<char*>(std::malloc(suggested)), static_cast<unsigned>(suggested));
  }
  template <typename T>
  static T* New() {
    return static_cast<T*>(std::calloc(1, sizeof(T)));
  }
};

namespace {

unsigned short LocalPort(const uv_handle_t* h, bool tcp) {
  sockaddr_storage name{};
  int len = sizeof name;
  if (tcp)
    uv_tcp_getsockname(reinterpret_cast<const uv_tcp_t*>(h), reinterpret_cast<sockaddr*>(&name), &len);
  else
    uv_udp_getsockname(reinterpret_cast<const uv_udp_t*>(h), reinterpret_cast<sockaddr*>(&name), &len);
  return ntohs(reinterpret_cast<sockaddr_in*>(&name)->sin_port);
}

sockaddr_storage LoopbackAddress(const char* ip) {
  sockaddr_storage addr{};
  if (std::strchr(ip, ':'))
    uv_ip6_addr(ip, 0, reinterpret_cast<sockaddr_in6*>(&addr));
  else
    uv_ip4_addr(ip, 0, reinterpret_cast<sockaddr_in*>(&addr));
  return addr;
}

struct UdpSendReq {
  uv_udp_send_t req;
  char* data;
};

}  // namespace

UdpEchoPeer::UdpEchoPeer(std::function<bool(const std::string&)> answer, const char* ip) : m_answer(std::move(answer)) {
  m_loop.reset(new PeerLoop(
      [this, ip](uv_loop_t* loop) {
        auto* udp = PeerLoop::New<uv_udp_t>();
        uv_udp_init(loop, udp);
        udp->data = this;
        sockaddr_storage addr = LoopbackAddress(ip);
        uv_udp_bind(udp, reinterpret_cast<sockaddr*>(&addr), 0);
        uv_udp_recv_start(
            udp, PeerLoop::Alloc, [](uv_udp_t* h, ssize_t n, const uv_buf_t* buf, const sockaddr* from, unsigned) {
              auto* self = static_cast<UdpEchoPeer*>(h->data);
              if (n < 0 || !from) return std::free(buf->base);
              // Counted after the filter has seen it, so that a test which saw the
              // count also sees what the filter did.
              bool echo = !self->m_answer || self->m_answer(std::string(buf->base, static_cast<size_t>(n)));
              ++self->m_received;
              if (!echo) return std::free(buf->base);
              auto* req = new UdpSendReq{{}, buf->base};
              uv_buf_t out = uv_buf_init(buf->base, static_cast<unsigned>(n));
              uv_udp_send(&req->req, h, &out, 1, from, [](uv_udp_send_t* r, int) {
                auto* req = reinterpret_cast<UdpSendReq*>(r);
                std::free(req->data);
                delete req;
              });
            });
        return LocalPort(reinterpret_cast<uv_handle_t*>(udp), false);
      },
      &m_port));
}

UdpEchoPeer::~UdpEchoPeer() = default;

TcpEchoPeer::TcpEchoPeer(const char* ip) {
  m_loop.reset(new PeerLoop(
      [this, ip](uv_loop_t* loop) {
        auto* server = PeerLoop::New<uv_tcp_t>();
        uv_tcp_init(loop, server);
        server->data = this;
        sockaddr_storage addr = LoopbackAddress(ip);
        uv_tcp_bind(server, reinterpret_cast<sockaddr*>(&addr), 0);
        uv_listen(reinterpret_cast<uv_stream_t*>(server), 64, [](uv_stream_t* s, int status) {
          if (status != 0) return;
          auto* conn = PeerLoop::New<uv_tcp_t>();
          uv_tcp_init(s->loop, conn);
          conn->data = s->data;
          if (uv_accept(s, reinterpret_cast<uv_stream_t*>(conn)) != 0) {
            return uv_close(reinterpret_cast<uv_handle_t*>(conn), PeerLoop::FreeIfHeap);
          }
          ++static_cast<TcpEchoPeer*>(s->data)->m_accepted;
          uv_read_start(reinterpret_cast<uv_stream_t*>(conn), PeerLoop::Alloc,
                        [](uv_stream_t* c, ssize_t n, const uv_buf_t* buf) {
                          if (n < 0) {
                            std::free(buf->base);
                            ++static_cast<TcpEchoPeer*>(c->data)->m_ended;
                            return uv_close(reinterpret_cast<uv_handle_t*>(c), PeerLoop::FreeIfHeap);
                          }
                          if (n == 0) return std::free(buf->base);
                          auto* req = new uv_write_t;
                          req->data = buf->base;
                          uv_buf_t out = uv_buf_init(buf->base, static_cast<unsigned>(n));
                          uv_write(req, c, &out, 1, [](uv_write_t* r, int) {
                            std::free(r->data);
                            delete r;
                          });
                        });
        });
        return LocalPort(reinterpret_cast<uv_handle_t*>(server), true);
      },
      &m_port));
}

TcpEchoPeer::~TcpEchoPeer() = default;

}  // namespace zstest
