#pragma once

#include <chrono>
#include <functional>
#include <optional>

#include "apps/fpmagent/RouteState.h"

namespace Fpm {

using std::chrono::milliseconds;

// One stream of a daemon, from its first frame on: a connection, or a file that is replayed.
//
// A daemon that connects sends everything it has and does not say when that is done. So what
// the sink holds is stale when the session begins, and what was not told again is deleted when
// nothing has come for the quiet time, at the latest after ten times that, as a daemon whose
// network never rests may not be quiet for long. After later changes the next quiet time says
// that they are all there. A session that ends before deletes nothing.
//
// Units   the caller's clock; nothing is read here.
class Session {
 public:
  using Time = std::chrono::steady_clock::time_point;
  struct Options {
    milliseconds quiet{30'000};
    RouteState::Options state;
    std::function<void(const Message&)> onMessage;  // before it is applied
    std::function<void(U64 deleted)> onConverged;   // everything was told
  };
  static constexpr int quietTimesAtMost = 10;

  Session(PathSink& sink, const Options& options, Time now);

  // Errors   MalformedException: nothing of the frame was applied; the stream is to end.
  void frameIs(const Run& frame, Time now);

  // When timeIs() will have something to do; nothing when all that was told is confirmed.
  std::optional<Time> due() const;
  void timeIs(Time now);
  void finish();  // no more comes and all of it came: what is due is done now

  const RouteState& state() const { return state_; }

 private:
  PathSink& sink_;
  const Options& options_;
  RouteState state_;
  Time begin_, last_;
  bool swept_ = false;
  U64 confirmed_ = 0;  // changes of the state that the sink knows to be complete
};

}  // namespace Fpm
