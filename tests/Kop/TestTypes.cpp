#include "TestTypes.h"

#include "Kop/EntityImpl.h"
#include "Kop/ModuleImpl.h"

namespace Sample {

Level::Level(U16 value) : value_(value) {
  if (value != 0 && (value < 3 || value > 900))
    throw Kop::RangeException("Sample::Level::value is no level");
}
void valueParse(Level& level, Kop::TextIt& it, const Kop::TextIt& end) {
  level = Level(Kop::readAttr<U16>(it, end, "value"));
}
void valueLogRead(Level& level, Kop::NboAttrLog::In& in) {
  level = Level(in.nextU16());
}

bool valueLess(const Hop& a, const Hop& b) {
  return a.cost() == b.cost() ? a.node() < b.node() : a.cost() < b.cost();
}
U32 Hop::hash() const {
  return Kop::OneAtATime().u32(node()).result();
}
U32 Hop::weighed(U32 factor, const Kop::String& text) const {
  return cost() * factor + text.size();
}
U32 FarHop::hash() const {
  return Hop::hash() ^ via().hash();
}

void valueParse(Crowd&, Kop::TextIt&, const Kop::TextIt&) {
  Kop::noStringConstructor("!\"No String constructor for Crowd - has collection\"",
                           "Sample/TestTypes");
}

}  // namespace Sample

KOP_MODULE(TestTypes,
           ba48ab1af487938a,
           Sample::Shape,
           Sample::Colour,
           Sample::Level,
           Sample::Port,
           Sample::Place,
           Sample::Area,
           Sample::Hop,
           Sample::FarHop,
           Sample::Crowd,
           Sample::Stop,
           Sample::Leaf,
           Sample::Branch,
           Sample::Slot,
           Sample::Tree,
           Sample::TallTree);

KOP_INSTANTIATE_ENUM(Sample::Shape);
KOP_INSTANTIATE_ENUM(Sample::Colour);
KOP_INSTANTIATE_VALUE(Sample::Level);
KOP_INSTANTIATE_VALUE(Sample::Port);
KOP_INSTANTIATE_VALUE(Sample::Place);
KOP_INSTANTIATE_VALUE(Sample::Area);
KOP_INSTANTIATE_VALUE(Sample::Hop);
KOP_INSTANTIATE_VALUE(Sample::FarHop);
KOP_INSTANTIATE_VALUE(Sample::Crowd);
KOP_INSTANTIATE_VALUE(Sample::Stop);
KOP_INSTANTIATE_ENTITY(Sample, Leaf);
KOP_INSTANTIATE_ENTITY(Sample, Branch);
KOP_INSTANTIATE_ENTITY(Sample, Slot);
KOP_INSTANTIATE_ENTITY(Sample, Tree);
KOP_INSTANTIATE_ENTITY(Sample, TallTree);

namespace Sample {

std::unique_ptr<Kop::NboAttrLog::FlowOut> newFlowOut(Kop::EntitySa& sa,
                                                     Kop::AttributeId start) {
  return Kop::TypeImpl<TallTree>::newFlowOut(sa, false, start);
}

}  // namespace Sample
