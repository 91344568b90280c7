// The JSON reader: UTF-8 text to a tree of CJSValue objects.
#pragma once

#include "common/formats/CJSValue.h"

namespace zelph {

// Reads one value from the text at `position`, which ends at `end`, and
// moves `position` past what was consumed. Returns a new value owned by the
// caller, or the shared null value when the text holds no readable value.
// Bad input never throws; only exhausted memory does.
//
// The reader's own rules, kept on purpose:
// - white space is skipped before a value and around separators; text after
//   the value is left unread;
// - strings take C escapes ("\n", "\x41", "\u00e9", "\101", "\'", a
//   backslash before a line break continues the line; a backslash before any
//   other character drops both); a raw line feed or the end of the text
//   inside a string makes it unreadable;
// - numbers are runs of decimal digits kept in 32 bits: no sign, no
//   fraction, no exponent ("1.5" reads 1 and leaves ".5");
// - "true" and "false" only; "null" and anything else read as the null value
//   with nothing consumed;
// - an array takes an item (the null value for an unreadable one), then one
//   separator byte; anything but "," ends the array, so "[]" holds one null
//   item and "[1 2]" holds only 1. The end of the text also ends an array;
// - objects accept a comma before "}"; any error inside an object makes the
//   whole object the null value.
// Nesting is handled without recursion, so deep input cannot exhaust the
// stack.
CJSValuePtr ParseJSON(const char*& position, const char* end);

}  // namespace zelph
