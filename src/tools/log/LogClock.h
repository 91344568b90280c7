// The time line of one process's log. A prefix prints whole seconds of the
// wall clock but the sub-second part of the monotonic clock, so neither alone
// orders lines nor measures a call. The clock keeps a running time per
// process, advanced from line to line by the monotonic microseconds, and uses
// the wall seconds only to count whole seconds between two lines.
#pragma once

#include <cstdint>

#include "LogLine.h"

namespace zelph {

class CLogClock {
 public:
  // `year` is the year of the first line (from the log's header): prefixes
  // have none, so it is counted on when the month goes back (a log across a
  // year's end).
  explicit CLogClock(int year) noexcept : year_(year) {}

  // Microseconds from the first line to `prefix`'s line, which must be the
  // process's next line in the file.
  std::int64_t Advance(const CLinePrefix& prefix) noexcept {
    // Most lines follow one of the same wall second: only the monotonic
    // microseconds moved.
    if (started_ && prefix.sameSecond && prefix.micros >= lastMicros_) {
      now_ += prefix.micros - lastMicros_;
      lastMicros_ = prefix.micros;
      return now_;
    }
    return AdvanceSlowly(prefix);
  }

  // The year of the last line passed to Advance.
  int Year() const noexcept { return year_; }

 private:
  std::int64_t AdvanceSlowly(const CLinePrefix& prefix) noexcept;
  // Whole wall-clock seconds since an arbitrary epoch.
  std::int64_t WallSeconds(const CLinePrefix& prefix) noexcept;
  // Microseconds between two lines `seconds` wall seconds apart whose
  // monotonic parts are `from` and `to`.
  std::int64_t Elapsed(std::int64_t seconds, int from, int to) noexcept;

  int year_;
  int lastMonth_ = 0;
  bool started_ = false;
  std::int64_t lastSeconds_ = 0;
  int lastMicros_ = 0;
  std::int64_t now_ = 0;
  // Where in the monotonic second the wall clock's second turns over, learnt
  // from the closest pair of lines seen on either side of a turn.
  int turn_ = -1;
  int turnGap_ = 1000000;
};

}  // namespace zelph
