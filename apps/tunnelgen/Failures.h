#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <optional>
#include <random>
#include <vector>

#include "Kop/Types.h"

namespace Tunnelgen {

// Which link fails or returns next: at random, the same for the same seed.
class Failures {
 public:
  struct Step {
    U32 link;
    bool up;
  };

  // At most `most` links are down at a time, at least 1.
  Failures(U32 linkCount, U32 most, U64 seed)
      : random_(seed), most_(std::clamp(most, 1u, linkCount)), links_(linkCount) {
    for (U32 i = 0; i < linkCount; ++i)
      links_[i] = i;
  }

  Step next() {
    const bool up = downCount_ == most_ || (downCount_ > 0 && random_() % 2 == 0);
    return up ? restore() : fail();
  }
  // The end: links return until none is down.
  std::optional<Step> nextRestored() {
    if (downCount_ == 0) return std::nullopt;
    return restore();
  }
  U32 downCount() const { return downCount_; }

 private:
  // The links that are down stand first.
  Step fail() {
    std::swap(links_[downCount_],
              links_[downCount_ + random_() % (links_.size() - downCount_)]);
    return {links_[downCount_++], false};
  }
  Step restore() {
    std::swap(links_[random_() % downCount_], links_[downCount_ - 1]);
    return {links_[--downCount_], true};
  }

  std::mt19937_64 random_;
  U32 most_;
  std::vector<U32> links_;
  U32 downCount_ = 0;
};

// Times and their percentiles, in constant memory however long it runs.
//
// Units    microseconds, exact to 1.6 %.
class Latencies {
 public:
  void add(U64 time) {
    ++counts_[place(time)];
    ++count_;
    most_ = std::max(most_, time);
  }
  U64 count() const { return count_; }
  U64 most() const { return most_; }
  // The least time that `share` of all times, above 0 to 1, do not exceed.
  U64 percentile(double share) const {
    const double wanted = share * static_cast<double>(count_);
    U64 sum = 0;
    for (std::size_t i = 0; i < counts_.size(); ++i) {
      sum += counts_[i];
      if (sum > 0 && static_cast<double>(sum) >= wanted) return std::min(most_, top(i));
    }
    return 0;
  }

 private:
  // The first 128 one by one, then 64 for each power of two.
  static std::size_t place(U64 time) {
    const int shift = std::max(0, static_cast<int>(std::bit_width(time)) - 7);
    return static_cast<std::size_t>(64 * shift) + (time >> shift);
  }
  static U64 top(std::size_t place) {
    if (place < 128) return place;
    const std::size_t shift = place / 64 - 1;
    return ((place - 64 * shift + 1) << shift) - 1;
  }

  std::array<U64, 64 * 59> counts_{};
  U64 count_ = 0, most_ = 0;
};

}  // namespace Tunnelgen
