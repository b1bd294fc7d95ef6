#include "Harness.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

#include <linux/lwtunnel.h>
#include <linux/mpls_iptunnel.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "Kop/Exception.h"

namespace FpmTest {

using Tunnelctl::Json;

const std::vector<std::string> recordings = {"abilene-r1-sr-flap", "pair-evpn-vxlan+srte",
                                             "ring4-isis-sr-flap+3000-static"};

Bytes contents(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

Bytes recording(const std::string& name) {
  return contents(HOUSE_SOURCE_DIR "/examples/fpm/" + name + ".fpm");
}

Bytes join(const std::vector<Bytes>& parts) {
  Bytes all;
  for (const Bytes& part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

Bytes u16(U16 value) {
  return {static_cast<U8>(value), static_cast<U8>(value >> 8)};
}

Bytes u32(U32 value) {
  return join({u16(static_cast<U16>(value)), u16(static_cast<U16>(value >> 16))});
}

Bytes labelStack(const std::vector<U32>& labels) {
  Bytes bytes;
  for (std::size_t i = 0; i < labels.size(); ++i) {
    const U32 word = labels[i] << 12 | (i + 1 == labels.size() ? 0x100 : 0);
    for (int shift = 24; shift >= 0; shift -= 8)
      bytes.push_back(static_cast<U8>(word >> shift));
  }
  return bytes;
}

Bytes attribute(U16 kind, const Bytes& value) {
  Bytes bytes = join({u16(static_cast<U16>(4 + value.size())), u16(kind), value});
  bytes.resize((bytes.size() + 3) / 4 * 4);
  return bytes;
}

Bytes message(U16 type, const Bytes& body) {
  return join({u32(static_cast<U32>(16 + body.size())), u16(type), u16(0x501), u32(0),
               u32(0), body});
}

Bytes frame(const std::vector<Bytes>& messages) {
  const Bytes body = join(messages);
  const std::size_t length = body.size() + 4;
  return join({
      {1, 1, static_cast<U8>(length >> 8), static_cast<U8>(length)},
      body
  });
}

namespace {

Bytes addressBytes(const Vantor::IpGenAddr& address) {
  return {address.bytes(), address.bytes() + address.bitCount() / 8};
}

Bytes hopAttributes(const Hop& hop, bool switched, bool ofObject) {
  Bytes bytes;
  const auto add = [&](U16 kind, const Bytes& value) {
    bytes = join({bytes, attribute(kind, value)});
  };
  const U16 family = hop.address.af() == Vantor::ipv6 ? AF_INET6 : AF_INET;
  if (hop.address.bitCount() != 0 && !switched)
    add(ofObject ? U16{NHA_GATEWAY} : U16{RTA_GATEWAY}, addressBytes(hop.address));
  else if (hop.address.bitCount() != 0)
    add(RTA_VIA, join({u16(family), addressBytes(hop.address)}));
  if (hop.labels.count == 0) return bytes;
  const Bytes labels = labelStack({hop.labels.kept().begin(), hop.labels.kept().end()});
  if (switched) {
    add(RTA_NEWDST, labels);
  } else {
    add(ofObject ? U16{NHA_ENCAP_TYPE} : U16{RTA_ENCAP_TYPE}, u16(LWTUNNEL_ENCAP_MPLS));
    add(ofObject ? U16{NHA_ENCAP} : U16{RTA_ENCAP}, attribute(MPLS_IPTUNNEL_DST, labels));
  }
  return bytes;
}

Bytes encodedRoute(const RouteMessage& route) {
  const U8 family = route.switched                      ? AF_MPLS
                    : route.prefix.af() == Vantor::ipv6 ? AF_INET6
                                                        : AF_INET;
  const U32 len = route.switched ? 20 : route.prefix.len();
  Bytes body = join({
      {family, static_cast<U8>(len), 0, 0,
       static_cast<U8>(route.table > 255 ? 0 : route.table), route.protocol, 0, 1},
      u32(0)
  });
  const auto add = [&](U16 kind, const Bytes& value) {
    body = join({body, attribute(kind, value)});
  };
  add(RTA_DST, route.switched ? labelStack({route.label})
                              : addressBytes(route.prefix.ipGenAddr()));
  if (route.table > 255) add(RTA_TABLE, u32(route.table));
  if (route.metric != 0) add(RTA_PRIORITY, u32(route.metric));
  if (route.nextHopId != 0) add(RTA_NH_ID, u32(route.nextHopId));
  if (route.hops.size() == 1) {
    body = join({body, hopAttributes(route.hops[0], route.switched, false),
                 attribute(RTA_OIF, u32(route.hops[0].interface))});
  } else if (!route.hops.empty()) {
    Bytes all;
    for (const Hop& hop : route.hops) {
      const Bytes fields = hopAttributes(hop, route.switched, false);
      all = join({
          all,
          u16(static_cast<U16>(8 + fields.size())),
          {0, 0},
          u32(hop.interface),
          fields
      });
    }
    add(RTA_MULTIPATH, all);
  }
  return message(route.isNew ? RTM_NEWROUTE : RTM_DELROUTE, body);
}

Bytes encodedNextHop(const NextHopMessage& nextHop) {
  const bool ipv6 = !nextHop.hops.empty() && nextHop.hops[0].address.af() == Vantor::ipv6;
  Bytes body = join({
      {static_cast<U8>(ipv6 ? AF_INET6 : AF_INET), 0, 11, 0},
      u32(0),
      attribute(NHA_ID, u32(nextHop.id))
  });
  if (nextHop.isGroup) {
    Bytes members;
    for (const U32 id : nextHop.group)
      members = join({members, u32(id), u32(0)});
    body = join({body, attribute(NHA_GROUP, members)});
  }
  for (const Hop& hop : nextHop.hops)
    body = join(
        {body, attribute(NHA_OIF, u32(hop.interface)), hopAttributes(hop, false, true)});
  return message(nextHop.isNew ? RTM_NEWNEXTHOP : RTM_DELNEXTHOP, body);
}

}  // namespace

Bytes encoded(const Message& message) {
  if (const auto* const route = std::get_if<RouteMessage>(&message))
    return encodedRoute(*route);
  return encodedNextHop(std::get<NextHopMessage>(message));
}

Bytes framed(const Message& message) {
  return frame({encoded(message)});
}

// ---- the sink ----

void Memory::pathIs(const Agent::Path& path) {
  if (std::string_view(path.name) == refuses)
    throw Kop::RangeException("no room for " + refuses);
  ++tells;
  const auto [held, isNew] = paths.try_emplace({path.type, std::string(path.name)});
  if (isNew || !(held->second.path == path)) ++changes;
  held->second = {path, false};
}

void Memory::pathDel(Tunnel::TunnelTable::TunnelType type, const Kop::String& name) {
  changes += paths.erase({type, std::string(name)});
}

void Memory::mark() {
  for (auto& [key, held] : paths)
    held.stale = true;
}

U64 Memory::sweep() {
  const U64 swept =
      std::erase_if(paths, [](const auto& row) { return row.second.stale; });
  changes += swept;
  return swept;
}

std::string lineOf(const Agent::Path& path) {
  std::string line = std::string(path.name) + " type " + std::to_string(path.type) + " " +
                     std::string(path.endpoint.stringValue()) + " metric " +
                     std::to_string(path.metric) + (path.ipv6 ? " ipv6" : "");
  for (const Agent::NextHop& hop : path.nextHops)
    line += " | " + std::string(hop.address.stringValue()) + " " +
            std::string(hop.intf.stringValue()) + " " +
            std::string(hop.labels.stringValue());
  return line;
}

std::vector<std::string> Memory::lines() const {
  std::vector<std::string> all;
  for (const auto& [key, held] : paths)
    all.push_back(lineOf(held.path));
  return all;
}

// ---- descriptions ----

namespace {

template <class Numbers>
Json numbers(const Numbers& of) {
  Json array = Json::array();
  for (const U32 number : of)
    array.push(Json::number(U64{number}));
  return array;
}

template <class T>
Json member(const std::map<U32, T>& rows) {
  Json object = Json::object();
  for (const auto& [number, row] : rows)
    object.add(std::to_string(number), row);
  return object;
}

Json hopOf(const Vantor::IpGenAddr& via, Json out, U64 oif) {
  return Json(Json::object()
                  .add("via", Json::string(std::string(via.stringValue())))
                  .add("out", std::move(out))
                  .add("oif", Json::number(oif)));
}

Json switchedPath(const std::string& protocol, Json hops) {
  return Json(Json::object()
                  .add("proto", Json::string(protocol))
                  .add("nexthops", std::move(hops)));
}

}  // namespace

Json describe(const RouteState& state) {
  std::map<U32, Json> switched, labelled;
  std::map<std::string, U64> protocols;
  U64 routes = 0, nextHops = 0, groups = 0;
  state.forEachRoute([&](const RouteMessage& route, Verdict) {
    if (!route.switched) {
      ++routes;
      return;
    }
    ++protocols[protocolText(route.protocol)];
    std::vector<Hop> sorted = route.hops;
    std::sort(sorted.begin(), sorted.end(),
              [](const Hop& a, const Hop& b) { return a.address < b.address; });
    Json hops = Json::array();
    for (const Hop& hop : sorted)
      hops.push(hopOf(hop.address, numbers(hop.labels.kept()), hop.interface));
    switched[route.label] = switchedPath(protocolText(route.protocol), std::move(hops));
  });
  state.forEachNextHop([&](const NextHopMessage& nextHop) {
    ++nextHops;
    groups += nextHop.isGroup;
    for (const Hop& hop : nextHop.hops)
      if (hop.labels.count != 0)
        labelled[nextHop.id] =
            Json(Json::object()
                     .add("gw", Json::string(std::string(hop.address.stringValue())))
                     .add("oif", Json::number(U64{hop.interface}))
                     .add("push", numbers(hop.labels.kept())));
  });
  Json byProtocol = Json::object();
  for (const auto& [name, count] : protocols)
    byProtocol.add(name, Json::number(count));
  return Json(Json::object()
                  .add("fpm_frames", Json::number(state.events().frames))
                  .add("netlink_messages", Json::number(state.events().messages))
                  .add("final", Json(Json::object()
                                         .add("lsps", Json::number(U64{switched.size()}))
                                         .add("nexthops", Json::number(nextHops))
                                         .add("nexthops_with_label_push",
                                              Json::number(U64{labelled.size()}))
                                         .add("nexthop_groups", Json::number(groups))
                                         .add("routes", Json::number(routes))
                                         .add("lsps_by_proto", std::move(byProtocol))))
                  .add("lsp", member(switched))
                  .add("labelled_nexthops", member(labelled)));
}

Json describeSwitched(const Memory& sink) {
  std::map<U32, Json> switched;
  for (const auto& [key, held] : sink.paths) {
    const std::string& name = key.second;
    const auto at = name.find("-label-");
    if (at == name.npos) continue;
    Json hops = Json::array();
    for (const Agent::NextHop& hop : held.path.nextHops)
      hops.push(hopOf(hop.address, numbers(hop.labels.labels()),
                      std::stoul(std::string(hop.intf.stringValue()).substr(2))));
    switched[static_cast<U32>(std::stoul(name.substr(at + 7)))] =
        switchedPath(name.substr(0, at), std::move(hops));
  }
  return member(switched);
}

void feed(Session& session, const Bytes& stream, std::size_t piece) {
  FrameReader frames;
  for (std::size_t at = 0; at < stream.size(); at += piece) {
    frames.feed(std::span(stream).subspan(at, std::min(piece, stream.size() - at)));
    while (const auto frame = frames.next())
      session.frameIs(*frame, {});
  }
}

}  // namespace FpmTest
