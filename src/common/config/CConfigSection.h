// The configuration store: a configuration file read into a tree of named
// brace blocks ("Name { key = value ... }") holding key/value entries, read
// and changed in memory and written back with Save. Reads never fail: a
// missing key or a malformed number gives the caller's default.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/base/CTString.h"
#include "common/config/CConfigEntry.h"

namespace zelph {

// One node of a configuration file held in memory: a named section with its
// subsections and key/value entries, both in file order. The whole file is the
// top section, which has an empty name and remembers the path it was loaded
// from so that every change is written back to that file at once.
//
// Names and keys need not be unique; every lookup takes the first match.
// Comparisons are exact (case-sensitive, no trimming). An empty value and an
// absent value read the same. Nothing here throws or writes messages.
//
// No locks: a tree may be read from several threads while nobody changes it;
// changes must be serialised by the caller.
class CConfigSection {
 public:
  // Creates an empty top section without a file name; saving it fails.
  CConfigSection() noexcept;
  ~CConfigSection();

  // Subsections point at their top section, so sections stay where they are.
  CConfigSection(const CConfigSection&) = delete;
  CConfigSection& operator=(const CConfigSection&) = delete;

  // Sections nested deeper than this end the reading of the file, so that a
  // hostile file cannot exhaust the stack of the reading thread.
  static constexpr int kMaxDepth = 100;

  // Reads and parses the file at `path` into a new top section that remembers
  // the path. A file that cannot be opened gives an empty tree. A section that
  // would lie deeper than kMaxDepth ends the reading: it and the rest of the
  // file are ignored, as after a "}" at the top level.
  static std::unique_ptr<CConfigSection> Load(const CUTF8String& path);

  // The section's name; empty for the top section.
  const CUTF8String& GetName() const noexcept { return name_; }

  // The path the tree is saved to; only the top section holds one.
  const CUTF8String& GetFileName() const noexcept { return fileName_; }

  // The top section of the tree; the top section is its own top.
  CConfigSection& GetTop() noexcept { return *top_; }
  const CConfigSection& GetTop() const noexcept { return *top_; }

  // Subsections and entries in file order, then in order of creation.
  const std::vector<std::unique_ptr<CConfigSection>>& GetSubsections() const noexcept {
    return subsections_;
  }
  const std::vector<std::unique_ptr<CConfigEntry>>& GetEntries() const noexcept {
    return entries_;
  }

  // Returns the first subsection called `name`, or null when there is none.
  const CConfigSection* FindSection(const CUTF8String& name) const noexcept;

  // Returns the first subsection called `name`. When there is none, a new
  // empty one is appended and returned; it reaches the file with the next save.
  CConfigSection& GetSection(const CUTF8String& name);

  // Returns the first entry with `key`, or null when there is none. Lets a
  // caller tell a key that is present (possibly with an empty value) from one
  // that is missing.
  const CConfigEntry* FindEntry(const CUTF8String& key) const noexcept;

  // True when an entry with `key` exists, whatever its value.
  bool HasValue(const CUTF8String& key) const noexcept { return FindEntry(key) != nullptr; }

  // The value of the first entry with `key`; empty when there is none.
  CUTF8String GetValue(const CUTF8String& key) const noexcept;

  // The value of the first entry with `key` read as a plain decimal number
  // (digits only, no sign, no blanks). A missing key, an empty value, any other
  // character, or a number above 2147483645 gives `defaultValue`.
  std::int32_t GetIntValue(const CUTF8String& key, std::int32_t defaultValue) const noexcept;

  // Replaces the value of the first entry with `key`, or appends a new entry,
  // then saves the whole tree and returns the result of the save. An empty key
  // changes nothing and returns false.
  [[nodiscard]] bool SetValue(const CUTF8String& key, const CUTF8String& value);

  // Stores `value` as decimal text (leading "-" when negative) via SetValue.
  [[nodiscard]] bool SetIntValue(const CUTF8String& key, std::int32_t value);

  // Deletes the first entry with `key`, keeping the order of the others, then
  // saves the whole tree and returns the result of the save. Without a
  // matching entry nothing is written and the result is false.
  [[nodiscard]] bool RemoveValue(const CUTF8String& key);

  // Writes the whole tree this section belongs to over the top section's file
  // (no temporary file, no backup). Returns false when there is no file name,
  // the file cannot be opened for writing, or not every byte was written.
  [[nodiscard]] bool Save() const;

 private:
  // Creates an empty subsection belonging to the tree of `top`.
  CConfigSection(const CUTF8String& name, CConfigSection* top) noexcept;

  // Reads entries and subsections into this section up to the "}" that ends
  // it or the end of the text (the "}" is left for the caller).
  // `depth` is this section's depth (0 for the top). Returns false when a
  // section too deep ended the reading.
  [[nodiscard]] bool ParseBlock(CTStringCursor<CUTF8Encoding>& cursor, int depth);

  // Appends this section's subsections, then its entries, indented by `depth`
  // tabs, to `out`.
  void WriteText(std::string& out, std::size_t depth) const;

  CUTF8String name_;
  CUTF8String fileName_;
  CConfigSection* top_;
  std::vector<std::unique_ptr<CConfigSection>> subsections_;
  std::vector<std::unique_ptr<CConfigEntry>> entries_;
};

}  // namespace zelph
