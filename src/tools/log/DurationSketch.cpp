#include "DurationSketch.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace zelph {
namespace {

// Below kExact every value has its bucket; above, each power of two is split
// into kSteps buckets.
constexpr int kExactBits = 8;
constexpr std::uint64_t kExact = 1u << kExactBits;
constexpr int kStepBits = 7;
constexpr std::uint64_t kSteps = 1u << kStepBits;

std::size_t BucketOf(std::uint64_t value) noexcept {
  if (value < kExact) return value;
  const int top = std::bit_width(value) - 1;  // >= kExactBits
  const std::uint64_t step = (value >> (top - kStepBits)) & (kSteps - 1);
  return kExact + static_cast<std::size_t>(top - kExactBits) * kSteps + step;
}

// The smallest value of a bucket.
std::uint64_t LowestOf(std::size_t bucket) noexcept {
  if (bucket < kExact) return bucket;
  const std::size_t above = bucket - kExact;
  const int top = static_cast<int>(above / kSteps) + kExactBits;
  const std::uint64_t step = above % kSteps;
  return (std::uint64_t{1} << top) | (step << (top - kStepBits));
}

}  // namespace

void CDurationSketch::Add(std::int64_t micros) {
  micros = std::max<std::int64_t>(micros, 0);
  min_ = count_ == 0 ? micros : std::min(min_, micros);
  max_ = count_ == 0 ? micros : std::max(max_, micros);
  const std::size_t bucket = BucketOf(static_cast<std::uint64_t>(micros));
  if (bucket >= buckets_.size()) buckets_.resize(bucket + 1);
  ++buckets_[bucket];
  ++count_;
}

void CDurationSketch::Merge(const CDurationSketch& other) {
  if (other.buckets_.size() > buckets_.size()) buckets_.resize(other.buckets_.size());
  for (std::size_t i = 0; i < other.buckets_.size(); ++i) buckets_[i] += other.buckets_[i];
  if (other.count_ > 0) {
    min_ = count_ == 0 ? other.min_ : std::min(min_, other.min_);
    max_ = count_ == 0 ? other.max_ : std::max(max_, other.max_);
  }
  count_ += other.count_;
}

std::int64_t CDurationSketch::Quantile(double fraction) const noexcept {
  if (count_ == 0) return 0;
  const auto rank = std::max<std::uint64_t>(
      1, static_cast<std::uint64_t>(std::ceil(fraction * static_cast<double>(count_))));
  std::uint64_t seen = 0;
  for (std::size_t i = 0; i < buckets_.size(); ++i) {
    seen += buckets_[i];
    if (seen < rank) continue;
    if (i < kExact) return static_cast<std::int64_t>(i);
    // The middle of the bucket (at most half a step, under 0.4%, off), but
    // never outside the durations seen.
    const auto middle = static_cast<std::int64_t>((LowestOf(i) + LowestOf(i + 1)) / 2);
    return std::clamp(middle, min_, max_);
  }
  return max_;
}

std::vector<std::uint64_t> CDurationSketch::PowerOfTwoBins() const {
  std::vector<std::uint64_t> bins;
  for (std::size_t i = 0; i < buckets_.size(); ++i) {
    if (buckets_[i] == 0) continue;
    const auto bin = static_cast<std::size_t>(std::bit_width(LowestOf(i)));
    if (bin >= bins.size()) bins.resize(bin + 1);
    bins[bin] += buckets_[i];
  }
  return bins;
}

}  // namespace zelph
