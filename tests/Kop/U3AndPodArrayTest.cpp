#include <memory>
#include <numeric>
#include <random>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "Kop/PodArray.h"
#include "Kop/U3.h"

// Catches a fourth bit in a U3, whichever way it comes in. That it comes back is tested with
// the values that hold one.
TEST(U3, neverHoldsMoreThanThreeBits) {
  EXPECT_EQ(U8{U3{7u}}, 7);
  for (const unsigned value : {8u, 256u, 0xffffffffu}) {
    EXPECT_THROW(U3{value}, Kop::RangeException);
    EXPECT_THROW(Kop::strepToValue<U3>(std::to_string(value)), Kop::RangeException);
  }
  EXPECT_THROW(Kop::strepToValue<U3>("x"), Kop::Exception);
  const U8 raw = 0xfd;
  Kop::NboAttrLog::In in(&raw, 1);
  EXPECT_EQ(U8{U3(in)}, 5);
  EXPECT_EQ(U8{U3::cut(raw)}, 5);
  Kop::Hash mixed(3), byte(3);
  hashMix(mixed, U3::cut(raw));
  byte.mix8(5);
  EXPECT_EQ(mixed.result(), byte.result());
}

struct Slot {
  U32 n = 0;
  constexpr Slot() = default;
  constexpr Slot(U32 number) : n(number) {}
  Slot(Kop::TextIt& it, const Kop::TextIt& end) : n(Kop::readAttr<U32>(it, end, "n")) {}
  explicit Slot(Kop::NboAttrLog::In& in) : n(in.nextU32()) {}
  friend auto operator<=>(const Slot&, const Slot&) = default;
};
static void strepWrite(Kop::TextOut& out, const Slot& slot) {
  out.number(slot.n);
}
static Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out, const Slot& slot) {
  return out.writeU32(slot.n), out;
}
static U32 attrLogSize(const Slot&) {
  return 4;
}
struct Index {
  explicit constexpr Index(U8 number) : at(number) {}
  U8 at;
  U8 value() const { return at; }
};
using Slots = Kop::PodArray<Slot, Index, 4>;
using Bytes = Kop::PodArray<U8, U8, 128>;
static_assert(std::is_trivially_copyable_v<Slots> && sizeof(Slots) == 4 + 4 * 4);
static_assert(sizeof(Bytes) == 4 + 128);

// Catches a removal that keeps default elements at the end or forgets a slot, a write that
// shortens the array, and comparisons that look at slots behind the count. The model keeps
// all slots, for a skipped one has what it held.
TEST(PodArray, randomOperationsAgainstAPlainModel) {
  std::mt19937 random(77);
  Slots array, other;
  U32 slots[4] = {}, count = 0;
  for (int round = 0; round < 20000; ++round) {
    const U8 i = static_cast<U8>(random() % 4);
    switch (random() % 8) {
      case 0:
      case 1:
      case 2:
      case 3: {
        const U32 n = random() % 3;  // often the default
        array.set(Index{i}, n);
        slots[i] = n;
        count = std::max<U32>(count, i + 1u);
        break;
      }
      case 4:
      case 5:
      case 6: {
        const U32 was = i < count ? slots[i] : 0;
        auto it = array.iteratorConst();
        for (U8 k = 0; k < i; ++k)
          it.advance();
        ASSERT_EQ((round % 2 ? array.del(it) : array.del(Index{i})).n, was);
        if (i + 1u < count) {
          slots[i] = 0;
        } else if (i + 1u == count) {
          count = i;
          while (count > 0 && slots[count - 1] == 0)
            --count;
        }
        break;
      }
      default:
        if (random() % 4 == 0) {
          array.delAll();
          for (U32 k = 0; k + 1 < count; ++k)
            slots[k] = 0;
          count = 0;
        } else {
          const std::vector<U32> taken(random() % 5, random() % 3);
          array.set(taken.data(), static_cast<U32>(taken.size()), taken.size() * 4);
          std::copy(taken.begin(), taken.end(), slots);
          count = static_cast<U32>(taken.size());
        }
    }
    const std::vector<Slot> model(slots, slots + count);
    ASSERT_EQ(std::vector<Slot>(array.begin(), array.end()), model);
    ASSERT_EQ(array.get(Index{i}).n, i < count ? slots[i] : 0);
    ASSERT_EQ(Kop::strepToValue<Slots>(Kop::strepOf(array)), array);

    const std::vector<Slot> before(other.begin(), other.end());
    ASSERT_EQ(array == other, model == before);
    ASSERT_EQ(array < other, model < before);
    if (random() % 3 == 0) other = array;
  }
}

