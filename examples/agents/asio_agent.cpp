// The agent of NameAgent.h in an asio program: its descriptor is waited for as any other, and
// nothing of it blocks or starts a thread. Ends on SIGTERM and SIGINT.
#include <chrono>
#include <cstdlib>
#include <utility>

#include <boost/asio.hpp>

#include "NameAgent.h"

namespace asio = boost::asio;
using namespace std::chrono_literals;

namespace {

// [asio]
class Runner {
 public:
  Runner(asio::io_context& io, NameAgent& agent)
      : agent_(agent), readable_(io, agent.fd()), timer_(io), ends_(io, SIGTERM, SIGINT) {
    ends_.async_wait([&io](const boost::system::error_code&, int) { io.stop(); });
    agent_.flush();  // connects
    wait();
    look();
  }
  ~Runner() { readable_.release(); }  // the descriptor is the agent's

 private:
  void wait() {
    readable_.async_wait(asio::posix::descriptor_base::wait_read,
                         [this](const boost::system::error_code& error) {
                           if (error) return;
                           agent_.process();
                           wait();
                         });
  }
  void look() {
    agent_.look();
    timer_.expires_after(50ms);
    timer_.async_wait([this](const boost::system::error_code& error) {
      if (!error) look();
    });
  }

  NameAgent& agent_;
  asio::posix::stream_descriptor readable_;
  asio::steady_timer timer_;
  asio::signal_set ends_;
};
// [asio]

}  // namespace

int main() try {
  const char* const given = std::getenv("HIVEL_SOCKET");
  NameAgent agent(given ? given : std::string(Hivel::defaultSocketPath), "asio");
  asio::io_context io(1);
  const Runner runner(io, agent);
  io.run();
  return 0;
} catch (const std::exception& error) {
  std::cerr << "asio_agent: " << error.what() << "\n";
  return 1;
}
