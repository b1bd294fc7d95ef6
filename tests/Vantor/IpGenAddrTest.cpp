#include <arpa/inet.h>

#include "../Kop/FailingAllocation.h"
#include "Vantor/IpGenPrefix.h"
#include "tests/Support/Testing.h"

using namespace Vantor;

// Catches a spelling that agreesWithTheSystem does not meet.
TEST(IpGenAddrText, spellings) {
  EXPECT_EQ(valueToStrep(IpGenAddr("")), "''");
  EXPECT_EQ(valueToStrep(IpGenAddr("::1.2.3.4")), "'::102:304'");
}

enum Refusal { malformed, range };

template <class T>
void expectRefused(const char* text, Refusal wanted) {
  SCOPED_TRACE(text);
  const Kop::String typed = "'" + std::string(text) + "'";
  try {
    Kop::strepToValue<T>(typed);
    ADD_FAILURE() << "taken";
  } catch (const Kop::RangeException& error) {
    EXPECT_EQ(wanted, range);
    EXPECT_NE(std::string(error.what()).find(text), std::string::npos) << error.what();
  } catch (const Kop::Exception& error) {
    EXPECT_EQ(wanted, malformed);
    EXPECT_NE(std::string(error.what()).find(text), std::string::npos) << error.what();
  }
}

// Catches a reader that guesses, and an error that does not name what was found.
TEST(IpGenAddrText, refused) {
  for (const char* text : {"10.0.0", "010.0.0.1", "10.0.0.1 ", "1", ":::", "1::2::3",
                           "12345::", "::1.2.3", "1::2:3:4:5:6:7:1.2.3.4", "fe80::1%eth0",
                           "::1/64", "[::1]", "+1.0.0.0", "0x0a.0.0.1"})
    expectRefused<IpGenAddr>(text, malformed);
  for (const char* text :
       {"256.0.0.0", "1.2.3.1000", "::ffff:1.2.3.256", "1.2.3.99999999999999999999"})
    expectRefused<IpGenAddr>(text, range);
  EXPECT_THROW(Kop::strepToValue<IpGenAddr>("10.0.0.1"), Kop::Exception);
  EXPECT_THROW(Kop::strepToValue<IpGenAddr>("'10.0.0.1"), Kop::Exception);
  EXPECT_THROW(IpGenAddr(Kop::String("10.0.0.1\0", 9)), Kop::Exception);
}

// Catches any difference in what is taken: the system's own reader and writer as the model.
// They differ on purpose in one thing: an IPv4-compatible address (::a.b.c.d) is written in
// groups here.
TEST(IpGenAddrText, agreesWithTheSystem) {
  std::mt19937_64 random(4291);
  const auto below = [&](U64 limit) { return random() % limit; };
  constexpr char alphabet[] = "00123456789abcdefABCDEFg::::.... ";
  constexpr const char* seeds[] = {
      "1.22.255.0",           "::",         "1:2:3:4:5:6:7:8",
      "::ffff:1.2.3.255",     "1::2:0:0:3", "a::",
      "2001:DB8:0:0:1::0001", "::1.2.3.4",  "0:0:1:0:0:0:0:fFff"};
  int taken = 0;
  for (int i = 0; i < 200000; i += Support::stride) {
    std::string text = seeds[below(std::size(seeds))];
    for (U64 n = below(4); n > 0 && !text.empty(); --n) {
      const auto at = below(text.size());
      const char c = alphabet[below(sizeof alphabet - 1)];
      switch (below(3)) {
        case 0: text[at] = c; break;
        case 1: text.insert(at, 1, c); break;
        default: text.erase(at, 1);
      }
    }
    U8 bytes[16] = {};
    const int family = text.find(':') != text.npos ? AF_INET6 : AF_INET;
    const bool isAddr = inet_pton(family, text.c_str(), bytes) == 1;
    taken += isAddr;
    try {
      const IpGenAddr addr{Kop::String(text)};
      ASSERT_TRUE(isAddr || text.empty()) << text;
      if (!isAddr) continue;
      ASSERT_EQ(addr.af(), family == AF_INET6 ? ipv6 : ipv4) << text;
      ASSERT_EQ(std::memcmp(addr.bytes(), bytes, sizeof bytes), 0) << text;
      char buffer[INET6_ADDRSTRLEN];
      const std::string written = inet_ntop(family, bytes, buffer, sizeof buffer);
      const bool isCompatible =
          written.find(":") != written.npos && written.find('.') != written.npos;
      ASSERT_TRUE(addr.stringValue() == written ||
                  (isCompatible && !written.starts_with("::ffff:")))
          << text;
    } catch (const Kop::Exception&) {
      ASSERT_FALSE(isAddr) << text;
    }
  }
  taken *= Support::stride;
  EXPECT_TRUE(taken > 20000 && taken < 180000) << taken;
}

