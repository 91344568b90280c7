#include "LogLine.h"

#include <cstdio>

namespace zelph {

void FormatPrefixTime(const CLinePrefix& prefix, int year, char (&out)[32]) noexcept {
  std::snprintf(out, sizeof out, "%04d-%02d-%02dT%02d:%02d:%02d.%06d", year % 10000, prefix.month,
                prefix.day, prefix.hour, prefix.minute, prefix.second, prefix.micros);
}

}  // namespace zelph
