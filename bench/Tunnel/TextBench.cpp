#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include <arpa/inet.h>

#include <benchmark/benchmark.h>

#include "Samples.h"
#include "Tunnel/DecapGroupHivelTypes.h"
#include "Tunnel/TunnelBasicTypes.h"

// The machine form of records: written into a buffer that is used again, and as a String of
// its own, against snprintf of the same fields into a buffer; read against sscanf of the same
// text. Both sides write the same bytes and read the same fields, which is checked before
// the clock runs. The peer knows the form of its fields in advance: interfaces are VLANs.

namespace Tunnel {
namespace {

using Decap::DecapIntf;
using Decap::DecapIntfKey;
using TunnelTable::HwTunnelKey;
using Vantor::AddressFamily;
using Vantor::IntfId;
using Vantor::IpGenAddr;

constexpr std::size_t recordCount = 1024;  // 50 to 200 bytes each
constexpr std::size_t bufferSize = 512;

using Random = std::mt19937_64;

#define HEAD(type) "Value('Tunnel::" type "', ** {"
#define INTF_KEY HEAD("Decap::DecapIntfKey") "'intfId': 'Vlan%u', 'addressFamily': %s})"
#define INTF_KEY_IN \
  HEAD("Decap::DecapIntfKey") "'intfId': 'Vlan%u', 'addressFamily': %15[a-zA-Z0-9]})%n"

constexpr const char* families[] = {"noAddressFamily", "ipv4", "ipv6"};
constexpr const char* addressTypes[] = {"primary", "all"};

template <std::size_t n>
U32 wordIndex(const char* const (&words)[n], const char* word) {
  for (U32 i = 0; i < n; ++i)
    if (std::strcmp(words[i], word) == 0) return i;
  return n;
}
AddressFamily familyOf(const char* word) {
  return static_cast<AddressFamily>(wordIndex(families, word));
}
IntfId vlan(U32 number) {
  return IntfId::fromValue(U64{3} << 56 | U64{number} << 24);
}
IpGenAddr addressOf(Random& random) {
  if (random() % 2) return IpGenAddr::fromIpv4(static_cast<U32>(random()));
  U8 bytes[16] = {0x20, 0x01, 0x0d, 0xb8};
  const U64 low = random();
  std::memcpy(bytes + (random() % 2 ? 8 : 6), &low, sizeof low);
  return IpGenAddr::fromIpv6(bytes);
}
const char* addressText(char (&text)[INET6_ADDRSTRLEN], const IpGenAddr& address) {
  return inet_ntop(address.af() == Vantor::ipv4 ? AF_INET : AF_INET6, address.bytes(),
                   text, sizeof text);
}
IpGenAddr addressRead(const char* text) {
  U8 bytes[16];
  if (std::strchr(text, ':'))
    return inet_pton(AF_INET6, text, bytes) == 1 ? IpGenAddr::fromIpv6(bytes)
                                                 : IpGenAddr();
  U32 word;
  return inet_pton(AF_INET, text, &word) == 1 ? IpGenAddr::fromIpv4(ntohl(word))
                                              : IpGenAddr();
}

// How a record is made, and what the peer does with it.
template <class T>
struct Form;

template <>
struct Form<HwTunnelKey> {
  static HwTunnelKey make(Random& random) {
    return {random() >> (random() % 60), Brel::ChipId(static_cast<U8>(random()))};
  }
  static int print(char* to, const HwTunnelKey& key) {
    return std::snprintf(to, bufferSize,
                         HEAD("TunnelTable::HwTunnelKey") "'index': %lu, 'chipId': %u})",
                         key.index(), unsigned{key.chipId().value()});
  }
  static HwTunnelKey scan(const char* from) {
    U64 index = 0;
    unsigned chip = 0;
    int end = 0;
    std::sscanf(from, HEAD("TunnelTable::HwTunnelKey") "'index': %lu, 'chipId': %u})%n",
                &index, &chip, &end);
    return end ? HwTunnelKey(index, Brel::ChipId(static_cast<U8>(chip))) : HwTunnelKey();
  }
};

template <>
struct Form<DecapIntfKey> {
  static DecapIntfKey make(Random& random) {
    return {vlan(1 + random() % 4094), static_cast<AddressFamily>(1 + random() % 2)};
  }
  static int print(char* to, const DecapIntfKey& key) {
    return std::snprintf(to, bufferSize, INTF_KEY, key.intfId().part(1),
                         families[key.addressFamily()]);
  }
  static DecapIntfKey scan(const char* from) {
    unsigned number = 0;
    char family[16] = "";
    int end = 0;
    std::sscanf(from, INTF_KEY_IN, &number, family, &end);
    return end ? DecapIntfKey(vlan(number), familyOf(family)) : DecapIntfKey();
  }
};

template <>
struct Form<DecapIntf> {
  static DecapIntf make(Random& random) {
    return {Form<DecapIntfKey>::make(random),
            static_cast<Decap::AddressType>(random() % 2), random() % 2 == 1};
  }
  static int print(char* to, const DecapIntf& intf) {
    const DecapIntfKey& key = intf.decapIntfKey();
    return std::snprintf(
        to, bufferSize,
        HEAD("Decap::DecapIntf") "'decapIntfKey': " INTF_KEY
                                 ", 'addressType': %s, 'oldConfig': %s})",
        key.intfId().part(1), families[key.addressFamily()],
        addressTypes[intf.addressType()], intf.oldConfig() ? "True" : "False");
  }
  static DecapIntf scan(const char* from) {
    unsigned number = 0;
    char family[16] = "", addressType[16] = "", oldConfig[8] = "";
    int keyEnd = 0, end = 0;
    std::sscanf(from,
                HEAD("Decap::DecapIntf") "'decapIntfKey': " INTF_KEY_IN
                                         ", 'addressType': %15[a-z], 'oldConfig': "
                                         "%7[a-zA-Z]})%n",
                &number, family, &keyEnd, addressType, oldConfig, &end);
    if (!end) return {};
    return {DecapIntfKey(vlan(number), familyOf(family)),
            static_cast<Decap::AddressType>(wordIndex(addressTypes, addressType)),
            std::strcmp(oldConfig, "True") == 0};
  }
};

template <>
struct Form<Ends> {
  static Ends make(Random& random) {
    const IpGenAddr source = addressOf(random), destination = addressOf(random);
    return {source, destination, static_cast<U32>(random())};
  }
  static int print(char* to, const Ends& ends) {
    char source[INET6_ADDRSTRLEN], destination[INET6_ADDRSTRLEN];
    return std::snprintf(to, bufferSize,
                         HEAD("Ends") "'source': '%s', 'destination': '%s', 'key': %u})",
                         addressText(source, ends.source()),
                         addressText(destination, ends.destination()), ends.key());
  }
  static Ends scan(const char* from) {
    char source[INET6_ADDRSTRLEN] = "", destination[INET6_ADDRSTRLEN] = "";
    unsigned key = 0;
    int end = 0;
    std::sscanf(from,
                HEAD("Ends") "'source': '%45[0-9a-f:.]', 'destination': '%45[0-9a-f:.]', "
                             "'key': %u})%n",
                source, destination, &key, &end);
    return end ? Ends(addressRead(source), addressRead(destination), key) : Ends();
  }
};

template <class T>
struct Records {
  std::vector<T> values;
  std::vector<Kop::String> texts;
  bool alike = true;  // ours and the peer's texts, and what is read from them

