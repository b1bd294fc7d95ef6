#pragma once

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "Kop/Assert.h"
#include "Kop/HashMap2018Pool.h"
#include "Kop/HashMap2018Words.h"
#include "Kop/Types.h"

// What every HashMap2018 is, whatever its node: the hash words, the memory, and the rare
// operations, which are compiled once and reach the nodes through a table of functions.
//
// One block of memory holds a map:
//
//   | head | words: one per slot, 16 empty ones | entries: one per slot |
//          ^ words_                             ^ entries_
//
// Slots stand in the order of (word, key). An entry stands at its home or behind it, with no
// empty slot between: home is the mixed hash scaled to the capacity, so a larger hash never
// has a smaller home. A few slots behind the last home take what is pushed over the end. An
// erased entry leaves an empty slot, or a ghost where the search for a later entry must go on.
// Nothing moves then; an insert moves entries only up to the nearest free slot.
//
// An entry is the node itself, or a pointer to it in a pool of nodes that never move.
//
// The scale is the capacity itself for contents that fill the whole range of hashes. While a
// map is filled in walk order, its contents end far below: the scale is then chosen so that
// what is there spreads out, because in one solid run every insert out of order would move
// half of the entries.

namespace Kop {

class HashMap2018Generic;

// One per node type. A null function means that the bytes may be copied, that nothing need be
// done, or that the node type does not offer it.
struct HashMap2018VTable {
  U32 entrySize;  // bytes of a slot's entry
  U32 entryAlign;
  U32 nodeSize;  // bytes of a node in the pool
  U32 nodeAlign;
  bool pooled;                                       // entries are pointers into the pool
  void (*nodeShift)(void* to, void* from) noexcept;  // moves an entry to raw memory
  void (*bucketRelease)(void* node) noexcept;        // destroys a node
  void (*nodeCopy)(void* to, const void* from);      // constructs a copy in raw memory
  bool (*keyEqual)(const void* node, const void* key);
  bool (*nodeEqual)(const void* a, const void* b);
  bool (*nodeOrdered)(const void* a, const void* b);  // a's key before b's, of equal hash
  U32 (*nodeHash)(const void* node);
  std::size_t (*place)(const HashMap2018Generic& map,
                       const void* key,
                       U32 hash,
                       bool& at);
  const void* (*lookup)(const HashMap2018Generic& map, const void* key, U32 hash);
  std::pair<void*, bool> (*newMember)(HashMap2018Generic& map, const void* key, U32 hash);
  bool (*deleteMember)(HashMap2018Generic& map, const void* key, U32 hash, void* out);
  void* (*keyCopy)(const void* node);  // to the heap
  void (*keyDrop)(void* key) noexcept;
};

class KOP_EXPORT HashMap2018Generic {  // the map, whatever its nodes
 public:
  using Word = HashWords::Word;
  static constexpr std::size_t nowhere = ~std::size_t{0};

  explicit HashMap2018Generic(const HashMap2018VTable& table) noexcept : table_(&table) {
    emptyIs();
  }
  HashMap2018Generic(const HashMap2018Generic& other);
  HashMap2018Generic(HashMap2018Generic&& other) noexcept : table_(other.table_) {
    emptyIs();
    contentsSwap(other);
    ++other.version_;
  }
  HashMap2018Generic& operator=(const HashMap2018Generic& other) {
    assignOp(other);
    return *this;
  }
  HashMap2018Generic& operator=(HashMap2018Generic&& other) noexcept;
  ~HashMap2018Generic() { emptyAllBuckets(); }

  U32 count() const { return count_; }
  bool empty() const { return count_ == 0; }
  // Moves on by insertion, deletion, clearing, assignment and whatever moves entries.
  U32 version() const { return version_; }

