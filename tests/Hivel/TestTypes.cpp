#include "TestTypes.h"

#include "Kop/EntityImpl.h"
#include "Kop/ModuleImpl.h"

KOP_MODULE(GardenTypes, 51a57c95d9a0be07, Garden::Bed, Garden::Plot);
KOP_INSTANTIATE_ENTITY(Garden, Bed);
KOP_INSTANTIATE_ENTITY(Garden, Plot);
