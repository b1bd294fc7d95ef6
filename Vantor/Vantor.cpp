#include "Kop/ModuleImpl.h"
#include "Kop/ValueImpl.h"
#include "Vantor/AddressFamily.h"
#include "Vantor/DynamicMplsLabelStack.h"
#include "Vantor/EthAddr.h"
#include "Vantor/GreKeyType.h"
#include "Vantor/IntfId.h"
#include "Vantor/IpDscp.h"
#include "Vantor/IpGenPrefix.h"
#include "Vantor/MplsLabelOperation.h"

// Registers the library's types, so that they are found by name. Written with ::, because the
// module is described in a namespace of its own name.

KOP_MODULE(Vantor,
           b85371cf157bcf88,
           ::Vantor::AddressFamily,
           ::Vantor::MplsOperation,
           ::Vantor::GreKeyType,
           ::Vantor::IpGenAddr,
           ::Vantor::IpGenPrefix,
           ::Vantor::IntfId,
           ::Vantor::EthAddr,
           ::Vantor::IpDscp,
           ::Vantor::MplsLabelOperation,
           ::Vantor::DynamicMplsLabelStack);
KOP_INSTANTIATE_ENUM(Vantor::AddressFamily);
KOP_INSTANTIATE_ENUM(Vantor::MplsOperation);
KOP_INSTANTIATE_ENUM(Vantor::GreKeyType);
