#include <cmath>
#include <limits>
#include <sstream>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Kop/Module.h"
#include "tests/Tunnel/Samples.h"

// What every value type owes the runtime, over all types of the library.

namespace Tunnel {
namespace {

using namespace TunnelTable;
using Samples::Random;
using Samples::sample;
using Vantor::DynamicTunnelIntfId;

using Values = testing::Types<TunnelIdConstants,
                              TunnelId,
                              EncapIdConstants,
                              EncapId,
                              HwTunnelKey,
                              TunnelBandwidth,
                              TunnelEntrySequenceNumber,
                              DynamicTunnelIntfId,
                              Decap::DecapIntfKey,
                              Decap::DecapIntf,
                              Decap::DecapExcludeIntfSet,
                              Via,
                              TunnelVia,
                              MplsVia,
                              MplsCosVia,
                              BgpLuVia,
                              ColoredTunnelEndpoint,
                              MulticastTunnelTableEntry,
                              MldpTunnelRibEntry,
                              L3TunnelInfo,
                              GreTunnelInfo,
                              IpsecGreTunnelInfo,
                              IpsecVtiTunnelInfo,
                              VxlanTunnelInfo,
                              Static::StaticTunnelConfigEntry,
                              NexthopGroup::NexthopGroupTunnelConfigEntry,
                              TunnelRibId,
                              TunnelEntryPref,
                              TepIndex,
                              NameIndex,
                              ViaIndex,
                              NextHopIndex,
                              Id64,
                              TunnelCounterId,
                              TunnelTableEntry,
                              EvpnVxlanTunnelEntry,
                              TunnelTableInfo,
                              TunnelIdNamePair,
                              NexthopTunnelL3Info,
                              NexthopTunnelL2Info>;

template <class T, class... Ts>
constexpr bool isOneOf = (std::same_as<T, Ts> || ...);

// The exceptions, by name.
template <class T>
constexpr bool unhashable = isOneOf<T,
                                    TunnelIdConstants,
                                    EncapIdConstants,
                                    TunnelEntrySequenceNumber,
                                    Decap::DecapIntf,
                                    Decap::DecapExcludeIntfSet,
                                    Static::StaticTunnelConfigEntry,
                                    NexthopGroup::NexthopGroupTunnelConfigEntry,
                                    TunnelTableEntry,
                                    NexthopTunnelL2Info>;
template <class T>
constexpr bool unordered = isOneOf<T,
                                   Static::StaticTunnelConfigEntry,
                                   NexthopGroup::NexthopGroupTunnelConfigEntry,
                                   NexthopTunnelL2Info>;
template <class T>
constexpr bool unparsable = isOneOf<T,
                                    Decap::DecapExcludeIntfSet,
                                    BgpLuVia,
                                    Static::StaticTunnelConfigEntry,
                                    TunnelTableEntry>;
template <class T>
constexpr bool logPads = isOneOf<T, TunnelTableEntry>;  // with what was not in the value
template <class T>
constexpr bool orderLeavesOut =  // something that equality sees
    isOneOf<T, MplsCosVia, IpsecGreTunnelInfo, IpsecVtiTunnelInfo>;
template <class T>
constexpr bool equalityLeavesOut =
    isOneOf<T, TunnelBandwidth, BgpLuVia, TunnelTableEntry>;
// An address is hashed without its family, and a type may leave out more.
template <class T>
constexpr bool hashLeavesOut = isOneOf<T,
                                       Via,
                                       TunnelVia,
                                       MplsVia,
                                       MplsCosVia,
                                       BgpLuVia,
                                       ColoredTunnelEndpoint,
                                       L3TunnelInfo,
                                       GreTunnelInfo,
                                       IpsecGreTunnelInfo,
                                       IpsecVtiTunnelInfo,
                                       VxlanTunnelInfo,
                                       EvpnVxlanTunnelEntry,
                                       NexthopTunnelL3Info>;
template <class T>
constexpr bool streamsItsNumber =
    isOneOf<T, TunnelId, TunnelBandwidth, TunnelEntrySequenceNumber>;

template <class T>
std::string logOf(const T& value) {
  Kop::NboAttrLog::Out out;
  out << value;
  return {reinterpret_cast<const char*>(out.data()), out.size()};
}
template <class T>
T fromLog(std::string_view bytes) {
  Kop::NboAttrLog::In in(bytes.data(), bytes.size());
  T value(in);
  EXPECT_TRUE(in.atEnd());
  return value;
}

template <class T>
class ValueProtocol : public testing::Test {
 protected:
  ValueProtocol() {
    Random random(Samples::seed);
    for (int i = 0; i < 60; ++i)
      values_.push_back(sample<T>(random));
    values_.emplace_back();
  }
  const Kop::TypeRecord& record() const { return *Kop::findType(Kop::typeName<T>()); }
  std::vector<T> values_;
};
TYPED_TEST_SUITE(ValueProtocol, Values);

// Catches an attribute that is forgotten, or written and read in different forms.
TYPED_TEST(ValueProtocol, textReadsBack) {
  if constexpr (!unparsable<TypeParam>) {
    for (const auto& value : this->values_) {
      const Kop::String text = valueToStrep(value);
      SCOPED_TRACE(text.c_str());
      const auto back = strepToValue<TypeParam>(text);
      EXPECT_TRUE(back == value);
      EXPECT_EQ(valueToStrep(back), text);
      EXPECT_THROW(strepToValue<TypeParam>(std::string(text.c_str()) + "x"),
                   Kop::Exception);
      if constexpr (Kop::storedCount<TypeParam>() > 1) {
        for (U32 size = 0; size < text.size(); ++size)
          EXPECT_THROW(strepToValue<TypeParam>(Kop::String(text.data(), size)),
                       Kop::Exception);
      }
    }
  }
}

// Catches a stream that follows its flags though it should not, or the reverse.
TYPED_TEST(ValueProtocol, onlyNumbersFollowTheFlagsOfAStream) {
  for (const auto& value : this->values_) {
    std::ostringstream plain, flagged;
    plain << value;
    flagged << std::showpos << std::hex << std::showbase << value;
    if constexpr (streamsItsNumber<TypeParam>) {
      std::ostringstream number;
      number << std::showpos << std::hex << std::showbase << value.value();
      EXPECT_EQ(flagged.str(), number.str());
    } else {
      EXPECT_EQ(plain.str(), valueToStrep(value).c_str());
      EXPECT_EQ(flagged.str(), plain.str());
    }
  }
}

// Catches a size that does not announce what is written, and a read past the end.
TYPED_TEST(ValueProtocol, logReadsBack) {
  for (const auto& value : this->values_) {
    const std::string bytes = logOf(value);
    EXPECT_EQ(attrLogSize(value), bytes.size());
    const auto back = fromLog<TypeParam>(bytes);
    EXPECT_TRUE(back == value || logPads<TypeParam>);
    EXPECT_EQ(logOf(back), bytes);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
      Kop::NboAttrLog::In in(bytes.data(), size);
      EXPECT_THROW(TypeParam{in}, Kop::LogCorruptException);
    }
  }
}

// Catches comparisons that disagree with each other, and equal values of different hash,
// text or log.
TYPED_TEST(ValueProtocol, equalityOrderAndHashAgree) {
  const auto& values = this->values_;
  for (const auto& a : values) {
    for (const auto& b : values) {
      const bool equal = a == b;
      EXPECT_EQ(equal, b == a);
      if constexpr (Kop::equalIsBitwise<TypeParam>) {
        EXPECT_EQ(equal, Kop::ValueOps<TypeParam>::equal(a, b));
      }
      if constexpr (!equalityLeavesOut<TypeParam>) {
        EXPECT_EQ(equal, logOf(a) == logOf(b));
      }
      if constexpr (!unhashable<TypeParam>) {
        EXPECT_TRUE(!equal || hashOf(a) == hashOf(b));
      }
      if constexpr (!unordered<TypeParam>) {
        const bool less = a < b, greater = b < a;
        EXPECT_FALSE(less && greater);
        EXPECT_FALSE(equal && (less || greater));
        if constexpr (!orderLeavesOut<TypeParam>) {
          EXPECT_TRUE(equal || less || greater);
        }
        for (const auto& c : values)
          EXPECT_TRUE(!(less && b < c) || a < c);
      }
    }
  }
}

// Catches a hash that leaves an attribute out.
TYPED_TEST(ValueProtocol, hashSpreads) {
  if constexpr (unhashable<TypeParam>) {
    for (const auto& value : this->values_)
      EXPECT_THROW(hashOf(value), Kop::UnhashableTypeException);
  } else if constexpr (!hashLeavesOut<TypeParam>) {
    for (const auto& a : this->values_)
      for (const auto& b : this->values_)
        EXPECT_EQ(hashOf(a) == hashOf(b), a == b);
  }
}

// Catches a copy that shares what it should own.
TYPED_TEST(ValueProtocol, copiesAreTheirOwn) {
  Random random(Samples::seed + 1);
  for (const auto& value : this->values_) {
    TypeParam copy(value), other = sample<TypeParam>(random);
    const std::string before = logOf(value);
    EXPECT_TRUE(copy == value);
    copy = other;
    EXPECT_TRUE(copy == other);
    EXPECT_EQ(logOf(value), before);
  }
}

// Catches an untyped operation that is wired to another type's or another rule.
TYPED_TEST(ValueProtocol, reflectionDoesWhatTheTypeDoes) {
  const auto& table = *this->record().value;
  const Kop::TypeOps& ops = *table.ops;
  EXPECT_EQ(ops.name, Kop::typeName<TypeParam>());
  EXPECT_EQ(ops.size, sizeof(TypeParam));
  EXPECT_EQ(ops.record(), &this->record());
  Kop::GenericValue fresh(&ops);
  EXPECT_TRUE(*static_cast<TypeParam*>(fresh.get()) == TypeParam());
  for (const auto& a : this->values_) {
    Kop::GenericValue generic(&ops, &a);
    EXPECT_EQ(generic.text(), valueToStrep(a));
    EXPECT_EQ(ops.truth(&a), Kop::ValueOps<TypeParam>::truth(a));
    if constexpr (unhashable<TypeParam>) {
      EXPECT_THROW(ops.hash(&a), Kop::UnhashableTypeException);
    } else {
      EXPECT_EQ(ops.hash(&a), hashOf(a));
    }
    if constexpr (!unparsable<TypeParam>) {
      Kop::GenericValue parsed(&ops);
      parsed.textIs(generic.text());
      EXPECT_TRUE(parsed == generic);
    }
    for (const auto& b : this->values_) {
      bool equal = false, less = false;
      TypeParam left = a;
      EXPECT_TRUE(table.attributeOp(Kop::AttributeOp::equal, &left, &b, 0, &equal));
      if constexpr (unordered<TypeParam>) {
        EXPECT_THROW(table.attributeOp(Kop::AttributeOp::less, &left, &b, 0, &less),
                     Kop::UnorderedTypeException);
      } else {
        EXPECT_TRUE(table.attributeOp(Kop::AttributeOp::less, &left, &b, 0, &less));
        EXPECT_EQ(less, a < b);
      }
      EXPECT_EQ(equal, a == b);
    }
    ops.assign(fresh.get(), &a);
    EXPECT_TRUE(fresh == generic);
  }
}

// Catches a not-a-number that is taken for equal, hides from the text, or has an order.
TEST(TunnelBandwidthProtocol, notANumber) {
  const TunnelBandwidth nan(std::numeric_limits<float>::quiet_NaN()), zero(0.0f);
  EXPECT_FALSE(nan == nan);
  EXPECT_FALSE(nan < zero || zero < nan);
  EXPECT_EQ(valueToStrep(nan), "nan");
  EXPECT_TRUE(std::isnan(strepToValue<TunnelBandwidth>("nan").value()));
  EXPECT_TRUE(std::isnan(fromLog<TunnelBandwidth>(logOf(nan)).value()));
  EXPECT_EQ(hashOf(TunnelBandwidth(-0.0f)), hashOf(zero));
}

// Catches a change of the hash function: hashes decide the order of every collection.
TEST(ValueHashes, knownAnswers) {
  EXPECT_EQ(HwTunnelKey(5, Brel::ChipId(1)).hash(0), 0x45eb402eu);
  EXPECT_EQ(HwTunnelKey(5, Brel::ChipId(1)).hash(1), 0x22e480fbu);
  EXPECT_EQ(hashOf(EncapId(7)), 0x114e7988u);
  EXPECT_EQ(hashOf(TunnelBandwidth()), 0x957d4aecu);
  EXPECT_EQ(TunnelId().hash(), 0u);
  EXPECT_NE(TunnelId(1).hash(), TunnelId(256).hash());
  EXPECT_EQ(hashOf(DynamicTunnelIntfId(Vantor::IntfId("Vlan1"))),
            Vantor::IntfId("Vlan1").hash());
  const Decap::DecapIntfKey key(Vantor::IntfId("Vlan1"), Vantor::ipv6);
  EXPECT_EQ(key.hash(),
            Samples::Fold().word(Vantor::IntfId("Vlan1").hash()).word(2).end());
}

}  // namespace
}  // namespace Tunnel
