#include "Tunnel/TunnelTableEntry.h"
#include "tests/Kop/FailingAllocation.h"
#include "tests/Support/Testing.h"
#include "tests/Tunnel/Samples.h"

namespace Tunnel::TunnelTable {
namespace {

using Samples::Random;
using Samples::sample;
using Vantor::IpGenPrefix;

// Catches an end point of its own that shortens the others, and a name that is cut elsewhere.
// The rules of the arrays are tested with Kop::PodArray.
TEST(TunnelTableEntryArrays, tepAndName) {
  const IpGenPrefix a("10.0.0.1/32"), b("10.0.0.2/32"), none;
  TunnelTableEntry entry;
  EXPECT_EQ(entry.tep(), none);
  entry.endpointIs(TepIndex(2), b);
  entry.tepIs(a);
  EXPECT_EQ(entry.tep(), a);
  EXPECT_EQ(entry.endpoint().count(), 3u);
  EXPECT_EQ(entry.endpointDel(TepIndex(0)), a);
  EXPECT_EQ(entry.endpoint().count(), 3u);
  EXPECT_EQ(entry.tep(), none);
  auto it = entry.endpointIteratorConst();
  it.advance(), it.advance();
  EXPECT_EQ(entry.endpointDel(it), b);
  EXPECT_EQ(entry.endpoint().count(), 0u);

  const std::string text(200, 'x');
  entry.setName(text);
  EXPECT_EQ(entry.getName(), text.substr(0, 128));
  entry.nameDel(NameIndex(127));
  EXPECT_EQ(entry.getName(), text.substr(0, 127));
  entry.nameDelAll();
  entry.nameIs(NameIndex(1), 'b');
  EXPECT_EQ(entry.getName(), Kop::String("\0b", 2));
}

// Catches an index that is stored unchecked by one of its three constructors.
template <class Index>
void needsRange(const std::string& type, U64 max) {
  SCOPED_TRACE(type);
  using Number = std::remove_cvref_t<decltype(Index().value())>;
  const auto tooLarge = static_cast<Number>(max + 1);
  Kop::NboAttrLog::Out bad;
  Kop::NboAttrLog::write(bad, tooLarge);
  EXPECT_EQ(Kop::strepToValue<Index>(std::to_string(max)).value(), max);
  const std::function<void()> wrong[] = {
      [&] { Index{tooLarge}; },
      [&] { Kop::strepToValue<Index>(std::to_string(max + 1)); },
      [&] { Kop::strepToValue<Index>("4294967296"); },
      [&] {
        Kop::NboAttrLog::In in(bad.data(), bad.size());
        Index{in};
      },
  };
  for (const auto& make : wrong)
    EXPECT_THAT(make, testing::ThrowsMessage<Kop::RangeException>(
                          type + "::value < " + type + "::min or > " + type +
                          "::max not allowed"));
  // Other sources than the types' own must not have made operations without the checks.
  Kop::GenericValue untyped(Kop::findType(type)->value->ops);
  EXPECT_THROW(untyped.textIs(std::to_string(max + 1)), Kop::RangeException);
  Kop::NboAttrLog::In in(bad.data(), bad.size());
  EXPECT_THROW(untyped.type()->logRead(untyped.get(), in), Kop::RangeException);
}
TEST(TunnelTableIndices, range) {
  needsRange<TepIndex>("Tunnel::TunnelTable::TepIndex", 15);
  needsRange<NameIndex>("Tunnel::TunnelTable::NameIndex", 127);
  needsRange<ViaIndex>("Tunnel::TunnelTable::ViaIndex", 599);
  needsRange<NextHopIndex>("Tunnel::TunnelTable::NextHopIndex", 127);
  EXPECT_EQ(TunnelCounterId::convertToTunnelValue(0x80000001, 0xffffffff),
            0x80000001ffffffff);
}

#if OPERATOR_NEW_IS_REPLACED
// Catches an entry that begins to allocate: it is copied and compared by the million.
TEST(TunnelTableEntryMemory, dataPathAllocatesNothing) {
  Random random(Samples::seed + 4);
  const auto a = sample<TunnelTableEntry>(random);
  auto b = a;
  b.setName(std::string(100, 'n'));
  U8 buffer[545];
  bool used = false;
  allocationsUntilFailure = 0;  // the next one throws
  TunnelTableEntry copy(a);
  used ^= copy == b;
  used ^= copy < b;
  copy = b;
  copy.tepIs(IpGenPrefix());
  copy.endpointDelAll();
  copy.serialize(buffer);
  used ^= b.deserializeLen(buffer, sizeof buffer) == 0;
  b.deserialize(buffer, sizeof buffer);
  allocationsUntilFailure = -1;
  EXPECT_FALSE(used && copy == a);
  EXPECT_TRUE(b == copy);
}
#endif

}  // namespace
}  // namespace Tunnel::TunnelTable
