#pragma once

#include "Kop/HashMap2018.h"

// The path of a look-up, an insert and an erase, for one node type.

namespace Kop {

// The slot of the key, or nowhere.
//
// The entry is requested where the words have shown a match, which looks too late. But the
// processor follows the branch it expects, before the words have arrived: so a program that
// finds what it looks for has both requests under way at once, and one that does not spares
// the second. Requested in any case, an absent key cost 1.3 times as much; never, a present
// one 1.2 times.
template <class N, class K>
inline std::size_t HashMap2018<N, K>::slotOf(const K& key, Word word) const {
  std::size_t slot = home(word);
  const Entry* const expected = entries() + slot;
  for (unsigned looks = 0; looks < farAfter; ++looks, slot += 8) {
    if (unsigned equal = HashWords::equal8(words_ + slot, word)) {
      __builtin_prefetch(expected);
      do {
        const std::size_t i = slot + HashWords::lowest(equal);
        if (isKey(node(i), key)) [[likely]]
          return i;
        equal &= equal - 1;
      } while (equal);
    }
    if (HashWords::endsIn8(words_ + slot, word)) return nowhere;
  }
  return slotFar(key, word);
}

template <class N, class K>
[[gnu::noinline]] std::size_t HashMap2018<N, K>::slotFar(const K& key, Word word) const {
  bool found;
  const std::size_t slot = placeFar(key, word, home(word), found);
  return found ? slot : nowhere;
}

// The slot of the key, or the one before which it belongs.
template <class N, class K>
std::size_t HashMap2018<N, K>::placeOf(const K& key, Word word, bool& found) const {
  const std::size_t start = home(word);
  std::size_t slot = start;
  __builtin_prefetch(entries() + slot, 1);
  for (unsigned looks = 0; looks < farAfter; ++looks, slot += 8) {
    for (unsigned equal = HashWords::equal8(words_ + slot, word); equal;
         equal &= equal - 1) {
      const std::size_t i = slot + HashWords::lowest(equal);
      const Node* const node = this->node(i);
      found = isKey(node, key);
      if (found || KeyOps<K>::less(key, node->key())) return i;
    }
    if (HashWords::endsIn8(words_ + slot, word)) {
      found = false;
      return slot + HashWords::lowest(HashWords::behind8(words_ + slot, word));
    }
  }
  return placeFar(key, word, start, found);
}

// The same in a long cluster: by binary search for the word, then, among equal words, for the
// key. Ghosts have no key; a look at one goes on to the next entry behind it.
template <class N, class K>
[[gnu::noinline]] std::size_t HashMap2018<N, K>::placeFar(const K& key,
                                                          Word word,
                                                          std::size_t slot,
                                                          bool& found) const {
  std::size_t low = lowerBound(slot, word), high = upperBound(low, word);
  while (low < high) {
    const std::size_t middle = low + (high - low) / 2;
    const std::size_t live = liveFrom(middle);
    if (live >= high) {
      high = middle;
      continue;
    }
    const Node* const node = this->node(live);
    if (isKey(node, key)) {
      found = true;
      return live;
    }
    if (KeyOps<K>::less(node->key(), key))
      low = live + 1;
    else
      high = middle;
  }
  found = false;
  return low;
}

// Makes room at the key's place and returns the slot, whose entry is raw memory.
template <class N, class K>
inline std::size_t HashMap2018<N, K>::openEntry(std::size_t slot,
                                                Word word,
                                                const K& key) {
  bool found;
  if (isFull() && makeRoom()) [[unlikely]]
    slot = placeOf(key, word, found);
  std::size_t free;
  while ((free = openWord(slot, word)) == nowhere)
    [[unlikely]] slot = placeOf(key, word, found);
  Entry* const entries = this->entries();
  if constexpr (!pooled && !relocatable) {
    for (std::size_t i = free; i > slot; --i)
      relocate(entries + i, entries + i - 1);
  } else {
    if (sizeof(Entry) <= 32 && free - slot <= 8)
      for (std::size_t i = free; i > slot; --i)
        std::memcpy(static_cast<void*>(entries + i), static_cast<void*>(entries + i - 1),
                    sizeof(Entry));
    else
      std::memmove(static_cast<void*>(entries + slot + 1),
                   static_cast<void*>(entries + slot), (free - slot) * sizeof(Entry));
  }
  return slot;
}

template <class N, class K>
template <class... A>
std::pair<N*, bool> HashMap2018<N, K>::insertHashed(const K& key, U32 hash, A&&... args) {
  const Word word = HashWords::wordOf(hash);
  const U32 last = head().last;
  std::size_t slot;
  if (const Word end = words_[last]; word > end && !HashWords::isFree(end)) {
    slot =
        std::max<std::size_t>(home(word), last + 1);  // behind all others: in walk order
  } else {
    bool found;
    slot = placeOf(key, word, found);
    if (found) return {node(slot), false};
  }
  if constexpr (pooled) {
    HashMap2018Pool* pool = head().pool;
    if (!pool) [[unlikely]] {
      reserve(1);
      pool = head().pool;
      slot = home(word);
    }
    struct Fresh {
      HashMap2018Pool* pool;
      void* memory;
      Node* node;
      ~Fresh() {
        if (!pool) return;
        if (node) node->~Node();
        pool->give(memory);
      }
    } fresh{pool, pool->take(), nullptr};
    fresh.node = ::new (fresh.memory) Node(key, std::forward<A>(args)...);
    slot = openEntry(slot, word, fresh.node->key());
    entries()[slot] = fresh.node;
    fresh.pool = nullptr;
    return {fresh.node, true};
  } else {
    // Made before anything moves: it may throw, and its arguments may be in the map.
    union Raw {
      Raw() {}
      ~Raw() {}
      Node node;
    } raw;
    struct Fresh {
      Node* node;
      ~Fresh() {
        if constexpr (!std::is_trivially_destructible_v<Node>)
          if (node) node->~Node();
      }
    } fresh{::new (static_cast<void*>(&raw.node)) Node(key, std::forward<A>(args)...)};
    slot = openEntry(slot, word, fresh.node->key());
    Node* const to = entries() + slot;
    relocate(to, fresh.node);
    fresh.node = nullptr;
    return {to, true};
  }
}

// The node goes after its slot is free: its destructor may look into this map again.
template <class N, class K>
bool HashMap2018<N, K>::eraseHashed(const K& key, U32 hash) {
  const std::size_t slot = slotOf(key, HashWords::wordOf(hash));
  if (slot == nowhere) return false;
  if constexpr (std::is_trivially_destructible_v<Node>) {
    if constexpr (pooled) head().pool->give(node(slot));
    closeWord(slot);
  } else if constexpr (pooled) {
    HashMap2018Pool* const pool = head().pool;
    Node* const node = this->node(slot);
    closeWord(slot);
    node->~Node();
    pool->give(node);
  } else {
    alignas(Node) std::byte memory[sizeof(Node)];
    relocate(memory, node(slot));
    closeWord(slot);
    std::launder(reinterpret_cast<Node*>(memory))->~Node();
  }
  return true;
}

template <class N, class K>
bool HashMap2018<N, K>::eraseHashed(const K& key, U32 hash, std::optional<Node>& out) {
  const std::size_t slot = slotOf(key, HashWords::wordOf(hash));
  if (slot == nowhere) return false;
  Node* const node = this->node(slot);
  out.emplace(std::move(*node));
  node->~Node();
  if constexpr (pooled) head().pool->give(node);
  closeWord(slot);
  return true;
}

template <class N, class K>
template <bool ForWrite, class F>
inline void HashMap2018<N, K>::batch(const K* keys, U32 n, F&& f) {
  constexpr U32 size = 16;
  U32 hashes[size];
  for (U32 from = 0; from < n; from += size) {
    const U32 part = std::min(size, n - from);
    for (U32 i = 0; i < part; ++i) {
      hashes[i] = hashOfKey(keys[from + i]);
      const std::size_t slot = home(HashWords::wordOf(hashes[i]));
      __builtin_prefetch(words_ + slot, ForWrite);
      __builtin_prefetch(entries() + slot, ForWrite);
    }
    for (U32 i = 0; i < part; ++i)
      f(from + i, hashes[i]);
  }
}

template <class N, class K>
void HashMap2018<N, K>::findBatch(const K* keys, U32 n, Node** out) {
  batch<false>(keys, n, [&](U32 i, U32 hash) { out[i] = find(keys[i], hash); });
}

template <class N, class K>
template <class F>
void HashMap2018<N, K>::forEach(F&& f) const {
  const U32 version = this->version();
  const std::size_t end = slots();
  for (std::size_t group = 0; group < end; group += 16) {
    unsigned live = HashWords::live16(words_ + group);
    if constexpr (pooled)
      if (group + 16 < end)
        for (unsigned ahead = HashWords::live16(words_ + group + 16); ahead;
             ahead &= ahead - 1)
          __builtin_prefetch(node(group + 16 + HashWords::lowest(ahead)));
    for (; live; live &= live - 1) {
      f(std::as_const(*node(group + HashWords::lowest(live))));
      KOP_ASSERT(version == this->version(), "version_ == hashMap_->version()",
                 "HashMap2018");
    }
  }
}

}  // namespace Kop
