#pragma once

#include <vector>

#include "Kop/String.h"
#include "Tunnel/TunnelBasicTypes.h"
#include "Vantor/IntfId.h"
#include "Vantor/IpGenAddr.h"
#include "Vantor/IpGenPrefix.h"
#include "Vantor/MplsLabelOperation.h"

namespace Agent {

struct NextHop {
  Vantor::IpGenAddr address;          // of the neighbour; may be none on a link of two
  Vantor::IntfId intf;                // out of which packets go
  Vantor::MplsLabelOperation labels;  // what is done to their label stack
  bool operator==(const NextHop&) const = default;
};

// One labelled route or switched path, as its source tells it.
struct Path {
  Tunnel::TunnelTable::TunnelType type = Tunnel::TunnelTable::invalidTunnel;
  Kop::String name;                // its identity within `type`; 1 to 128 bytes
  Vantor::IpGenPrefix endpoint{};  // where it leads; the default is none
  U32 metric = 0;
  float bandwidth = 0;              // in the unit of the protocol that announced it
  bool ipv6 = false;                // the family in its identifier
  std::vector<NextHop> nextHops{};  // at most 256, order counts
  bool operator==(const Path&) const = default;
};

}  // namespace Agent
