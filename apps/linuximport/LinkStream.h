#pragma once

#include <functional>
#include <map>
#include <span>

#include "Kop/Exception.h"
#include "apps/linuximport/Link.h"

struct mnl_socket;

namespace LinuxImport {

// The kernel, or the socket to it, did not do what was asked.
class NetlinkException : public Kop::Exception {
 public:
  using Exception::Exception;
};

using Links = std::map<U32, Link>;  // by index

// Makes a consistent view out of what a socket for links brings: answers to a request for all
// of them, and between these and afterwards what happens to single ones.
//
// The kernel queues answers and events in the order in which they were true, so one map takes
// both, and nothing is told before all answers are in: a reader never sees half of the links.
// A dump that is not to be trusted is thrown away and asked for again: the kernel says that
// something moved while it went through its list (NLM_F_DUMP_INTR), or events were lost
// because nobody read them in time.
//
// Errors   NetlinkException: the kernel refused, or a message that is cut.
// Threads  one; the callbacks do not call back in here.
class LinkStream {
 public:
  std::function<void(const Links&)> onAll;  // what there is; what is not there is gone
  std::function<void(const Link&)> onLink;  // one came or changed
  std::function<void(U32 index)> onGone;    // one went
  std::function<void(const char* why)>
      onRepeat;  // a dump is thrown away, or is to be made

  // Whether a dump is to be asked for: at first, and whenever what is known cannot be trusted.
  // The kernel takes one request at a time, so not while another is under way. When events
  // were lost, all that is queued must be read first: until then the kernel loses more of them
  // and does not say so again.
  bool wantsDump() const { return needed_ && !isDumping_; }
  bool isComplete() const { return !needed_ && !isDumping_; }
  void dumpIsAsked(U32 sequence);

  void receive(
      std::span<const U8> bytes);  // whole messages, beginning at a multiple of 4
  void lost();                     // events were
  void askAgain();                 // what is known may be old, although nothing was lost
  void cut();  // a datagram was, and with it perhaps the end of a dump

 private:
  void done(std::span<const U8> payload);

  Links links_;  // while a dump is under way
  U32 sequence_ = 0;
  bool needed_ = true;
  bool isDumping_ = false;
};

// A socket of the calling thread's network namespace.
//
// Errors   NetlinkException: call and reason.
class LinkSocket {
 public:
  enum class Follow : bool { no, yes };  // whether events are wanted as well
  LinkSocket(LinkStream& stream, Follow follow);
  ~LinkSocket();
  LinkSocket(const LinkSocket&) = delete;
  LinkSocket& operator=(const LinkSocket&) = delete;

  int fd() const;
  // Reads all that has arrived, and asks for a dump when the stream wants one.
  void process();

 private:
  void ask();

  LinkStream& stream_;
  mnl_socket* socket_;
  std::vector<U32> buffer_;  // of words, for their alignment
  U32 sequence_ = 0;
};

}  // namespace LinuxImport
