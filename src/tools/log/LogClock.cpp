#include "LogClock.h"

namespace zelph {
namespace {

constexpr std::int64_t kSecond = 1000000;

// Days since 1970-01-01 of a proleptic Gregorian date.
std::int64_t DaysFromCivil(std::int64_t y, int m, int d) noexcept {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const std::int64_t yoe = y - era * 400;
  const std::int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

// `micros` as an offset into the wall clock's second, given where it turns.
int WallFraction(int micros, int turn) noexcept {
  return static_cast<int>((micros - turn + kSecond) % kSecond);
}

}  // namespace

std::int64_t CLogClock::WallSeconds(const CLinePrefix& prefix) noexcept {
  if (prefix.month < lastMonth_) ++year_;
  lastMonth_ = prefix.month;
  return (DaysFromCivil(year_, prefix.month, prefix.day) * 24 + prefix.hour) * 3600 +
         prefix.minute * 60 + prefix.second;
}

std::int64_t CLogClock::Elapsed(std::int64_t seconds, int from, int to) noexcept {
  const std::int64_t fraction = to >= from ? to - from : to - from + kSecond;
  // A clock set back, or lines in the same second: no whole second passed.
  if (seconds <= 0) return fraction;
  // The true time is fraction plus either seconds - 1 or seconds whole
  // seconds. Without knowing where the wall second turns, take the shorter:
  // right for every gap under a second.
  if (turn_ < 0) return (seconds - 1) * kSecond + fraction;
  const std::int64_t wall = seconds * kSecond + WallFraction(to, turn_) - WallFraction(from, turn_);
  const std::int64_t shorter = (seconds - 1) * kSecond + fraction;
  const std::int64_t longer = shorter + kSecond;
  return wall - shorter <= longer - wall ? shorter : longer;
}

std::int64_t CLogClock::AdvanceSlowly(const CLinePrefix& prefix) noexcept {
  const std::int64_t seconds = started_ && prefix.sameSecond ? lastSeconds_ : WallSeconds(prefix);
  if (!started_) {
    started_ = true;
  } else {
    const std::int64_t passed = seconds - lastSeconds_;
    if (passed == 1) {
      // The wall second turned between these two lines: the closer they are,
      // the better they place the turn.
      const int gap = static_cast<int>(Elapsed(0, lastMicros_, prefix.micros));
      if (gap < turnGap_) {
        turnGap_ = gap;
        turn_ = static_cast<int>((lastMicros_ + (gap + 1) / 2) % kSecond);
      }
    }
    now_ += Elapsed(passed, lastMicros_, prefix.micros);
  }
  lastSeconds_ = seconds;
  lastMicros_ = prefix.micros;
  return now_;
}

}  // namespace zelph
