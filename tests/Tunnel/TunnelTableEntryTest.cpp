#include <functional>
#include <string>

#include <gmock/gmock.h>

#include "Tunnel/TunnelTableEntry.h"
#include "tests/Kop/FailingAllocation.h"
#include "tests/Tunnel/Samples.h"

namespace Tunnel::TunnelTable {
namespace {

using Samples::Random;
using Samples::sample;
using Vantor::IpGenAddr;
using Vantor::IpGenPrefix;

// Catches a log that carries counts: an entry read from it is full.
TEST(TunnelTableEntryRecord, fromTheLogIsPadded) {
  Random random(Samples::seed);
  for (int i = 0; i < 200; ++i) {
    const auto entry = sample<TunnelTableEntry>(random);
    Kop::NboAttrLog::Out out;
    out << entry;
    Kop::NboAttrLog::In in(out.data(), out.size());
    auto padded = entry;  // what lies behind the count is not sent
    for (U32 k = entry.endpoint().count(); k < 16; ++k)
      padded.endpointIs(TepIndex(static_cast<U8>(k)), IpGenPrefix());
    for (U32 k = entry.name().count(); k < 128; ++k)
      padded.nameIs(NameIndex(static_cast<U8>(k)), 0);
    ASSERT_TRUE(TunnelTableEntry(in) == padded);
    ASSERT_EQ(padded.serializeLen(), 545u);
  }
}

// Letters stand for prefixes, 0 for the default one.
IpGenPrefix lettered(char letter) {
  return letter == '0' ? IpGenPrefix()
                       : IpGenPrefix(IpGenAddr::fromIpv4(static_cast<U32>(letter)), 32);
}
std::string letters(const TunnelTableEntry& entry) {
  std::string text;
  for (const auto& endpoint : entry.endpoint())
    text += endpoint == IpGenPrefix()
                ? '0'
                : static_cast<char>(endpoint.ipGenAddr().bytes()[3]);
  return text;
}

// Catches default end points that stay at the end, ones trimmed inside, and an iterator that
// removes something else than an index.
TEST(TunnelTableEntryArrays, deletion) {
  const struct {
    const char* before;
    U8 deleted;
    const char* after;
  } rows[] = {
      {"A00B", 3, "A"  },
      {"ABC",  1, "A0C"},
      {"ABC",  2, "AB" },
      {"A0",   0, "00" },
      {"00A",  2, ""   },
      {"A",    0, ""   },
      {"AB",   2, "AB" },
      {"",     0, ""   },
      {"A00",  1, "A00"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.before);
    TunnelTableEntry byIndex, byIterator;
    const std::string before = row.before;
    for (U8 i = 0; i < before.size(); ++i) {
      byIndex.endpointIs(TepIndex(i), lettered(before[i]));
      byIterator.endpointIs(TepIndex(i), lettered(before[i]));
    }
    const auto gone =
        row.deleted < before.size() ? lettered(before[row.deleted]) : IpGenPrefix();
    EXPECT_EQ(byIndex.endpointDel(TepIndex(row.deleted)), gone);
    EXPECT_EQ(letters(byIndex), row.after);
    auto it = byIterator.endpointIteratorConst();
    for (U8 i = 0; i < row.deleted; ++i)
      it.advance();
    EXPECT_EQ(byIterator.endpointDel(it), gone);
    EXPECT_TRUE(byIndex == byIterator);
  }
}

// Catches an array that grows by another rule than that of its last element, a name that is
// cut elsewhere, and an end point of its own that shortens the others.
TEST(TunnelTableEntryArrays, growth) {
  TunnelTableEntry entry;
  EXPECT_EQ(entry.tep(), IpGenPrefix());
  entry.endpointIs(TepIndex(2), IpGenPrefix());
  EXPECT_EQ(letters(entry), "000");
  entry.endpointIs(TepIndex(2), lettered('C'));
  entry.tepIs(lettered('A'));
  EXPECT_EQ(letters(entry), "A0C");
  EXPECT_EQ(entry.tep(), lettered('A'));
  entry.endpointDelAll();
  EXPECT_EQ(letters(entry), "");
  entry.endpointIs(TepIndex(3), lettered('D'));
  EXPECT_EQ(letters(entry), "00CD");  // the last slot kept what it held

  const std::string text(200, 'x');
  entry.setName(text);
  TunnelTableEntry cut = entry;
  cut.setName(text.substr(0, 128));
  EXPECT_TRUE(entry == cut);
  EXPECT_EQ(entry.getName(), text.substr(0, 128));
  entry.nameDel(NameIndex(127));
  EXPECT_EQ(entry.name().count(), 127u);
  entry.setName("");
  EXPECT_EQ(entry.name().count(), 0u);
  entry.nameIs(NameIndex(1), 'b');
  EXPECT_EQ(entry.getName(), Kop::String("xb"));
  entry.nameDelAll();
  EXPECT_EQ(entry.getName(), "");
}

// Catches an index that is stored unchecked by one of its three constructors.
template <class Index>
void needsRange(const char* name, U64 max) {
  using Number = std::remove_cvref_t<decltype(Index().value())>;
  const std::string type = std::string("Tunnel::TunnelTable::") + name;
  const std::string wanted =
      type + "::value < " + type + "::min or > " + type + "::max not allowed";
  const auto refuse = [&](const char* how, const std::function<void()>& make) {
    EXPECT_THAT(make, testing::ThrowsMessage<Kop::RangeException>(wanted)) << how;
  };
  Kop::NboAttrLog::Out good, bad;
  Kop::NboAttrLog::write(good, static_cast<Number>(max));
  Kop::NboAttrLog::write(bad, static_cast<Number>(max + 1));
  Kop::NboAttrLog::In goodIn(good.data(), good.size()), badIn(bad.data(), bad.size());
  EXPECT_EQ(Index(goodIn).value(), max);
  EXPECT_EQ(Index(static_cast<Number>(max)).value(), max);
  EXPECT_EQ(Kop::strepToValue<Index>(std::to_string(max)).value(), max);
  refuse("log", [&] { Index{badIn}; });
  refuse("number", [&] { Index{static_cast<Number>(max + 1)}; });
  refuse("text", [&] { Kop::strepToValue<Index>(std::to_string(max + 1)); });
  refuse("long text", [&] { Kop::strepToValue<Index>("4294967296"); });
  Kop::GenericValue untyped(Kop::findType(type)->value->ops);
  EXPECT_THROW(untyped.textIs(std::to_string(max + 1)), Kop::RangeException) << type;
  Kop::NboAttrLog::In again(bad.data(), bad.size());
  EXPECT_THROW(untyped.type()->logRead(untyped.get(), again), Kop::RangeException)
      << type;
}
TEST(TunnelTableIndices, range) {
  needsRange<TepIndex>("TepIndex", 15);
  needsRange<NameIndex>("NameIndex", 127);
  needsRange<ViaIndex>("ViaIndex", 599);
  needsRange<NextHopIndex>("NextHopIndex", 127);
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