// Catches a count of a record that is believed, a dump that reads beyond the record (which
// ends with its block, so that a sanitizer sees it), and a changed message.
TEST(PodArray, tooManyElementsInABuffer) {
  const std::tuple<U32, std::size_t, const char*> rows[] = {
      {5,          21, "00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 11 12 13"},
      {5,          3,  "00 01 02"                                                   },
      {1073741824, 1,  "00"                                                         }, // its bytes are 0 modulo 2^32
      {4294967295, 0,  ""                                                           },
  };
  for (const auto& [count, bytesLeft, contents] : rows) {
    const auto bytes = std::make_unique<U8[]>(bytesLeft);
    std::iota(bytes.get(), bytes.get() + bytesLeft, U8{0});
    Slots array;
    array.set(Index{1}, 9);
    const Slots before = array;
    try {
      array.set(bytes.get(), count, bytesLeft);
      ADD_FAILURE() << count;
    } catch (const Drem::InvalidSizeException& error) {
      EXPECT_EQ(error.what(),
                Kop::stringPrintf("expected size <= 4, instead got %u. Buffer is at "
                                  "address: %p with contents: %s",
                                  count, static_cast<void*>(bytes.get()), contents));
      EXPECT_STREQ(error.component(), "PodArray");
      EXPECT_STREQ(error.function(), "set");
    }
    EXPECT_EQ(array, before);
  }
}

// Catches a log form that carries the count, texts beyond the capacity, and signed bytes.
TEST(PodArray, logAndText) {
  Bytes name, none;
  name.set("it's\n\xff", 6, 6);
  EXPECT_EQ(Kop::strepOf(name), "'it\\'s\\n\xff'");
  EXPECT_EQ(Kop::strepToValue<Bytes>(Kop::strepOf(name)), name);
  none.set("it's\n\x7f", 6, 6);
  EXPECT_LT(none, name);
  none.delAll();
  EXPECT_LT(none, name);
  Kop::NboAttrLog::Out out;
  out << name;
  ASSERT_EQ(out.size(), attrLogSize(name));
  Kop::NboAttrLog::In in(out.data(), out.size());
  const Bytes read(in);
  EXPECT_EQ(read.count(), 128u);
  EXPECT_TRUE(std::equal(name.begin(), name.end(), read.begin()));
  EXPECT_EQ(read.get(127), 0);

  Slots slots;
  slots.set(Index{3}, 7);
  EXPECT_EQ(Kop::strepOf(slots), "[0, 0, 0, 7]");
  slots.del(Index{3});  // and the zeros before it; the slot keeps its 7
  EXPECT_EQ(attrLogSize(slots), 16u);
  Kop::NboAttrLog::Out empty;
  empty << slots;
  EXPECT_EQ(std::vector<U8>(empty.data(), empty.data() + empty.size()),
            std::vector<U8>(16));
  EXPECT_THROW(Kop::strepToValue<Slots>("[1, 2, 3, 4, 5]"), Kop::RangeException);
  EXPECT_THROW(Kop::strepToValue<Bytes>("'" + std::string(129, 'x') + "'"),
               Kop::RangeException);
  for (const char* text : {"[", "[1", "[1,2]", "[1, ]", "1]", ""})
    EXPECT_THROW(Kop::strepToValue<Slots>(text), Kop::Exception) << text;
  EXPECT_DEATH(slots.get(Index{4}), "Kop/PodArray: number: Assertion");
}
