#pragma once

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

#include "Kop/Entity.h"
#include "Kop/NboAttrLog.h"
#include "Kop/NboAttrLogFlow.h"

// The attribute log: how entities are replicated over a stream of bytes.
//
// A message is a frame; all numbers in network byte order:
//
//   | U32 length of the rest | U8 kind | U64 entity identity | U32 attribute | body |
//
//   kind                  attribute          body
//   1  scalar set         identifier         the value
//   20 entry deleted      - identifier       the key (the identifier negated, 32 bits)
//   21 entry set          identifier         the key, the value (a set: its presence)
//   22 collection begins  identifier         U32 count of entries
//   23 ... resumes        identifier         U32 count of entries
//   24 ... ends           identifier         -
//   25 child present      identifier         the key, U64 identity of the child
//   26 catch-up begins    0                  U8: 1 when everything is sent again
//   27 catch-up ends      0                  -
//
// Between begin and end of a collection the receiver keeps in mind which entries it had; the
// ones that were not sent again are deleted at the end. Between begin and end of a catch-up
// a copy may differ from every state the original ever had; outside of it, it never does,
// because live messages are written in the order of the writes.
//
// A Stream is one end of a connection and knows nothing of sockets: whoever owns it takes
// bytes from out() and gives arrived frames to received(). A Session replicates one root
// entity with all below it over a Stream, in one direction or both. It has one adapter
// (EntitySa) per entity, which is an observer of it: a change is written at once when the
// stream has room, or else only marked; process() sends what is marked when there is room
// again. So a reader that does not read costs a mark per live key and nothing more.
//
// Errors   LogCorruptException for bytes that are no message of these entities;
//          WriteUpdateFromReadOnlyProxyException for a write by a peer that may only read.
//          A message is read whole before it is applied, so nothing is half-applied; after an
//          error the stream is of no further use and its owner closes the connection.
// Threads  all on the thread of the entities.

namespace Kop {

namespace NboAttrLog {

enum MessageKind : U8 {  // a message's fifth byte
  scalarSet = 1,
  collDel = 20,
  collSet = 21,
  collBegin = 22,
  collBeginResumed = 23,
  collEnd = 24,
  childSet = 25,
  catchUpBegin = 26,
  catchUpEnd = 27,
};

constexpr U32 lengthSize = 4;
constexpr U32 headSize = 13;           // kind, identity, attribute
constexpr U32 maxFrameSize = 1 << 24;  // of the rest: what a receiver takes at the most

// What happened on a stream since it was made.
struct Counters {
  U64 messagesOut = 0;
  U64 messagesIn = 0;
  U64 coalesced = 0;   // changes that were only marked, or found their mark already made
  U64 catchUps = 0;    // begun
  U64 walksAgain = 0;  // collections sent again because too many keys were marked
};

class KOP_EXPORT Stream {  // the bytes to one peer, of all its sessions
 public:
  static constexpr std::size_t defaultHighWater = 256 << 10;

  explicit Stream(std::size_t highWater = defaultHighWater) : highWater_(highWater) {}
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream();

  // Bytes to be sent; the owner consumes them. Its own frames may be written between
  // messages.
  Out& out() { return out_; }
  const Out& out() const { return out_; }

  // False when a pump should stop and changes should only be marked.
  bool continueFlowOut() const { return out_.size() < highWater_ && credit_ > 0; }
  // How many more messages may be written before continueFlowOut says no; for tests and for
  // owners that count messages. Unlimited at first.
  void creditIs(U64 messages) { credit_ = messages; }

  std::size_t messageBegin(MessageKind kind, U64 identity, AttributeId attribute) {
    const std::size_t at = out_.size();
    const U64 swappedIdentity = __builtin_bswap64(identity);
    const U32 swappedAttribute = __builtin_bswap32(attribute);
    U8 head[lengthSize + headSize] = {0, 0, 0, 0, kind};
    std::memcpy(head + lengthSize + 1, &swappedIdentity, sizeof swappedIdentity);
    std::memcpy(head + lengthSize + 9, &swappedAttribute, sizeof swappedAttribute);
    out_.writeBytes(head, sizeof head);
    return at;
  }
  void outSmCommitMessage(std::size_t begin) {
    out_.patchU32(begin, static_cast<U32>(out_.size() - begin - lengthSize));
    ++counters_.messagesOut;
    if (credit_ != unlimited && credit_ > 0) --credit_;
  }

  // Applies one frame, without its length word.
  void received(std::span<const U8> frame);