  Records() {
    Random random(23);
    char text[bufferSize];
    for (std::size_t i = 0; i < recordCount; ++i) {
      values.push_back(Form<T>::make(random));
      texts.push_back(valueToStrep(values.back()));
      Form<T>::print(text, values.back());
      alike = alike && texts.back() == text && Form<T>::scan(text) == values.back() &&
              Kop::strepToValue<T>(texts.back()) == values.back();
    }
  }
};

template <class T, class F>
void eachRecord(benchmark::State& state, F&& f) {
  static const Records<T> records;
  if (!records.alike) return state.SkipWithError("the two sides differ");
  std::size_t i = 0;
  for (auto _ : state) {
    f(records.values[i], records.texts[i]);
    i = (i + 1) % recordCount;
  }
}

template <class T>
void writeOurs(benchmark::State& state) {
  Kop::TextOut out;
  eachRecord<T>(state, [&](const T& value, const Kop::String&) {
    out.clear();
    strepWrite(out, value);
    benchmark::DoNotOptimize(out.view().data());
    benchmark::ClobberMemory();
  });
  state.counters["goal"] = 0.2;
}
template <class T>
void stringOurs(benchmark::State& state) {
  eachRecord<T>(state, [](const T& value, const Kop::String&) {
    benchmark::DoNotOptimize(valueToStrep(value));
  });
  state.counters["goal"] = 0.2;
}
template <class T>
void writePeer(benchmark::State& state) {
  char text[bufferSize];
  eachRecord<T>(state, [&](const T& value, const Kop::String&) {
    benchmark::DoNotOptimize(Form<T>::print(text, value));
    benchmark::ClobberMemory();
  });
}
template <class T>
void parseOurs(benchmark::State& state) {
  eachRecord<T>(state, [](const T&, const Kop::String& text) {
    benchmark::DoNotOptimize(Kop::strepToValue<T>(text));
  });
  state.counters["goal"] = 0.25;
}
template <class T>
void parsePeer(benchmark::State& state) {
  eachRecord<T>(state, [](const T&, const Kop::String& text) {
    benchmark::DoNotOptimize(Form<T>::scan(text.c_str()));
  });
}

template <class T>
bool rows(const std::string& name) {
  const auto row = [&](const std::string& what, void (*run)(benchmark::State&)) {
    benchmark::RegisterBenchmark(what.c_str(), run);
  };
  row("textWrite." + name + "/ours", writeOurs<T>);
  row("textWrite." + name + "/snprintf", writePeer<T>);
  row("textString." + name + "/ours", stringOurs<T>);
  row("textString." + name + "/snprintf", writePeer<T>);
  row("textParse." + name + "/ours", parseOurs<T>);
  row("textParse." + name + "/sscanf", parsePeer<T>);
  return true;
}
const bool registered = rows<HwTunnelKey>("HwTunnelKey") &&
                        rows<DecapIntfKey>("DecapIntfKey") &&
                        rows<DecapIntf>("DecapIntf") && rows<Ends>("Ends");

}  // namespace
}  // namespace Tunnel
