// The agent of NameAgent.h in a plain epoll loop, as a program that was there before it might
// have: signals, a timer, and the agent's descriptor beside them. Ends on SIGTERM and SIGINT.
#include <csignal>
#include <cstdlib>
#include <system_error>

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "NameAgent.h"

namespace {

int checked(int result, const char* call) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), call);
  return result;
}

void watch(int epoll, int fd) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  checked(::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
}

}  // namespace

int main() try {
  sigset_t ends;
  ::sigemptyset(&ends);
  ::sigaddset(&ends, SIGTERM);
  ::sigaddset(&ends, SIGINT);
  ::sigprocmask(SIG_BLOCK, &ends, nullptr);
  const int signals = checked(::signalfd(-1, &ends, SFD_CLOEXEC), "signalfd");
  const int timer = checked(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC), "timerfd");
  const itimerspec often{
      {0, 50'000'000},
      {0, 1         }
  };  // each 50 ms, the first time at once
  checked(::timerfd_settime(timer, 0, &often, nullptr), "timerfd_settime");

  const char* const given = std::getenv("HIVEL_SOCKET");
  NameAgent agent(given ? given : std::string(Hivel::defaultSocketPath), "epoll");

  // [epoll]
  const int epoll = checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
  for (const int fd : {signals, timer, agent.fd()})
    watch(epoll, fd);
  agent.flush();  // connects
  for (bool isRunning = true; isRunning;) {
    epoll_event events[8];
    const int count = ::epoll_wait(epoll, events, std::size(events), -1);
    if (count < 0 && errno != EINTR) checked(count, "epoll_wait");
    for (int i = 0; i < count; ++i) {
      if (events[i].data.fd == signals) isRunning = false;
      if (events[i].data.fd == agent.fd()) agent.process();
      if (events[i].data.fd == timer) {
        U64 times = 0;  // that it ran out; unread, it stays readable
        if (::read(timer, &times, sizeof times) == sizeof times) agent.look();
      }
    }
  }
  // [epoll]
  for (const int fd : {epoll, timer, signals})
    ::close(fd);
  return 0;
} catch (const std::exception& error) {
  std::cerr << "epoll_agent: " << error.what() << "\n";
  return 1;
}
