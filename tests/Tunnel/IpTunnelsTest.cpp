#include <gtest/gtest.h>

#include "tests/Tunnel/Samples.h"

namespace Tunnel {
namespace {

using Samples::Fold;
using Vantor::IntfId;
using Vantor::IpGenAddr;

IpGenAddr ip(U32 last) {
  return IpGenAddr::fromIpv4(0x0a000000 | last);
}
constexpr auto bothFlags = static_cast<GreHdrFlagsType>(checksumFlag | keyFlag);

GreTunnelInfo gre() {
  return {ip(1), ip(2), U8{3}, U8{4}, true, U16{2048}, noFlag, noFlag, 5u, 6u};
}
IpsecGreTunnelInfo ipsec(U32 ipsecTableIndex) {
  IpsecGreTunnelInfo info;
  info.srcIs(ip(1));
  info.ipsecTableIndexIs(ipsecTableIndex);
  return info;
}

// Catches a field out of its place in the order: from each row on, the fields above are
// equal and the fields below say the contrary.
TEST(GreTunnelInfoOrder, fieldByField) {
  using Set = void (*)(GreTunnelInfo&, U8);
  constexpr Set fields[] = {
      [](GreTunnelInfo& info, U8 n) { info.dstIs(ip(n)); },
      [](GreTunnelInfo& info, U8 n) { info.srcIs(ip(n)); },
      [](GreTunnelInfo& info, U8 n) { info.oKeyIs(n); },
      [](GreTunnelInfo& info, U8 n) { info.iKeyIs(n); },
      [](GreTunnelInfo& info, U8 n) { info.tosIs(n); },
      [](GreTunnelInfo& info, U8 n) { info.ttlIs(n); },
      [](GreTunnelInfo& info, U8 n) { info.pathMtuDiscoveryIs(n > 1); },
      [](GreTunnelInfo& info, U8 n) { info.oFlagsIs(static_cast<GreHdrFlagsType>(n)); },
      [](GreTunnelInfo& info, U8 n) { info.iFlagsIs(static_cast<GreHdrFlagsType>(n)); },
      [](GreTunnelInfo& info, U8 n) { info.protocolIs(n); },
  };
  GreTunnelInfo low, high;
  for (const Set set : fields) {
    set(low, 2);
    set(high, 1);
  }
  for (std::size_t i = 0; i < std::size(fields); ++i) {
    SCOPED_TRACE(i);
    fields[i](low, 1);
    fields[i](high, 2);
    EXPECT_TRUE(low < high);
    EXPECT_FALSE(high < low);
    EXPECT_FALSE(low == high);
    fields[i](high, 1);
  }
  EXPECT_TRUE(low == high && !(low < high));
}

// Catches an order that looks at what is not ordered, a truth that looks at the first
// attribute only, and a derived type compared as its base.
TEST(IpsecTunnelInfos, indexIsNotOrdered) {
  EXPECT_FALSE(ipsec(1) == ipsec(2) || ipsec(1) < ipsec(2) || ipsec(2) < ipsec(1));
  IpsecGreTunnelInfo other = ipsec(9);
  other.dstIs(ip(1));  // first in the order of a GRE tunnel
  other.srcIs(IpGenAddr());
  EXPECT_TRUE(ipsec(10) < other);
  const IpsecVtiTunnelInfo a(ip(1), ip(2), U8{0}, U8{0}, false, 9u),
      b(ip(1), ip(2), U8{0}, U8{0}, false, 8u), c(ip(1), ip(2), U8{0}, U8{0}, true, 8u);
  EXPECT_FALSE(a == b || a < b || b < a);
  EXPECT_TRUE(a < c);
  IpsecGreTunnelInfo indexOnly;
  EXPECT_FALSE(indexOnly);
  indexOnly.ipsecTableIndexIs(1);
  EXPECT_TRUE(indexOnly);
}

// Catches a second name that has bytes of its own, and a text that shows it.
TEST(L3TunnelInfos, secondNames) {
  L3TunnelInfo info;
  info.dscpIs(46);
  info.hoplimitIs(64);
  EXPECT_EQ(info.tos(), 46);
  EXPECT_EQ(info.ttl(), 64);
  info.tosIs(255);
  EXPECT_EQ(info.dscp(), 255);
  EXPECT_EQ(info.hoplimit(), 64);
  EXPECT_EQ(valueToStrep(info),
            "Value('Tunnel::L3TunnelInfo', ** {'src': '', 'dst': '', 'tos': 255, "
            "'ttl': 64, 'pathMtuDiscovery': False})");
}

// Catches flags that print as one of their bits or are not read back, and names that moved.
TEST(IpTunnelTexts, flagsAndNames) {
  IpsecGreTunnelInfo info;
  info.oFlagsIs(bothFlags);
  info.iFlagsIs(sequenceFlag);
  EXPECT_EQ(valueToStrep(info),
            "Value('Tunnel::IpsecGreTunnelInfo', ** {'src': '', 'dst': '', 'tos': 0, "
            "'ttl': 0, 'pathMtuDiscovery': False, 'protocol': 0, 'oFlags': 40960, "
            "'iFlags': sequenceFlag, 'oKey': 0, 'iKey': 0, 'ipsecTableIndex': 0})");
  EXPECT_EQ(strepToValue<IpsecGreTunnelInfo>(valueToStrep(info)).oFlags(), bothFlags);
  EXPECT_EQ(VxlanTunnelInfo(ip(1), IntfId("Vxlan1")).toStrep(), "10.0.0.1,Vxlan1");
}

// Catches a field folded in at another width, or a base whose fields are folded in anew.
TEST(IpTunnelHashes, byHand) {
  const auto addr = [](U32 last) {
    Fold fold;
    fold.number(10, 3).number(last, 1);
    return fold.number(0, 4).number(0, 4).number(0, 4).end();
  };
  const L3TunnelInfo l3(ip(1), ip(2), U8{0xf3}, U8{4}, true);
  const U32 l3Hash = Fold()
                         .number(addr(1), 4)
                         .number(addr(2), 4)
                         .number(0xf3, 1)
                         .number(4, 1)
                         .number(1, 1)
                         .end();
  EXPECT_EQ(l3.hash(), l3Hash);
  const IpsecVtiTunnelInfo vti(ip(1), ip(2), U8{0xf3}, U8{4}, true, 77u);
  EXPECT_EQ(vti.hash(), Fold().number(l3Hash, 4).number(77, 4).end());
  const IpsecGreTunnelInfo ipsec(ip(1), ip(2), U8{0xf3}, U8{4}, true, U16{0x6558},
                                 bothFlags, keyFlag, 5u, 6u, 77u);
  const GreTunnelInfo& base = ipsec;
  const U32 greHash = Fold()
                          .number(l3Hash, 4)
                          .number(0x6558, 2)
                          .number(0xa000, 4)
                          .number(0x2000, 4)
                          .number(5, 4)
                          .number(6, 4)
                          .end();
  EXPECT_EQ(base.hash(), greHash);
  EXPECT_EQ(ipsec.hash(), Fold().number(greHash, 4).number(77, 4).end());
  const VxlanTunnelInfo vxlan(ip(1), IntfId("Vxlan1"));
  Kop::Hash seeded(5);
  seeded.mix32(addr(1));
  seeded.mix32(IntfId("Vxlan1").hash());
  EXPECT_EQ(vxlan.hash(5), seeded.result());
}

struct Watch : Kop::Notifiee {
  void onAttribute(Kop::AttributeId) override { ADD_FAILURE() << "not a collection"; }
  void onAttribute(Kop::AttributeId attribute, const void*) override {
    EXPECT_EQ(attribute, 258u);
    ++told;
  }
  int told = 0;
};
template <class Info, class Table>
void expectTable(const Kop::Ptr<Table>& table, const Info& info) {
  SCOPED_TRACE(Kop::typeName<Table>());
  Watch watch;
  table->notifieeAdd(&watch);
  table->entryIs(info, false);
  table->entryIs(info, false);
  EXPECT_EQ(watch.told, 1);
  EXPECT_TRUE(table->entryHas(info) && !table->entry(info));
  table->entryIs(info, true);
  EXPECT_EQ(watch.told, 2);
  table->entryIs(Info(), true);
  EXPECT_TRUE(table->entryDel(strepToValue<Info>(valueToStrep(info))));
  EXPECT_FALSE(table->entryDel(info));
  EXPECT_EQ(watch.told, 4);
  table->entryDelAll();
  EXPECT_EQ(watch.told, 5);
  EXPECT_EQ(table->entryCount(), 0u);
  table->notifieeDel(&watch);
}

// Catches a table keyed by less than the whole description, or that tells too often.
TEST(IpTunnelTables, eachChangeIsToldOnce) {
  expectTable(l3TunnelInfoTableFactory("l3"), static_cast<const L3TunnelInfo&>(gre()));
  expectTable(greTunnelInfoTableFactory("gre"), gre());
  expectTable(ipsecGreTunnelInfoTableFactory("ipsecGre"), ipsec(7));
  expectTable(ipsecVtiTunnelInfoTableFactory("vti"),
              IpsecVtiTunnelInfo(ip(1), ip(2), U8{0}, U8{0}, false, 9u));
  const auto table = IpsecGreTunnelInfoTable::IpsecGreTunnelInfoTableIs("t");
  table->entryIs(ipsec(1), true);
  table->entryIs(ipsec(2), true);  // neither is less, and both are kept
  EXPECT_EQ(table->entryCount(), 2u);
}

}  // namespace
}  // namespace Tunnel
