#include "Tunnel/TunnelIntfId.h"

#include "Kop/ModuleImpl.h"
#include "Kop/ValueImpl.h"

namespace Vantor {

U32 valueHash(const DynamicTunnelIntfId& intf, U32) {
  return intf.intfId().hash();
}

void valueText(Kop::TextOut& out, const DynamicTunnelIntfId& intf) {
  out.number(intf.intfId().value());
}
void valueParse(DynamicTunnelIntfId& intf, Kop::TextIt& it, const Kop::TextIt& end) {
  intf = DynamicTunnelIntfId(IntfId::fromValue(Kop::readAttr<U64>(it, end, "intfId")));
}

}  // namespace Vantor

KOP_MODULE(TunnelIntfId, 38fc6adb2772823e, Vantor::DynamicTunnelIntfId);
KOP_INSTANTIATE_VALUE(Vantor::DynamicTunnelIntfId);
