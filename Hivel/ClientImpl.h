#pragma once

#include <deque>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Hivel/Client.h"
#include "Hivel/Socket.h"

// The inside of a client. Not installed.

namespace Hivel {

// A mount and what stands behind it on the present connection.
struct HeldMount {
  enum class Stage : U8 {
    unasked,
    asked,
    waiting,    // for the path to appear
    following,  // the session reads: a replica, or what is being adopted
    writing,    // the session writes
    refused,
    left,  // unmount was sent
  };
  std::unique_ptr<Mount> mount;
  std::string type;   // asked for; empty: any
  bool waits = true;  // as asked the last time
  U32 id = 0;         // on this connection
  Stage stage = Stage::unasked;
  bool isTruth = false;       // ours replaces the server's from now on
  bool isKnown = false;       // was once answered: after a reconnection it waits
  bool pathSettled = true;    // its writer is not catching up
  bool caughtUp = false;      // at least once on this connection
  bool catchUpEnded = false;  // seen in the session, not yet acted upon
  bool wasClean = false;      // writing: everything was sent once on this connection
  bool removes = false;       // leaving: the path as well
  std::unique_ptr<Kop::NboAttrLog::Session> session{};

  bool writes() const { return mount->mode() != Mode::read; }
  bool isClean() const { return stage == Stage::writing && session->clean(); }
};

// A question to the server; a watch is one without end.
struct Request {
  enum class Kind : U8 { list, watch, status, sync };
  Kind kind;
  std::string prefix{};
  bool isSent = false;    // on this connection
  bool isEntire = false;  // watch: what was there is known
  std::vector<PathInfo> found{};
  std::map<std::string, std::string> known{};  // watch: type by path, as told
  std::function<void(const std::vector<PathInfo>&)> onList{};
  std::function<void(const PathInfo&, bool)> onWatch{};
  std::function<void(const ServerStatus&)> onStatus{};
  std::function<void(bool)> onSync{};
};

struct ClientImpl {
  explicit ClientImpl(ClientOptions&& given, Client& owner);

  // Client.cpp: the connection and the loop.
  bool wants() const;
  bool isBusy() const;
  void process();
  void connect();
  void retryIn(milliseconds delay);
  void lose(Client::State why, const std::string& reason);
  void failWith(const std::string& reason);  // the server sent what it must not
  void stateIs(Client::State next, const std::string& why);
  void receive();
  void pump();
  void runTodo();
  void refresh(HeldMount& held);
  bool isLeaving(std::string_view path) const;
  bool isUnreachable() const;

  // ClientMount.cpp: what is said about mounts and requests.
  void dispatch();
  void frame(std::span<const U8> bytes);
  void ask(HeldMount& held);
  void mounted(const Frame::Mounted& answer);
  void follow(HeldMount& held, U64 rootIdentity);
  void write(HeldMount& held);
  void catchUpEnded(HeldMount& held);
  void gone(HeldMount& held, const std::string& reason);
  void refuse(HeldMount& held, const std::string& reason);
  void unmounted(U32 id);
  void finish(HeldMount& held);
  void listEntry(const Frame::ListEntry& entry);
  void listEnd(U32 number);
  void sendRequests();
  U32 request(Request request);
  HeldMount* findById(U32 id);
  HeldMount& heldOf(U32 id, const char* frame);

  Client& client;
  ClientOptions options;
  Fd epoll, timer;
  Client::State state = Client::State::connecting;
  std::string reason, serverName;
  U64 instance;
  std::minstd_rand random;
  milliseconds delay;
  std::unique_ptr<Connection> connection;
  U32 events = 0;  // waited for on the connection
  bool hasHello = false;
  bool dirty = false;       // something was asked since process()
  bool anyCatchUp = false;  // of a mount's catchUpEnded
  U32 lastMount = 0, lastRequest = 0;
  std::map<std::string, std::unique_ptr<HeldMount>, std::less<>> mounts;
  std::vector<std::unique_ptr<HeldMount>> leaving;
  std::map<U32, Request> requests;
  std::deque<std::function<void()>> todo;  // callbacks, at the end of process()
};

}  // namespace Hivel
