#include <cstring>
#include <vector>

#include "Check.h"
#include "Drem/Error.h"
#include "Tunnel/MulticastTunnelTableEntry.h"
#include "Tunnel/TunnelTableEntry.h"
#include "Tunnel/Vias.h"

// The records of tables in shared memory, which any process may have damaged. The first byte
// chooses the type and how far the record is off its alignment, the rest is the record, alone
// in a block of its size. What is complete can be read, and is written as it stood but for
// the bits that no value has; what is not complete is never read beyond its end.

namespace {

using namespace Tunnel::TunnelTable;
using Routing::Multicast::MulticastTreeId;
using Vantor::DynamicMplsLabelStack;
using Bytes = std::vector<U8>;

// A record that ends where its block ends.
class Block {
 public:
  Block(const U8* bytes, std::size_t size, U32 shift) : block_(shift + size) {
    if (size > 0) std::memcpy(block_.data() + shift, bytes, size);
    record_ = block_.data() + shift;
    size_ = static_cast<U32>(size);
  }
  U8* record() { return record_; }
  U32 size() const { return size_; }

 private:
  Bytes block_;
  U8* record_;
  U32 size_;
};

// Whether deserializeLen found a whole record.
template <class T>
bool isWhole(Block& block) {
  return T().deserializeLen(block.record(), block.size()) != 0;
}
template <>
bool isWhole<MplsCosVia>(Block& block) {
  return MplsCosVia().deserializeLen(block.record(), block.size()) >
         MplsCosVia::mplsCosViaFixedLen;
}

// Whether deserialize looks at the length itself, so that it may be given any record.
template <class T>
constexpr bool checksItsLength =
    !std::same_as<T, TunnelTableEntry> && !std::same_as<T, MulticastTunnelTableEntry>;

// Clears the bits that are cut when a whole record is read.
template <class T>
void cut(U8*, U32) {}
template <>
void cut<DynamicMplsLabelStack>(U8* record, U32 size) {
  for (U32 at = 4; at < size; at += 4) {
    record[at + 2] &= 0xf;
    record[at + 3] = 0;
  }
}
template <>
void cut<MplsCosVia>(U8* record, U32 size) {
  record[29] &= 7;
  cut<DynamicMplsLabelStack>(record + MplsCosVia::mplsCosViaFixedLen,
                             size - MplsCosVia::mplsCosViaFixedLen);
}

template <class T>
bool reads(T& value, Block& block) {
  try {
    value.deserialize(block.record(), block.size());
    return true;
  } catch (const Drem::InvalidSizeException&) {
    return false;
  }
}

template <class T>
void record(const U8* bytes, std::size_t size, U32 shift) {
  Block given(bytes, size, shift);
  T value;
  if (!isWhole<T>(given)) {
    if constexpr (checksItsLength<T>) {
      FUZZ_CHECK(!reads(value, given));
      FUZZ_CHECK(value == T());
    }
    return;
  }
  const bool isRead = reads(value, given);
  if constexpr (std::same_as<T, TunnelTableEntry>) {
    if (!isRead) return;  // too many elements
  }
  FUZZ_CHECK(isRead);

  const U32 length = value.serializeLen();
  FUZZ_CHECK(length <= given.size());
  Bytes written(length);
  value.serialize(written.data());
  value.serialize(nullptr);
  cut<T>(given.record(), length);
  FUZZ_CHECK(std::memcmp(written.data(), given.record(), length) == 0);
  T again;
  Block exact(written.data(), length, shift), shorter(written.data(), length - 1, shift);
  FUZZ_CHECK(isWhole<T>(exact) && reads(again, exact));
  FUZZ_CHECK(!isWhole<T>(shorter));
  FUZZ_CHECK(valueToStrep(again) == valueToStrep(value));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;
  using Record = void (*)(const U8*, std::size_t, U32);
  constexpr Record records[] = {
      record<MulticastTreeId>, record<MulticastTunnelTableEntry>,
      record<DynamicMplsLabelStack>, record<MplsCosVia>, record<TunnelTableEntry>};
  records[bytes[0] % std::size(records)](bytes + 1, size - 1, bytes[0] >> 5);
  return 0;
}
