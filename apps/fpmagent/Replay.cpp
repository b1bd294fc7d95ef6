#include "apps/fpmagent/Replay.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <optional>
#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <spdlog/spdlog.h>

#include "Kop/Exception.h"

namespace Fpm {

namespace asio = boost::asio;
using boost::system::error_code;
using std::chrono::steady_clock;

struct Replay::Impl : std::enable_shared_from_this<Impl> {
  static constexpr U64 framesAtOnce =
      256;  // between two looks at what else there is to do

  Impl(asio::io_context& l, PathSink& sink, const Session::Options& with, Options o)
      : loop(l),
        timer(l),
        options(std::move(o)),
        file(opened(options.file)),
        begin(steady_clock::now()),
        session(sink, with, begin) {}
  // Before the session marks anything.
  static std::ifstream opened(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    if (!file) throw Kop::Exception(Kop::String(name + ": " + std::strerror(errno)));
    return file;
  }

  void step() {
    const auto now = steady_clock::now();
    U64 wanted = taken + framesAtOnce;
    if (options.pace > 0) {
      const double seconds = std::chrono::duration<double>(now - begin).count();
      wanted = std::min(wanted, static_cast<U64>(seconds * options.pace) + 1);
    }
    try {
      for (; taken < wanted; ++taken) {
        const auto frame = next();
        if (!frame) return end();
        session.frameIs(*frame, now);
      }
    } catch (const MalformedException& e) {
      spdlog::error("{}: {}; nothing is withdrawn", options.file, e.what());
      return options.onEnd(false);
    }
    later();
  }
  void later() {
    if (options.pace <= 0)
      return asio::post(loop, [self = weak_from_this()] {
        if (const auto me = self.lock()) me->step();
      });
    timer.expires_at(begin + std::chrono::duration_cast<steady_clock::duration>(
                                 std::chrono::duration<double>(
                                     static_cast<double>(taken) / options.pace)));
    timer.async_wait([self = weak_from_this()](error_code) {
      if (const auto me = self.lock()) me->step();
    });
  }
  std::optional<Run> next() {
    for (;;) {
      if (const auto frame = frames.next()) return frame;
      const auto room = frames.room();
      file.read(reinterpret_cast<char*>(room.data()),
                static_cast<std::streamsize>(room.size()));
      if (file.gcount() == 0) return {};
      frames.arrived(static_cast<std::size_t>(file.gcount()));
    }
  }
  void end() {
    if (file.bad()) {
      spdlog::error("{}: cannot be read; nothing is withdrawn", options.file);
      return options.onEnd(false);
    }
    if (frames.waiting() != 0) {
      spdlog::error(
          "{}: ends {} bytes after offset {}, in the middle of a frame; nothing "
          "is withdrawn",
          options.file, frames.waiting(), frames.offset());
      return options.onEnd(false);
    }
    session.finish();
    options.onEnd(true);
  }

  asio::io_context& loop;
  asio::steady_timer timer;
  Options options;
  std::ifstream file;
  steady_clock::time_point begin;
  Session session;
  FrameReader frames;
  U64 taken = 0;
};

Replay::Replay(asio::io_context& loop,
               PathSink& sink,
               const Session::Options& session,
               Options options)
    : impl_(std::make_shared<Impl>(loop, sink, session, std::move(options))) {
  impl_->later();
}

Replay::~Replay() = default;

const Session& Replay::session() const {
  return impl_->session;
}

}  // namespace Fpm
