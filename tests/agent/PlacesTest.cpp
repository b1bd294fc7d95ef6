#include <filesystem>

#include <gtest/gtest.h>

#include "Kop/Exception.h"
#include "apps/agent/Places.h"

namespace {

using namespace Agent;
using namespace Tunnel::TunnelTable;

// Two databases whose tables meet, or a reader that looks elsewhere than the writer.
TEST(Places, sharedMemoryIsOneDatabases) {
  EXPECT_EQ(shmName(std::string(defaultSocketPath), "tunnel/table/srTunnelTable"),
            "/tunnel.table.srTunnelTable");
  const auto directory =
      std::filesystem::temp_directory_path() / ("places" + std::to_string(::getpid()));
  std::filesystem::create_directories(directory / "a");
  std::filesystem::create_directory_symlink(directory / "a", directory / "b");
  const auto nameAt = [&](const char* socket) {
    return shmName((directory / socket).string(), "tunnel/table/t");
  };
  EXPECT_EQ(nameAt("a/sock"), nameAt("b/sock"));
  EXPECT_EQ(nameAt("a/sock"), nameAt("a/../b/sock"));
  EXPECT_NE(nameAt("a/sock"), nameAt("a/other"));
  EXPECT_EQ(nameAt("a/sock").find("/tunnel.table.t@"), 0u);
  EXPECT_EQ(nameAt("a/sock").size(), std::string("/tunnel.table.t@").size() + 8);
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(directory);
  EXPECT_EQ(shmName("a/sock", "tunnel/table/t"), nameAt("a/sock"));
  std::filesystem::current_path(before);
  std::filesystem::remove_all(directory);
}

// An assertion, or an exception of another kind, for a type that an agent was told.
TEST(Places, everyNumberIsATypeWithATableOrRefused) {
  U32 count = 0;
  for (U32 number = 0; number < 40; ++number) {
    SCOPED_TRACE(number);
    const auto type = static_cast<TunnelType>(number);
    if (!hasTable(type)) {
      EXPECT_THROW(tableIdOf(type), Kop::RangeException);
      continue;
    }
    ++count;
    EXPECT_NE(tableIdOf(type), invalidTunnelTable);
    EXPECT_EQ(typeOfTable(tableTypeOf(type)), type);
    TunnelId id(TunnelId::convertToTunnelValue(type, 1));
    EXPECT_EQ(id.tunnelTransportType(), mplsTunnel);
    if (hasIpv6(type)) {
      id = TunnelId(
          TunnelId::convertToTunnelValue(type, 1 | TunnelIdConstants::tunnelAfMask));
      EXPECT_EQ(id.tunnelAf(), Vantor::ipv6);
    }
  }
  EXPECT_EQ(count, 16u);
  EXPECT_EQ(typeOfTable("no such type"), invalidTunnel);
}

// A name that leads out of its folder.
TEST(Places, agentsAreOnePartOfAPath) {
  for (const char* agent : {"", "a/b", "/", "a b", "..\n"}) {
    SCOPED_TRACE(agent);
    EXPECT_THROW(tableInfoPath(agent), Kop::RangeException);
    EXPECT_THROW(nexthopTablePath(agent), Kop::RangeException);
  }
  EXPECT_EQ(agentOfTableInfoPath(tableInfoPath("fpm-2")), "fpm-2");
  EXPECT_EQ(agentOfTableInfoPath("tunnel/tableInfo"), "");
  EXPECT_EQ(agentOfTableInfoPath("tunnel/tableInfo/a/b"), "");
  EXPECT_EQ(agentOfTableInfoPath("tunnel/tableInfos/a"), "");
}

// Hops of one group that run into the next.
TEST(Places, nextHopsAreNumberedWithinTheirGroup) {
  for (const U32 group : {1u, 2u, 0xffffu, 0xffffffffu})
    for (const U32 hop : {0u, 1u, 255u}) {
      const TunnelId id = nextHopId(group, hop);
      EXPECT_EQ(id.tunnelType(), nexthopTunnel);
      EXPECT_EQ(groupOf(id), group);
      EXPECT_EQ(hopOf(id), hop);
    }
  EXPECT_DEATH(nextHopId(1, 256), "hop < maxNextHops");
  EXPECT_EQ(groupOf(TunnelId()), 0u);
  EXPECT_EQ(groupOf(TunnelId(TunnelId::convertToTunnelValue(srTunnel, 256))), 0u);
  EXPECT_EQ(
      groupOf(TunnelId(TunnelId::convertToTunnelValue(nexthopTunnel, U64{1} << 40))), 0u);
}

}  // namespace
