#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include <sys/wait.h>

#include <gtest/gtest.h>

#include "Kop/Module.h"
#include "Kop/NboAttrLogSa.h"
#include "Tunnel/DecapGroupHivelTypes.h"
#include "Tunnel/MldpTunnelHivelTypes.h"
#include "Tunnel/MplsTunnelConfig.h"
#include "Tunnel/TunnelBasicTypes.h"
#include "Tunnel/TunnelIntfId.h"
#include "Tunnel/TunnelTableHivelTypes.h"

namespace Tunnel {
namespace {

using namespace TunnelTable;
using Kop::MemberKind;

struct TypeRow {
  U32 index;
  const char* name;
  const char* kind;
  // Members in order: <number>[=<enumerator's number>] <kind letter> <name>:
  // a attribute, c constant, f function, s collection of single keys or key and value.
  const char* members;
};

std::string described(const Kop::TypeRecord& type) {
  std::ostringstream out;
  for (const auto& member : type.members) {
    if (out.tellp() > 0) out << ", ";
    out << member.number << ' ' << "acfse"[static_cast<int>(member.kind)] << ' '
        << member.name;
    if (member.kind == MemberKind::enumerator) out << '=' << member.value;
  }
  return out.str();
}
std::string kindOf(const Kop::TypeRecord& type) {
  if (type.kind == Kop::Kind::enumeration) return "enum" + std::to_string(8 * type.width);
  return type.kind == Kop::Kind::value ? "value" : "entity";
}

constexpr TypeRow decapRows[] = {
    {0,  "Tunnel::Decap::TunnelType",           "enum8",
     "2 e unknown=0, 3 e gre=1, 4 e ipip=2, 5 e udp=3"                                },
    {1,  "Tunnel::Decap::PayloadType",          "enum8",
     "6 e unknownPayload=0, 7 e mpls=1, 8 e ipvx=2"                                   },
    {2,  "Tunnel::Decap::TunnelDecapIpSrc",     "enum8",  "9 e ip=0, 10 e intf=1"     },
    {3,  "Tunnel::Decap::AddressType",          "enum8",  "11 e primary=0, 12 e all=1"},
    {4,  "Tunnel::Decap::DecapIntfKey",         "value",
     "2 a intfId, 3 a addressFamily, 4 f stringValue, 5 f hash"                       },
    {5,  "Tunnel::Decap::DecapIntf",            "value",
     "2 a decapIntfKey, 3 a addressType, 4 a oldConfig, 5 f stringValue"              },
    {6,  "Tunnel::Decap::DecapExcludeIntfSet",  "value",
     "2 a decapIntfKey, 3 s excludeIntf"                                              },
    {7,  "Tunnel::Decap::DecapGroup",           "entity",
     "258 s decapIp, 259 s decapIntf, 260 s decapExcludeIntfSet, 261 a tunnelType, "
     "262 a destinationPort, 263 a payloadType, 264 a dynamic"                        },
    {8,  "Tunnel::Decap::ConfigInput",          "entity",
     "258 s globalDestPortToPayloadType, 259 s decapGroup"                            },
    {9,  "Tunnel::Decap::CountersClearConfig",  "entity", "258 s clearCountersRequest"},
    {10, "Tunnel::Decap::Hardware::Capability", "entity",
     "258 a ip6DecapFeatureWarning, 259 a decapSupported, 260 a decapPrefixSupported, "
     "261 s decapIpSrcSupported, 262 s decapTunnelTypeSupported, "
     "263 s decapTunnelIp6DestinationSupported, 264 a multiDecapIpSupported, "
     "265 a perDecapGroupUdpDestPortSupported, 266 a globalUdpDestPortSupported"      },
    {11, "Tunnel::Decap::Hardware::Status",     "entity", "258 a hwResourceFull"      },
};
constexpr TypeRow mplsRows[] = {
    {0, "Tunnel::MplsTunnelConfig", "entity", "258 a entropyLabelPush"},
};
constexpr TypeRow staticRows[] = {
    {0, "Tunnel::Static::StaticTunnelConfigEntry", "value",
     "2 a name, 3 a tep, 4 s via, 5 a backupVia, 6 a inStaticTunnelMode"  },
    {1, "Tunnel::Static::Config",                  "entity", "258 s entry"},
};
constexpr TypeRow groupRows[] = {
    {0, "Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry", "value",
     "2 a tep, 3 a nhgName, 4 a igpPref, 5 a igpMetric"                               },
    {1, "Tunnel::NexthopGroup::ConfigInput",                   "entity", "258 s entry"},
};
constexpr TypeRow intfRows[] = {
    {0, "Vantor::DynamicTunnelIntfId", "value",
     "2 a intfId, 3 c dynamicTunnelIntfIdType, 4 f isDynamicTunnelIntfId, 5 f tunnelId, "
     "6 f tunnelIdToIntfId"},
};
constexpr TypeRow basicRows[] = {
    {0,  "Tunnel::GreHdrFlagsType",                      "enum32",
     "2 e noFlag=0, 3 e checksumFlag=32768, 4 e keyFlag=8192, 5 e sequenceFlag=4096, "
     "6 e versionMask=7"                                                                              },
    {1,  "Tunnel::TunnelTable::NexthopType",             "enum8",
     "7 e invalid=0, 8 e gre=1, 9 e mpls=2, 10 e mplsOverGre=3, 11 e mplsOverUdp=4, "
     "12 e ip=5"                                                                                      },
    {2,  "Tunnel::TunnelTable::EncapType",               "enum8",
     "13 e invalidEncap=0, 14 e greEncap=1, 15 e ipSecEncap=2, 16 e ipSecGreEncap=3, "
     "17 e mplsEncap=4, 18 e vxlanEncap=5"                                                            },
    {3,  "Tunnel::TunnelTable::TunnelTableIdentifier",   "enum8",
     "19 e invalidTunnelTable=0, 20 e bgpLuTunnelTable=1, 21 e bgpLuPushTunnelTable=2, "
     "22 e ldpTunnelTable=3, 23 e rsvpFrrTunnelTable=4, 24 e rsvpLerSubTunnelTable=5, "
     "25 e rsvpLerTunnelTable=6, 26 e srTunnelTable=7, 27 e ospfSrTunnelTable=8, "
     "28 e staticTunnelTable=9, 29 e nexthopGroupTunnelTable=10, "
     "30 e srTeSegmentListTunnelTable=11, 31 e greTunnelInterfaceTunnelTable=12, "
     "32 e ipsecVtiTunnelInterfaceTunnelTable=13, "
     "33 e ipsecGreTunnelInterfaceTunnelTable=14, 34 e evpnVxlanTunnelTable=15, "
     "35 e tiLfaTunnelTable=16, 36 e srTePolicyTunnelTable=17, "
     "37 e kelSdkSbfdSessionTunnelTable=18, 38 e isisFlexAlgoTunnelTable=19, "
     "39 e mldpTunnelTable=20"                                                                        },
    {4,  "Tunnel::TunnelTable::TunnelType",              "enum32",
     "40 e invalidTunnel=0, 41 e bgpLuPushTunnel=1, 42 e bgpLuTunnel=2, "
     "43 e ldpTunnel=3, 44 e nexthopTunnel=4, 45 e staticTunnel=5, "
     "46 e evpnVxlanTunnel=6, 47 e srTunnel=7, 48 e srTeSegmentListTunnel=8, "
     "49 e staticInterfaceTunnel=9, 50 e rsvpTunnel=10, 51 e nexthopGroupTunnel=11, "
     "52 e tiLfaTunnel=12, 53 e ospfSrTunnel=13, 54 e srTePolicyTunnel=14, "
     "55 e vxlanVtepEncapTunnel=15, 56 e rsvpLerTunnel=16, 57 e rsvpFrrTunnel=17, "
     "58 e kelSdkSbfdSessionTunnel=18, 59 e vxlanTunnel=19, 60 e rsvpLerSubTunnel=20, "
     "61 e isisFlexAlgoTunnel=21, 62 e mldpTunnel=22, 63 e maxTunnelType=31"                          },
    {5,  "Tunnel::TunnelTable::ContributionToTunnelRIB", "enum32",
     "64 e contributing=1, 65 e nonContributing=2"                                                    },
    {6,  "Tunnel::TunnelTable::TunnelTransportType",     "enum8",
     "66 e unknownTunnel=0, 67 e mplsTunnel=1, 68 e ipTunnel=2"                                       },
    {7,  "Tunnel::TunnelTable::TunnelIdConstants",       "value",
     "2 c tunnelIndexMask, 3 c tunnelAfMask, 4 c tunnelTypeMask, 5 c flexAlgoIdMask, "
     "6 c tunnelTypePos, 7 c tunnelAfPos, 8 c flexAlgoPos"                                            },
    {8,  "Tunnel::TunnelTable::TunnelId",                "value",
     "2 a value, 3 c invalid, 4 c typeMin, 5 c typeMax, 6 c minValue, 7 c maxValue, "
     "8 f isValid, 9 f tunnelType, 10 f tunnelIndex, 11 f tableType, "
     "12 f tunnelTransportType, 13 f tunnelAf, 14 f supportsEntropyLabelPush, "
     "15 f extractIndexAndAf, 16 f extractFlexAlgoId, 17 f toStrep, 18 f toCliStrep, "
     "19 f typeCliStr, 20 f addressFamilyCliStr, 21 f intfId, 22 f intfCliStr, 23 f "
     "hash, "
     "24 f isFlexAlgoTunnelType, 25 f convertToTunnelValue, "
     "26 f convertToFlexAlgoTunnelValue, 27 f tunnelTypeToCliStrep"                                   },
    {9,  "Tunnel::TunnelTable::EncapIdConstants",        "value",
     "2 c encapTypeMask, 3 c encapIndexMask, 4 c encapTypePos"                                        },
    {10, "Tunnel::TunnelTable::EncapId",                 "value",
     "2 a encapIdValue, 3 f encapType, 4 f encapIndex, 5 f encapValueIs, 6 f typeCliStr, "
     "7 f typeCliStrep"                                                                               },
    {11, "Tunnel::TunnelTable::HwTunnelKey",             "value",  "2 a index, 3 a chipId, 4 f hash"  },
    {12, "Tunnel::TunnelTable::TunnelBandwidth",         "value",
     "2 a value, 3 c defaultValue, 4 c invalidValue, 5 f isPresent, 6 f isValid"                      },
    {13, "Tunnel::TunnelEntrySequenceNumber",            "value",
     "2 a value, 3 c null, 4 c min, 5 c max, 6 f inc"                                                 },
    {14, "Tunnel::TunnelTable::Via",                     "value",  "2 a nexthop, 3 a intfId, 4 f hash"},
    {15, "Tunnel::TunnelTable::TunnelVia",               "value",
     "2 a nexthop, 3 a intfId, 4 f hash, 130 a encapId"                                               },
    {16, "Tunnel::TunnelTable::MplsVia",                 "value",
     "2 a nexthop, 3 a intfId, 4 f hash, 130 a labels"                                                },
    {17, "Tunnel::TunnelTable::MplsCosVia",              "value",
     "2 a nexthop, 3 a intfId, 4 f hash, 130 a labels, 131 a ipDscp, 132 a mplsExp, "
     "133 c mplsCosViaFixedLen, 134 f serializeLen, 135 f serialize, "
     "136 f deserializeLen, 137 f deserialize"                                                        },
    {18, "Tunnel::TunnelTable::BgpLuVia",                "value",  "2 s via, 3 a labels, 4 f hash"    },
    {19, "Tunnel::TunnelTable::ColoredTunnelEndpoint",   "value",
     "2 a tep, 3 a color, 4 a isColored, 5 f isNullPrefix, 6 f ipGenAddr, "
     "7 f stringValue, 8 f hash"                                                                      },
    {20, "Tunnel::L3TunnelInfo",                         "value",
     "2 a src, 3 a dst, 4 a tos, 5 a ttl, 6 a pathMtuDiscovery, "
     "7 f dscp, 8 f hoplimit, 9 f hash"                                                               },
    {21, "Tunnel::GreTunnelInfo",                        "value",
     "2 a src, 3 a dst, 4 a tos, 5 a ttl, 6 a pathMtuDiscovery, "
     "7 f dscp, 8 f hoplimit, 9 f hash, "
     "130 a protocol, 131 a oFlags, 132 a iFlags, 133 a oKey, 134 a iKey"                             },
    {22, "Tunnel::IpsecGreTunnelInfo",                   "value",
     "2 a src, 3 a dst, 4 a tos, 5 a ttl, 6 a pathMtuDiscovery, "
     "7 f dscp, 8 f hoplimit, 9 f hash, "
     "130 a protocol, 131 a oFlags, 132 a iFlags, 133 a oKey, 134 a iKey, "
     "258 a ipsecTableIndex"                                                                          },
    {23, "Tunnel::IpsecVtiTunnelInfo",                   "value",
     "2 a src, 3 a dst, 4 a tos, 5 a ttl, 6 a pathMtuDiscovery, "
     "7 f dscp, 8 f hoplimit, 9 f hash, 130 a ipsecTableIndex"                                        },
    {24, "Tunnel::VxlanTunnelInfo",                      "value",
     "2 a destIp, 3 a srcVti, 4 f toStrep, 5 f hash"                                                  },
    {25, "Tunnel::L3TunnelInfoTable",                    "entity", "258 s entry"                      },
    {26, "Tunnel::GreTunnelInfoTable",                   "entity", "258 s entry"                      },
    {27, "Tunnel::IpsecGreTunnelInfoTable",              "entity", "258 s entry"                      },
    {28, "Tunnel::IpsecVtiTunnelInfoTable",              "entity", "258 s entry"                      },
};

constexpr TypeRow mldpRows[] = {
    {0, "Tunnel::TunnelTable::MldpTunnelRibEntry", "value",
     "2 a tunnelId, 3 a mcastTreeId, 4 f hash, 5 f serializeLen, 6 f serialize, "
     "7 f deserialize, 8 f deserializeLen"                                },
    {1, "Tunnel::TunnelTable::MldpTunnelRib",      "entity", "258 s entry"},
};
constexpr TypeRow multicastRows[] = {
    {0, "Tunnel::TunnelTable::MulticastTunnelTableEntry", "value",
     "2 a tunnelId, 3 a mcastTreeId, 4 f hash, 5 f serializeLen, 6 f serialize, "
     "7 f deserialize, 8 f deserializeLen"},
};
constexpr TypeRow ribRows[] = {
    {0, "Tunnel::TunnelTable::TunnelRibId",        "value",
     "2 a value, 3 c systemTunnelRibId, 4 c systemColoredTunnelRibId, "
     "5 c systemTunnelingLdpTunnelRibId, 6 c systemIgpShortcutTunnelRibId, "
     "7 c maxSystemTunnelRibId, 8 c null, 9 c systemTunnelRibName, "
     "10 c systemColoredTunnelRibName, 11 c systemTunnelingLdpTunnelRibName, "
     "12 c systemIgpShortcutTunnelRibName, 13 f isValid, 14 f isSystemColoredRibId"},
    {1, "Tunnel::TunnelTable::TunnelRibNameIdMap", "entity",
     "258 s nameToId, 259 a currentId, 260 f getFreeId, 261 f tunnelRibNameIs, "
     "262 f tunnelRibNameDel, 263 f removeNonSystemTunnelRibs, 264 f tunnelName, "
     "265 f currentIdInc"                                                          },
};
constexpr TypeRow tableRows[] = {
    {0,  "Tunnel::TunnelTable::TunnelEntryPref",           "value",
     "2 a value, 3 c defaultStaticPref, 4 c defaultNexthopGroupPref, "
     "5 c defaultRsvpLerPref, 6 c defaultLdpPref, 7 c defaultOspfSrPref, "
     "8 c defaultSrPref, 9 c defaultBgpLuPref, 10 c maxPref, 11 c invalidPref, "
     "12 f getDefaultPrefForType"                                                                 },
    {1,  "Tunnel::TunnelTable::TepIndex",                  "value",  "2 a value, 3 c min, 4 c max"},
    {2,  "Tunnel::TunnelTable::NameIndex",                 "value",  "2 a value, 3 c min, 4 c max"},
    {3,  "Tunnel::TunnelTable::ViaIndex",                  "value",  "2 a value, 3 c min, 4 c max"},
    {4,  "Tunnel::TunnelTable::NextHopIndex",              "value",  "2 a value, 3 c min, 4 c max"},
    {5,  "Tunnel::TunnelTable::Id64",                      "value",  "2 a value"                  },
    {6,  "Tunnel::TunnelTable::TunnelCounterId",           "value",
     "2 a value, 3 f convertToTunnelValue"                                                        },
    {7,  "Tunnel::TunnelTable::TunnelTableEntry",          "value",
     "2 a tunnelId, 3 a nexthopTunnelId, 4 a entryPref, 5 a entryMetric, 6 a tunnelBw, "
     "7 s endpoint, 8 s name, 9 f tep, 10 f getName, 11 f setName, 12 f serializeLen, "
     "13 f serialize, 14 f deserialize, 15 f deserializeLen"                                      },
    {8,  "Tunnel::TunnelTable::EvpnVxlanTunnelEntry",      "value",
     "2 a key, 3 a mac, 4 a vlanId, 5 a vni, 6 a vtepAddr, 7 a vti"                               },
    {9,  "Tunnel::TunnelTable::TunnelTableInfo",           "value",
     "2 a tableName, 3 a tableType, 4 a mountPath"                                                },
    {10, "Tunnel::TunnelTable::TunnelIdNamePair",          "value",
     "2 a tunnelId, 3 a tunnelName, 4 f hash"                                                     },
    {11, "Tunnel::TunnelTable::NexthopTunnelL3Info",       "value",
     "2 a groupType, 3 a ttl, 4 a sourceIp, 5 a destinationIp, 6 a mplsLabelStack, "
     "7 a greKeyType, 8 a l3Intf, 9 a l2Intf, 10 a macAddr, 11 a tunnelCounterId, "
     "12 f hash"                                                                                  },
    {12, "Tunnel::TunnelTable::NexthopTunnelL2Info",       "value",
     "2 a vlanId, 3 a l2Intf, 4 a macAddr, 5 a route, 6 a hop, 7 a l3Intf, "
     "8 a tunnelCounterId, 9 a counterIndex, 10 a chipMask, 11 a packets, 12 a bytes"             },
    {13, "Tunnel::TunnelTable::TunnelTableBase",           "entity",
     "258 a tableType, 259 a tunnelTableId, 260 f contributeToTunnelRib"                          },
    {14, "Tunnel::TunnelTable::TunnelTableInfoCollection", "entity", "258 s tableInfo"            },
    {15, "Tunnel::TunnelTable::BgpLuConvergence",          "entity",
     "258 a bgpLuConverged, 259 a bgpLuConvergenceSeqno"                                          },
    {16, "Tunnel::TunnelTable::TunnelConvergence",         "entity",
     "258 s tunnelRibConvergenceSeqno"                                                            },
    {17, "Tunnel::TunnelTable::TunnelNameStatus",          "entity",
     "258 s tunnelNameToId, 259 s tunnelIdToName, 260 s tunnelIdNamePair, "
     "261 f addTunnelIdNamePair, 262 f delTunnelIdNamePair"                                       },
    {18, "Tunnel::TunnelTable::ProtocolTunnelNameStatus",  "entity",
     "258 s localTunnelNameStatus"                                                                },
    {19, "Tunnel::TunnelTable::NexthopTunnelTable",        "entity",
     "258 a tableType, 259 a tunnelTableId, 260 f contributeToTunnelRib, 386 s entry, "
     "387 a nextAvailableIndex"                                                                   },
    {20, "Tunnel::TunnelTable::NexthopHwTunnelTable",      "entity",
     "258 a tableType, 259 a tunnelTableId, 260 f contributeToTunnelRib, 386 s entry, "
     "387 s hwKeyToTunnelId, 388 f tunnelIdFromPlatformKey"                                       },
};

struct ModuleRow {
  const char* name;
  std::span<const TypeRow> types;
};
const ModuleRow moduleRows[] = {
    {"StaticTunnelConfig",            staticRows   },
    {"NexthopGroupTunnelConfigInput", groupRows    },
    {"DecapGroupHivelTypes",          decapRows    },
    {"MplsTunnelConfig",              mplsRows     },
    {"TunnelBasicTypes",              basicRows    },
    {"TunnelIntfId",                  intfRows     },
    {"TunnelRibId",                   ribRows      },
    {"TunnelTableHivelTypes",         tableRows    },
    {"MldpTunnelHivelTypes",          mldpRows     },
    {"MulticastTunnelTableEntry",     multicastRows},
};

// Catches a type or a member whose number moved: peers and stored data go by the numbers.
TEST(Registry, typesAndMembers) {
  for (const ModuleRow& row : moduleRows) {
    SCOPED_TRACE(row.name);
    const auto* module = Kop::findModule(row.name);
    ASSERT_NE(module, nullptr);
    ASSERT_GE(module->types.size(), row.types.size());  // appended to, never less
    for (const TypeRow& wanted : row.types) {
      SCOPED_TRACE(wanted.name);
      const Kop::TypeRecord& type = module->types[wanted.index];
      EXPECT_EQ(type.name, wanted.name);
      EXPECT_EQ(kindOf(type), wanted.kind);
      EXPECT_EQ(described(type), wanted.members);
      EXPECT_EQ(Kop::findType(wanted.name), &type);
      for (const auto& member : type.members) {
        EXPECT_EQ(type.member(member.number), &member);
        EXPECT_EQ(type.member(member.name), &member);
      }
    }
  }
  EXPECT_EQ(Decap::configInputFactory("c")->fwkType().index, 8u);
  EXPECT_EQ(mplsTunnelConfigFactory("m")->fwkType().index, 0u);
  EXPECT_EQ(nexthopHwTunnelTableFactory("t")->fwkType().index, 20u);
}

const Kop::MemberRecord& memberOf(const char* type, std::string_view member) {
  return *Kop::findType(type)->member(member);
}
Kop::GenericValue read(const Kop::ValueTable& table, const void* value, U32 number) {
  const auto& member = *Kop::findType(table.ops->name)->member(number);
  Kop::GenericValue result(member.ops->type);
  EXPECT_TRUE(table.attributeOp(Kop::AttributeOp::get, const_cast<void*>(value), nullptr,
                                number, result.get()));
  return result;
}

// Catches a member that is read from, or called as, another one.
TEST(Reflection, readsAttributesConstantsAndResults) {
  const auto& type = *Kop::findType("Tunnel::TunnelTable::TunnelId");
  const TunnelId id(TunnelId::convertToTunnelValue(ldpTunnel, 26));
  struct Row {
    const char* member;
    const char* text;
  };
  constexpr Row rows[] = {
      {"value",                    "52776558133274"            },
      {"invalid",                  "0"                         },
      {"typeMin",                  "0"                         },
      {"typeMax",                  "15"                        },
      {"minValue",                 "0"                         },
      {"maxValue",                 "562949953421311"           },
      {"isValid",                  "True"                      },
      {"tunnelType",               "ldpTunnel"                 },
      {"tunnelIndex",              "26"                        },
      {"tableType",                "ldpTunnelTable"            },
      {"tunnelTransportType",      "mplsTunnel"                },
      {"tunnelAf",                 "ipv4"                      },
      {"supportsEntropyLabelPush", "True"                      },
      {"extractIndexAndAf",        "26"                        },
      {"toStrep",                  "'Table:ldpTunnel-Index:1a'"},
      {"toCliStrep",               "'LDP tunnel index 26'"     },
      {"typeCliStr",               "'LDP'"                     },
      {"addressFamilyCliStr",      "'IPv4'"                    },
      {"intfId",                   "'DynamicTunnel3145728.26'" },
      {"intfCliStr",               "'DynamicTunnel3145728.26'" },
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.member);
    EXPECT_EQ(read(*type.value, &id, type.member(row.member)->number).text(), row.text);
  }
  U32 hash = 0;
  EXPECT_TRUE(type.value->attributeOp(Kop::AttributeOp::get, const_cast<TunnelId*>(&id),
                                      nullptr, 23, &hash));
  EXPECT_EQ(hash, id.hash());
  Kop::GenericValue algo(type.member("extractFlexAlgoId")->ops->type);
  EXPECT_THROW(type.value->attributeOp(Kop::AttributeOp::get, const_cast<TunnelId*>(&id),
                                       nullptr, 16, algo.get()),
               Kop::RangeException);
  for (const U32 number : {0u, 1u, 28u, 258u, 25u})  // none, or one that takes arguments
    EXPECT_FALSE(type.value->attributeOp(
        Kop::AttributeOp::get, const_cast<TunnelId*>(&id), nullptr, number, &hash));
}

// Catches a text that reflection cannot see because nothing makes a String of it at load, and
// arrays whose elements are seen as another type's or not at all.
TEST(Reflection, textConstantsAndArrays) {
  const auto& name =
      memberOf("Tunnel::TunnelTable::TunnelRibId", "systemColoredTunnelRibName");
  EXPECT_EQ(name.type, "Kop::String");
  const TunnelRibId id(7);
  EXPECT_EQ(
      read(*Kop::findType("Tunnel::TunnelTable::TunnelRibId")->value, &id, name.number)
          .text(),
      "'system-colored-tunnel-rib'");

  constexpr const char* entryType = "Tunnel::TunnelTable::TunnelTableEntry";
  const auto& endpoint = memberOf(entryType, "endpoint");
  EXPECT_EQ(endpoint.kind, MemberKind::collection);
  EXPECT_EQ(endpoint.type, "Vantor::IpGenPrefix");
  ASSERT_EQ(endpoint.arguments.size(), 1u);
  EXPECT_EQ(endpoint.arguments[0], "Tunnel::TunnelTable::TepIndex");
  TunnelTableEntry entry;
  const auto* const elements = endpoint.ops->type->elements;
  ASSERT_NE(elements, nullptr);
  const TepIndex second(1);
  const Vantor::IpGenPrefix prefix(Kop::String("10.0.0.0/8"));
  elements->insert(const_cast<void*>(endpoint.ops->at(&entry)), &second, &prefix);
  EXPECT_EQ(entry.endpoint(second), prefix);
  EXPECT_EQ(elements->count(endpoint.ops->at(&entry)), 2u);
  std::string seen;
  elements->each(
      endpoint.ops->at(&entry), &seen,
      [](void* context, const void* key, const void* value) {
        *static_cast<std::string*>(context) +=
            std::to_string(static_cast<const TepIndex*>(key)->value()) + ' ' +
            static_cast<const Vantor::IpGenPrefix*>(value)->stringValue().c_str() + ';';
      });
  EXPECT_EQ(seen, "0 ;1 10.0.0.0/8;");
  const auto& bytes = memberOf(entryType, "name");  // bytes are a text
  EXPECT_EQ(bytes.type, "U8");
  EXPECT_EQ(bytes.ops->type->elements, nullptr);
}

// Catches arguments that are taken in another order, type or place.
TEST(Reflection, callsWithArguments) {
  const auto& convert =
      memberOf("Tunnel::TunnelTable::TunnelId", "convertToFlexAlgoTunnelValue");
  ASSERT_EQ(convert.arguments.size(), 3u);
  EXPECT_EQ(convert.arguments[0], "Tunnel::TunnelTable::TunnelType");
  EXPECT_EQ(convert.arguments[1], "U8");
  EXPECT_EQ(convert.arguments[2], "U64");
  EXPECT_EQ(convert.type, "U64");
  EXPECT_TRUE(convert.ops->isStatic);
  TunnelType type = isisFlexAlgoTunnel;
  const U8 algo = 128;
  const U64 index = 7;
  U64 word = 0;
  const void* arguments[] = {&type, &algo, &index};
  convert.ops->call(nullptr, arguments, &word);
  EXPECT_EQ(word, 0x1540000000007u);
  type = srTunnel;
  EXPECT_THROW(convert.ops->call(nullptr, arguments, &word), Kop::RangeException);

  EncapId encap;
  const auto& set = memberOf("Tunnel::TunnelTable::EncapId", "encapValueIs");
  EXPECT_TRUE(set.ops->changes);
  const EncapType kind = mplsEncap;
  const U32 seven = 7;
  const void* fields[] = {&kind, &seven};
  set.ops->call(&encap, fields, nullptr);
  EXPECT_EQ(encap.encapIdValue(), 0x40000007u);

  const auto& hash = memberOf("Tunnel::TunnelTable::HwTunnelKey", "hash");
  HwTunnelKey key(5, Brel::ChipId(1));
  const U32 one = 1;
  const void* seed[] = {&one};
  U32 result = 0;
  hash.ops->call(&key, seed, &result);
  EXPECT_EQ(result, 0x22e480fbu);
}

// Catches a constructor that is found for arguments it does not have, or that skips a check.
TEST(Reflection, constructs) {
  const auto& id = *Kop::findType("Tunnel::TunnelTable::TunnelId")->value;
  const Kop::TypeOps* u64 = memberOf("Tunnel::TunnelTable::TunnelId", "value").ops->type;
  const Kop::TypeOps* u32 =
      memberOf("Tunnel::TunnelTable::TunnelId", "typeMax").ops->type;
  Kop::GenericValue made(id.ops);
  const auto make = [&](const Kop::TypeOps* type, const void* value) {
    const std::array arguments{
        Kop::GenericArg{type, value}
    };
    id.ops->destruct(made.get());
    id.ops->construct(made.get(), nullptr);
    id.constructFromCtorArgs(made.get(), arguments);
  };
  const U64 good = 5, bad = U64{1} << 49;
  make(u64, &good);
  EXPECT_EQ(made.text(), "5");
  EXPECT_THROW(make(u64, &bad), Kop::RangeException);
  EXPECT_THROW(make(u32, &good), Kop::Exception);
  EXPECT_EQ(made.text(), "0");

  const auto& number = *Kop::findType("Tunnel::TunnelEntrySequenceNumber")->value;
  TunnelEntrySequenceNumber a(65535), b(1);
  EXPECT_TRUE(number.attributeOp(Kop::AttributeOp::add, &a, &b, 0, nullptr));
  EXPECT_EQ(a.value(), 1);
  EXPECT_FALSE(id.attributeOp(Kop::AttributeOp::add, made.get(), made.get(), 0, nullptr));
}

template <class T>
bool truth(const T& value) {
  bool result = false;
  T copy = value;
  EXPECT_TRUE(
      Kop::findType(Kop::typeName<T>())
          ->value->attributeOp(Kop::AttributeOp::truth, &copy, nullptr, 0, &result));
  return result;
}

// Catches a truth that looks at another attribute than the first, or past a rule of its own.
TEST(Reflection, truth) {
  EXPECT_FALSE(truth(TunnelId()) || truth(EncapId()) || truth(TunnelIdConstants()));
  EXPECT_TRUE(truth(TunnelId(1)) && truth(EncapId(1)));
  EXPECT_FALSE(truth(TunnelBandwidth()));
  EXPECT_TRUE(truth(TunnelBandwidth(0.0f)));
  EXPECT_FALSE(truth(HwTunnelKey(0, Brel::ChipId(5))));
  EXPECT_TRUE(truth(TunnelEntrySequenceNumber(1)));
  using Vantor::DynamicTunnelIntfId;
  EXPECT_FALSE(truth(DynamicTunnelIntfId()));
  EXPECT_TRUE(truth(DynamicTunnelIntfId(DynamicTunnelIntfId::tunnelIdToIntfId(0))));
  Decap::DecapExcludeIntfSet set;
  EXPECT_FALSE(truth(set));
  set.excludeIntfIs(Vantor::IntfId());
  EXPECT_TRUE(truth(set));
  EXPECT_TRUE(truth(
      Decap::DecapExcludeIntfSet(Decap::DecapIntfKey(Vantor::IntfId(), Vantor::ipv4))));
}

// Catches an error that does not say which type it is about.
TEST(Reflection, unhashableNamesTheType) {
  for (const char* name :
       {"Tunnel::TunnelTable::TunnelIdConstants", "Tunnel::TunnelTable::EncapIdConstants",
        "Tunnel::TunnelEntrySequenceNumber", "Tunnel::Decap::DecapIntf",
        "Tunnel::Decap::DecapExcludeIntfSet", "Tunnel::Static::StaticTunnelConfigEntry",
        "Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry"}) {
    const Kop::GenericValue value(Kop::findType(name)->value->ops);
    try {
      value.type()->hash(value.get());
      ADD_FAILURE() << name << " has a hash";
    } catch (const Kop::UnhashableTypeException& error) {
      EXPECT_STREQ(error.what(), name);
    }
  }
}

// Catches a load that prints, registers twice or in another order, or whose descriptors go
// with dlclose.
TEST(Load, printsNothingAndRegistersOnce) {
  const std::string file = testing::TempDir() + "tunnel-load-output";
  const std::string command = std::string(TUNNEL_LOAD_PROBE " ") +
                              HOUSE_LIB_DIR "/libTunnelHivelTypes.so.0 '" + file + "'";
  FILE* const pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::vector<std::string> loaded;
  char line[256];
  while (std::fgets(line, sizeof line, pipe))
    loaded.emplace_back(line, std::strlen(line) - 1);
  const int status = pclose(pipe);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  std::ostringstream printed;
  printed << std::ifstream(file).rdbuf();
  EXPECT_EQ(printed.str(), "");
  std::remove(file.c_str());

  // The libraries below register modules of their own, before ours.
  constexpr const char* order[] = {
      "DecapGroupHivelTypes",  "MplsTunnelConfig",
      "StaticTunnelConfig",    "TunnelBasicTypes",
      "TunnelIntfId",          "TunnelRibId",
      "TunnelTableHivelTypes", "NexthopGroupTunnelConfigInput",
      "MldpTunnelHivelTypes",  "MulticastTunnelTableEntry"};
  std::size_t at = 0, found = 0;
  for (const char* module : order) {
    const auto count = std::count(loaded.begin(), loaded.end(), module);
    const bool wanted = Kop::findModule(module) != nullptr;
    EXPECT_EQ(count, wanted ? 1 : 0) << module;
    if (count == 0) continue;
    const auto place = std::find(loaded.begin(), loaded.end(), module) - loaded.begin();
    EXPECT_GE(static_cast<std::size_t>(place), at) << module;
    at = static_cast<std::size_t>(place);
    ++found;
  }
  EXPECT_GE(found, std::size(moduleRows));
}

}  // namespace
}  // namespace Tunnel
