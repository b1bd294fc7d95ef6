#include "Kop/HashMap2018.h"

#include <cstring>
#include <new>
#include <stdexcept>

namespace Kop {

namespace {

using HashWords::emptyWord;
using HashWords::isFree;
using HashWords::isGhost;
using HashWords::mixedOf;
using HashWords::Word;

constexpr U64 allHashes = U64{1} << 32;
constexpr U32 highestHash = 0xfffffffc;
constexpr U32 firstCapacity = 6;
constexpr U32 doublingUpTo = 192;  // entries are cheap to move in order, memory is not

// Three quarters: at more, the clusters that an insert has to move grow quickly.
constexpr U32 limitOf(U32 capacity) {
  return capacity - (capacity + 3) / 4;
}
constexpr U32 capacityFor(U32 entries) {
  return entries + entries / 3 + 1;
}
// Ghosts make searches longer as entries do, so a tenth of the capacity is all they may add.
constexpr U32 usedLimitOf(U32 capacity) {
  return limitOf(capacity) + capacity / 10 + 1;
}
// Slots behind the last home. More are added when the clusters at the end need them.
constexpr U32 tailOf(U32 capacity) {
  return std::min(usedLimitOf(capacity),
                  8 + std::min(capacity / 8, 56u) + (capacity >> 12));
}
constexpr U32 grown(U32 capacity) {
  if (capacity < firstCapacity) return firstCapacity;
  if (capacity > 0xc0000000u / 2)
    throw std::length_error("HashMap2018: too many entries");
  return capacity < doublingUpTo ? capacity * 2 : capacity + capacity / 2;
}

struct Shape {
  std::size_t headSize, entriesAt, size, align;

