// Durations of many calls in little memory: exact up to 255 microseconds,
// within 1% above, so the median and the 95th percentile of millions of calls
// need no list of them.
#pragma once

#include <cstdint>
#include <vector>

namespace zelph {

class CDurationSketch {
 public:
  void Add(std::int64_t micros);
  void Merge(const CDurationSketch& other);

  std::uint64_t Count() const noexcept { return count_; }
  // The duration below which `fraction` of the calls lie (nearest rank: the
  // value of call ceil(fraction * count) in order); 0 when empty.
  std::int64_t Quantile(double fraction) const noexcept;

  // Calls per power of two: bin k counts the durations in [2^(k-1), 2^k)
  // microseconds, bin 0 those under 1.
  std::vector<std::uint64_t> PowerOfTwoBins() const;

 private:
  std::vector<std::uint64_t> buckets_;
  std::uint64_t count_ = 0;
  std::int64_t min_ = 0;
  std::int64_t max_ = 0;
};

}  // namespace zelph
