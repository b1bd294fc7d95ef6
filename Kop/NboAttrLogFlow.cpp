#include "Kop/NboAttrLogFlow.h"

#include "Kop/NboAttrLogSa.h"

namespace Kop::NboAttrLog {

CollFlow::~CollFlow() = default;

FlowOut::FlowOut(const EntityTable& table, AttributeId start)
    : table_(table), flags_(table.attrs.size()), colls_(table.attrs.size()) {
  for (std::size_t i = 0; i < flags_.size(); ++i) {
    const EntityAttr& attr = table.attrs[i];
    flags_[i] = attr.collection ? attr.number < start : attr.number >= start;
  }
}
FlowOut::~FlowOut() = default;

U32 FlowOut::index(AttributeId attribute) const {
  const EntityAttr* const attr = table_.find(attribute);
  KOP_ASSERT(attr, "table_.find(attribute)", "NboAttrLogFlow");
  return static_cast<U32>(attr - table_.attrs.data());
}

CollFlow& FlowOut::collFlow(AttributeId collection) {
  const U32 i = index(collection);
  if (!colls_[i]) colls_[i] = table_.attrs[i].collection->newFlow();
  return *colls_[i];
}

void FlowOut::bookmarkClear() {
  if (bookmark_) collFlow(bookmark_).bookmarkClear();
  bookmark_ = 0;
}

bool FlowOut::hasDirtyCollKeys() const {
  for (const auto& coll : colls_)
    if (coll && coll->dirtyCount() > 0) return true;
  return false;
}

AttributeId FlowOut::firstDirty() const {
  for (std::size_t i = 0; i < flags_.size(); ++i) {
    const bool collection = table_.attrs[i].collection != nullptr;
    const bool keys = colls_[i] && colls_[i]->dirtyCount() > 0;
    if (collection ? !flags_[i] || keys : flags_[i]) return table_.attrs[i].number;
  }
  return 0;
}
bool FlowOut::isClean() const {
  return firstDirty() == 0;
}

void FlowOut::restart(AttributeId collection) {
  if (bookmark_ == collection) bookmarkClear();
  collFlow(collection).clear();
  kopHasSyncedIs(collection, false);
}

void FlowOut::freeResyncState() {
  for (auto& coll : colls_)
    coll.reset();
  bookmark_ = 0;
}

}  // namespace Kop::NboAttrLog
