#pragma once

#include <memory>
#include <string>

#include "Vantor/IpGenAddr.h"
#include "apps/fpmagent/Session.h"

namespace boost::asio {
class io_context;
}

namespace Fpm {

// Where a routing daemon's forwarding-plane manager connects.
//
// One connection feeds the sink at a time, from the beginning of its session on. A second one
// waits until it has sent a whole frame; then it takes over and the first is closed, because a
// daemon that lost its end comes back before this end can know. So a connection that says
// nothing disturbs nobody. A third replaces the one that waits.
//
// Whatever ends a connection, a malformed frame included, withdraws nothing: the next one
// marks what there is, tells it anew, and what it does not tell is deleted (see Session).
//
// Owner    refers to the loop, the sink and the options.
// Threads  the loop's.
class Listener {
 public:
  // Errors   std::exception that names the address when nobody can listen there.
  Listener(boost::asio::io_context& loop,
           PathSink& sink,
           const Session::Options& options,
           const Vantor::IpGenAddr& address,
           U16 port);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  U16 port() const;  // the one that was found, when the one asked for is 0
  // Of the connection that feeds the sink, or the last one; null before the first.
  const Session* session() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace Fpm
