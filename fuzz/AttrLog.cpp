#include "Check.h"
#include "Kop/Exception.h"
#include "Kop/NboAttrLogSa.h"
#include "Tunnel/DecapGroupHivelTypes.h"

// A run of frames for a replica of decap groups, each with its length word. The root's
// messages carry identity 1. Every frame is applied whole or refused; whatever came, the
// copy is a sound tree afterwards.

using Kop::NboAttrLog::Session;
using Kop::NboAttrLog::Stream;
using namespace Tunnel::Decap;

namespace {

void check(const Kop::Ptr<ConfigInput>& root) {
  root->globalDestPortToPayloadType().verify();
  root->decapGroup().verify();
  for (const auto& node : root->decapGroup()) {
    DecapGroup& group = *node.value;
    FUZZ_CHECK(group.name() == node.key());
    FUZZ_CHECK(group.parent() == root.get());
    FUZZ_CHECK(root->decapGroup(node.key()).get() == &group);
    FUZZ_CHECK(group.readOnlyProxy());
    group.decapIp().verify();
    group.decapIntf().verify();
    group.decapExcludeIntfSet().verify();
    for (const auto& set : group.decapExcludeIntfSet())
      set.value.excludeIntf().verify();
  }
}

// Another copy that is brought up to date from this one must equal it.
void checkCopy(const Kop::Ptr<ConfigInput>& root) {
  const auto copy = ConfigInput::ConfigInputIs("copy");
  Stream out, in;
  Session writer(out, root, Session::writes);
  Session reader(in, copy, Session::reads, root->identity());
  writer.resync();
  bool done;
  do {
    done = writer.process();
    while (!out.out().empty()) {
      Kop::NboAttrLog::In bytes(out.out().data(), out.out().size());
      const U32 size = bytes.nextU32();
      in.received({bytes.at(), size});
      out.out().consume(Kop::NboAttrLog::lengthSize + size);
    }
  } while (!done);
  FUZZ_CHECK(copy->globalDestPortToPayloadType() == root->globalDestPortToPayloadType());
  FUZZ_CHECK(copy->decapGroupCount() == root->decapGroupCount());
  for (const auto& node : root->decapGroup()) {
    const DecapGroup& group = *node.value;
    const auto other = copy->decapGroup(node.key());
    FUZZ_CHECK(other);
    FUZZ_CHECK(other->decapIp() == group.decapIp());
    FUZZ_CHECK(other->decapIntf() == group.decapIntf());
    FUZZ_CHECK(other->decapExcludeIntfSet() == group.decapExcludeIntfSet());
    FUZZ_CHECK(other->tunnelType() == group.tunnelType());
    FUZZ_CHECK(other->destinationPort() == group.destinationPort());
    FUZZ_CHECK(other->payloadType() == group.payloadType());
    FUZZ_CHECK(other->dynamic() == group.dynamic());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const auto root = ConfigInput::ConfigInputIs("root");
  {
    Stream stream;
    Session session(stream, root, Session::reads, 1);
    try {
      Kop::NboAttrLog::In in(bytes, size);
      while (in.remaining() >= Kop::NboAttrLog::lengthSize) {
        const U32 frame = in.nextU32();
        if (in.remaining() < frame) break;
        const U8* const at = in.at();
        in.skip(frame);
        stream.received({at, frame});
      }
    } catch (const Kop::LogCorruptException&) {
    } catch (const Kop::RangeException&) {
    }
    check(root);
  }
  checkCopy(root);
  return 0;
}
