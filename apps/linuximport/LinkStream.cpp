#include "apps/linuximport/LinkStream.h"

#include <cerrno>
#include <cstring>

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <libmnl/libmnl.h>

namespace LinuxImport {
namespace {

constexpr std::size_t firstBufferSize = 64 << 10, lastBufferSize = 4 << 20;  // bytes

[[noreturn]] void fail(const char* call, int error) {
  throw NetlinkException(Kop::String(std::string(call) + ": " + std::strerror(error)));
}

}  // namespace

// ---- the stream ----

void LinkStream::dumpIsAsked(U32 sequence) {
  links_.clear();
  sequence_ = sequence;
  needed_ = false;
  isDumping_ = true;
}

void LinkStream::lost() {
  needed_ = true;
  if (onRepeat) onRepeat("events were lost");
}

void LinkStream::receive(std::span<const U8> bytes) {
  auto left = static_cast<int>(bytes.size());
  const auto* header = reinterpret_cast<const nlmsghdr*>(bytes.data());
  // The library compares a size above 2 GiB as a negative number, which always fits.
  for (; mnl_nlmsg_ok(header, left) && header->nlmsg_len <= static_cast<U32>(left);
       header = mnl_nlmsg_next(header, &left)) {
    const std::span payload(static_cast<const U8*>(mnl_nlmsg_get_payload(header)),
                            mnl_nlmsg_get_payload_len(header));
    const bool isAnswer = isDumping_ && header->nlmsg_seq == sequence_;
    if (isAnswer && (header->nlmsg_flags & NLM_F_DUMP_INTR) && !needed_) {
      needed_ = true;
      if (onRepeat) onRepeat("interfaces changed while they were listed");
    }
    switch (header->nlmsg_type) {
      case RTM_NEWLINK:
      case RTM_DELLINK: {
        Link link = readLink(payload);
        if (link.isBridgePort) break;
        const bool isGone = header->nlmsg_type == RTM_DELLINK;
        if (isDumping_) {
          if (isGone)
            links_.erase(link.index);
          else
            links_.insert_or_assign(link.index, std::move(link));
        } else if (isGone) {
          if (onGone) onGone(link.index);
        } else if (onLink) {
          onLink(link);
        }
        break;
      }
      case NLMSG_DONE:
      case NLMSG_ERROR:
        if (isAnswer) done(payload);
        break;
      case NLMSG_OVERRUN: lost(); break;
      default: break;
    }
  }
  if (left > 0)
    throw NetlinkException("netlink: a message is cut, " + std::to_string(left) +
                           " bytes are left");
}

void LinkStream::askAgain() {
  needed_ = true;
}

void LinkStream::cut() {
  isDumping_ = false;
  lost();
}

// Both begin with 0 or a negative error number.
void LinkStream::done(std::span<const U8> payload) {
  int status = 0;
  if (payload.size() >= sizeof status)
    std::memcpy(&status, payload.data(), sizeof status);
  isDumping_ = false;
  if (status < 0) {
    needed_ = true;
    if (status == -EBUSY) return;  // a dump that was given up is still under way
    fail("RTM_GETLINK", -status);
  }
  if (needed_) return;
  const Links all = std::move(links_);
  links_.clear();
  if (onAll) onAll(all);
}

// ---- the socket ----

LinkSocket::LinkSocket(LinkStream& stream, Follow follow)
    : stream_(stream),
      socket_(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK)),
      buffer_(firstBufferSize / sizeof(U32)) {
  if (!socket_) fail("socket AF_NETLINK", errno);
  // Before the first dump, so that what happens meanwhile is not missed.
  if (mnl_socket_bind(socket_, follow == Follow::yes ? RTMGRP_LINK : 0,
                      MNL_SOCKET_AUTOPID) < 0) {
    const int error = errno;
    mnl_socket_close(socket_);
    fail("bind AF_NETLINK", error);
  }
}

LinkSocket::~LinkSocket() {
  mnl_socket_close(socket_);
}

int LinkSocket::fd() const {
  return mnl_socket_get_fd(socket_);
}

void LinkSocket::ask() {
  alignas(nlmsghdr) char bytes[128];
  nlmsghdr* const header = mnl_nlmsg_put_header(bytes);
  header->nlmsg_type = RTM_GETLINK;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  header->nlmsg_seq = ++sequence_;
  auto* const info =
      static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(header, sizeof(ifinfomsg)));
  info->ifi_family = AF_UNSPEC;
  // Counters are most of an answer, and nobody here reads them.
  mnl_attr_put_u32(header, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
  while (mnl_socket_sendto(socket_, header, header->nlmsg_len) < 0) {
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == ENOBUFS) return;  // until process() is called again
    fail("send RTM_GETLINK", errno);
  }
  stream_.dumpIsAsked(sequence_);
}

void LinkSocket::process() {
  for (;;) {
    const std::size_t size = buffer_.size() * sizeof(U32);
    const ssize_t count = mnl_socket_recvfrom(socket_, buffer_.data(), size);
    if (count >= 0) {
      stream_.receive(
          {reinterpret_cast<const U8*>(buffer_.data()), static_cast<std::size_t>(count)});
      continue;
    }
    if (errno == EAGAIN) {
      if (!stream_.wantsDump()) return;
      ask();
      if (stream_.wantsDump()) return;
      continue;
    }
    if (errno == EINTR) continue;
    if (errno == ENOSPC && size < lastBufferSize) {
      buffer_.resize(buffer_.size() * 2);
      stream_.cut();
    } else if (errno == ENOBUFS) {
      stream_.lost();
    } else {
      fail("receive AF_NETLINK", errno);
    }
  }
}

}  // namespace LinuxImport