  Shape(const HashMap2018VTable& table, std::size_t slots, std::size_t head) {
    const std::size_t words = (slots + HashWords::padding) * sizeof(Word);
    const std::size_t large = 64;  // a cache line, for blocks that are worth it
    align = std::max<std::size_t>(16, table.entryAlign);
    if (slots * table.entrySize >= 1024) align = std::max(align, large);
    headSize = (head + align - 1) / align * align;
    entriesAt = (headSize + words + align - 1) / align * align;
    size = entriesAt + slots * table.entrySize;
  }
};

// Moving an entry of a size known to the compiler is one or two instructions; of the loops
// below one exists per common size, whatever the number of node types.
template <std::size_t Size>
struct MoveFixed {
  void operator()(std::byte* to, const std::byte* from) const {
    std::memcpy(to, from, Size);
  }
};
struct MoveBytes {
  std::size_t size;
  void operator()(std::byte* to, const std::byte* from) const {
    std::memcpy(to, from, size);
  }
};
struct MoveShift {
  void (*shift)(void*, void*) noexcept;
  void operator()(std::byte* to, std::byte* from) const { shift(to, from); }
};

template <class F>
void withMove(const HashMap2018VTable& table, F&& f) {
  if (table.nodeShift) return f(MoveShift{table.nodeShift});
  switch (table.entrySize) {
    case 4: return f(MoveFixed<4>());
    case 8: return f(MoveFixed<8>());
    case 12: return f(MoveFixed<12>());
    case 16: return f(MoveFixed<16>());
    case 24: return f(MoveFixed<24>());
    case 32: return f(MoveFixed<32>());
    case 40: return f(MoveFixed<40>());
    case 48: return f(MoveFixed<48>());
    default: return f(MoveBytes{table.entrySize});
  }
}

}  // namespace

constinit const HashMap2018Generic::EmptyTable HashMap2018Generic::emptyTable_ = {
    {         },
    { emptyWord, emptyWord, emptyWord, emptyWord, emptyWord, emptyWord, emptyWord,
     emptyWord, emptyWord, emptyWord, emptyWord, emptyWord, emptyWord, emptyWord,
     emptyWord, emptyWord}
};

HashMap2018Generic::HashMap2018Generic(const HashMap2018Generic& other)
    : table_(other.table_) {
  emptyIs();
  assignOp(other);
}

HashMap2018Generic& HashMap2018Generic::operator=(HashMap2018Generic&& other) noexcept {
  if (this == &other) return *this;
  HashMap2018Generic old(std::move(*this));  // goes last: it may hold what refers to us
  contentsSwap(other);
  ++other.version_;
  return *this;
}

void HashMap2018Generic::contentsSwap(HashMap2018Generic& other) noexcept {
  std::swap(words_, other.words_);
  std::swap(entries_, other.entries_);
  std::swap(scale_, other.scale_);
  std::swap(homeMax_, other.homeMax_);
  std::swap(count_, other.count_);
}

void HashMap2018Generic::_memberDelAll() noexcept {
  if (empty()) return;
  ++version_;
  emptyAllBuckets();
}

// The map is empty before the first node is destroyed: a node may hold the last reference to
// something that looks into this map when it goes.
void HashMap2018Generic::emptyAllBuckets() noexcept {
  if (words_ == emptyTable_.words) return;
  HashMap2018Generic old(*table_);
  old.contentsSwap(*this);
  if (table_->bucketRelease)
    for (std::size_t i = old.liveFrom(0); i < old.slots(); i = old.liveFrom(i + 1))
      table_->bucketRelease(old.nodeG(i));
  const Shape shape(*table_, old.slots(), sizeof(Head));
  delete old.head().pool;
  ::operator delete(reinterpret_cast<std::byte*>(old.words_) - shape.headSize,
                    std::align_val_t(shape.align));
  old.emptyIs();
}

// The capacity's scale, so that `contents`, when it has grown to the limit, ends at the last
// home if it goes on as it does so far; and the slots that its clusters need.
HashMap2018Generic::Plan HashMap2018Generic::plan(const HashMap2018Generic& contents,
                                                  U32 capacity,
                                                  U32 highest) const {
  const U64 count = std::max(contents.count_, 1u);
  const U64 end = (U64{highest} + 1) * std::max<U64>(limitOf(capacity), count) / count;
  const U64 range = end < allHashes / 16 * 15 ? end + end / 16 : allHashes;
  Plan plan{capacity,
            static_cast<U32>(std::min(capacity * allHashes / range, allHashes - 1)), 0};
  std::size_t next = 0;
  const std::size_t slots = contents.slots();
  for (std::size_t group = 0; group < slots; group += 16)
    for (unsigned live = HashWords::live16(contents.words_ + group); live;
         live &= live - 1) {
      const U32 mixed = mixedOf(contents.words_[group + HashWords::lowest(live)]);
      const U64 home = std::min(U64{mixed} * plan.scale >> 32, U64{capacity} - 1);
      next = std::max<std::size_t>(home, next) + 1;
    }
  const U64 needed = std::max<U64>(capacity, next + next / 64) + tailOf(capacity);
  if (needed > 0xfffffff0u) throw std::length_error("HashMap2018: too many entries");
  plan.slots = static_cast<U32>(needed);
  return plan;
}

void HashMap2018Generic::allocate(const Plan& plan, HashMap2018Pool* pool) {
  const Shape shape(*table_, plan.slots, sizeof(Head));
  std::byte* const block =
      static_cast<std::byte*>(::operator new(shape.size, std::align_val_t(shape.align)));
  words_ = reinterpret_cast<Word*>(block + shape.headSize);
  entries_ = block + shape.entriesAt;
  std::fill_n(words_, plan.slots + HashWords::padding, emptyWord);
  head() = {
      plan.slots, plan.capacity, limitOf(plan.capacity), usedLimitOf(plan.capacity), 0,
      0,          pool};
  scale_ = plan.scale;
  homeMax_ = plan.capacity - 1;
}

U32 HashMap2018Generic::highest() const {
  if (empty()) return highestHash;
  std::size_t slot = head().last;
  while (isFree(words_[slot]))
    --slot;
  return mixedOf(words_[slot]);
}

// Into new memory, in order; a merge of nothing, so it runs at the speed of the memory.
void HashMap2018Generic::rebuild(U32 capacity, U32 highest) {
  const Plan plan = this->plan(*this, capacity, highest);
  std::unique_ptr<HashMap2018Pool> newPool;
  if (table_->pooled && !head().pool)
    newPool = std::make_unique<HashMap2018Pool>(table_->nodeSize, table_->nodeAlign);
  HashMap2018Generic old(*table_);
  old.contentsSwap(*this);
  try {
    allocate(plan, newPool ? newPool.get() : old.head().pool);
  } catch (...) {
    contentsSwap(old);
    throw;
  }
  newPool.release();
  withMove(*table_, [&](auto move) {
    std::byte* const to = static_cast<std::byte*>(entries_);
    std::byte* const from = static_cast<std::byte*>(old.entries_);
    const std::size_t size = table_->entrySize, slots = old.slots();
    std::size_t next = 0;
    for (std::size_t group = 0; group < slots; group += 16)
      for (unsigned live = HashWords::live16(old.words_ + group); live;
           live &= live - 1) {
        const std::size_t i = group + HashWords::lowest(live);
        const std::size_t slot = std::max(home(old.words_[i]), next);
        words_[slot] = old.words_[i];
        move(to + slot * size, from + i * size);
        next = slot + 1;
      }
    head().last = static_cast<U32>(next - (next > 0));
  });
  count_ = old.count_;
  ++version_;
  if (old.words_ != emptyTable_.words) {
    const Shape shape(*table_, old.slots(), sizeof(Head));
    ::operator delete(reinterpret_cast<std::byte*>(old.words_) - shape.headSize,
                      std::align_val_t(shape.align));
    old.emptyIs();
  }
}

// Without its ghosts, every entry's place is at or before where it stands.
void HashMap2018Generic::sweep() noexcept {
  withMove(*table_, [&](auto move) {
    std::byte* const entries = static_cast<std::byte*>(entries_);
    const std::size_t size = table_->entrySize, slots = this->slots();
    std::size_t next = 0;
    for (std::size_t i = 0; i < slots; ++i) {
      const Word word = words_[i];
      if (word == emptyWord) continue;
      words_[i] = emptyWord;
      if (isFree(word)) continue;
      const std::size_t slot = std::max(home(word), next);
      words_[slot] = word;
      if (slot != i) move(entries + slot * size, entries + i * size);
      next = slot + 1;
    }
    head().last = static_cast<U32>(next - (next > 0));
  });
  head().ghosts = 0;
  ++version_;
}

// Contents that came in walk order have a scale of their own. When entries come that lie far
// behind what it was made for, the order of their coming has ended: then the capacity becomes,
// within reason, what the whole range of hashes takes at that scale. What is there stays as
// spread out as it is, where in a smaller table it would be one run: at 500,000 entries an
// insert into that took 70 us, and takes 0.3.
void HashMap2018Generic::rescale(U32 capacity, U32 highest) {
  const U64 home = U64{highest} * scale_ >> 32;
  if (scale_ > capacity && home > U64{homeMax_} + homeMax_ / 8)
    rebuild(std::max(capacity, std::min(scale_, capacityFor(count_) * 4)), highestHash);
  else
    rebuild(capacity, highest);
}

bool HashMap2018Generic::makeRoom() {
  const Head& head = this->head();
  if (count_ >= head.limit)
    rescale(grown(head.capacity), highest());
  else if (count_ + head.ghosts >= head.usedLimit)
    sweep();
  else
    return false;
  return true;
}

// The entries have piled up at the end: the map is nearly full, or its scale no longer fits,
// or many hashes are close together, and the rebuild adds the slots that they need.
void HashMap2018Generic::overflow(Word word) {
  const U32 capacity = head().capacity;
  const bool nearlyFull = count_ >= head().limit - head().limit / 8;
  rescale(nearlyFull ? grown(capacity) : capacity, std::max(highest(), mixedOf(word)));
}

void HashMap2018Generic::reserve(U32 entries) {
  if (entries <= head().limit) return;
  if (entries > 0xb0000000u) throw std::length_error("HashMap2018: too many entries");
  rebuild(capacityFor(entries), highest());
}

void HashMap2018Generic::assignOp(const HashMap2018Generic& other) {
  if (this == &other) return;
  HashMap2018Generic fresh(*table_);
  if (!other.empty()) {
    const Plan plan = fresh.plan(other, capacityFor(other.count_), other.highest());
    std::unique_ptr<HashMap2018Pool> pool;
    if (table_->pooled)
      pool = std::make_unique<HashMap2018Pool>(table_->nodeSize, table_->nodeAlign);
    fresh.allocate(plan, pool.get());
    HashMap2018Pool* const nodes = pool.release();
    std::size_t next = 0;
    for (std::size_t i = other.liveFrom(0); i < other.slots();
         i = other.liveFrom(i + 1)) {
      const std::size_t slot = std::max(fresh.home(other.words_[i]), next);
      std::byte* const entry =
          static_cast<std::byte*>(fresh.entries_) + slot * table_->entrySize;
      void* to = entry;
      if (nodes) {
        to = nodes->take();
        std::memcpy(entry, &to, sizeof to);
      }
      if (table_->nodeCopy)
        table_->nodeCopy(to, other.nodeG(i));
      else
        std::memcpy(to, other.nodeG(i), table_->nodeSize);
      fresh.words_[slot] = other.words_[i];  // from here on `fresh` owns the node
      fresh.head().last = static_cast<U32>(slot);
      ++fresh.count_;
      next = slot + 1;
    }
  } else if (empty()) {
    return;
  }
  contentsSwap(fresh);
  ++version_;
}

// Equal contents stand in the same order, so one walk over both decides.
bool HashMap2018Generic::operator==(const HashMap2018Generic& other) const {
  if (this == &other) return true;
  if (count_ != other.count_) return false;
  std::size_t i = liveFrom(0), j = other.liveFrom(0);
  for (; i < slots(); i = liveFrom(i + 1), j = other.liveFrom(j + 1))
    if (words_[i] != other.words_[j] || !table_->nodeEqual(nodeG(i), other.nodeG(j)))
      return false;
  return true;
}

// From a home on, the words that are less form one stretch without empty slots; behind its
// end there are empty slots and larger words only. So a binary search over any stretch holds.
template <class Before>
static std::size_t partitionPoint(const Word* words,
                                  std::size_t from,
                                  std::size_t end,
                                  Before before) {
  std::size_t step = 8;
  while (from + step < end && before(words[from + step])) {
    from += step + 1;
    step *= 2;
  }
  return static_cast<std::size_t>(
      std::partition_point(words + from, words + std::min(from + step, end), before) -
      words);
}

std::size_t HashMap2018Generic::lowerBound(std::size_t slot, Word word) const {
  return partitionPoint(words_, slot, slots(), [word](Word w) { return w < word; });
}

std::size_t HashMap2018Generic::upperBound(std::size_t slot, Word word) const {
  return partitionPoint(words_, slot, slots(),
                        [word](Word w) { return w <= (word | 1); });
}

std::size_t HashMap2018Generic::memory() const {
  if (words_ == emptyTable_.words) return 0;
  const HashMap2018Pool* const pool = head().pool;
  return Shape(*table_, slots(), sizeof(Head)).size +
         (pool ? sizeof *pool + pool->memory() : 0);
}

void HashMap2018Generic::verify() const {
#define KOP_HOLDS(condition) KOP_ASSERT(condition, #condition, "HashMap2018")
  std::size_t live = 0, ghosts = 0, next = 0, lastLive = 0;
  const void* before = nullptr;
  Word highestSoFar = INT32_MIN;
  for (std::size_t i = 0; i < slots(); ++i) {
    const Word word = words_[i];
    if (word == emptyWord) {
      next = i + 1;
      continue;
    }
    KOP_HOLDS((word | 1) >= highestSoFar);  // order
    highestSoFar = word | 1;
    if (isFree(word)) {
      ++ghosts;
      continue;
    }
    KOP_HOLDS(home(word) <= i);     // reach: at the home or behind it,
    KOP_HOLDS(home(word) >= next);  // with no empty slot between
    const void* const node = nodeG(i);
    KOP_HOLDS(HashWords::wordOf(table_->nodeHash(node)) == word);
    KOP_HOLDS(!before || words_[lastLive] != word || table_->nodeOrdered(before, node));
    before = node;
    lastLive = i;
    ++live;
  }
  for (std::size_t i = slots(); i < slots() + HashWords::padding; ++i)
    KOP_HOLDS(words_[i] == emptyWord);
  KOP_HOLDS(live == count_);
  KOP_HOLDS(ghosts == head().ghosts);
  KOP_HOLDS(live == 0 || lastLive <= head().last);
  if (head().pool) head().pool->verify(count_);
#undef KOP_HOLDS
}

HashMap2018IteratorGeneric::HashMap2018IteratorGeneric(HashMap2018Generic& map)
    : map_(&map) {
  standAt(map.liveFrom(0));
}

HashMap2018IteratorGeneric::~HashMap2018IteratorGeneric() {
  if (key_) map_->table().keyDrop(key_);
}

void HashMap2018IteratorGeneric::standAt(std::size_t slot) {
  void* key = nullptr;
  if (slot < map_->slots()) {
    const void* const node = map_->nodeG(slot);
    hash_ = map_->table().nodeHash(node);
    key = map_->table().keyCopy(node);
  }
  if (key_) map_->table().keyDrop(key_);
  key_ = key;
  slot_ = slot;
  version_ = map_->version();
}

void* HashMap2018IteratorGeneric::currNodeMaybeStale() const {
  if (!key_) return nullptr;
  if (version_ == map_->version()) return map_->nodeG(slot_);
  return const_cast<void*>(map_->lookupNodeG(key_, hash_));
}

void HashMap2018IteratorGeneric::advance() {
  if (!key_) return;
  std::size_t slot = slot_;
  bool there = true;
  if (version_ != map_->version()) slot = map_->table().place(*map_, key_, hash_, there);
  standAt(map_->liveFrom(slot + there));
}

}  // namespace Kop
