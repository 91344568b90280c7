#include "common/config/CConfigSection.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cwctype>
#include <utility>

#include "common/base/CharClasses.h"

namespace zelph {

namespace {

using CUTF8Cursor = CTStringCursor<CUTF8Encoding>;

// The cursor's end mark. It is neither white space nor a special character.
constexpr std::int32_t kEnd = -1;

// Closes a stdio stream when it goes out of scope.
struct CFileCloser {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using CFilePtr = std::unique_ptr<std::FILE, CFileCloser>;

void SkipSpace(CUTF8Cursor& cursor) noexcept {
  while (IsSpaceChar(cursor.Peek())) cursor.Next();
}

// Moves the cursor onto the next `stop` character, or to the end of the text.
void SkipTo(CUTF8Cursor& cursor, std::int32_t stop) noexcept {
  for (std::int32_t c = cursor.Peek(); c != kEnd && c != stop; c = cursor.Peek()) cursor.Next();
}

// Reads characters up to, not including, the end of the text or the first
// character for which `isStop` holds, and returns them without the white
// space at their end. A malformed sequence is an ordinary character and is
// stored as "?", the same as a key given by a caller, so lookups still match.
template <class StopFn>
CUTF8String ReadTrimmed(CUTF8Cursor& cursor, StopFn isStop) {
  CUTF8String text;
  // White space is held back until a non-blank shows it is not at the end.
  CUTF8String blanks;
  for (std::int32_t c = cursor.Peek(); c != kEnd && !isStop(c); c = cursor.Peek()) {
    cursor.Next();
    if (IsSpaceChar(c)) {
      blanks.AppendChar(static_cast<std::uint32_t>(c));
      continue;
    }
    if (!blanks.IsEmpty()) {
      text += blanks;
      blanks.Clear();
    }
    text.AppendChar(static_cast<std::uint32_t>(c));  // kInvalidChar becomes "?"
  }
  return text;
}

bool EndsName(std::int32_t c) noexcept {
  return c == '=' || c == '\n' || c == '{' || c == '}';
}

bool EndsValue(std::int32_t c) noexcept {
  return c == '\n';
}

void Append(std::string& out, const CUTF8String& text) {
  out.append(text.View());
}

}  // namespace

CConfigSection::CConfigSection() noexcept : top_(this) {}

CConfigSection::CConfigSection(const CUTF8String& name, CConfigSection* top) noexcept
    : name_(name), top_(top) {}

CConfigSection::~CConfigSection() = default;

std::unique_ptr<CConfigSection> CConfigSection::Load(const CUTF8String& path) {
  auto top = std::make_unique<CConfigSection>();
  top->fileName_ = path;
  if (path.IsEmpty()) return top;

  std::string bytes;
  {
    CFilePtr file(std::fopen(path.c_str(), "rte"));
    if (!file) return top;
    char piece[1024];
    std::size_t count;
    while ((count = std::fread(piece, 1, sizeof piece, file.get())) > 0) bytes.append(piece, count);
  }

  CUTF8String text(bytes.data(), bytes.size());
  CUTF8Cursor cursor(text);
  // A file nested too deep keeps what was read before the cut; reads never
  // fail, so the cut is not reported.
  static_cast<void>(top->ParseBlock(cursor, 0));
  return top;
}

bool CConfigSection::ParseBlock(CUTF8Cursor& cursor, int depth) {
  for (;;) {
    std::int32_t c = cursor.Peek();
    if (c == kEnd || c == '}') return true;
    SkipSpace(cursor);
    const CUTF8String name = ReadTrimmed(cursor, EndsName);
    c = cursor.Peek();
    if (!name.IsEmpty()) {
      if (c == '=') {
        cursor.Next();
        // Runs over line feeds too: "k =" at the end of a line takes the next
        // non-empty line as its value.
        SkipSpace(cursor);
        CUTF8String value = ReadTrimmed(cursor, EndsValue);
        entries_.push_back(std::make_unique<CConfigEntry>(CConfigEntry{name, std::move(value)}));
        if (cursor.Peek() == '\n') cursor.Next();
      } else if (c == '\n') {
        // A bare word is a key with an empty value.
        entries_.push_back(std::make_unique<CConfigEntry>(CConfigEntry{name, {}}));
        cursor.Next();
      } else if (c == '{') {
        if (depth == kMaxDepth) return false;
        cursor.Next();
        std::unique_ptr<CConfigSection> sub(new CConfigSection(name, top_));
        const bool complete = sub->ParseBlock(cursor, depth + 1);
        subsections_.push_back(std::move(sub));
        if (!complete) return false;
        if (cursor.Peek() == '}') cursor.Next();
      }
      // A bare word before "}" or at the end of the text is dropped.
    } else if (c == '{') {
      // A nameless block is skipped up to its first "}", which then also
      // ends this section; inner braces are not counted.
      SkipTo(cursor, '}');
    } else if (c == '=') {
      SkipTo(cursor, '\n');
    }
  }
}

const CConfigSection* CConfigSection::FindSection(const CUTF8String& name) const noexcept {
  for (const auto& sub : subsections_) {
    if (sub->name_ == name) return sub.get();
  }
  return nullptr;
}

CConfigSection& CConfigSection::GetSection(const CUTF8String& name) {
  if (const CConfigSection* found = FindSection(name)) return const_cast<CConfigSection&>(*found);
  subsections_.push_back(std::unique_ptr<CConfigSection>(new CConfigSection(name, top_)));
  return *subsections_.back();
}

const CConfigEntry* CConfigSection::FindEntry(const CUTF8String& key) const noexcept {
  for (const auto& entry : entries_) {
    if (entry->key == key) return entry.get();
  }
  return nullptr;
}

CUTF8String CConfigSection::GetValue(const CUTF8String& key) const noexcept {
  const CConfigEntry* entry = FindEntry(key);
  return entry ? entry->value : CUTF8String();
}

std::int32_t CConfigSection::GetIntValue(const CUTF8String& key,
                                         std::int32_t defaultValue) const noexcept {
  const CConfigEntry* entry = FindEntry(key);
  if (!entry || entry->value.IsEmpty()) return defaultValue;
  std::int32_t number = 0;
  for (const char ch : entry->value.View()) {
    if (ch < '0' || ch > '9') return defaultValue;
    const std::int32_t digit = ch - '0';
    // Stops one short of the type's limit: 2147483645 is the largest accepted.
    if (number > 214748364 || (number == 214748364 && digit > 5)) return defaultValue;
    number = number * 10 + digit;
  }
  return number;
}

bool CConfigSection::SetValue(const CUTF8String& key, const CUTF8String& value) {
  if (key.IsEmpty()) return false;
  auto it = std::find_if(entries_.begin(), entries_.end(),
                         [&key](const auto& entry) { return entry->key == key; });
  if (it != entries_.end()) {
    (*it)->value = value;
  } else {
    entries_.push_back(std::make_unique<CConfigEntry>(CConfigEntry{key, value}));
  }
  return Save();
}

bool CConfigSection::SetIntValue(const CUTF8String& key, std::int32_t value) {
  char digits[16];
  const auto result = std::to_chars(digits, digits + sizeof digits, value);
  return SetValue(key, CUTF8String(digits, static_cast<std::uint64_t>(result.ptr - digits)));
}

bool CConfigSection::RemoveValue(const CUTF8String& key) {
  auto it = std::find_if(entries_.begin(), entries_.end(),
                         [&key](const auto& entry) { return entry->key == key; });
  if (it == entries_.end()) return false;
  entries_.erase(it);
  return Save();
}

void CConfigSection::WriteText(std::string& out, std::size_t depth) const {
  const std::string indent(depth, '\t');
  for (const auto& sub : subsections_) {
    out += indent;
    Append(out, sub->name_);
    out += " {\n";
    sub->WriteText(out, depth + 1);
    out += indent;
    out += "}\n";
  }
  for (const auto& entry : entries_) {
    out += indent;
    Append(out, entry->key);
    out += " = ";
    Append(out, entry->value);
    out += '\n';
  }
}

bool CConfigSection::Save() const {
  const CConfigSection& top = GetTop();
  if (top.fileName_.IsEmpty()) return false;
  std::string text;
  top.WriteText(text, 0);

  std::FILE* file = std::fopen(top.fileName_.c_str(), "wte");
  if (!file) return false;
  const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  // Bytes still buffered by stdio reach the file only in fclose.
  const bool closed = std::fclose(file) == 0;
  return written && closed;
}

}  // namespace zelph