  Counters& counters() { return counters_; }
  const Counters& counters() const { return counters_; }

  // The demultiplexer: adapters by the identity their messages carry.
  void demuxIs(U64 identity, EntitySa* sa);  // LogCorruptException when it is taken
  void demuxDel(U64 identity, const EntitySa* sa);
  EntitySa* demux(U64 identity) const;  // null when nobody has it

 private:
  static constexpr U64 unlimited = ~U64{0};
  Out out_;
  std::size_t highWater_;
  U64 credit_ = unlimited;
  Counters counters_;
  std::unordered_map<U64, EntitySa*> demux_;
  U64 lastIdentity_ = 0;
  EntitySa* lastSa_ = nullptr;  // of lastIdentity_: messages come in runs
};

// One root entity over one stream.
class KOP_EXPORT Session {
 public:
  enum Role : U8 { writes = 1, reads = 2, both = 3 };

  // The root's messages carry its own identity outwards and `rootIdentity` inwards; the two
  // ends tell each other their root's when they agree to replicate it. With role `reads`
  // alone the entities refuse local writes while the session stands, and afterwards until
  // readOnlyIs(false).
  Session(Stream& stream, Ptr<Entity> root, Role role, U64 rootIdentity = 0);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const Ptr<Entity>& root() const { return root_; }
  Stream& stream() { return stream_; }
  Role role() const { return role_; }

  // Writer: marks everything to be sent. Without it only later changes are.
  void resync();
  // Writer: sends what is marked while the stream has room. True when nothing is left.
  bool process();
  bool clean() const { return state_ == State::live; }

  // Reader: whether a catch-up of the peer is under way; told when it begins and ends.
  bool catchingUp() const { return peerCatchingUp_; }
  std::function<void(bool begins, bool everything)> onCatchUp;

  // Whether the peer may write. A message from one that may not is an error.
  void remoteReadOnlyIs(bool readOnly) { remoteReadOnly_ = readOnly; }
  bool remoteReadOnly() const { return remoteReadOnly_; }

  // Sets the read-only mark of the root and all below it.
  static void readOnlyIs(Entity& root, bool readOnly);

 private:
  friend class Kop::EntitySa;
  friend class Stream;
  enum class State : U8 {
    live,        // nothing is marked: changes are written as they happen
    lagging,     // something is marked and no message may pass it
    catchingUp,  // begin was written, end was not: messages may pass each other
  };
  bool mayWrite() const { return state_ != State::lagging && stream_.continueFlowOut(); }
  void marked(EntitySa& sa);
  EntitySa& adapterOf(Entity& entity, EntitySa* parent);
  EntitySa* findAdapter(const Entity& entity);
  void retire(EntitySa& sa);
  void dropRetired();
  void catchUpMessage(MessageKind kind, In& in);

  Stream& stream_;
  Ptr<Entity> root_;
  Role role_;
  State state_ = State::live;
  bool everything_ = false;
  bool peerCatchingUp_ = false;
  bool remoteReadOnly_ = false;
  std::unordered_map<const Entity*, std::unique_ptr<EntitySa>> adapters_;
  std::list<EntitySa*> pending_;                    // adapters with something marked
  std::vector<std::unique_ptr<EntitySa>> retired_;  // freed outside of notifications
};

// Which entries a collection had when its peer began to send it again.
class KOP_EXPORT CollMarks {
 public:
  virtual ~CollMarks();
};

}  // namespace NboAttrLog

// The adapter of one entity on one session.
class KOP_EXPORT EntitySa final : public Notifiee {
 public:
  using Session = NboAttrLog::Session;
  EntitySa(Session& session, Entity& entity);
  ~EntitySa() override;
  EntitySa(const EntitySa&) = delete;
  EntitySa& operator=(const EntitySa&) = delete;

  Entity& entity() const { return *entity_; }
  Session& session() const { return session_; }
  NboAttrLog::Stream& streamDemuxer() const { return session_.stream(); }
  NboAttrLog::FlowOut* flowOut() const { return flow_.get(); }
  NboAttrLog::FlowOut& kopRawFlowOut();  // made, empty, when there is none

  // Observer of the entity.
  void onAttribute(AttributeId attribute) override;
  void onAttribute(AttributeId attribute, const void* key) override;
  void onParent() override;

