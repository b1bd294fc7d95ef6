#include "apps/tunnelctl/Identifiers.h"
#include "tests/Support/Testing.h"

namespace Tunnelctl {
namespace {

using namespace Tunnel::TunnelTable;

// Catches a kind, family or index bit that one of the forms loses, any kind that runs into an
// assertion, and one whose table is asked for although it has none: that ends the process.
TEST(IdentifiersDeathTest, everyFormOfEveryKindReadsBack) {
  testing::FLAGS_gtest_death_test_style = "fast";
  std::mt19937_64 random(77);
  for (U64 kind = 0; kind < 32; ++kind) {
    for (int i = 0; i < 200; ++i) {
      const TunnelId id(kind << 44 | (random() & 0xfffffffffff) >> (random() % 44));
      const Json json = describe(id);
      SCOPED_TRACE(writeJson(json, false));
      const auto back = [&](const char* form) {
        return readTunnelId(plain(*json.find(form))).value();
      };
      EXPECT_EQ(back("value"), id.value());
      EXPECT_EQ(back("hex"), id.value());
      const TunnelType type = id.tunnelType();
      const U64 kindAndIndex = kind << 44 | id.tunnelIndex();
      if (!json.find("kind")->is(Json::Kind::null)) {
        // Texts for people leave out family and algorithm.
        EXPECT_EQ(back("text"), kindAndIndex);
        EXPECT_EQ(back("diagnostic"), kindAndIndex);
      }
      if (type == srTePolicyTunnel) {
        EXPECT_EQ(back("interface"), kindAndIndex & ~(U64{7} << 40));
      } else if (type != staticInterfaceTunnel) {
        EXPECT_EQ(back("interface"), id.value());
      }
    }
    const TunnelId id(kind << 44 | 1);
    if (hasTable(id.tunnelType())) {
      EXPECT_NE(Kop::EnumOps<TunnelTableIdentifier>::name(id.tableType()), "");
    } else {
      EXPECT_DEATH(id.tableType(), "Tunnel/TunnelBasicTypes");
    }
  }
}

}  // namespace
}  // namespace Tunnelctl
