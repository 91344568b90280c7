// Fuzzes the configuration store: a file of arbitrary bytes is loaded,
// queried, saved and loaded again. Saving must not change the tree, except
// for entries with an empty value, which the format cannot write back
// faithfully ("k = " takes the next line as its value when read again).
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "FuzzSupport.h"
#include "common/config/CConfigSection.h"

using namespace zelph;

namespace {

// The configuration file: an anonymous memory file, reached by a path.
int g_file = -1;
std::string g_path;

void WriteInput(const std::uint8_t* data, std::size_t size) {
  Require(ftruncate(g_file, 0) == 0, "the memory file can be emptied");
  Require(pwrite(g_file, data, size, 0) == static_cast<ssize_t>(size), "the input is written");
}

// GetIntValue by its rules: digits only, at most 2147483645.
std::int32_t ReferenceInt(std::string_view value, std::int32_t fallback) {
  if (value.empty()) return fallback;
  std::int64_t number = 0;
  for (const char c : value) {
    if (c < '0' || c > '9') return fallback;
    number = number * 10 + (c - '0');
    if (number > 2147483645) return fallback;
  }
  return static_cast<std::int32_t>(number);
}

// Queries every entry and subsection the way callers do; true when an entry
// holds an empty value somewhere in the tree.
bool Walk(const CConfigSection& section) {
  bool hasEmptyValue = false;
  for (const auto& entry : section.GetEntries()) {
    hasEmptyValue |= entry->value.IsEmpty();
    const CConfigEntry* first = section.FindEntry(entry->key);
    Require(first != nullptr && first->key == entry->key, "every key is found");
    Require(section.GetValue(entry->key) == first->value, "GetValue gives the first match");
    Require(section.GetIntValue(entry->key, -7) == ReferenceInt(first->value.View(), -7),
            "GetIntValue reads plain decimal numbers only");
    Require(!entry->key.IsEmpty(), "the reader makes no entry without a key");
  }
  for (const auto& sub : section.GetSubsections()) {
    Require(section.FindSection(sub->GetName()) != nullptr, "every subsection is found");
    Require(&sub->GetTop() == &section.GetTop(), "subsections know their top");
    hasEmptyValue |= Walk(*sub);
  }
  return hasEmptyValue;
}

bool SameTree(const CConfigSection& a, const CConfigSection& b) {
  if (a.GetName() != b.GetName() || a.GetEntries().size() != b.GetEntries().size() ||
      a.GetSubsections().size() != b.GetSubsections().size()) {
    return false;
  }
  for (std::size_t i = 0; i < a.GetEntries().size(); ++i) {
    if (a.GetEntries()[i]->key != b.GetEntries()[i]->key ||
        a.GetEntries()[i]->value != b.GetEntries()[i]->value) {
      return false;
    }
  }
  for (std::size_t i = 0; i < a.GetSubsections().size(); ++i) {
    if (!SameTree(*a.GetSubsections()[i], *b.GetSubsections()[i])) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  g_file = memfd_create("zelph-fuzz-config", 0);
  Require(g_file >= 0, "memfd_create works");
  g_path = "/proc/self/fd/" + std::to_string(g_file);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  WriteInput(data, size);
  const std::unique_ptr<CConfigSection> first = CConfigSection::Load(g_path.c_str());
  Require(first->GetFileName().View() == g_path, "the tree remembers its file");
  const bool hasEmptyValue = Walk(*first);

  Require(first->Save(), "the tree can be saved");
  const std::unique_ptr<CConfigSection> second = CConfigSection::Load(g_path.c_str());
  if (!hasEmptyValue) Require(SameTree(*first, *second), "save and load give the same tree");

  // Saving the reread tree writes the same text again.
  std::string once(static_cast<std::size_t>(lseek(g_file, 0, SEEK_END)), '\0');
  Require(pread(g_file, once.data(), once.size(), 0) == static_cast<ssize_t>(once.size()),
          "the saved text can be read");
  if (!hasEmptyValue) {
    Require(second->Save(), "the reread tree can be saved");
    std::string twice(static_cast<std::size_t>(lseek(g_file, 0, SEEK_END)), '\0');
    Require(pread(g_file, twice.data(), twice.size(), 0) == static_cast<ssize_t>(twice.size()),
            "the second save can be read");
    Require(once == twice, "saving is stable");
  }
  return 0;
}