  // Writing. The output is given when a change of the attribute may be written now: the
  // stream has room, nothing must be passed, and the collection's walk is over.
  struct Check {
    NboAttrLog::Stream* out;
    NboAttrLog::FlowOut* resync;
  };
  bool isOkToSerialize() const { return isAnnounced_ && session_.mayWrite(); }
  bool handleSerializationOfCollCheck(AttributeId) const { return writes(); }
  bool continueFlowOut() const { return streamDemuxer().continueFlowOut(); }
  Check collSerializeCheck(AttributeId collection, NboAttrLog::MessageKind kind);
  std::size_t messageBegin(NboAttrLog::MessageKind kind, AttributeId attribute) {
    return streamDemuxer().messageBegin(kind, wireIdentity_, attribute);
  }
  void outSmCommitMessage(std::size_t begin) {
    streamDemuxer().outSmCommitMessage(begin);
  }
  void handleCollSerializationTransactionMarkers(AttributeId collection,
                                                 NboAttrLog::MessageKind marker,
                                                 U32 count);
  // Writes the current state of a scalar, or of one key: a present key as a set, an absent
  // one as a delete.
  void onAttributeForConnection(AttributeId attribute, const void* key);
  // The change of a key could not be written: its mark is new, or was there already.
  // `present` is how many entries the collection has: when far more keys are marked, it is
  // sent again from the beginning instead.
  void keyMarked(AttributeId collection, U32 present);
  void keyMarkedAgain();
  // Has the child's contents sent behind its message. A new child that equals a fresh one is
  // complete with its message.
  void childSent(Entity& child, bool isNew);
  // Sends from an attribute on; the meaning of the result as for TypeImpl::handleAttrFlowOut.
  // Without a state everything is sent and nothing stops it.
  U32 pump(AttributeId start, NboAttrLog::FlowOut* flow);
  void resync();
  bool clean() const { return !flow_; }
  // Pumps until nothing is marked or the stream has no room. True when nothing is.
  bool process();

  // Reading.
  void received(NboAttrLog::MessageKind kind, AttributeId attribute, NboAttrLog::In& in);
  bool allowWriteFromReadOnlyRemote() const { return !session_.remoteReadOnly(); }
  [[noreturn]] void throwWriteUpdateFromReadOnlyProxyException() const;
  void doBaseKopNboAttrLogSaMsg(AttributeId attribute) const;  // LogCorruptException
  // Applies a scalar, an entry, a delete (the negated identifier) or a child.
  void handleAttrDeserialization(AttributeId attribute, NboAttrLog::In& in);
  void childIdentityCheck(const Entity* child,
                          U64 identity) const;  // LogCorruptException
  void childReceived(Entity& child, U64 identity);
  void childGone(Entity& child);  // before it is removed
  static void receivedIdentityIs(Entity& entity, U64 identity) {
    entity.receivedIdentityIs(identity);
  }
  // Whether an entity is the copy of the one of that identity, or becomes it: one that was
  // made here and never received takes the identity over.
  static bool isCopyOf(const Entity& entity, U64 identity) {
    return entity.identity() == identity || !entity.identityIsReceived_;
  }
  NboAttrLog::CollMarks* marks(AttributeId collection) const;
  void marksIs(AttributeId collection, std::unique_ptr<NboAttrLog::CollMarks> marks);

 private:
  friend class NboAttrLog::Session;
  friend class NboAttrLog::Stream;
  friend class StreamAdapterIsActiveAnchor;
  bool writes() const { return (session_.role() & Session::writes) != 0; }
  void marked();

  Session& session_;
  Ptr<Entity> entity_;
  const EntityTable& table_;  // the entity's: asking it for it costs two calls
  EntitySa* parent_ = nullptr;
  U64 wireIdentity_;        // carried by our messages
  U64 remoteIdentity_ = 0;  // carried by the peer's, 0: none
  std::unique_ptr<NboAttrLog::FlowOut> flow_;
  std::vector<std::pair<AttributeId, std::unique_ptr<NboAttrLog::CollMarks>>> marks_;
  bool isActive_ = false;
  bool isAnnounced_ = true;  // the peer knows of the entity
  bool isPending_ = false;
  bool isRetired_ = false;
  std::list<EntitySa*>::iterator pendingAt_;
};

// Marks an adapter as applying a message: what the entity then tells it is not sent back.
class KOP_EXPORT StreamAdapterIsActiveAnchor {
 public:
  explicit StreamAdapterIsActiveAnchor(EntitySa* sa);  // asserts "!_isActive"
  ~StreamAdapterIsActiveAnchor() { sa_->isActive_ = false; }
  StreamAdapterIsActiveAnchor(const StreamAdapterIsActiveAnchor&) = delete;
  StreamAdapterIsActiveAnchor& operator=(const StreamAdapterIsActiveAnchor&) = delete;

