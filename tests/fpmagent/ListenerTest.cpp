#include <chrono>
#include <fstream>
#include <functional>
#include <optional>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Harness.h"
#include "Kop/Exception.h"
#include "apps/fpmagent/Listener.h"
#include "apps/fpmagent/Replay.h"

namespace FpmTest {
namespace {

using namespace std::chrono_literals;

// A daemon's end of a connection.
class Daemon {
 public:
  explicit Daemon(U16 port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
  }
  ~Daemon() { ::close(fd_); }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  void send(const Bytes& bytes) const {
    EXPECT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  bool closed() const {  // by the agent
    char byte;
    return ::recv(fd_, &byte, 1, MSG_DONTWAIT) == 0;
  }

 private:
  int fd_;
};

class FpmListenerThreads : public testing::Test {
 protected:
  bool until(const std::function<bool()>& holds) {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (!holds()) {
      if (std::chrono::steady_clock::now() > end) return false;
      loop.run_for(5ms);
    }
    return true;
  }
  bool converged(U64 times) {
    return until([&] { return sink.convergences == times; });
  }

  boost::asio::io_context loop;
  Memory sink;
  Session::Options options{
      .quiet = 500ms, .state = {}, .onMessage = {}, .onConverged = {}};
  Listener listener{loop, sink, options, Vantor::IpGenAddr::fromIpv4(INADDR_LOOPBACK), 0};
  const Bytes stream = recording("abilene-r1-sr-flap");
};

// Catches a connection that breaks and takes paths with it, and a return that keeps what is
// no longer told.
TEST_F(FpmListenerThreads, aBrokenConnectionWithdrawsNothing) {
  std::optional<Daemon> daemon(std::in_place, listener.port());
  daemon->send(stream);
  ASSERT_TRUE(converged(1));
  const auto all = sink.lines();
  EXPECT_EQ(all.size(), 20u);

  daemon.emplace(listener.port());  // in the middle of a frame
  daemon->send({stream.begin(), stream.begin() + 1000});
  ASSERT_TRUE(until([&] { return listener.session()->state().events().frames == 18; }));
  daemon.reset();
  loop.run_for(800ms);
  EXPECT_EQ(sink.lines(), all) << "swept by a session that had ended";

  daemon.emplace(listener.port());
  daemon->send(join({
      {stream.begin(), stream.begin() + 120},
      { 1, 9,                               0, 20}
  }));
  ASSERT_TRUE(until([&] { return daemon->closed(); })) << "a malformed frame";
  EXPECT_EQ(sink.lines(), all);

  daemon.emplace(listener.port());
  daemon->send({stream.begin(), stream.begin() + 120});  // two of the switched paths
  ASSERT_TRUE(converged(2));
  EXPECT_THAT(sink.lines(), testing::SizeIs(2));
}

// Catches a scanner of ports that ends the daemon's session, and a daemon that comes back
// and has to wait for its old connection to be seen dead.
TEST_F(FpmListenerThreads, aSecondConnectionTakesOverWhenItSends) {
  const Daemon first(listener.port());
  first.send(stream);
  ASSERT_TRUE(converged(1));
  const Daemon silent(listener.port());
  loop.run_for(50ms);
  const Daemon bad(listener.port());
  ASSERT_TRUE(until([&] { return silent.closed(); }));
  bad.send({2, 2, 2, 2});
  ASSERT_TRUE(until([&] { return bad.closed(); }));
  EXPECT_FALSE(first.closed());
  first.send(framed(RouteMessage{true, true, 77, {}, 254, 193, 0, 0, {Hop{}}}));
  ASSERT_TRUE(until([&] { return sink.paths.contains({3, "ldp-label-77"}); }));

  std::optional<Daemon> second(std::in_place, listener.port());
  second->send(stream);
  ASSERT_TRUE(until([&] { return first.closed(); }));
  ASSERT_TRUE(until([&] { return !sink.paths.contains({3, "ldp-label-77"}); }));
  EXPECT_EQ(sink.paths.size(), 20u);

  // To send nothing is an answer as well when nobody else is there.
  second.reset();
  const Daemon empty(listener.port());
  EXPECT_TRUE(until([&] { return sink.paths.empty(); }));
}

// Catches a replay that calls a stream whole that is not.
TEST_F(FpmListenerThreads, replaysOnlyWholeStreams) {
  const auto replay = [&](const std::string& file, double pace) {
    std::optional<bool> whole;
    const Replay running(loop, sink, options, {file, pace, [&](bool is) { whole = is; }});
    EXPECT_TRUE(until([&] { return whole.has_value(); }));
    return whole.value_or(false);
  };
  const std::string file = HOUSE_SOURCE_DIR "/examples/fpm/abilene-r1-sr-flap.fpm";
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(replay(file, 200));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 66 * 5ms);
  EXPECT_EQ(sink.paths.size(), 20u);
  const std::string cut = testing::TempDir() + "fpm-cut-" + std::to_string(::getpid());
  std::ofstream(cut, std::ios::binary)
      .write(reinterpret_cast<const char*>(&stream[0]), 130);
  EXPECT_FALSE(replay(cut, 0)) << "ends in the middle of a frame";
  ::unlink(cut.c_str());
  EXPECT_FALSE(replay(HOUSE_SOURCE_DIR "/examples/fpm", 0)) << "a directory";
  EXPECT_FALSE(replay(HOUSE_SOURCE_DIR "/examples/fpm/ORIGIN.md", 0)) << "no stream";
  EXPECT_THROW(replay(cut, 0), Kop::Exception);
  EXPECT_EQ(sink.paths.size(), 20u);
}

}  // namespace
}  // namespace FpmTest