  // The untyped operations. A key and a node are given by address; `hash` is the key's.
  const void* lookupNodeG(const void* key, U32 hash) const {
    return table_->lookup(*this, key, hash);
  }
  // The node and whether it is new; a new one is made of its key alone. Null for a node type
  // that cannot be.
  std::pair<void*, bool> newMemberG(const void* key, U32 hash) {
    return table_->newMember ? table_->newMember(*this, key, hash)
                             : std::pair<void*, bool>{};
  }
  // Whether there was one; the removed node is moved to `out`, raw memory, unless that is null.
  bool deleteMemberG(const void* key, U32 hash, void* out) {
    return table_->deleteMember(*this, key, hash, out);
  }
  void _memberDelAll() noexcept;    // all entries at once; gives the memory back
  void emptyAllBuckets() noexcept;  // the same for a map that goes: no new version
  void assignOp(const HashMap2018Generic& other);  // unchanged when a node's copy throws
  bool operator==(const HashMap2018Generic& other) const;

  // Room for so many entries without growing. Cheap for a map filled in walk order.
  void reserve(U32 entries);
  std::size_t memory() const;  // bytes held, without what the nodes themselves hold
  void verify() const;         // asserts every invariant; for tests

  const HashMap2018VTable& table() const { return *table_; }
  const Word* words() const { return words_; }
  std::size_t slots() const { return head().slots; }
  void* nodeG(std::size_t slot) const {
    std::byte* entry = static_cast<std::byte*>(entries_) + slot * table_->entrySize;
    return table_->pooled ? *reinterpret_cast<void**>(entry) : entry;
  }
  // The first live slot at or behind `slot`; slots() when there is none.
  std::size_t liveFrom(std::size_t slot) const {
    const std::size_t end = slots();
    for (; slot < end; slot += 16)
      if (const unsigned live = HashWords::live16(words_ + slot))
        return slot + HashWords::lowest(live);
    return end;
  }

 protected:
  struct Head {
    U32 slots;
    U32 capacity;   // homes
    U32 limit;      // entries, before the map grows
    U32 usedLimit;  // entries and ghosts, before the ghosts are swept
    U32 ghosts;
    U32 last;  // no live entry stands behind this slot
    HashMap2018Pool* pool;
  };
  struct EmptyTable {
    Head head;
    Word words[HashWords::padding];
  };
  static const EmptyTable emptyTable_;  // what all maps without entries share

  const Head& head() const { return reinterpret_cast<const Head*>(words_)[-1]; }
  Head& head() { return reinterpret_cast<Head*>(words_)[-1]; }
  // The limit is a branch that is as good as never taken. The empty assembler text keeps it
  // one: a conditional move would make every look-up wait for it.
  std::size_t home(Word word) const {
    const U64 scaled = U64{HashWords::mixedOf(word)} * scale_ >> 32;
    if (scaled > homeMax_) [[unlikely]] {
      __asm__ volatile("");
      return homeMax_;
    }
    return scaled;
  }
  std::size_t nextFree(std::size_t slot) const {
    for (;; slot += 16)
      if (const unsigned free = HashWords::free16(words_ + slot))
        return slot + HashWords::lowest(free);
  }
  // In a long cluster: the first slot from `slot` on whose word, taken as an entry or as a
  // ghost, is not before / is behind `word`. All slots before `slot`, from the home on, are.
  std::size_t lowerBound(std::size_t slot, Word word) const;
  std::size_t upperBound(std::size_t slot, Word word) const;

  bool isFull() const { return count_ + head().ghosts >= head().limit; }
  bool makeRoom();           // at the limit: grows or sweeps; whether entries moved
  void overflow(Word word);  // no free slot behind the place of `word`
  // Makes `slot` free for a new entry of that word, by moving neighbours, of which only the
  // words are moved here. Returns the slot that was free; nowhere when it had to rebuild.
  std::size_t openWord(std::size_t& slot, Word word) {
    Word* const words = words_;
    std::size_t free = slot;
    if (!HashWords::isFree(words[slot])) {
      if (slot > home(word) && HashWords::isFree(words[slot - 1]))
        free = --slot;
      else
        free = nextFree(slot);
    }
    Head& head = this->head();
    if (free >= head.slots) [[unlikely]] {
      overflow(word);
      return nowhere;
    }
    head.ghosts -= HashWords::isGhost(words[free]);
    if (free > head.last) head.last = static_cast<U32>(free);
    if (free - slot <= 8)
      for (std::size_t i = free; i > slot; --i)
        words[i] = words[i - 1];
    else
      std::copy_backward(words + slot, words + free, words + free + 1);
    words[slot] = word;
    ++count_, ++version_;
    return free;
  }
  // Frees the slot of an entry that was taken away.
  void closeWord(std::size_t slot) {
    Word* const words = words_;
    const Word next = words[slot + 1];
    if (next == HashWords::emptyWord || home(next) == slot + 1) {
      words[slot] = HashWords::emptyWord;
      while (slot > 0 && HashWords::isGhost(words[slot - 1]))
        words[--slot] = HashWords::emptyWord, --head().ghosts;
    } else {
      words[slot] |= 1;
      ++head().ghosts;
    }
    --count_, ++version_;
  }

