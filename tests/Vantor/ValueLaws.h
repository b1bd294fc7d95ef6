#pragma once

#include <algorithm>
#include <cstring>
#include <locale>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Kop/KeyOps.h"
#include "Kop/NboAttrLog.h"
#include "Kop/Text.h"

// What every hand-written value type promises, over random values of it. A suite that
// instantiates the laws for T specialises arbitrary<T>.

using Random = std::mt19937_64;

template <class T>
T arbitrary(Random& random);

inline U32 below(Random& random, U32 limit) {
  return static_cast<U32>(random() % limit);
}

template <class T>
class ValueLaws : public testing::Test {
 protected:
  static constexpr int rounds = 5000;
  void SetUp() override { RecordProperty("seed", std::to_string(seed)); }

  static constexpr U64 seed = 20261121;
  Random random{seed};
};
TYPED_TEST_SUITE_P(ValueLaws);

// Groups digits and writes true as "yes": what a careless stream form would pick up.
struct Strange : std::numpunct<char> {
  char do_thousands_sep() const override { return '_'; }
  std::string do_grouping() const override { return "\1"; }
};

// Catches a text that reads back as another value, a reader that stops early or late, and a
// stream form that follows the stream's flags.
TYPED_TEST_P(ValueLaws, textRoundTrip) {
  for (int i = 0; i < this->rounds; ++i) {
    const auto value = arbitrary<TypeParam>(this->random);
    const Kop::String text = valueToStrep(value);
    SCOPED_TRACE(text);
    ASSERT_EQ(Kop::strepToValue<TypeParam>(text), value);

    for (const char* behind : {", 'next': 1", "})", "]", "'"}) {
      const Kop::String longer = std::string(text.c_str(), text.size()) + behind;
      Kop::TextIt it = longer.begin();
      ASSERT_EQ(TypeParam(it, longer.end()), value);
      ASSERT_EQ(it - longer.begin(), static_cast<std::ptrdiff_t>(text.size()));
    }

    std::ostringstream stream;
    stream.imbue(std::locale(stream.getloc(), new Strange));
    stream << std::hex << std::showbase << std::showpos << value;
    ASSERT_EQ(Kop::String(stream.str()), value.stringValue());
  }
}

// Catches a reader that runs past the end or leaves its iterator moved by a text it refuses.
TYPED_TEST_P(ValueLaws, cutTextIsRefused) {
  for (int i = 0; i < 200; ++i) {
    const auto value = arbitrary<TypeParam>(this->random);
    const Kop::String text = valueToStrep(value);
    for (U32 size = 0; size < text.size(); ++size) {
      // A block of its own, so that a sanitizer sees a read behind the end.
      const std::vector<char> cut(text.data(), text.data() + size);
      const Kop::TextIt begin(cut.data()), end(cut.data() + size);
      Kop::TextIt it = begin;
      try {
        TypeParam{it, end};
        ASSERT_GT(it - begin, 0) << text;  // digits of a longer number
      } catch (const Kop::Exception& error) {
        ASSERT_EQ(it, begin) << text << " cut to " << size << ": " << error.what();
      }
    }
  }
}

// Catches a log form whose size is announced wrongly or that reads back as another value,
// and a reader that does not notice the end of its bytes.
TYPED_TEST_P(ValueLaws, logRoundTrip) {
  for (int i = 0; i < this->rounds; ++i) {
    const auto value = arbitrary<TypeParam>(this->random);
    Kop::NboAttrLog::Out out;
    out << value;
    ASSERT_EQ(out.size(), attrLogSize(value));
    Kop::NboAttrLog::In in(out.data(), out.size());
    ASSERT_EQ(TypeParam(in), value);
    ASSERT_TRUE(in.atEnd());
    for (std::size_t size = 0; i < 100 && size < out.size(); ++size) {
      const std::vector<U8> cut(out.data(), out.data() + size);
      Kop::NboAttrLog::In few(cut.data(), size);
      ASSERT_THROW(TypeParam{few}, Kop::LogCorruptException);
    }
  }
}

// Catches a value that bytes from a peer can make and that no text or log brings back: two
// equal values would then have two images.
TYPED_TEST_P(ValueLaws, bytesOfAPeerMakeCanonicalValuesOrNone) {
  int made = 0;
  for (int i = 0; i < this->rounds; ++i) {
    U8 bytes[128];
    for (U8& byte : bytes)
      byte = below(this->random, 2) ? 0 : static_cast<U8>(below(this->random, 4));
    Kop::NboAttrLog::In in(bytes, sizeof bytes);
    try {
      const TypeParam value(in);
      ++made;
      const auto again = Kop::strepToValue<TypeParam>(valueToStrep(value));
      ASSERT_EQ(again, value) << valueToStrep(value);
      ASSERT_EQ(again.hash(), value.hash());
      if constexpr (Kop::equalIsBitwise<TypeParam>) {
        ASSERT_EQ(std::memcmp(&again, &value, sizeof value), 0) << valueToStrep(value);
      }
    } catch (const Kop::LogCorruptException&) {
    }
  }
  ASSERT_GT(made, 10);
}

// Catches an order that is none, or that disagrees with equality or hash.
TYPED_TEST_P(ValueLaws, orderEqualityAndHashAgree) {
  std::vector<TypeParam> values;
  for (int i = 0; i < 150; ++i)
    values.push_back(arbitrary<TypeParam>(this->random));
  values.insert(values.end(), values.begin(), values.begin() + 20);  // some are equal
  std::sort(values.begin(), values.end());
  for (std::size_t i = 0; i < values.size(); ++i) {
    for (std::size_t j = 0; j < values.size(); ++j) {
      const auto &a = values[i], &b = values[j];
      ASSERT_EQ((a < b) + (b < a) + (a == b), 1) << a << ' ' << b;
      ASSERT_FALSE(i < j && b < a) << a << ' ' << b;
      ASSERT_EQ(a == b, valueToStrep(a) == valueToStrep(b)) << a << ' ' << b;
      if (a == b) {
        ASSERT_EQ(a.hash(), b.hash()) << a;
      }
    }
  }
}

REGISTER_TYPED_TEST_SUITE_P(ValueLaws,
                            textRoundTrip,
                            cutTextIsRefused,
                            logRoundTrip,
                            bytesOfAPeerMakeCanonicalValuesOrNone,
                            orderEqualityAndHashAgree);
