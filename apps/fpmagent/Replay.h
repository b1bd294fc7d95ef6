#pragma once

#include <functional>
#include <memory>
#include <string>

#include "apps/fpmagent/Session.h"

namespace boost::asio {
class io_context;
}

namespace Fpm {

// Feeds a recorded stream as a connection would, and is finished at its end instead of after
// a quiet time. A stream that is malformed or ends within a frame deletes nothing.
//
// Memory   the file is read as it is needed.
// Owner    refers to the loop, the sink and the options.
class Replay {
 public:
  struct Options {
    std::string file;
    double pace = 0;  // frames per second; 0: as fast as they can be taken
    std::function<void(bool whole)> onEnd;
  };

  // Errors   Kop::Exception that names the file when it cannot be opened.
  Replay(boost::asio::io_context& loop,
         PathSink& sink,
         const Session::Options& session,
         Options options);
  ~Replay();
  Replay(const Replay&) = delete;
  Replay& operator=(const Replay&) = delete;

  const Session& session() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace Fpm