 private:
  struct Plan {
    U32 capacity, scale, slots;
  };
  void emptyIs() noexcept {
    words_ = const_cast<Word*>(emptyTable_.words);
    entries_ = nullptr;
    scale_ = homeMax_ = count_ = 0;
  }
  void contentsSwap(HashMap2018Generic& other) noexcept;  // all but the version
  Plan plan(const HashMap2018Generic& contents, U32 capacity, U32 highest) const;
  void allocate(const Plan& plan, HashMap2018Pool* pool);
  void rescale(U32 capacity, U32 highest);
  void rebuild(U32 capacity, U32 highest);
  void sweep() noexcept;
  U32 highest() const;  // mixed hash of the last entry

 protected:
  const HashMap2018VTable* table_;
  Word* words_;
  void* entries_;
  U32 scale_;    // home = mixed hash * scale / 2^32
  U32 homeMax_;  // but at most this
  U32 count_;
  U32 version_ = 0;
};

// Walks a map that must not change: every step asserts that the version still stands.
class HashMap2018UnsafeIteratorConstGeneric {
 public:
  explicit HashMap2018UnsafeIteratorConstGeneric(const HashMap2018Generic& map,
                                                 std::size_t from = 0)
      : hashMap_(&map),
        words_(map.words()),
        group_(from),
        slots_(map.slots()),
        version_(map.version()),
        live_(from < slots_ ? HashWords::live16(words_ + from) : 0) {
    step();
  }
  explicit operator bool() const { return at_ < slots_; }
  void advance() {
    check();
    step();
  }
  const void* nodeG() const { return hashMap_->nodeG(at_); }

 protected:
  void check() const {
    KOP_ASSERT(version_ == hashMap_->version(), "version_ == hashMap_->version()",
               "HashMap2018");
  }
  void step() {
    while (!live_) {
      group_ += 16;
      if (group_ >= slots_) {
        at_ = slots_;
        return;
      }
      live_ = HashWords::live16(words_ + group_);
    }
    at_ = group_ + HashWords::lowest(live_);
    live_ &= live_ - 1;
  }

  const HashMap2018Generic* hashMap_;
  const HashWords::Word* words_;
  std::size_t group_;  // sixteen slots, of which live_ are still to be met
  std::size_t slots_;
  std::size_t at_ = 0;
  U32 version_;
  unsigned live_;
};

// Walks a map that may change: stands at a place in the order, whether or not its entry is
// still there. Entries that come during the walk are met when they come behind that place.
class KOP_EXPORT HashMap2018IteratorGeneric {
 public:
  explicit HashMap2018IteratorGeneric(HashMap2018Generic& map);
  HashMap2018IteratorGeneric(const HashMap2018IteratorGeneric&) = delete;
  HashMap2018IteratorGeneric& operator=(const HashMap2018IteratorGeneric&) = delete;
  ~HashMap2018IteratorGeneric();

  explicit operator bool() const { return key_ != nullptr; }
  void* currNodeMaybeStale() const;  // null when its entry has gone
  const void* keyG() const { return key_; }
  void advance();

 private:
  void standAt(std::size_t slot);

  HashMap2018Generic* map_;
  void* key_ = nullptr;  // a copy; null at the end
  std::size_t slot_ = 0;
  U32 hash_ = 0;
  U32 version_ = 0;
};

}  // namespace Kop
