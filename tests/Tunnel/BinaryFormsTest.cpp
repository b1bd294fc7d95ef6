#include <cmath>

#include <unistd.h>

#include "Drem/Error.h"
#include "Quarn/Table.h"
#include "Tunnel/MulticastTunnelTableEntry.h"
#include "Tunnel/TunnelTableEntry.h"
#include "Tunnel/Vias.h"
#include "tests/Support/Testing.h"
#include "tests/Tunnel/Samples.h"

// The binary forms of what stands in tables in shared memory, where any bytes may be found. A
// buffer is a block of exactly the size that is said, so that a sanitizer sees a read behind it.

namespace Tunnel::TunnelTable {
namespace {

using Routing::Multicast::MulticastTreeId;
using Samples::Random;
using Vantor::DynamicMplsLabelStack;
using Vantor::IntfId;
using Vantor::IpGenAddr;
using Vantor::IpGenPrefix;
using Bytes = std::vector<U8>;

std::unique_ptr<U8[]> exactly(const Bytes& bytes, std::size_t size) {
  std::unique_ptr<U8[]> copy(new U8[size]);
  std::copy_n(bytes.begin(), size, copy.get());
  return copy;
}
template <class T>
Bytes written(const T& value) {
  Bytes bytes(value.serializeLen() + 2, 0xee);
  value.serialize(bytes.data() + 1);  // at any alignment
  EXPECT_TRUE(bytes.front() == 0xee && bytes.back() == 0xee);
  value.serialize(nullptr);
  return Bytes(bytes.begin() + 1, bytes.end() - 1);
}
// The count at an offset; too large for any buffer when it is not there itself.
U64 countAt(const Bytes& bytes, U64 offset) {
  U32 count;
  if (offset + sizeof count > bytes.size()) return U64{1} << 32;
  std::memcpy(&count, bytes.data() + offset, sizeof count);
  return count;
}

// What is told of each form: where its counts are, how long it is, what deserializeLen says of
// a whole one and of another, and whether reading refuses what is not whole by itself.
struct FormOf {
  U32 countAt;
  U64 (*length)(const Bytes& bytes);
  U32 whole;  // 0: the length
  U32 notWhole;
  bool refuses;
  bool isExact;  // writes what it read
};
const std::map<std::string_view, FormOf> forms = {
    {"Vantor::DynamicMplsLabelStack",
     {0, [](const Bytes& b) { return 4 + 4 * countAt(b, 0); }, 0, 0, true, false}    },
    {"Routing::Multicast::MulticastTreeId",
     {0, [](const Bytes& b) { return 4 + countAt(b, 0); }, 0, 0, true, true}         },
    {"Tunnel::TunnelTable::MplsCosVia",
     {30, [](const Bytes& b) { return 34 + 4 * countAt(b, 30); }, 0, 30, true, false}},
    {"Tunnel::TunnelTable::MulticastTunnelTableEntry",
     {8, [](const Bytes& b) { return 12 + countAt(b, 8); }, 16, 0, false, true}      },
    {"Tunnel::TunnelTable::TunnelTableEntry",
     {25,
      [](const Bytes& b) {
        const U64 nameAt = 29 + 24 * countAt(b, 25);
        return nameAt + 4 + countAt(b, nameAt);
      },
      0, 0, false, true}                                                             },
};

template <class T>
struct BinaryForms : testing::Test {
  const FormOf& form = forms.at(Kop::typeName<T>());
  U32 answer(const Bytes& bytes) const {
    const U64 length = form.length(bytes);
    if (length > bytes.size()) return form.notWhole;
    return form.whole ? form.whole : static_cast<U32>(length);
  }
  // Reads the bytes and compares with what is told of them.
  void read(const Bytes& bytes, T value, bool isOurs) {
    const auto size = static_cast<U32>(bytes.size());
    const auto buffer = exactly(bytes, size);
    const bool isWhole = form.length(bytes) <= size;
    ASSERT_EQ(value.deserializeLen(buffer.get(), size), answer(bytes));
    if (!isWhole && !form.refuses) return;
    const Kop::String before = valueToStrep(value);
    try {
      value.deserialize(buffer.get(), size);
      ASSERT_TRUE(isWhole);
      ASSERT_EQ(value.serializeLen(), form.length(bytes));
      const Bytes again = written(value);
      if (isOurs || form.isExact) {
        ASSERT_TRUE(std::equal(again.begin(), again.end(), bytes.begin()));
      }
      ++taken;
    } catch (const Drem::InvalidSizeException&) {
      ASSERT_FALSE(isWhole && isOurs);
      if (form.refuses) {
        ASSERT_TRUE(!isWhole && valueToStrep(value) == before);
      }
      ++refused;
    }
    ASSERT_FALSE(valueToStrep(value).empty());
  }
  U32 taken = 0, refused = 0;
};
using Forms = testing::Types<DynamicMplsLabelStack,
                             MulticastTreeId,
                             MplsCosVia,
                             MulticastTunnelTableEntry,
                             TunnelTableEntry>;
TYPED_TEST_SUITE(BinaryForms, Forms);

// Catches a form that loses an attribute or keeps something of what was there before, a read
// behind the end, a form that is taken in part, and a count that is believed: sums that wrap,
// arrays that take more than they hold.
TYPED_TEST(BinaryForms, comeBackWholeOrAreRefused) {
  Random random(Samples::seed);
  constexpr U32 counts[] = {0,          1,          16,         17,         128,
                            129,        0x0aaaaaab, 0x80000000, 0xaaaaaaaa, 0xfffffff0,
                            0xfffffff4, 0xfffffff8, 0xfffffffc, 0xffffffff, 0x40000000,
                            0x15555555, 0x20000000};
  for (int i = 0; i < 5000; ++i) {
    const auto value = Samples::sample<TypeParam>(random);
    auto other = Samples::sample<TypeParam>(random);
    Bytes bytes = written(value);
    other.deserialize(exactly(bytes, bytes.size()).get(), static_cast<U32>(bytes.size()));
    ASSERT_TRUE(other == value);
    ASSERT_EQ(valueToStrep(other), valueToStrep(value));
    const bool isOurs = random() % 3 == 0;
    if (!isOurs) {
      if (random() % 4 == 0) bytes.resize(random() % 600);
      for (U32 left = random() % 4; left > 0 && !bytes.empty(); --left)
        bytes[random() % bytes.size()] = static_cast<U8>(random());
      if (bytes.size() >= this->form.countAt + 4 && random() % 2 == 0)
        std::memcpy(&bytes[this->form.countAt], &counts[random() % std::size(counts)], 4);
    }
    switch (random() % 4) {
      case 0: bytes.resize(random() % (bytes.size() + 1)); break;
      case 1: bytes.resize(bytes.size() + random() % 1000, 0xff);
    }
    this->read(bytes, Samples::sample<TypeParam>(random), isOurs);
    if (this->HasFatalFailure()) return;
  }
  EXPECT_GT(this->taken, 500u);
  EXPECT_TRUE(this->refused > 0 || this->form.whole);
}

// Catches a record that a table cannot hold: one that is refused as not whole, or read back as
// another.
template <class R>
void expectStandsInATable() {
  const std::string name = "/tunnel-records-test-" + std::to_string(::getpid());
  Random random(Samples::seed);
  Quarn::TableWriter<R> writer(name);
  const Quarn::TableReader<R> reader(name);
  for (int step = 0; step < 500; ++step) {
    const R value = Samples::sample<R>(random);
    R read;
    writer.rowIs(random() % 100, R());
    writer.rowIs(7, value);
    EXPECT_TRUE(reader.row(7, read) == Quarn::RowState::found && read == value);
  }
  Quarn::TableWriter<R>::remove(name);
}
TEST(TableRecords, standInATable) {
  expectStandsInATable<TunnelTableEntry>();
  expectStandsInATable<MplsCosVia>();
  expectStandsInATable<MulticastTunnelTableEntry>();
}

const MplsCosVia cosVia(IpGenAddr("10.0.0.1"),
                        IntfId("A"),
                        DynamicMplsLabelStack{16, 20},
                        Vantor::IpDscp(46),
                        U3(5));
const Bytes cosViaBytes = {
    1,  0, 0, 0,                                          // family, host order
    10, 0, 0, 1, 0,  0, 0,   0, 0,  0, 0, 0, 0, 0, 0, 0,  // address
    0,  0, 0, 0, 0,  0, 'A', 0,                           // interface
    46, 5,                                                // DSCP, EXP
    2,  0, 0, 0, 16, 0, 0,   0, 20, 0, 0, 0,              // labels
};
const Bytes entryBytes = {
    7,  0, 0, 0, 0,   0x30, 0,   0,              // tunnelId
    6,  5, 4, 3, 2,   1,    0,   0,              // nexthopTunnelId
    55, 4, 3, 2, 1,   0,    0,   0xc0, 0x3f,     // preference, metric, 1.5
    1,  0, 0, 0,                                 // end points
    1,  0, 0, 0, 10,  0,    0,   0,    0,    0,  // family, address
    0,  0, 0, 0, 0,   0,    0,   0,    0,    0,  //
    8,  0, 0, 0,                                 // bits
    4,  0, 0, 0, 'c', 'o',  'r', 'e',            // name
};

// Catches a field of another width, place or byte order.
TEST(BinaryLayouts, byHand) {
  EXPECT_EQ(written(cosVia), cosViaBytes);
  const MulticastTunnelTableEntry tree(TunnelId(0x1600000000005),
                                       MulticastTreeId("0a0001"));
  EXPECT_EQ(written(tree), (Bytes{5, 0, 0, 0, 0, 0x60, 1, 0, 3, 0, 0, 0, 0x0a, 0, 1}));
  TunnelTableEntry entry(TunnelId(0x300000000007), TunnelEntryPref(55));
  EXPECT_EQ(TunnelTableEntry().serializeLen(), 33u);
  entry.nexthopTunnelIdIs(TunnelId(0x010203040506));
  entry.entryMetricIs(0x01020304);
  entry.tunnelBwIs(TunnelBandwidth(1.5f));
  entry.tepIs(IpGenPrefix("10.0.0.0/8"));
  entry.setName("core");
  EXPECT_EQ(written(entry), entryBytes);
}

// Catches a check that is made where none is: numbers are taken as they come or cut.
TEST(BinaryLayouts, whatIsTaken) {
  Bytes bytes = cosViaBytes;
  bytes[0] = 9;      // a family that is none
  bytes[29] = 0xfd;  // more than 3 bits
  std::memset(&bytes[34], 0xff, 4);
  MplsCosVia via;
  via.deserialize(bytes.data(), 42);
  EXPECT_EQ(U8{via.mplsExp()}, 5);
  EXPECT_EQ(via.labels().computedLabel(0), Vantor::maxMplsLabel);
  EXPECT_EQ(via.nexthop().stringValue(), "family9");

  Kop::NboAttrLog::Out out;
  out << cosVia.nexthop() << cosVia.intfId() << cosVia.labels();
  out.writeU32(0x12e);  // DSCP 46 in the low byte
  out.writeU8(0xfd);
  Kop::NboAttrLog::In in(out.data(), out.size());
  EXPECT_TRUE(MplsCosVia(in) == cosVia && in.atEnd());

  // A length bounds nothing of a table entry, and is the tree id's own of a multicast one,
  // which is told the whole.
  TunnelTableEntry entry;
  entry.deserialize(entryBytes.data(), 0);
  EXPECT_EQ(written(entry), entryBytes);
  const MulticastTunnelTableEntry tree(TunnelId(5), MulticastTreeId("0a0001"));
  MulticastTunnelTableEntry read;
  read.deserialize(written(tree).data(), 7);
  EXPECT_TRUE(read == tree);
  EXPECT_THROW(read.deserialize(written(tree).data(), 6), Drem::InvalidSizeException);
}

// Catches an error that does not say what was found, or shows memory that is not the
// record's. The text is tested with Kop::PodArray.
TEST(BinaryLayouts, tooManyElements) {
  Bytes endpoints = entryBytes, name = entryBytes;
  endpoints[25] = 17;
  name.resize(162, 'x');
  std::memset(&name[25], 0, 8);
  name[29] = 129;
  const struct {
    const Bytes& bytes;
    U32 size;  // of the buffer
    U32 len;   // as the reader is told
    U32 count, at, dumped;
  } rows[] = {
      {endpoints, 600, 600, 17,  29, 408},
      {endpoints, 53,  53,  17,  29, 24 },
      {endpoints, 600, 40,  17,  29, 11 },
      {endpoints, 600, 0,   17,  29, 0  },
      {name,      162, 162, 129, 33, 129},
  };
  for (const auto& row : rows) {
    Bytes bytes = row.bytes;
    bytes.resize(row.size);
    const auto buffer = exactly(bytes, row.size);
    U8* const at = &buffer[row.at];
    const Kop::String wanted = Kop::stringPrintf(
        "expected size <= %u, instead got %u. Buffer is at address: %p with contents: %s",
        row.count - 1, row.count, static_cast<void*>(at),
        Drem::dumpHex(at, row.dumped).c_str());
    TunnelTableEntry entry;
    const auto read = [&] { entry.deserialize(buffer.get(), row.len); };
    EXPECT_THAT(read, testing::ThrowsMessage<Drem::InvalidSizeException>(wanted.c_str()));
    EXPECT_EQ(entry.endpoint().count() + entry.name().count(), 0u);
    EXPECT_EQ(entry.entryMetric(), 0x01020304u);  // what stood in front was taken
  }
}

}  // namespace
}  // namespace Tunnel::TunnelTable
