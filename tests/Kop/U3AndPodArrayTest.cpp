#include <numeric>

#include "Kop/PodArray.h"
#include "Kop/U3.h"
#include "tests/Support/Testing.h"

// Catches a fourth bit in a U3, whichever way it comes in. That it comes back is tested with
// the values that hold one.
TEST(U3, neverHoldsMoreThanThreeBits) {
  for (const unsigned value : {8u, 256u, 0xffffffffu})
    EXPECT_THROW(U3{value}, Kop::RangeException);
  const U8 raw = 0xfd;
  Kop::NboAttrLog::In in(&raw, 1);
  EXPECT_EQ(U8{U3(in)}, 5);
  EXPECT_EQ(U8{U3::cut(raw)}, 5);
  Kop::Hash hash(1);
  hashMix(hash, U3(5));
  EXPECT_EQ(hash.result(), Kop::hashSingleAttr(U8{5}, 1));
}

struct Index {
  explicit constexpr Index(U8 number) : at(number) {}
  U8 at;
  U8 value() const { return at; }
};
using Slots = Kop::PodArray<U32, Index, 4>;
using Bytes = Kop::PodArray<U8, U8, 128>;
static_assert(std::is_trivially_copyable_v<Slots> && sizeof(Slots) == 4 + 4 * 4);

// Catches a removal that keeps default elements at the end or forgets a slot, a write that
// shortens the array, and comparisons that look at slots behind the count. The model keeps
// all slots, for a skipped one has what it held.
TEST(PodArray, randomOperationsAgainstAPlainModel) {
  std::mt19937 random(77);
  Slots array, other;
  std::vector<U32> slots(4), model, before;
  for (int round = 0; round < 20000; ++round) {
    const U32 i = random() % 4, n = random() % 3,
              what = random() % 30;  // often the default
    U32 count = array.count();
    if (what < 15) {
      array.set(Index(static_cast<U8>(i)), n);
      slots[i] = n;
      count = std::max(count, i + 1);
    } else if (what < 25) {
      auto it = array.iteratorConst();
      for (U32 k = 0; k < i; ++k)
        it.advance();
      ASSERT_EQ(what < 20 ? array.del(it) : array.del(Index(static_cast<U8>(i))),
                i < count ? slots[i] : 0);
      if (i + 1 < count)
        slots[i] = 0;
      else if (i + 1 == count)
        for (count = i; count > 0 && slots[count - 1] == 0;)
          --count;
    } else if (what == 25) {
      array.delAll();
      for (; count > 0; --count)
        if (count < model.size()) slots[count - 1] = 0;
    } else {
      count = random() % 5;
      const std::vector<U32> taken(count, n);
      array.set(taken.data(), count, count * 4);
      std::copy(taken.begin(), taken.end(), slots.begin());
    }
    model.assign(slots.begin(), slots.begin() + count);
    ASSERT_EQ(std::vector<U32>(array.begin(), array.end()), model);
    ASSERT_EQ(array.get(Index(static_cast<U8>(i))), i < count ? slots[i] : 0);
    ASSERT_EQ(Kop::strepToValue<Slots>(Kop::strepOf(array)), array);
    ASSERT_EQ(array == other, model == before);
    ASSERT_EQ(array < other, model < before);
    if (n == 0) other = array, before = model;
  }
}

// Catches a count of a record that is believed, a dump that reads beyond the record (which
// ends with its block, so that a sanitizer sees it), and a changed message.
TEST(PodArray, tooManyElementsInABuffer) {
  const std::tuple<U32, std::size_t, const char*> rows[] = {
      {5,          21, "00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 11 12 13"},
      {5,          3,  "00 01 02"                                                   },
      {1073741824, 1,  "00"                                                         }, // its bytes are 0 modulo 2^32
  };
  for (const auto& [count, bytesLeft, contents] : rows) {
    const auto bytes = std::make_unique<U8[]>(bytesLeft);
    std::iota(bytes.get(), bytes.get() + bytesLeft, U8{0});
    Slots array;
    array.set(Index{1}, 9);
    const auto text = Kop::stringPrintf(
        "expected size <= 4, instead got %u. Buffer is at address: %p with contents: %s",
        count, static_cast<void*>(bytes.get()), contents);
    const auto take = [&, n = count, size = bytesLeft] {
      array.set(bytes.get(), n, size);
    };
    EXPECT_THAT(take, testing::ThrowsMessage<Drem::InvalidSizeException>(text.c_str()));
    EXPECT_EQ(Kop::strepOf(array), "[0, 9]");
  }
}

// Catches a log form that carries the count, texts beyond the capacity, and signed bytes.
TEST(PodArray, logAndText) {
  Bytes name;
  name.set("it's\n\xff", 6, 6);
  EXPECT_EQ(Kop::strepOf(name), "'it\\'s\\n\xff'");
  EXPECT_EQ(Kop::strepToValue<Bytes>(Kop::strepOf(name)), name);
  Kop::NboAttrLog::Out out;
  out << name;
  ASSERT_EQ(out.size(), attrLogSize(name));
  Kop::NboAttrLog::In in(out.data(), out.size());
  const Bytes read(in);
  EXPECT_EQ(read.count(), 128u);
  EXPECT_TRUE(std::equal(name.begin(), name.end(), read.begin()));

  Slots slots;
  slots.set(Index{3}, 7);
  slots.del(Index{3});  // and the zeros before it; the slot keeps its 7
  Kop::NboAttrLog::Out empty;
  empty << slots;
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(empty.data()), empty.size()),
            std::string(16, '\0'));
  EXPECT_THROW(Kop::strepToValue<Bytes>("'" + std::string(129, 'x') + "'"),
               Kop::RangeException);
  EXPECT_DEATH(slots.get(Index{4}), "Kop/PodArray: number: Assertion");
}
