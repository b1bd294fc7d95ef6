#include <cerrno>
#include <deque>

#include "apps/linuximport/LinkStream.h"
#include "apps/linuximport/Tables.h"
#include "tests/Support/Testing.h"
#include "tests/linuximport/Messages.h"

namespace LinuxImport {
namespace {

template <class Entity>
std::multiset<std::string> entriesOf(const Tables& tables, std::size_t which) {
  std::multiset<std::string> entries;
  const auto entity = tables.entity(which);
  for (const auto& node : static_cast<const Entity&>(*entity).entry())
    entries.emplace(valueToStrep(node.key()));
  return entries;
}

// A stream with tables behind it, as the command has them.
class Followed : public testing::Test {
 protected:
  Followed() {
    stream_.onAll = [this](const Links& links) {
      ++lists_;
      tables_.allAre(links);
    };
    stream_.onLink = [this](const Link& link) { tables_.linkIs(link); };
    stream_.onGone = [this](U32 index) { tables_.linkDel(index); };
  }
  void receive(const Message& message) { stream_.receive(message.span()); }
  static Message vxlan(U16 type, U32 sequence, U32 index, U32 vni, U16 flags = 0) {
    return Message(type, sequence, flags)
        .link(index, "x" + std::to_string(index))
        .tunnel("vxlan", "2=0a000002 1=0" + std::to_string(vni) + "000000");
  }
  static std::string entry(U32 vni) {
    return std::string(valueToStrep(Tunnel::VxlanTunnelInfo(
        Vantor::IpGenAddr::fromIpv4(0x0a000002),
        Vantor::IntfId(Kop::String("Vxlan" + std::to_string(vni))))));
  }
  std::multiset<std::string> vxlans() const {
    return entriesOf<LinuxTunnel::VxlanTunnelInfoTable>(tables_, 4);
  }
  static Message done(U32 sequence, int status = 0, U16 type = NLMSG_DONE) {
    return Message(type, sequence, NLM_F_MULTI).number(status);
  }

  LinkStream stream_;
  Tables tables_;
  int lists_ = 0, agreed_ = 0;
};

// Catches a port that leaves a bridge and is taken for an interface that is gone, an entry
// that goes with the first of two interfaces that are it, a change or a new name that is lost.
TEST_F(Followed, appliesWhatAKernelSent) {
  stream_.dumpIsAsked(1);
  receive(done(1));
  std::vector<std::string> told;
  tables_.onChange = [&](U32, const Imported* before, const Imported* after) {
    told.push_back((before ? before->name : "") + ">" + (after ? after->name : ""));
  };
  U32 ofBridge = 0;
  const Bytes recording = Support::bytesIn("tests/linuximport/events.nl");
  forEachMessage(recording, [&](const nlmsghdr* header) {
    const Link link = readLink(payloadOf(header));
    EXPECT_TRUE(link.faults.empty());
    ofBridge += link.isBridgePort && header->nlmsg_type == RTM_DELLINK;
    stream_.receive({reinterpret_cast<const U8*>(header), header->nlmsg_len});
  });
  EXPECT_EQ(ofBridge, 1u);
  EXPECT_EQ(told, (std::vector<std::string>{">a0", "a0>b0", "b0>b0", ">c0", ">d0", "c0>",
                                            ">e0", "e0>"}));
  const auto gre = entriesOf<Tunnel::GreTunnelInfoTable>(tables_, 2);
  ASSERT_EQ(gre.size(), 1u);
  EXPECT_NE(gre.begin()->find("'dst': '10.1.0.9'"), std::string::npos) << *gre.begin();
  EXPECT_EQ(entriesOf<Tunnel::L3TunnelInfoTable>(tables_, 1).size(), 1u);
}

// Catches the end of another list or of one with gaps that is taken for that of a whole one, an
// error of the kernel that is no error, and half a message that is none.
TEST_F(Followed, takesOnlyWhatIsWhole) {
  stream_.dumpIsAsked(1);
  stream_.cut();
  stream_.dumpIsAsked(2);
  receive(done(1));
  stream_.lost();
  receive(done(2));
  EXPECT_EQ(lists_, 0);
  stream_.dumpIsAsked(3);
  EXPECT_THROW(receive(done(3, -EPERM, NLMSG_ERROR)), NetlinkException);
  EXPECT_THROW(stream_.receive(done(4).span().first(18)), NetlinkException);
}

// Catches any order of lists, events and losses after which the table is not what the kernel
// has: random ones against a plain map, with lists that the kernel breaks off and datagrams that
// do not fit. The queue between is that of a socket: full, it loses
// events until it has been read to its end, and says so once, before what is in it.
TEST_F(Followed, endsAtWhatTheKernelHas) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto below = [&](U32 n) { return static_cast<U32>(random() % n); };
  const auto stranger = tables_.entity(4);
  static_cast<LinuxTunnel::VxlanTunnelInfoTable&>(*stranger).entryIs({}, true);

  std::map<U32, U32> kernel;  // VNI by index
  std::deque<Message> queue;
  bool isCongested = false, isLost = false;
  const auto event = [&](const Message& message) {
    if (queue.size() < 10 && !isCongested) return queue.push_back(message);
    isLost = isLost || !isCongested;
    isCongested = true;
  };
  U32 sequence = 0, at = 0;  // the dump has told the indices below
  bool isDumping = false;
  for (int step = 0; step < 50000; ++step) {
    const U32 index = 1 + below(12), vni = below(6);
    switch (below(12)) {
      case 0:
        kernel[index] = vni;
        event(vxlan(RTM_NEWLINK, 0, index, vni));
        break;
      case 1:
        if (kernel.erase(index) > 0) event(vxlan(RTM_DELLINK, 0, index, 0));
        break;
      case 2:
        if (below(50) == 0) stream_.askAgain();
        break;
      case 3:
      case 4:
      case 5:
        if (!isDumping || queue.size() > 5) break;
        if (const auto next = kernel.lower_bound(at); next == kernel.end()) {
          queue.push_back(done(sequence));
          isDumping = false;
        } else if (below(200) == 0) {
          queue.push_back(done(sequence, -EBUSY, NLMSG_ERROR));
          isDumping = false;
        } else {
          queue.push_back(vxlan(RTM_NEWLINK, sequence, next->first, next->second,
                                below(200) == 0 ? NLM_F_DUMP_INTR : 0));
          at = next->first + 1;
        }
        break;
      default:
        if (below(30) != 0 && step % 500 < 100) break;  // a reader that is slow at times
        if (std::exchange(isLost, false)) {
          stream_.lost();
        } else if (!queue.empty()) {
          if (below(200) == 0)
            stream_.cut();
          else
            receive(queue.front());
          queue.pop_front();
          isCongested = isCongested && !queue.empty();
        } else if (stream_.wantsDump()) {
          stream_.dumpIsAsked(++sequence);
          isDumping = true;
          at = 0;
        }
    }
    if (!stream_.isComplete() || !queue.empty() || isLost) continue;
    std::set<std::string> wanted;
    for (const auto& [unused, number] : kernel)
      wanted.insert(entry(number));
    const auto held = vxlans();
    ASSERT_EQ(std::set<std::string>(held.begin(), held.end()), wanted) << "step " << step;
    ++agreed_;
  }
  EXPECT_GT(lists_, 50);
  EXPECT_GT(agreed_, 1000);
}

}  // namespace
}  // namespace LinuxImport
