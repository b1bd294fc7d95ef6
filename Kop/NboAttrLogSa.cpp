#include "Kop/NboAttrLogSa.h"

#include <algorithm>

#include "Kop/Assert.h"
#include "Kop/Module.h"

namespace Kop {

namespace NboAttrLog {

namespace {

// Below this many marked keys a collection is never sent again instead.
constexpr U64 fewKeys = 1024;

void eachChild(const Entity& entity, void* context, void (*visit)(void*, Entity&)) {
  for (const auto& attr : entity.kopTable().attrs)
    if (attr.collection && attr.collection->kind == CollectionKind::children)
      attr.collection->eachChild(entity, context, visit);
}

}  // namespace

CollMarks::~CollMarks() = default;

// ---- Stream ----

Stream::~Stream() = default;

namespace {

[[noreturn]] void throwIdentityTaken(U64 identity) {
  throw LogCorruptException(
      stringPrintf("entity identity %lx stands for two entities", identity));
}

}  // namespace

void Stream::demuxIs(U64 identity, EntitySa* sa) {
  const auto [at, isNew] = demux_.emplace(identity, sa);
  if (!isNew && at->second != sa) throwIdentityTaken(identity);
}

EntitySa* Stream::demux(U64 identity) const {
  const auto at = demux_.find(identity);
  return at == demux_.end() ? nullptr : at->second;
}

void Stream::demuxDel(U64 identity, const EntitySa* sa) {
  const auto at = demux_.find(identity);
  if (at != demux_.end() && at->second == sa) demux_.erase(at);
  lastSa_ = nullptr;
}

void Stream::received(std::span<const U8> frame) {
  In in(frame.data(), frame.size());
  const auto kind = static_cast<MessageKind>(in.nextU8());
  const U64 identity = in.nextU64();
  const AttributeId attribute = in.nextU32();
  if (!lastSa_ || identity != lastIdentity_) {
    EntitySa* const sa = demux(identity);
    if (!sa)
      throw LogCorruptException(
          stringPrintf("message for the unknown entity identity %lx", identity));
    lastSa_ = sa;
    lastIdentity_ = identity;
  }
  ++counters_.messagesIn;
  EntitySa& sa = *lastSa_;
  Session& session = sa.session();
  sa.received(kind, attribute, in);
  if (!session.retired_.empty()) session.dropRetired();
}

// ---- Session ----

Session::Session(Stream& stream, Ptr<Entity> root, Role role, U64 rootIdentity)
    : stream_(stream), root_(std::move(root)), role_(role) {
  if (role_ == reads) readOnlyIs(*root_, true);
  EntitySa& sa = adapterOf(*root_, nullptr);
  if (role_ & reads) {
    stream_.demuxIs(rootIdentity, &sa);
    sa.remoteIdentity_ = rootIdentity;
  }
  if (!(role_ & writes)) return;
  // The entities below are followed from the start, but the peer knows of none of them: they
  // are only sent when somebody asks for everything.
  struct Walk {
    Session* session;
    EntitySa* parent;
    static void visit(void* context, Entity& child) {
      Walk* const walk = static_cast<Walk*>(context);
      Walk below{walk->session, &walk->session->adapterOf(child, walk->parent)};
      below.parent->isAnnounced_ = false;
      eachChild(child, &below, visit);
    }
  } walk{this, &sa};
  eachChild(*root_, &walk, Walk::visit);
}

// Dropping an adapter may drop the last reference to its entity, whose end is told to
// observers: so all adapters stop listening before the first goes.
Session::~Session() {
  pending_.clear();
  for (auto& [entity, sa] : adapters_) {
    sa->isRetired_ = true;
    sa->entity().notifieeDel(sa.get());
    stream_.demuxDel(sa->remoteIdentity_, sa.get());
  }
  const auto adapters = std::move(adapters_);
  dropRetired();
}

void Session::dropRetired() {
  while (!retired_.empty())
    const auto retired = std::exchange(retired_, {});
}

EntitySa* Session::findAdapter(const Entity& entity) {
  const auto at = adapters_.find(&entity);
  return at == adapters_.end() ? nullptr : at->second.get();
}

EntitySa& Session::adapterOf(Entity& entity, EntitySa* parent) {
  auto& sa = adapters_[&entity];
  if (!sa) {
    sa = std::make_unique<EntitySa>(*this, entity);
    sa->parent_ = parent;
  }
  return *sa;
}

void Session::retire(EntitySa& sa) {
  if (sa.isRetired_) return;
  sa.isRetired_ = true;
  eachChild(sa.entity(), this, [](void* self, Entity& child) {
    Session* const session = static_cast<Session*>(self);
    if (EntitySa* const below = session->findAdapter(child)) session->retire(*below);
  });
  if (sa.isPending_) pending_.erase(sa.pendingAt_);
  sa.isPending_ = false;
  if (sa.remoteIdentity_ != 0) stream_.demuxDel(sa.remoteIdentity_, &sa);
  sa.entity().notifieeDel(&sa);
  const auto at = adapters_.find(&sa.entity());
  retired_.push_back(std::move(at->second));
  adapters_.erase(at);
}

void Session::marked(EntitySa& sa) {
  if (!sa.isPending_) {
    sa.pendingAt_ = pending_.insert(pending_.end(), &sa);
    sa.isPending_ = true;
  }
  if (state_ == State::live) state_ = State::lagging;
}

// Everything below the root is sent behind its own child message again.
void Session::resync() {
  everything_ = true;
  for (auto& [entity, sa] : adapters_) {
    if (!sa->parent_) continue;
    if (sa->isPending_) pending_.erase(sa->pendingAt_);
    sa->isPending_ = sa->isAnnounced_ = false;
    sa->flow_.reset();
  }
  EntitySa& sa = adapterOf(*root_, nullptr);
  sa.resync();
  marked(sa);
}

bool Session::process() {
  dropRetired();
  if (state_ == State::live) return true;
  if (!stream_.continueFlowOut()) return false;
  EntitySa& rootSa = adapterOf(*root_, nullptr);
  if (state_ == State::lagging) {
    const auto begin = rootSa.messageBegin(catchUpBegin, 0);
    stream_.out().writebool(everything_);
    stream_.outSmCommitMessage(begin);
    ++stream_.counters().catchUps;
    state_ = State::catchingUp;
  }
  // The root first, and every parent before its children: a child's messages need its own
  // to have been sent. Children join the end of the list when theirs is.
  while (!pending_.empty()) {
    EntitySa* const sa = pending_.front();
    if (!sa->process()) return false;
    if (!sa->isPending_) continue;
    pending_.erase(sa->pendingAt_);
    sa->isPending_ = false;
  }
  stream_.outSmCommitMessage(rootSa.messageBegin(catchUpEnd, 0));
  state_ = State::live;
  everything_ = false;
  return true;
}

void Session::catchUpMessage(MessageKind kind, In& in) {
  const bool begins = kind == catchUpBegin;
  const bool everything = begins && in.nextbool();
  if (!in.atEnd()) EntityAccess::throwTrailing(in);
  if (begins == peerCatchingUp_)
    throw LogCorruptException(begins ? "a catch-up begins within another"
                                     : "a catch-up ends that did not begin");
  peerCatchingUp_ = begins;
  if (onCatchUp) onCatchUp(begins, everything);
}

void Session::readOnlyIs(Entity& root, bool readOnly) {
  root.readOnlyProxyIs(readOnly);
  eachChild(root, &readOnly, [](void* context, Entity& child) {
    readOnlyIs(child, *static_cast<bool*>(context));
  });
}

}  // namespace NboAttrLog

using NboAttrLog::FlowOut;
using NboAttrLog::In;
using NboAttrLog::MessageKind;
using NboAttrLog::Session;

CollectionIterator::~CollectionIterator() = default;

// ---- EntitySa: writing ----

EntitySa::EntitySa(Session& session, Entity& entity)
    : session_(session),
      entity_(&entity),
      table_(entity.kopTable()),
      wireIdentity_(entity.identity()) {
  // In front of all others: messages must keep the order of the writes, also of those that
  // other observers make in answer.
  if (writes()) entity.notifieeAddFirst(this);
}

EntitySa::~EntitySa() {
  if (writes() && !isRetired_) entity_->notifieeDel(this);
}

FlowOut& EntitySa::kopRawFlowOut() {
  if (!flow_) flow_ = std::make_unique<FlowOut>(table_, ~AttributeId{0});
  return *flow_;
}

void EntitySa::onAttribute(AttributeId attribute) {
  if (isActive_ || isRetired_ || !isAnnounced_) return;
  const EntityAttr* const attr = table_.find(attribute);
  if (!attr || attr->collection) return;
  if (session_.mayWrite()) {
    if (flow_) flow_->kopIsDirtyIs(attribute, false);
    onAttributeForConnection(attribute, nullptr);
    return;
  }
  FlowOut& flow = kopRawFlowOut();
  if (flow.kopIsDirty(attribute)) {
    keyMarkedAgain();
  } else {
    flow.kopIsDirtyIs(attribute, true);
    marked();
  }
}

void EntitySa::onAttribute(AttributeId attribute, const void* key) {
  if (isActive_ || isRetired_ || !isAnnounced_) return;
  const EntityAttr* const attr = table_.find(attribute);
  if (attr && attr->collection) attr->collection->changed(*entity_, *this, key);
}

void EntitySa::onParent() {
  if (parent_ && entity_->parent() != parent_->entity_.get()) session_.retire(*this);
}

EntitySa::Check EntitySa::collSerializeCheck(AttributeId collection, MessageKind) {
  if (!session_.mayWrite() || (flow_ && !flow_->kopHasSynced(collection)))
    return {nullptr, flow_.get()};
  return {&streamDemuxer(), flow_.get()};
}

void EntitySa::handleCollSerializationTransactionMarkers(AttributeId collection,
                                                         MessageKind marker,
                                                         U32 count) {
  const auto begin = messageBegin(marker, collection);
  if (marker != NboAttrLog::collEnd) streamDemuxer().out().writeU32(count);
  outSmCommitMessage(begin);
}

void EntitySa::onAttributeForConnection(AttributeId attribute, const void* key) {
  const EntityAttr* const attr = table_.find(attribute);
  if (!attr) return doBaseKopNboAttrLogSaMsg(attribute);
  if (attr->collection) return attr->collection->serializeSing(*entity_, *this, key);
  const auto begin = messageBegin(NboAttrLog::scalarSet, attribute);
  attr->write(streamDemuxer().out(), *entity_);
  outSmCommitMessage(begin);
}

void EntitySa::marked() {
  ++streamDemuxer().counters().coalesced;
  session_.marked(*this);
}
void EntitySa::keyMarkedAgain() {
  ++streamDemuxer().counters().coalesced;
}
void EntitySa::keyMarked(AttributeId collection, U32 present) {
  marked();
  if (flow_->collFlow(collection).dirtyCount() <= NboAttrLog::fewKeys + U64{2} * present)
    return;
  flow_->restart(collection);
  ++streamDemuxer().counters().walksAgain;
}

void EntitySa::childSent(Entity& child, bool isNew) {
  EntitySa* const known = session_.findAdapter(child);
  if (known && known->isAnnounced_) return;
  EntitySa& sa = session_.adapterOf(child, this);
  sa.isAnnounced_ = true;
  // The peer, which now knows the child, may write to it.
  if (session_.role() & Session::reads) childReceived(child, child.identity());
  sa.resync();
  if (isNew) {
    // The receiver makes it anew: what equals a fresh entity needs no message.
    for (const auto& attr : child.kopTable().attrs) {
      if (attr.collection)
        sa.flow_->kopHasSyncedIs(attr.number, attr.collection->count(child) == 0);
      else
        sa.flow_->kopIsDirtyIs(attr.number, !attr.isDefault(child));
    }
    if (sa.flow_->isClean()) {
      sa.flow_.reset();
      return;
    }
  }
  session_.marked(sa);
}

void EntitySa::resync() {
  flow_ = std::make_unique<FlowOut>(table_, 0);
}

U32 EntitySa::pump(AttributeId start, FlowOut* flow) {
  const auto attrs = table_.attrs;
  if (attrs.empty()) return start == 0 ? 0 : ~U32{0};
  if (start == 0) {
    start = attrs[0].number;
    if (flow && !continueFlowOut()) return start;
  }
  const EntityAttr* const first = table_.find(start);
  if (!first) return ~U32{0};
  for (const EntityAttr* attr = first; attr != attrs.data() + attrs.size(); ++attr) {
    const bool isLast = attr + 1 == attrs.data() + attrs.size();
    if (flow) flow->currentAttributeIs(attr->number);
    if (attr->collection) {
      if (!attr->collection->serializeColl(*entity_, *this, flow)) return attr->number;
    } else if (!flow || flow->kopIsDirty(attr->number)) {
      if (flow) flow->kopIsDirtyIs(attr->number, false);
      onAttributeForConnection(attr->number, nullptr);
    }
    if (!flow || continueFlowOut()) continue;
    if (isLast || (attr->collection && flow->isClean())) return 0;
    return attr[1].number;
  }
  return 0;
}

// Attributes and keys that changed behind the pump are dirty when it returns: it is started
// again at the lowest of them until nothing is.
bool EntitySa::process() {
  while (flow_) {
    // A walk that stopped goes on first, though something below it was marked: there is but
    // one bookmark.
    const AttributeId start = flow_->bookmark() ? flow_->bookmark() : flow_->firstDirty();
    if (start == 0) {
      flow_.reset();
    } else if (pump(start, flow_.get()) != 0) {
      return false;
    } else if (!continueFlowOut() && !flow_->isClean()) {
      return false;
    }
  }
  return true;
}

// ---- EntitySa: reading ----

StreamAdapterIsActiveAnchor::StreamAdapterIsActiveAnchor(EntitySa* sa) : sa_(sa) {
  KOP_ASSERT(sa && !sa->isActive_, "!_isActive", "NboAttrLogSa");
  sa->isActive_ = true;
}

void EntitySa::throwWriteUpdateFromReadOnlyProxyException() const {
  throw WriteUpdateFromReadOnlyProxyException(
      stringPrintf("a peer that may only read wrote to '%s'", entity_->name().c_str()));
}

void EntitySa::doBaseKopNboAttrLogSaMsg(AttributeId attribute) const {
  const std::string_view type = typeRecord(entity_->fwkType()).name;
  throw LogCorruptException(stringPrintf("%.*s has no attribute %u for this message",
                                         static_cast<int>(type.size()), type.data(),
                                         attribute));
}

void EntitySa::handleAttrDeserialization(AttributeId attribute, In& in) {
  if (!allowWriteFromReadOnlyRemote()) throwWriteUpdateFromReadOnlyProxyException();
  const StreamAdapterIsActiveAnchor anchor(this);
  const EntityTable& table = table_;
  if (const EntityAttr* const attr = table.find(attribute)) {
    if (attr->collection)
      attr->collection->applySet(*entity_, *this, in);
    else
      attr->apply(*entity_, in);
    return;
  }
  const EntityAttr* const deleted = table.find(-attribute);
  if (!deleted || !deleted->collection) doBaseKopNboAttrLogSaMsg(attribute);
  deleted->collection->applyDel(*entity_, *this, in);
}

void EntitySa::received(MessageKind kind, AttributeId attribute, In& in) {
  if (!(session_.role() & Session::reads) || !allowWriteFromReadOnlyRemote())
    throwWriteUpdateFromReadOnlyProxyException();
  if (kind == NboAttrLog::catchUpBegin || kind == NboAttrLog::catchUpEnd) {
    if (parent_ || attribute != 0) doBaseKopNboAttrLogSaMsg(attribute);
    return session_.catchUpMessage(kind, in);
  }
  const bool isDelete = kind == NboAttrLog::collDel;
  const EntityAttr* const attr = table_.find(isDelete ? -attribute : attribute);
  if (!attr) doBaseKopNboAttrLogSaMsg(attribute);
  const bool ofChildren =
      attr->collection && attr->collection->kind == CollectionKind::children;
  bool fits = false;
  switch (kind) {
    case NboAttrLog::scalarSet: fits = !attr->collection; break;
    case NboAttrLog::collSet: fits = attr->collection && !ofChildren; break;
    case NboAttrLog::childSet: fits = ofChildren; break;
    case NboAttrLog::collDel:
    case NboAttrLog::collBegin:
    case NboAttrLog::collBeginResumed:
    case NboAttrLog::collEnd: fits = attr->collection != nullptr; break;
    default: throw LogCorruptException(stringPrintf("unknown message kind %u", kind));
  }
  if (!fits) doBaseKopNboAttrLogSaMsg(attribute);
  const StreamAdapterIsActiveAnchor anchor(this);
  switch (kind) {
    case NboAttrLog::scalarSet: attr->apply(*entity_, in); break;
    case NboAttrLog::collSet:
    case NboAttrLog::childSet: attr->collection->applySet(*entity_, *this, in); break;
    case NboAttrLog::collDel: attr->collection->applyDel(*entity_, *this, in); break;
    default: attr->collection->applyTransaction(*entity_, *this, kind, in);
  }
}

// Asked before anything is changed. `child` is the one that has the identity already.
void EntitySa::childIdentityCheck(const Entity* child, U64 identity) const {
  if (identity == 0) throw LogCorruptException("a child without an identity");
  const EntitySa* const holder = streamDemuxer().demux(identity);
  if (holder && &holder->entity() != child) NboAttrLog::throwIdentityTaken(identity);
}

void EntitySa::childReceived(Entity& child, U64 identity) {
  EntitySa& sa = session_.adapterOf(child, this);
  if (sa.remoteIdentity_ == identity) return;
  if (sa.remoteIdentity_ != 0) streamDemuxer().demuxDel(sa.remoteIdentity_, &sa);
  streamDemuxer().demuxIs(identity, &sa);
  sa.remoteIdentity_ = identity;
}

void EntitySa::childGone(Entity& child) {
  if (EntitySa* const sa = session_.findAdapter(child)) session_.retire(*sa);
}

NboAttrLog::CollMarks* EntitySa::marks(AttributeId collection) const {
  for (const auto& [attribute, marks] : marks_)
    if (attribute == collection) return marks.get();
  return nullptr;
}

void EntitySa::marksIs(AttributeId collection,
                       std::unique_ptr<NboAttrLog::CollMarks> marks) {
  std::erase_if(marks_, [&](const auto& each) { return each.first == collection; });
  if (marks) marks_.emplace_back(collection, std::move(marks));
}

}  // namespace Kop
