#include "TestTypes.h"

#include "Kop/EntityImpl.h"
#include "Kop/ModuleImpl.h"

KOP_MODULE(GardenTypes, 68665c0481055ac6, Garden::Bed, Garden::Plot, Garden::Shed);
KOP_INSTANTIATE_ENTITY(Garden, Bed);
KOP_INSTANTIATE_ENTITY(Garden, Plot);
KOP_INSTANTIATE_ENTITY(Garden, Shed);