 private:
  EntitySa* sa_;
};

// ---------------------------------------------------------------------------------------
// An entity type as the runtime reaches it
// ---------------------------------------------------------------------------------------

// A place in a collection of an entity, tolerant of every change under way.
class KOP_EXPORT CollectionIterator {
 public:
  virtual ~CollectionIterator();
  virtual bool iterNonnull() const = 0;
  virtual void iterInc() = 0;
  virtual const void* iterKey() const = 0;
  virtual const void* iterValue() const = 0;  // null for children and sets
  virtual Ptr<Entity> iterObj() const = 0;    // a child, else null
  virtual void iterDel() = 0;                 // as the typed delete
};

// One collection, untyped: for reflection and for the log. Writes notify as the typed calls,
// and refuse as they do.
struct CollectionOps {
  AttributeId number;
  CollectionKind kind;
  const TypeOps* key;
  const TypeOps* value;              // null for children; of a set, bool
  const TypeRecord* (*childType)();  // of children, else null
  U32 (*count)(const Entity& entity);
  // The value under the key (a set: the key itself), or null. Children: use child.
  const void* (*find)(const Entity& entity, const void* key);
  Ptr<Entity> (*child)(const Entity& entity, const void* key);
  void (*set)(Entity& entity, const void* key, const void* value);
  Ptr<Entity> (*childIs)(Entity& entity, const void* key);
  bool (*del)(Entity& entity, const void* key);  // whether it was there
  void (*delAll)(Entity& entity);
  std::unique_ptr<CollectionIterator> (*iterator)(Entity& entity);

  std::unique_ptr<NboAttrLog::CollFlow> (*newFlow)();
  bool (*serializeColl)(const Entity& entity, EntitySa& sa, NboAttrLog::FlowOut* resync);
  void (*serializeSing)(const Entity& entity, EntitySa& sa, const void* key);
  void (*changed)(const Entity& entity, EntitySa& sa, const void* key);
  void (*applySet)(Entity& entity, EntitySa& sa, NboAttrLog::In& in);
  void (*applyDel)(Entity& entity, EntitySa& sa, NboAttrLog::In& in);
  void (*applyTransaction)(Entity& entity,
                           EntitySa& sa,
                           NboAttrLog::MessageKind marker,
                           NboAttrLog::In& in);
  void (*eachChild)(const Entity& entity, void* context, void (*)(void*, Entity&));
  const void* exports;  // keeps the typed functions in the library that instantiates them
};

struct EntityAttr {  // a scalar or collection, as the log sees it
  AttributeId number;
  const char* name;
  const CollectionOps* collection;  // null for a scalar
  // Of a scalar:
  void (*write)(NboAttrLog::Out& out, const Entity& entity);
  void (*apply)(Entity& entity, NboAttrLog::In& in);
  bool (*isDefault)(const Entity& entity);
};

// The operations of an entity type that are the same functions for all types, over its rows.
struct EntityTable {
  std::span<const EntityAttr> attrs;        // by number
  Ptr<Entity> (*make)(const String& name);  // null for types keyed by something else

  const EntityAttr* find(AttributeId attribute) const {
    for (const auto& attr : attrs)
      if (attr.number == attribute) return &attr;
    return nullptr;
  }
};

[[noreturn]] KOP_EXPORT void throwNewEntityArgsException(FwkType type);

// Reflection over entities: get copies a scalar, or the value under a key, to *result (of a
// child, its Ptr<Entity>); set writes *value to a scalar or under a key (of a child, makes
// it); del removes a key, without a key all of them; has tells whether a key is present, as
// a bool. False when there is no such attribute or entry, or nothing can be done to it so.
//
// Errors   as the typed calls. The assertion "type.isPolymorphic()" ends the process when the
//          handle names a value type.
enum class EntityOp : U8 { get, set, del, has };
KOP_EXPORT bool entityAttributeOp(const KopAttr& attr,
                                  EntityOp op,
                                  Entity& entity,
                                  const void* key,
                                  const void* value,
                                  void* result);
KOP_EXPORT std::unique_ptr<CollectionIterator> entityIterator(const KopAttr& attr,
                                                              Entity& entity);
// The same over a value: the assertion is "!t.isPolymorphic()".
KOP_EXPORT bool valueAttributeOp(
    const KopAttr& attr, AttributeOp op, void* a, const void* b, void* result);

}  // namespace Kop
