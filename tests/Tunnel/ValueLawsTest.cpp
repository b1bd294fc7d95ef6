#include <locale>

#include "Kop/Entity.h"
#include "Kop/NboAttrLogSa.h"
#include "Tunnel/DecapGroupHivelTypes.h"
#include "Tunnel/MldpTunnelHivelTypes.h"
#include "Tunnel/NexthopGroupTunnelConfigInput.h"
#include "Tunnel/StaticTunnelConfig.h"
#include "Tunnel/TunnelIntfId.h"
#include "Tunnel/TunnelTableHivelTypes.h"
#include "tests/Support/Testing.h"
#include "tests/Tunnel/Samples.h"

// What every type owes the runtime: the registered values, the types of their attributes, and
// enumerations. A law is checked over all of them, and those that break it must be exactly the
// exceptions that are listed with it.

namespace Tunnel {
namespace {

using Kop::GenericValue;
using Kop::TypeOps;
using Kop::TypeRecord;
using Samples::Random;
using Values = std::vector<GenericValue>;
using Names = std::set<std::string>;
using testing::ContainerEq;

struct Type {
  const TypeOps* ops;
  std::vector<const Kop::MemberRecord*> stored;  // empty: no attributes that we can see
  bool isRecord;                                 // declared row by row
  Values values;
  std::string name() const { return std::string(ops->name); }
  bool holdsCollection() const {
    return std::any_of(stored.begin(), stored.end(), [](const auto* member) {
      return member->kind == Kop::MemberKind::collection;
    });
  }
};
using Member = Kop::MemberRecord;

GenericValue get(const GenericValue& value, const Member& member) {
  return GenericValue(member.ops->type, member.ops->at(value.get()));
}
void copyMember(GenericValue& to, const GenericValue& from, const Member& member) {
  member.ops->type->assign(const_cast<void*>(member.ops->at(to.get())),
                           member.ops->at(from.get()));
}
std::string logOf(const GenericValue& value) {
  Kop::NboAttrLog::Out out;
  value.type()->logWrite(out, value.get());
  return {reinterpret_cast<const char*>(out.data()), out.size()};
}
bool less(const GenericValue& a, const GenericValue& b) {
  return a.type()->less(a.get(), b.get());
}
bool isOrdered(const GenericValue& value) try {
  return less(value, value), true;
} catch (const Kop::UnorderedTypeException&) {
  return false;
}
U32 hashOf(const GenericValue& value) {
  return value.type()->hash(value.get());
}
bool isHashable(const GenericValue& value) try {
  return hashOf(value), true;
} catch (const Kop::UnhashableTypeException& error) {
  EXPECT_EQ(error.what(), value.type()->name);
  return false;
}

// The same map with other values under its keys.
GenericValue flipped(const GenericValue& map) {
  GenericValue flip(map.type());
  map.type()->elements->each(
      map.get(), &flip, [](void* to, const void* key, const void*) {
        auto& copy = *static_cast<GenericValue*>(to);
        const GenericValue fresh(copy.type()->elements->value);
        copy.type()->elements->insert(copy.get(), key, fresh.get());
      });
  EXPECT_EQ(map.type()->elements->count(flip.get()),
            map.type()->elements->count(map.get()));
  return flip;
}

Type typeOf(const TypeOps& ops) {
  Type type{&ops, {}, false, {}};
  if (const TypeRecord* record = ops.record(); record && record->value) {
    type.stored = Samples::storedMembers(*record);
    type.isRecord = !record->members.empty();
  }
  Random random(Samples::seed);
  type.values.emplace_back(&ops);
  for (int i = 0; i < 30; ++i)
    type.values.push_back(Samples::sample(random, ops));
  for (const Member* member : type.stored) {  // one attribute apart
    for (const std::size_t from : {0ul, 0ul, 0ul, 1 + random() % 30}) {
      auto value = type.values[from];
      copyMember(value, Samples::sample(random, ops), *member);
      type.values.push_back(value);
      const auto* const elements = member->ops->type->elements;
      if (!elements || !elements->value) continue;
      member->ops->type->assign(const_cast<void*>(member->ops->at(value.get())),
                                flipped(get(value, *member)).get());
      type.values.push_back(value);
    }
  }
  return type;
}

const std::vector<Type>& allTypes() {
  static const auto all = [] {
    std::vector<Type> types;
    for (const auto& [name, ops] : Samples::allTypes())
      types.push_back(typeOf(*ops));
    return types;
  }();
  return all;
}

// Whether it holds of any two values.
template <class Law>
bool ofAllPairs(const Type& type, Law law) {
  for (const auto& a : type.values)
    for (const auto& b : type.values)
      if (!law(a, b)) return false;
  return true;
}

// The exceptions, by type:
//   parse  holds a collection; to read its text ends the process
//   text   is not that of its attributes      log    pads its arrays
//   peer   takes a tunnel's word from the log as it comes, and none such from text
//   lossy  no record, and its form in the log has bytes that are not looked at or kept
//   equal  not as the log: -0.0 is 0.0, flags do not count, or counts do and are not sent
//   hash, less   has none                     order  has an order of its own
//   truth  true unless the default            flags  follows those of a stream
constexpr char exceptionTable[] = R"(
Tunnel::Decap::AddressType lossy
Tunnel::Decap::DecapExcludeIntfSet parse hash order truth
Tunnel::Decap::DecapIntf hash
Tunnel::Decap::PayloadType lossy
Tunnel::Decap::TunnelDecapIpSrc lossy
Tunnel::Decap::TunnelType lossy
Tunnel::GreTunnelInfo order
Tunnel::IpsecGreTunnelInfo order truth
Tunnel::IpsecVtiTunnelInfo order
Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry hash less truth
Tunnel::Static::StaticTunnelConfigEntry parse hash less truth
Tunnel::TunnelEntrySequenceNumber hash flags
Tunnel::TunnelTable::BgpLuVia parse equal order truth
Tunnel::TunnelTable::EncapIdConstants hash
Tunnel::TunnelTable::EvpnVxlanTunnelEntry peer
Tunnel::TunnelTable::MldpTunnelRibEntry peer truth
Tunnel::TunnelTable::MplsCosVia order truth
Tunnel::TunnelTable::MplsVia order
Tunnel::TunnelTable::MulticastTunnelTableEntry peer truth
Tunnel::TunnelTable::NexthopTunnelL2Info hash less
Tunnel::TunnelTable::NexthopType lossy
Tunnel::TunnelTable::TunnelBandwidth equal truth flags
Tunnel::TunnelTable::TunnelId peer flags
Tunnel::TunnelTable::TunnelIdConstants hash
Tunnel::TunnelTable::TunnelIdNamePair peer
Tunnel::TunnelTable::TunnelTableEntry parse log equal hash order
Tunnel::TunnelTable::TunnelTableIdentifier lossy
Tunnel::TunnelTable::TunnelVia order
Tunnel::TunnelTable::Via order
Vantor::DynamicTunnelIntfId text
Vantor::IpDscp lossy
Vantor::IpGenAddr lossy
Vantor::IpGenPrefix lossy
bool lossy
float equal
)";
Names listed(std::string_view law) {
  Names names;
  std::istringstream rows(exceptionTable);
  for (std::string row, word, name; std::getline(rows, row);) {
    std::istringstream words(row);
    for (words >> name; words >> word;)
      if (word == law) names.insert(name);
  }
  return names;
}
const Names notParsed = listed("parse");

// The law holds of all types but those that are listed with it.
template <class Law>
void expectLaw(const char* name, Law law) {
  Names broken;
  for (const Type& type : allTypes()) {
    SCOPED_TRACE(type.name());
    if (!law(type)) broken.insert(type.name());
  }
  EXPECT_THAT(broken, ContainerEq(listed(name)));
}

// Catches a suite that runs over less than it says.
TEST(ValueLaws, overAllTypes) {
  EXPECT_EQ(std::count_if(allTypes().begin(), allTypes().end(),
                          [](const Type& type) { return type.isRecord; }),
            40);
  EXPECT_EQ(allTypes().size(), 40u + 29);  // and foreign ones
}

// Catches an attribute that is forgotten, or written and read in different forms, and a reader
// that reads past the end or keeps what it refuses.
TEST(ValueLawsDeathTest, textReadsBack) {
  testing::GTEST_FLAG(death_test_style) = "fast";
  expectLaw("parse", [](const Type& type) { return !type.holdsCollection(); });
  for (const Type& type : allTypes()) {
    SCOPED_TRACE(type.name());
    if (notParsed.contains(type.name())) {
      EXPECT_DEATH(GenericValue(type.ops).textIs(type.values[0].text()),
                   "Tunnel/" + std::string(Kop::moduleOf(*type.ops->record())->name) +
                       ": .*Assertion \"!\"No String constructor for " +
                       type.name().substr(type.name().rfind(':') + 1) +
                       " - has collection\"\" failed");
      continue;
    }
    for (const auto& value : type.values) {
      const Kop::String text = value.text();
      SCOPED_TRACE(text.c_str());
      GenericValue back(type.ops);
      ASSERT_NO_THROW(back.textIs(text));
      EXPECT_TRUE(back == value);
      EXPECT_EQ(back.text(), text);
      for (const char* behind : {", 'next': 1", "})", "]", "'"}) {
        const Kop::String longer = std::string(text.c_str(), text.size()) + behind;
        Kop::TextIt it = longer.begin();
        type.ops->parse(back.get(), it, longer.end(), "a");
        EXPECT_EQ(it - longer.begin(), static_cast<std::ptrdiff_t>(text.size()));
      }
      for (U32 size = 0; size < text.size(); ++size) {
        // A block of its own, so that a sanitizer sees a read behind the end.
        const std::vector<char> cut(text.data(), text.data() + size);
        const Kop::TextIt begin(cut.data()), end(cut.data() + size);
        Kop::TextIt it = begin;
        try {
          type.ops->parse(back.get(), it, end, "a");
          EXPECT_TRUE(type.stored.size() < 2 && it - begin > 0);  // of a longer number
        } catch (const Kop::Exception&) {
          EXPECT_TRUE(type.isRecord || it == begin) << size;
        }
      }
    }
  }
}

// Catches a name in the text or a place in the log that is another attribute's.
TEST(ValueLaws, textAndLogAreThoseOfTheAttributes) {
  expectLaw("text", [](const Type& type) {
    bool isThat = true;
    for (const auto& value : type.values) {
      if (!type.isRecord) break;
      std::string text, log;
      for (const Member* member : type.stored) {
        const auto attribute = get(value, *member);
        const std::string own(attribute.text().c_str());
        text += type.stored.size() < 2 ? own
                                       : (text.empty() ? "'" : ", '") +
                                             std::string(member->name) + "': " + own;
        log += logOf(attribute);
      }
      if (type.stored.size() > 1)
        text = "Value('" + type.name() + "', ** {" + text + "})";
      isThat = isThat && value.text() == text.c_str();
      EXPECT_EQ(logOf(value), log);
    }
    return isThat;
  });
}

// Catches a read past the end, and a value that the log brings back as another.
TEST(ValueLaws, logReadsBack) {
  expectLaw("log", [](const Type& type) {
    bool isBack = true;
    for (const auto& value : type.values) {
      const std::string bytes = logOf(value);
      Kop::NboAttrLog::In in(bytes.data(), bytes.size());
      GenericValue back(type.ops);
      type.ops->logRead(back.get(), in);
      EXPECT_TRUE(in.atEnd());
      EXPECT_EQ(logOf(back), bytes);
      isBack = isBack && back == value;
      for (std::size_t size = 0; size < bytes.size(); ++size) {
        const std::vector<char> cut(bytes.data(), bytes.data() + size);
        Kop::NboAttrLog::In few(cut.data(), size);
        EXPECT_THROW(type.ops->logRead(back.get(), few), Kop::LogCorruptException);
      }
    }
    return isBack;
  });
}

// Catches a value that bytes from a peer can make and that no text or log brings back: two
// equal values would then have two images. And a reader that lets go of what it was sent.
TEST(ValueLaws, bytesOfAPeerMakeCanonicalValuesOrNone) {
  Names lossy;
  expectLaw("peer", [&](const Type& type) {
    Random random(Samples::seed);
    bool isBack = true;
    int made = 0;
    for (int i = 0; i < 300; ++i) {
      U8 bytes[1024];
      for (U8& byte : bytes)
        byte = static_cast<U8>(random() % 2 == 0 ? 0 : random() % 4);
      Kop::NboAttrLog::In in(bytes, sizeof bytes);
      GenericValue value(type.ops), again(type.ops), same(type.ops);
      try {
        type.ops->logRead(value.get(), in);
      } catch (const Kop::Exception&) {
        continue;
      }
      ++made;
      const std::string log = logOf(value);
      const std::string_view sent(reinterpret_cast<const char*>(bytes), in.offset());
      if (!type.isRecord && log != sent) lossy.insert(type.name());
      Kop::NboAttrLog::In rest(log.data(), log.size());
      type.ops->logRead(same.get(), rest);
      EXPECT_TRUE(same == value);
      if (notParsed.contains(type.name())) continue;
      try {
        again.textIs(value.text());
        EXPECT_TRUE(again == value) << value.text();
        EXPECT_TRUE(!isHashable(value) || hashOf(again) == hashOf(value));
      } catch (const Kop::RangeException&) {
        isBack = false;
      }
    }
    // A record with many strings is hardly ever made so.
    EXPECT_TRUE(made > 10 || type.stored.size() > 1) << made;
    return isBack;
  });
  EXPECT_THAT(lossy, ContainerEq(listed("lossy")));
}

// Catches comparisons that disagree with each other, and equal values of different hash.
TEST(ValueLaws, equalityOrderAndHashAgree) {
  for (const Type& type : allTypes()) {
    SCOPED_TRACE(type.name());
    const bool ordered = isOrdered(type.values[0]), hashed = isHashable(type.values[0]);
    const std::size_t count = type.values.size();
    std::vector<char> before(count * count);
    for (std::size_t i = 0; i < count; ++i) {
      for (std::size_t k = 0; k < count; ++k) {
        const auto &a = type.values[i], &b = type.values[k];
        const bool equal = a == b;
        EXPECT_EQ(equal, b == a);
        EXPECT_TRUE(!equal || !hashed || hashOf(a) == hashOf(b));
        if (!ordered) continue;
        before[i * count + k] = less(a, b);
        EXPECT_LE(equal + less(a, b) + less(b, a), 1) << a.text() << b.text();
      }
    }
    int broken = 0;
    for (std::size_t i = 0; i < count; ++i)
      for (std::size_t k = 0; k < count; ++k)
        if (before[i * count + k])
          for (std::size_t m = 0; m < count; ++m)
            broken += before[k * count + m] && !before[i * count + m];
    EXPECT_EQ(broken, 0);
  }
}

// Catches an equality that is more or less than having the same content, a hash or an order
// that is lost or new, and an order that has become that of the attributes, or is no longer.
TEST(ValueLaws, equalityHashAndOrderAreAsListed) {
  expectLaw("equal", [](const Type& type) {
    return ofAllPairs(type, [](const auto& a, const auto& b) {
      return (a == b) == (logOf(a) == logOf(b));
    });
  });
  expectLaw("hash", [](const Type& type) { return isHashable(type.values[0]); });
  expectLaw("less", [](const Type& type) { return isOrdered(type.values[0]); });
  expectLaw("order", [](const Type& type) {
    if (!type.isRecord || !isOrdered(type.values[0])) return true;
    return ofAllPairs(type, [&](const auto& a, const auto& b) {
      for (const Member* member : type.stored) {
        const auto x = get(a, *member), y = get(b, *member);
        if (x == y) continue;
        return isOrdered(x) && less(a, b) == less(x, y);
      }
      return !less(a, b);
    });
  });
}

// Catches a truth that looks at another attribute than the first, or past a rule of its own.
TEST(ValueLaws, truthIsThatOfTheFirstAttribute) {
  expectLaw("truth", [](const Type& type) {
    const auto truth = [&](const auto& value) { return type.ops->truth(value.get()); };
    bool isFirst = true;
    for (const auto& value : type.values) {
      if (!type.isRecord) continue;
      const bool first =
          !type.stored.empty() &&
          !(get(value, *type.stored[0]) == GenericValue(type.stored[0]->ops->type));
      isFirst = isFirst && truth(value) == first;
    }
    for (const auto& value : type.values)
      EXPECT_TRUE(isFirst || truth(value) != (value == type.values[0]));
    return isFirst;
  });
}

// Groups digits and writes true as "yes": what a careless stream form would pick up.
struct Strange : std::numpunct<char> {
  char do_thousands_sep() const override { return '_'; }
  std::string do_grouping() const override { return "\1"; }
  std::string do_truename() const override { return "yes"; }
};

template <class T>
void typed(Names& followFlags) {
  Random random(Samples::seed);
  bool follows = false, isRight = true;
  for (int i = 0; i < 50; ++i) {
    const T value = Samples::sample<T>(random);
    Kop::NboAttrLog::Out log;
    log << value;
    std::ostringstream plain, flagged;
    plain << value;
    flagged.imbue(std::locale(flagged.getloc(), new Strange));
    flagged << std::showpos << std::hex << std::showbase << value;
    follows = follows || flagged.str() != plain.str();
    T other = Samples::sample<T>(random), copy = value, moved = std::move(copy);
    isRight = isRight && moved == value;
    copy = other;  // also into what was moved from
    isRight = isRight && copy == other;
    copy = std::move(moved);
    isRight = isRight && copy == value && attrLogSize(value) == log.size();
  }
  EXPECT_TRUE(isRight) << Kop::typeName<T>();
  if (follows) followFlags.insert(std::string(Kop::typeName<T>()));
}

// Catches a stream that follows its flags though it should not, or the reverse, a copy that
// shares what it should own, and a size that does not announce what is written. Every type
// with operators of its own, and records of every kind of attribute.
TEST(ValueLaws, streamsCopiesAndSizes) {
  using namespace TunnelTable;
  using namespace Vantor;
  Names followFlags;
  [&]<class... Ts>(std::tuple<Ts...>*) {
    (typed<Ts>(followFlags), ...);
  }(static_cast<std::tuple<
        TunnelEntrySequenceNumber, TunnelBandwidth, TunnelId, IpGenAddr, IpGenPrefix,
        IntfId, EthAddr, IpDscp, MplsLabelOperation, DynamicMplsLabelStack, Brel::ChipId,
        Brel::ChipSet, Vxlan::VniExt, Routing::Multicast::MulticastTreeId,
        Decap::DecapExcludeIntfSet, IpsecGreTunnelInfo, Static::StaticTunnelConfigEntry,
        NexthopGroup::NexthopGroupTunnelConfigEntry, BgpLuVia, MplsCosVia,
        EncapIdConstants, TunnelTableEntry, TunnelTableInfo, NexthopTunnelL3Info,
        DynamicTunnelIntfId>*>(nullptr));
  EXPECT_THAT(followFlags, ContainerEq(listed("flags")));
}

}  // namespace
}  // namespace Tunnel
