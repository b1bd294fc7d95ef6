#include "apps/fpmagent/Session.h"

#include <algorithm>

namespace Fpm {

Session::Session(PathSink& sink, const Options& options, Time now)
    : sink_(sink),
      options_(options),
      state_(sink, options.state),
      begin_(now),
      last_(now) {
  sink_.mark();
}

void Session::frameIs(const Run& frame, Time now) {
  const std::vector<Message> messages = decode(frame);
  if (options_.onMessage)
    for (const Message& message : messages)
      options_.onMessage(message);
  last_ = now;
  state_.frameIs(messages);
}

std::optional<Session::Time> Session::due() const {
  if (!swept_)
    return std::min(last_ + options_.quiet, begin_ + quietTimesAtMost * options_.quiet);
  if (state_.changeCount() == confirmed_) return {};
  return last_ + options_.quiet;
}

void Session::timeIs(Time now) {
  if (const auto at = due(); at && *at <= now) finish();
}

void Session::finish() {
  if (swept_ && state_.changeCount() == confirmed_) return;
  U64 deleted = 0;
  if (!swept_) {
    deleted = sink_.sweep();
    state_.swept();
    swept_ = true;
  }
  confirmed_ = state_.changeCount();
  sink_.converged();
  if (options_.onConverged) options_.onConverged(deleted);
}

}  // namespace Fpm