// Catches an allocation on the way of addresses that are read and written in bulk.
TEST(IpGenAddrText, readingAndWritingAllocateNothing) {
  if (!OPERATOR_NEW_IS_REPLACED) GTEST_SKIP() << "operators new cannot be replaced";
  const Kop::String text = "'1:22:333:4444:5555:6666:7777:8888'";
  Kop::TextIt it = text.begin();
  allocationsUntilFailure = 0;  // the next one throws
  const IpGenAddr addr(it, text.end());
  Kop::TextOut out;
  strepWrite(out, addr);
  allocationsUntilFailure = -1;
  EXPECT_EQ(out.view(), std::string_view(text));
}

// Catches a change of the image or of the log form, which other processes read, and bytes
// of a peer that are kept where no address has any.
TEST(IpGenAddrImage, isCanonical) {
  const U8 bytesOfAddr[20] = {1, 0, 0, 0, 10, 0, 0, 1};
  const IpGenAddr addr("10.0.0.1");
  EXPECT_EQ(std::memcmp(&addr, bytesOfAddr, 20), 0);
  EXPECT_EQ(addr.hash(), Kop::OneAtATime().bytes(bytesOfAddr + 4, 16).result());
  EXPECT_EQ(addr.hash(), IpGenAddr("a00:1::").hash());  // the family is not mixed

  const IpGenPrefix prefix(addr, 8);
  EXPECT_EQ(std::memcmp(&prefix, bytesOfAddr, 20), 0);
  EXPECT_EQ(reinterpret_cast<const U8*>(&prefix)[20], 8);

  // The family in network order, the address in its first bytes, the length.
  const auto image = [](U32 family, U8 first, U8 rest, U8 length) {
    std::array<U8, 21> bytes{U8(family >> 24), 0, 0, U8(family), first, 0, 0, 1};
    std::fill(bytes.begin() + 8, bytes.end() - 1, rest);
    bytes[20] = length;
    return bytes;
  };
  const std::tuple<const char*, std::array<U8, 21>, const char*> rows[] = {
      {"none",                   image(1,       10, 0, 8),   "10.0.0.1/8" },
      {"tail of IPv4",           image(1,       10, 7, 32),  "10.0.0.1/32"},
      {"bytes without a family", image(0,       10, 9, 0),   ""           },
      {"unknown family",         image(3,       10, 0, 0),   nullptr      },
      {"family in another byte", image(1 << 24, 10, 0, 0),   nullptr      },
      {"33 bits of IPv4",        image(1,       0,  0, 33),  nullptr      },
      {"129 bits of IPv6",       image(2,       0,  0, 129), nullptr      },
      {"1 bit of nothing",       image(0,       0,  0, 1),   nullptr      },
  };
  for (const auto& [fault, bytes, wanted] : rows) {
    SCOPED_TRACE(fault);
    Kop::NboAttrLog::In in(bytes.data(), bytes.size());
    if (wanted) {
      EXPECT_EQ(IpGenPrefix(in).stringValue(), wanted);
    } else {
      EXPECT_THROW(IpGenPrefix{in}, Kop::LogCorruptException);
    }
  }
}

// Catches a length that is read loosely or goes beyond its address.
TEST(IpGenPrefixText, lengths) {
  for (const char* text :
       {"", "10.0.0.1/8", "0.0.0.0/0", "::/0", "2001:db8::/128", "1.2.3.4/32"})
    EXPECT_EQ(IpGenPrefix{Kop::String(text)}.stringValue(), text);
  for (const char* text :
       {"10.0.0.0", "10.0.0.0/", "/8", "/", "10.0.0.0/08", "10.0.0.0/+8", "10.0.0.0/8/",
        "10.0.0.0/8 ", "10.0.0/8", "::/-1", "::/1x"})
    expectRefused<IpGenPrefix>(text, malformed);
  for (const char* text :
       {"10.0.0.0/33", "::/129", "10.0.0.0/4294967304", "10.0.0.256/8"})
    expectRefused<IpGenPrefix>(text, range);
  EXPECT_THROW(IpGenPrefix(IpGenAddr("1.2.3.4"), 33), Kop::RangeException);
  EXPECT_THROW(IpGenPrefix(IpGenAddr(), 1), Kop::RangeException);

  EXPECT_TRUE(IpGenPrefix("0.0.0.0/0").isNullPrefix());
  EXPECT_TRUE(IpGenPrefix("::/0").isNullPrefix());
  EXPECT_FALSE(IpGenPrefix().isNullPrefix());
  EXPECT_FALSE(IpGenPrefix("10.0.0.0/0").isNullPrefix());
  EXPECT_FALSE(IpGenPrefix("0.0.0.0/8").isNullPrefix());
}
