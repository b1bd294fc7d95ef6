#include "Kop/Exception.h"
#include "apps/agent/Places.h"
#include "tests/Support/Process.h"

namespace {

using namespace Agent;
using namespace Tunnel::TunnelTable;

// Two databases whose tables meet, or a reader that looks elsewhere than the writer.
TEST(Places, sharedMemoryIsOneDatabases) {
  EXPECT_EQ(shmName(std::string(defaultSocketPath), "tunnel/table/srTunnelTable"),
            "/tunnel.table.srTunnelTable");
  const Support::TempDir directory;
  std::filesystem::create_directory(directory.path("a"));
  std::filesystem::create_directory_symlink(directory.path("a"), directory.path("b"));
  const auto nameAt = [&](const std::string& socket) {
    return shmName(directory.path(socket), "tunnel/table/t");
  };
  const std::string name = nameAt("a/sock");
  EXPECT_EQ(name.substr(0, name.size() - 8), "/tunnel.table.t@");
  EXPECT_EQ(nameAt("b/sock"), name);
  EXPECT_EQ(nameAt("a/../b/sock"), name);
  EXPECT_NE(nameAt("a/other"), name);
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(directory.path());
  EXPECT_EQ(shmName("a/sock", "tunnel/table/t"), name);
  std::filesystem::current_path(before);
}

// An assertion, or an exception of another kind, for a type that an agent was told.
TEST(Places, everyNumberIsATypeWithATableOrRefused) {
  U32 count = 0;
  for (U32 number = 0; number < 40; ++number) {
    const auto type = static_cast<TunnelType>(number);
    if (!hasTable(type)) {
      EXPECT_THROW(tableIdOf(type), Kop::RangeException) << number;
      continue;
    }
    ++count;
    EXPECT_EQ(typeOfTable(tableTypeOf(type)), type);
    EXPECT_EQ(TunnelId(TunnelId::convertToTunnelValue(type, 1)).tableType(),
              tableIdOf(type));
  }
  EXPECT_EQ(count, 16u);
}

// A name that leads out of its folder.
TEST(Places, agentsAreOnePartOfAPath) {
  for (const char* agent : {"", "a/b", "/", "a b", "..\n"})
    EXPECT_THROW(tableInfoPath(agent), Kop::RangeException) << agent;
  EXPECT_EQ(agentOfTableInfoPath(tableInfoPath("fpm-2")), "fpm-2");
  for (const char* path :
       {"tunnel/tableInfo", "tunnel/tableInfo/a/b", "tunnel/tableInfos/a"})
    EXPECT_EQ(agentOfTableInfoPath(path), "") << path;
}

// Hops of one group that run into the next.
TEST(Places, nextHopsAreNumberedWithinTheirGroup) {
  const TunnelId id = nextHopId(0xffffffff, 255);
  EXPECT_EQ(groupOf(id), 0xffffffff);
  EXPECT_EQ(hopOf(id), 255u);
  EXPECT_DEATH(nextHopId(1, 256), "hop < maxNextHops");
  for (const U64 value :
       {TunnelId().value(), TunnelId::convertToTunnelValue(srTunnel, 256),
        TunnelId::convertToTunnelValue(nexthopTunnel, U64{1} << 40)})
    EXPECT_EQ(groupOf(TunnelId(value)), 0u) << value;
}

}  // namespace
