// One line of a trace log taken apart: the prefix every trace line starts
// with ("11-22_21:54:37:437116 A468E840.. "), its indentation and the kind of
// text behind it.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

namespace zelph {

// The fields of a line prefix, as printed.
struct CLinePrefix {
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int micros = 0;  // the sub-second part of the writer's monotonic clock
  std::uint32_t thread = 0;
  char marker = 0;
  std::string_view text;  // everything after the prefix, indentation included
  // True when the date and time up to the second are those of the line the
  // same reader parsed before (so the caller may reuse what it made of them).
  bool sameSecond = false;
};

// Takes lines apart; one reader remembers the previous line's date, time and
// thread, which consecutive lines mostly share, and parses only what changed.
class CPrefixParser {
 public:
  // Takes `line` apart; false when it does not start with a trace prefix.
  // The prefix ends in the thread's marker twice and a blank; a thread whose
  // marker is '%' shows it once on message lines (printf halves the pair),
  // and both forms are accepted.
  bool Parse(std::string_view line, CLinePrefix& prefix) noexcept;

 private:
  // "MM-DD_hh:mm:ss" (as bytes 0-7 and 6-13) and the thread id's text of
  // the last line parsed, and what they said.
  std::uint64_t second_[2] = {};
  std::uint64_t thread_ = 0;
  CLinePrefix last_;
};

// What a line's text says.
enum class CLineKind : unsigned char { kEntering, kLeaving, kReturns, kOther };

struct CLineText {
  CLineKind kind = CLineKind::kOther;
  std::string_view name;     // the function (Entering, Leaving) or the return code (Returns)
  std::int64_t micros = -1;  // the duration on a Returns line, -1 when it has none
};

// Reads "Entering NAME.", "Leaving NAME." and "Returns CODE" or
// "Returns CODE (N us)" behind any indentation.
CLineText ClassifyLineText(std::string_view text) noexcept;

// "2026-11-22T21:54:37.437116": the prefix's time with the year it belongs to.
void FormatPrefixTime(const CLinePrefix& prefix, int year, char (&out)[32]) noexcept;

// Both run on every line of logs of gigabytes, so they are inline.
namespace line_detail {

constexpr bool IsDigit(char c) noexcept {
  return c >= '0' && c <= '9';
}

// Two decimal digits at `at`, or -1.
inline int TwoDigits(std::string_view s, std::size_t at) noexcept {
  return IsDigit(s[at]) && IsDigit(s[at + 1]) ? (s[at] - '0') * 10 + (s[at + 1] - '0') : -1;
}

inline int HexDigit(char c) noexcept {
  if (IsDigit(c)) return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Compared by hand: a library memcmp call costs more than these few bytes.
template <std::size_t N>
bool StartsWith(std::string_view s, const char (&start)[N]) noexcept {
  if (s.size() < N - 1) return false;
  for (std::size_t i = 0; i < N - 1; ++i) {
    if (s[i] != start[i]) return false;
  }
  return true;
}

// "CODE" or "CODE (N us)" behind "Returns ".
inline void ReadReturns(std::string_view text, CLineText& result) noexcept {
  const std::size_t end = text.find(' ');
  result.name = text.substr(0, end);
  if (end == std::string_view::npos) return;
  std::string_view rest = text.substr(end);
  if (!StartsWith(rest, " (") || rest.size() < 6 ||
      !StartsWith(rest.substr(rest.size() - 4), " us)")) {
    return;
  }
  rest = rest.substr(2, rest.size() - 6);
  std::int64_t micros = 0;
  for (const char c : rest) {
    if (!IsDigit(c) || micros > (INT64_MAX - 9) / 10) return;
    micros = micros * 10 + (c - '0');
  }
  if (!rest.empty()) result.micros = micros;
}

}  // namespace line_detail

inline bool CPrefixParser::Parse(std::string_view line, CLinePrefix& prefix) noexcept {
  using namespace line_detail;
  // "MM-DD_hh:mm:ss:uuuuuu TTTTTTTTmm " is 33 characters; 32 with one '%'.
  if (line.size() < 32 || line[14] != ':' || line[21] != ' ') return false;
  const char* const p = line.data();
  // Most lines share their second and their thread with the line before:
  // compared as two and one 8-byte words, they need no parsing.
  std::uint64_t second[2], thread;
  std::memcpy(&second[0], p, 8);
  std::memcpy(&second[1], p + 6, 8);
  std::memcpy(&thread, p + 22, 8);
  if (second[0] == second_[0] && second[1] == second_[1]) {
    prefix.month = last_.month, prefix.day = last_.day, prefix.hour = last_.hour;
    prefix.minute = last_.minute, prefix.second = last_.second;
    prefix.sameSecond = true;
  } else {
    if (p[2] != '-' || p[5] != '_' || p[8] != ':' || p[11] != ':') return false;
    prefix.month = TwoDigits(line, 0);
    prefix.day = TwoDigits(line, 3);
    prefix.hour = TwoDigits(line, 6);
    prefix.minute = TwoDigits(line, 9);
    prefix.second = TwoDigits(line, 12);
    if ((prefix.month | prefix.day | prefix.hour | prefix.minute | prefix.second) < 0) return false;
    prefix.sameSecond = false;
  }
  // A byte below '0' wraps to a large number, so "> 9" tests both ends.
  const auto digit = [p](int i) {
    return static_cast<unsigned>(static_cast<unsigned char>(p[i])) - '0';
  };
  const unsigned d0 = digit(15), d1 = digit(16), d2 = digit(17), d3 = digit(18), d4 = digit(19),
                 d5 = digit(20);
  if ((d0 > 9) | (d1 > 9) | (d2 > 9) | (d3 > 9) | (d4 > 9) | (d5 > 9)) return false;
  prefix.micros = static_cast<int>(((((d0 * 10 + d1) * 10 + d2) * 10 + d3) * 10 + d4) * 10 + d5);
  if (thread == thread_) {
    prefix.thread = last_.thread;
  } else {
    std::uint32_t id = 0;
    for (std::size_t i = 22; i < 30; ++i) {
      const int hex = HexDigit(p[i]);
      if (hex < 0) return false;
      id = id << 4 | static_cast<std::uint32_t>(hex);
    }
    prefix.thread = id;
  }
  prefix.marker = p[30];
  if (line.size() >= 33 && p[31] == prefix.marker && p[32] == ' ') {
    prefix.text = line.substr(33);
  } else if (prefix.marker == '%' && p[31] == ' ') {
    prefix.text = line.substr(32);
  } else {
    return false;
  }
  second_[0] = second[0];
  second_[1] = second[1];
  thread_ = thread;
  last_.month = prefix.month, last_.day = prefix.day, last_.hour = prefix.hour;
  last_.minute = prefix.minute, last_.second = prefix.second, last_.thread = prefix.thread;
  return true;
}

inline CLineText ClassifyLineText(std::string_view text) noexcept {
  using namespace line_detail;
  // Indentation comes in fours.
  std::size_t start = 0;
  for (std::uint32_t four = 0; start + 4 <= text.size(); start += 4) {
    std::memcpy(&four, text.data() + start, 4);
    if (four != 0x20202020u) break;
  }
  while (start < text.size() && text[start] == ' ') ++start;
  text.remove_prefix(start);
  CLineText result;
  if (text.size() < 9) return result;
  switch (text[0]) {
    case 'E':
      if (StartsWith(text, "Entering ") && text.back() == '.') {
        result.kind = CLineKind::kEntering;
        result.name = text.substr(9, text.size() - 10);
      }
      break;
    case 'L':
      if (StartsWith(text, "Leaving ") && text.back() == '.') {
        result.kind = CLineKind::kLeaving;
        result.name = text.substr(8, text.size() - 9);
      }
      break;
    case 'R':
      if (StartsWith(text, "Returns ")) {
        result.kind = CLineKind::kReturns;
        ReadReturns(text.substr(8), result);
      }
      break;
    default:
      break;
  }
  if (result.name.empty()) result.kind = CLineKind::kOther;
  return result;
}

}  // namespace zelph
