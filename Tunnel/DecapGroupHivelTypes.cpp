#include "Tunnel/DecapGroupHivelTypes.h"

#include "Kop/EntityImpl.h"
#include "Kop/ModuleImpl.h"

namespace Tunnel::Decap {

namespace {

// What people are shown; the interface goes without the quotes of its machine form.

void write(Kop::TextOut& out, const DecapIntfKey& key) {
  out.append(" Intf: ");
  key.intfId().bareWrite(out);
  out.append(" address-family: ");
  strepWrite(out, key.addressFamily());
}

}  // namespace

Kop::String DecapIntfKey::stringValue() const {
  Kop::TextOut out;
  write(out, *this);
  return out.string();
}

Kop::String DecapIntf::stringValue() const {
  Kop::TextOut out;
  write(out, decapIntfKey());
  out.append(" address-type: ");
  strepWrite(out, addressType());
  out.append(" oldConfig: ");
  out.append(oldConfig() ? '1' : '0');
  return out.string();
}

DecapExcludeIntfSet::operator bool() const {
  return !(*this == DecapExcludeIntfSet());
}

bool valueLess(const DecapExcludeIntfSet& a, const DecapExcludeIntfSet& b) {
  const auto &ours = a.excludeIntf(), &theirs = b.excludeIntf();
  if (ours.count() != theirs.count()) return ours.count() < theirs.count();
  if (&a == &b || ours == theirs) return a.decapIntfKey() < b.decapIntfKey();
  for (auto x = ours.iteratorConst(), y = theirs.iteratorConst(); x && y;
       x.advance(), y.advance())
    if (x.key() != y.key()) return x.key() < y.key();
  return false;
}

U32 valueHash(const DecapIntf&, U32) = delete;
U32 valueHash(const DecapExcludeIntfSet&, U32) = delete;

void valueParse(DecapExcludeIntfSet&, Kop::TextIt&, const Kop::TextIt&) {
  Kop::noStringConstructor(
      "!\"No String constructor for DecapExcludeIntfSet - has collection\"",
      "Tunnel/DecapGroupHivelTypes");
}

}  // namespace Tunnel::Decap

KOP_MODULE(DecapGroupHivelTypes,
           3e21b07568dab034,
           Tunnel::Decap::TunnelType,
           Tunnel::Decap::PayloadType,
           Tunnel::Decap::TunnelDecapIpSrc,
           Tunnel::Decap::AddressType,
           Tunnel::Decap::DecapIntfKey,
           Tunnel::Decap::DecapIntf,
           Tunnel::Decap::DecapExcludeIntfSet,
           Tunnel::Decap::DecapGroup,
           Tunnel::Decap::ConfigInput,
           Tunnel::Decap::CountersClearConfig,
           Tunnel::Decap::Hardware::Capability,
           Tunnel::Decap::Hardware::Status);
KOP_INSTANTIATE_ENUM(Tunnel::Decap::TunnelType);
KOP_INSTANTIATE_ENUM(Tunnel::Decap::PayloadType);
KOP_INSTANTIATE_ENUM(Tunnel::Decap::TunnelDecapIpSrc);
KOP_INSTANTIATE_ENUM(Tunnel::Decap::AddressType);
KOP_INSTANTIATE_VALUE(Tunnel::Decap::DecapIntfKey);
KOP_INSTANTIATE_VALUE(Tunnel::Decap::DecapIntf);
KOP_INSTANTIATE_VALUE(Tunnel::Decap::DecapExcludeIntfSet);
KOP_INSTANTIATE_ENTITY(Tunnel::Decap, DecapGroup);
KOP_INSTANTIATE_ENTITY(Tunnel::Decap, ConfigInput);
KOP_INSTANTIATE_ENTITY(Tunnel::Decap, CountersClearConfig);
KOP_INSTANTIATE_ENTITY(Tunnel::Decap::Hardware, Capability);
KOP_INSTANTIATE_ENTITY(Tunnel::Decap::Hardware, Status);
