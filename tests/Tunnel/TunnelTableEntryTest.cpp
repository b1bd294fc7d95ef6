#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "Drem/Error.h"
#include "tests/Kop/FailingAllocation.h"
#include "tests/Tunnel/Samples.h"

namespace Tunnel::TunnelTable {
namespace {

using Samples::Random;
using Samples::sample;
using Vantor::IpGenAddr;
using Vantor::IpGenPrefix;
using Bytes = std::vector<U8>;

IpGenPrefix prefix(const char* text) {
  return IpGenPrefix(Kop::String(text));
}
TunnelId idOf(U32 type, U64 index) {
  return TunnelId(TunnelId::convertToTunnelValue(static_cast<TunnelType>(type), index));
}
Bytes recordOf(const TunnelTableEntry& entry) {
  Bytes bytes(entry.serializeLen() + 1, 0xee);
  entry.serialize(bytes.data());
  EXPECT_EQ(bytes.back(), 0xee);
  bytes.pop_back();
  return bytes;
}
// A copy of exactly this size on the heap, so that a read beyond it is seen.
std::unique_ptr<U8[]> exactly(const Bytes& bytes) {
  std::unique_ptr<U8[]> copy(new U8[bytes.size()]);
  std::copy(bytes.begin(), bytes.end(), copy.get());
  return copy;
}

// Fields by hand, as the layout tells them.
class Record {
 public:
  template <class T>
  Record& put(T value) {
    const auto* const at = reinterpret_cast<const U8*>(&value);
    bytes.insert(bytes.end(), at, at + sizeof value);
    return *this;
  }
  Record& head(U64 id, U64 over, U8 pref, U32 metric, float bandwidth) {
    return put(id).put(over).put(pref).put(metric).put(bandwidth);
  }
  Record& prefixIpv4(U8 first, U32 len) {
    put(U32{1}).put(first);
    bytes.insert(bytes.end(), 15, 0);
    return put(len);
  }
  Record& text(std::string_view characters) {
    put(static_cast<U32>(characters.size()));
    bytes.insert(bytes.end(), characters.begin(), characters.end());
    return *this;
  }
  Bytes bytes;
};

// Catches a field of another width, place or byte order, a count that is not the array's, and
// a reader that keeps something of what the entry held before.
TEST(TunnelTableEntryRecord, bytesByHand) {
  TunnelTableEntry some(idOf(ldpTunnel, 7), TunnelEntryPref(55));
  some.nexthopTunnelIdIs(TunnelId(0x0102030405060));
  some.entryMetricIs(0x01020304);
  some.tunnelBwIs(TunnelBandwidth(1.5f));
  some.tepIs(prefix("10.0.0.0/8"));
  some.endpointIs(TepIndex(1), prefix("11.0.0.0/16"));
  some.setName("core");
  TunnelTableEntry full(TunnelId(1), TunnelEntryPref(255));
  Record fullRecord;
  fullRecord.head(1, 0, 255, 0, 0.0f).put(U32{16});
  for (U8 i = 0; i < 16; ++i) {
    full.endpointIs(TepIndex(i), IpGenPrefix(IpGenAddr::fromIpv4(U32{i} << 24), i));
    fullRecord.prefixIpv4(i, i);
  }
  full.setName(std::string(128, 'n'));
  fullRecord.text(std::string(128, 'n'));
  const struct {
    TunnelTableEntry entry;
    Bytes bytes;
    U32 size;
  } rows[] = {
      {TunnelTableEntry(), Record().head(0,  0,   0, 0, 0.0f).put(U32{0}).text("").bytes,
       33},
      {some,
       Record()
           .head(0x300000000007, 0x0102030405060,                                        55, 0x01020304, 1.5f)
           .put(U32{2})
           .prefixIpv4(10, 8)
           .prefixIpv4(11, 16)
           .text("core")
           .bytes,
       85},
      {full,               fullRecord.bytes,             545},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.size);
    EXPECT_EQ(row.bytes.size(), row.size);
    EXPECT_EQ(row.entry.serializeLen(), row.size);
    EXPECT_EQ(recordOf(row.entry), row.bytes);
    row.entry.serialize(nullptr);
    for (TunnelTableEntry read : {TunnelTableEntry(), some, full}) {
      EXPECT_EQ(read.deserializeLen(row.bytes.data(), row.size), row.size);
      EXPECT_EQ(read.deserializeLen(row.bytes.data(), row.size - 1), 0u);
      EXPECT_EQ(read.deserializeLen(row.bytes.data(), row.size + 100), row.size);
      read.deserialize(row.bytes.data(), row.size);
      EXPECT_TRUE(read == row.entry);
      read.deserialize(row.bytes.data(), 0);  // the length accepts and refuses nothing
      EXPECT_TRUE(read == row.entry);
    }
  }
}

// Catches a form that loses an attribute, and a log that carries counts: an entry read from
// it is full.
TEST(TunnelTableEntryRecord, randomEntriesInEveryForm) {
  Random random(Samples::seed);
  for (int i = 0; i < 500; ++i) {
    const auto entry = sample<TunnelTableEntry>(random);
    auto read = sample<TunnelTableEntry>(random);
    const Bytes bytes = recordOf(entry);
    ASSERT_EQ(read.deserializeLen(bytes.data(), static_cast<U32>(bytes.size())),
              bytes.size());
    read.deserialize(exactly(bytes).get(), static_cast<U32>(bytes.size()));
    ASSERT_TRUE(read == entry) << valueToStrep(entry);
    ASSERT_EQ(valueToStrep(read), valueToStrep(entry));

    Kop::NboAttrLog::Out out;
    out << entry;
    Kop::NboAttrLog::In in(out.data(), out.size());
    const TunnelTableEntry logged(in);
    auto padded = entry;
    if (entry.endpoint().count() < 16) {  // what lies behind the count is not sent
      padded.endpointIs(TepIndex(15), IpGenPrefix());
      for (U32 k = entry.endpoint().count(); k < 16; ++k)
        padded.endpointIs(TepIndex(static_cast<U8>(k)), IpGenPrefix());
    }
    for (U32 k = entry.name().count(); k < 128; ++k)
      padded.nameIs(NameIndex(static_cast<U8>(k)), 0);
    ASSERT_TRUE(logged == padded);
    ASSERT_EQ(logged.serializeLen(), 545u);
  }
}

// What a record's length must be, from the bytes that are there.
U64 lengthOf(const Bytes& bytes) {
  const auto at = [&](U64 offset) -> U64 {
    U32 count;
    std::memcpy(&count, bytes.data() + offset, sizeof count);
    return count;
  };
  if (bytes.size() < 29) return 0;
  const U64 nameAt = 29 + 24 * at(25);
  if (nameAt + 4 > bytes.size()) return 0;
  const U64 length = nameAt + 4 + at(nameAt);
  return length <= bytes.size() ? length : 0;
}

// Catches a count that is believed: sums that wrap, reads beyond the buffer, arrays that take
// more than they hold, and an entry that cannot be used afterwards.
TEST(TunnelTableEntryRecord, hostileBytes) {
  Random random(Samples::seed + 2);
  constexpr U32 counts[] = {0,          1,          16,         17,         128,
                            129,        0x0aaaaaab, 0x80000000, 0xaaaaaaaa, 0xfffffff8,
                            0xffffffff, 0x15555555, 0x20000000};
  U32 lengths = 0, refused = 0;
  for (int i = 0; i < 20000; ++i) {
    Bytes bytes;
    if (random() % 4 == 0) {
      bytes.resize(random() % 600);
      for (U8& byte : bytes)
        byte = sample<U8>(random);
    } else {
      bytes = recordOf(sample<TunnelTableEntry>(random));
      for (U32 left = random() % 4; left > 0; --left)
        bytes[random() % bytes.size()] = static_cast<U8>(random());
    }
    if (bytes.size() >= 29 && random() % 2 == 0)
      std::memcpy(&bytes[25], &counts[random() % std::size(counts)], 4);
    switch (random() % 4) {
      case 0: bytes.resize(random() % (bytes.size() + 1)); break;
      case 1: bytes.resize(bytes.size() + random() % 1000, 0xff); break;
      case 2: bytes.resize(bytes.size() + random() % 1000); break;
    }

    const auto buffer = exactly(bytes);
    const auto size = static_cast<U32>(bytes.size());
    TunnelTableEntry entry;
    const U32 length = entry.deserializeLen(buffer.get(), size);
    ASSERT_EQ(length, lengthOf(bytes)) << "record " << i;
    if (length == 0) continue;
    ++lengths;
    try {
      entry.deserialize(buffer.get(), length);
      ASSERT_EQ(recordOf(entry), Bytes(bytes.begin(), bytes.begin() + length));
    } catch (const Drem::InvalidSizeException&) {
      ++refused;
    }
    ASSERT_LE(entry.serializeLen(), 545u);
    ASSERT_FALSE(valueToStrep(entry).empty());
    ASSERT_EQ(entry == entry, !std::isnan(entry.tunnelBw().value()));
  }
  EXPECT_GT(lengths, 2000u);
  EXPECT_GT(refused, 100u);
}

// Catches an error that does not say what was found, or shows memory that is not the
// record's.
TEST(TunnelTableEntryRecord, tooManyElements) {
  const Bytes endpoints =
      Record().head(5, 6, 7, 8, 9.0f).put(U32{17}).prefixIpv4(10, 8).bytes;
  const Bytes name =
      Record().head(5, 6, 7, 8, 9.0f).put(U32{0}).text(std::string(129, 'x')).bytes;
  const struct {
    Bytes bytes;
    U32 size;  // of the buffer
    U32 len;   // as the reader is told
    U32 limit, count, at, dumped;
  } rows[] = {
      {endpoints, 600, 600, 16,  17,  29, 408},
      {endpoints, 53,  53,  16,  17,  29, 24 },
      {endpoints, 600, 40,  16,  17,  29, 11 },
      {endpoints, 600, 0,   16,  17,  29, 0  },
      {name,      162, 162, 128, 129, 33, 129},
  };
  for (const auto& row : rows) {
    Bytes bytes = row.bytes;
    bytes.resize(row.size);
    const auto buffer = exactly(bytes);
    std::string wanted = "expected size <= " + std::to_string(row.limit) +
                         ", instead got " + std::to_string(row.count) +
                         ". Buffer is at address: ";
    char text[32];
    std::snprintf(text, sizeof text, "%p",
                  static_cast<const void*>(buffer.get() + row.at));
    wanted += std::string(text) + " with contents: ";
    for (U32 i = 0; i < row.dumped; ++i) {
      std::snprintf(text, sizeof text, i == 0 ? "%02x" : " %02x", bytes[row.at + i]);
      wanted += text;
    }
    TunnelTableEntry entry;
    try {
      entry.deserialize(buffer.get(), row.len);
      ADD_FAILURE() << "was taken";
    } catch (const Drem::InvalidSizeException& error) {
      EXPECT_STREQ(error.component(), "PodArray");
      EXPECT_STREQ(error.function(), "set");
      EXPECT_EQ(error.what(), wanted);
    }
    EXPECT_EQ(entry.endpoint().count() + entry.name().count(), 0u);
    EXPECT_EQ(entry.entryMetric(), 8u);  // what stood in front was taken
  }
}

// Each makes an entry better or worse by one criterion of the order, in their order.
using Criterion = void (*)(TunnelTableEntry& entry, bool better);
constexpr Criterion criteria[] = {
    [](TunnelTableEntry& e, bool better) {
      e.entryPrefIs(TunnelEntryPref(better ? 10 : 11));
    },
    // The better type has the larger number.
    [](TunnelTableEntry& e, bool better) {
      e.tunnelIdIs(idOf(better ? staticTunnel : ldpTunnel, e.tunnelId().tunnelIndex()));
    },
    [](TunnelTableEntry& e, bool better) { e.entryMetricIs(better ? 0x100 : 0x2000001); },
    [](TunnelTableEntry& e, bool better) {
      e.tunnelIdIs(idOf(e.tunnelId().tunnelType(), better ? 0xff : 0x100));
    },
    [](TunnelTableEntry& e, bool better) {
      e.tunnelBwIs(TunnelBandwidth(better ? -2.0f : 1.0f));
    },
    [](TunnelTableEntry& e, bool better) {
      e.endpointDelAll();
      e.tepIs(prefix("10.0.0.0/8"));
      if (!better) e.endpointIs(TepIndex(1), IpGenPrefix());
    },
    [](TunnelTableEntry& e, bool better) {
      e.nexthopTunnelIdIs(TunnelId(better ? 0xff : 0x100));
    },
    [](TunnelTableEntry& e, bool better) { e.setName(better ? "ab" : "abc"); },
};

// Catches two criteria that changed places, one that is left out and one that is turned round.
TEST(TunnelTableEntryOrder, oneCriterionAfterTheOther) {
  for (std::size_t decides = 0; decides < std::size(criteria); ++decides) {
    SCOPED_TRACE(decides);
    TunnelTableEntry a, b;
    for (std::size_t i = 0; i < std::size(criteria); ++i) {
      criteria[i](a, i <= decides);
      criteria[i](b, i != decides);
    }
    EXPECT_TRUE(a < b);
    EXPECT_FALSE(b < a);
  }
  const struct {
    const char *better, *worse;
  } names[] = {
      {"b",     "b\x01"},
      {"b\x7f", "b\xff"},
      {"aaaa",  "b"    },
      {"",      "a"    },
  };
  for (const auto& row : names) {
    TunnelTableEntry a, b;
    a.setName(row.better);
    b.setName(row.worse);
    EXPECT_TRUE(a < b && !(b < a)) << row.better;
  }
  TunnelTableEntry nan, one;
  nan.tunnelBwIs(TunnelBandwidth(std::numeric_limits<float>::quiet_NaN()));
  EXPECT_FALSE(nan < one || one < nan || nan == nan);
  one.nexthopTunnelIdIs(TunnelId(1));
  EXPECT_TRUE(nan < one && !(one < nan));  // the next criterion decides
}

// The defaults, apart from the code that looks them up.
U32 defaultPrefOf(U32 type) {
  switch (type) {
    case 5: return 15;
    case 11: return 25;
    case 16: return 45;
    case 3: return 55;
    case 13: return 60;
    case 7:
    case 21: return 65;
    case 2: return 85;
    default: return type <= 22 || type == 31 ? 255 : 0;
  }
}

// Catches an order that is none, and one that differs from the plain one of all keys.
TEST(TunnelTableEntryOrder, sortsAsAPlainListOfKeys) {
  Random random(Samples::seed + 3);
  const auto key = [](const TunnelTableEntry& e) {
    return std::tuple(e.entryPref().value(), defaultPrefOf(e.tunnelId().tunnelType()),
                      e.entryMetric(), e.tunnelId().value(), e.tunnelBw().value(),
                      std::vector(e.endpoint().begin(), e.endpoint().end()),
                      e.nexthopTunnelId().value(),
                      Bytes(e.name().begin(), e.name().end()));
  };
  std::vector<TunnelTableEntry> entries;
  for (int i = 0; i < 400; ++i) {
    entries.push_back(sample<TunnelTableEntry>(random));
    if (i % 2 == 1) {  // as the one before it but for the end of the order
      auto& last = entries.back();
      const auto name = last.name();
      last = entries[entries.size() - 2];
      last.setName(Kop::String(reinterpret_cast<const char*>(name.data()), name.count()));
    }
  }
  for (const auto& a : entries)
    for (const auto& b : entries)
      ASSERT_EQ(a < b, key(a) < key(b)) << valueToStrep(a) << valueToStrep(b);
  auto sorted = entries, wanted = entries;
  std::stable_sort(sorted.begin(), sorted.end());
  std::stable_sort(wanted.begin(), wanted.end(),
                   [&](const auto& a, const auto& b) { return key(a) < key(b); });
  EXPECT_TRUE(sorted == wanted);
  for (int i = 0; i < 20000; ++i) {
    const auto &a = entries[random() % 400], &b = entries[random() % 400],
               &c = entries[random() % 400];
    ASSERT_FALSE(a < a || (a < b && b < a));
    ASSERT_TRUE(!(a < b && b < c) || a < c);
  }
}

// Catches a default that moved, and an order that looks at it only when it must.
TEST(TunnelTableEntryDeathTest, unknownTypes) {
  for (U32 type = 0; type < 32; ++type) {
    SCOPED_TRACE(type);
    const auto number = static_cast<TunnelType>(type);
    if (const U32 pref = defaultPrefOf(type)) {
      EXPECT_EQ(TunnelEntryPref::getDefaultPrefForType(number), pref);
    }
  }
  constexpr const char* unknown =
      "Tunnel/TunnelTableHivelTypes: .*Assertion \"false && \"Unknown tunnel type\"\"";
  for (const U32 type : {23u, 30u, 32u, 35u, 0xffffffffu})
    EXPECT_DEATH(TunnelEntryPref::getDefaultPrefForType(static_cast<TunnelType>(type)),
                 unknown);
  Record record;
  record.head(U64{1} << 63, 0, 0, 0, 0.0f).put(U32{0}).text("");
  TunnelTableEntry good, bad;
  bad.deserialize(record.bytes.data(), 33);
  good.entryPrefIs(TunnelEntryPref(1));
  EXPECT_DEATH(static_cast<void>(good < bad), unknown);
  EXPECT_DEATH(static_cast<void>(bad < good), unknown);
  EXPECT_DEATH(Kop::strepToValue<TunnelTableEntry>(valueToStrep(good)),
               "No String constructor for TunnelTableEntry - has collection");
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
  const auto refused = [&](const char* how, const std::function<void()>& make) {
    try {
      make();
      ADD_FAILURE() << type << ' ' << how;
    } catch (const Kop::RangeException& error) {
      EXPECT_EQ(error.what(), wanted) << how;
    }
  };
  Kop::NboAttrLog::Out good, bad;
  Kop::NboAttrLog::write(good, static_cast<Number>(max));
  Kop::NboAttrLog::write(bad, static_cast<Number>(max + 1));
  Kop::NboAttrLog::In goodIn(good.data(), good.size()), badIn(bad.data(), bad.size());
  EXPECT_EQ(Index(goodIn).value(), max);
  EXPECT_EQ(Index(static_cast<Number>(max)).value(), max);
  EXPECT_EQ(Kop::strepToValue<Index>(std::to_string(max)).value(), max);
  refused("log", [&] { Index{badIn}; });
  refused("number", [&] { Index{static_cast<Number>(max + 1)}; });
  refused("text", [&] { Kop::strepToValue<Index>(std::to_string(max + 1)); });
  refused("long text", [&] { Kop::strepToValue<Index>("4294967296"); });
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
