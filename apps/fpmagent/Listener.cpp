#include "apps/fpmagent/Listener.h"

#include <chrono>
#include <optional>
#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <spdlog/spdlog.h>

#include "Kop/Exception.h"

namespace Fpm {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using std::chrono::steady_clock;

constexpr milliseconds pauseWithoutDescriptors{200};

struct Connection {
  explicit Connection(tcp::socket s) : socket(std::move(s)) {
    error_code ignored;
    const auto remote = socket.remote_endpoint(ignored);
    peer = remote.address().to_string() + " port " + std::to_string(remote.port());
    // Finds out that the other end is gone although nothing is ever sent to it.
    socket.set_option(asio::socket_base::keep_alive(true), ignored);
  }
  tcp::socket socket;
  std::string peer;
  FrameReader frames;
};
using ConnectionPtr = std::shared_ptr<Connection>;

asio::ip::address addressOf(const Vantor::IpGenAddr& address) {
  return asio::ip::make_address(std::string(address.stringValue()));
}

}  // namespace

struct Listener::Impl : std::enable_shared_from_this<Impl> {
  Impl(asio::io_context& loop, PathSink& to, const Session::Options& with)
      : acceptor(loop), timer(loop), sink(to), options(with) {}

  void listen(const Vantor::IpGenAddr& address, U16 port) {
    const tcp::endpoint endpoint(addressOf(address), port);
    const auto check = [&](const char* call, const error_code& error) {
      if (error)
        throw Kop::Exception(Kop::String(
            std::string(call) + " " + endpoint.address().to_string() + " port " +
            std::to_string(endpoint.port()) + ": " + error.message()));
    };
    error_code error;
    check("socket", acceptor.open(endpoint.protocol(), error));
    check("socket", acceptor.set_option(asio::socket_base::reuse_address(true), error));
    check("bind", acceptor.bind(endpoint, error));
    check("listen", acceptor.listen(asio::socket_base::max_listen_connections, error));
    accept();
  }
  void close() {
    error_code ignored;
    acceptor.close(ignored);
    timer.cancel();
    drop(active);
    drop(pending);
  }

  void accept() {
    acceptor.async_accept(
        [self = weak_from_this()](error_code error, tcp::socket socket) {
          const auto me = self.lock();
          if (!me || error == asio::error::operation_aborted) return;
          if (error) return me->acceptLater(error);
          me->accepted(std::make_shared<Connection>(std::move(socket)));
          me->accept();
        });
  }
  // Out of descriptors, most likely: the listener stays readable, so look away for a while.
  void acceptLater(const error_code& error) {
    spdlog::warn("cannot accept a connection: {}", error.message());
    const auto pause = std::make_shared<asio::steady_timer>(acceptor.get_executor(),
                                                            pauseWithoutDescriptors);
    pause->async_wait([self = weak_from_this(), pause](error_code) {
      if (const auto me = self.lock(); me && me->acceptor.is_open()) me->accept();
    });
  }

  void accepted(const ConnectionPtr& connection) {
    if (!active) {
      begin(connection);
    } else {
      if (pending) {
        spdlog::warn("closing {}: {} came and it had sent nothing", pending->peer,
                     connection->peer);
        drop(pending);
      }
      spdlog::warn("{} waits until it sends something, {} is connected", connection->peer,
                   active->peer);
      pending = connection;
    }
    read(connection);
  }
  void begin(const ConnectionPtr& connection) {
    spdlog::info("{} is connected", connection->peer);
    active = connection;
    session.emplace(sink, options, steady_clock::now());
    arm();
  }

  void read(const ConnectionPtr& connection) {
    const auto room = connection->frames.room();
    connection->socket.async_read_some(
        asio::buffer(room.data(), room.size()),
        [self = weak_from_this(), connection](error_code error, std::size_t size) {
          const auto me = self.lock();
          if (me && connection->socket.is_open()) me->arrived(connection, error, size);
        });
  }
  void arrived(const ConnectionPtr& connection,
               const error_code& error,
               std::size_t size) {
    connection->frames.arrived(size);
    try {
      while (const auto frame = connection->frames.next()) {
        if (connection != active) takeOver(connection);
        session->frameIs(*frame, steady_clock::now());
      }
    } catch (const MalformedException& e) {
      spdlog::error("closing {}: {}; nothing is withdrawn", connection->peer, e.what());
      return ended(connection);
    }
    arm();
    if (!error) return read(connection);
    const std::size_t left = connection->frames.waiting();
    spdlog::info("{} has gone: {}{}", connection->peer, error.message(),
                 left == 0 ? "" : ", in the middle of a frame");
    ended(connection);
  }
  void takeOver(const ConnectionPtr& connection) {
    spdlog::warn("closing {}: {} sends", active ? active->peer : "nobody",
                 connection->peer);
    drop(active);
    pending.reset();
    begin(connection);
  }
  void ended(const ConnectionPtr& connection) {
    if (connection == pending) return drop(pending);
    spdlog::info("it told {}", session->state().summary());
    drop(active);
    timer.cancel();
    // The daemon's new connection, whose old one has now been seen to be gone.
    if (pending) begin(std::exchange(pending, nullptr));
  }
  static void drop(ConnectionPtr& connection) {
    error_code ignored;
    if (connection) connection->socket.close(ignored);
    connection.reset();
  }

  // What comes only puts off what is due, so a timer that is set need not be moved.
  void arm() {
    if (armed || !active) return;
    const auto due = session->due();
    if (!due) return;
    armed = true;
    timer.expires_at(*due);
    timer.async_wait([self = weak_from_this()](error_code) {
      const auto me = self.lock();
      if (!me) return;
      me->armed = false;
      if (me->active) me->session->timeIs(steady_clock::now());
      me->arm();
    });
  }

  tcp::acceptor acceptor;
  asio::steady_timer timer;
  PathSink& sink;
  const Session::Options& options;
  ConnectionPtr active, pending;
  std::optional<Session> session;
  bool armed = false;
};

Listener::Listener(asio::io_context& loop,
                   PathSink& sink,
                   const Session::Options& options,
                   const Vantor::IpGenAddr& address,
                   U16 port)
    : impl_(std::make_shared<Impl>(loop, sink, options)) {
  impl_->listen(address, port);
}

Listener::~Listener() {
  impl_->close();
}

U16 Listener::port() const {
  return impl_->acceptor.local_endpoint().port();
}

const Session* Listener::session() const {
  return impl_->session ? &*impl_->session : nullptr;
}

}  // namespace Fpm
