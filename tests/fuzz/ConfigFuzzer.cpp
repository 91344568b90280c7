// Fuzzes the configuration store: a file of arbitrary bytes is loaded, saved
// and loaded again, which must give the same tree, and saving that tree again
// must write the same text. Entries with an empty value are the exception:
// "k = " takes the next line as its value when read again.
#include <sys/mman.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "FuzzSupport.h"
#include "common/config/CConfigSection.h"

using namespace zelph;

namespace {

// The tree as text, each name, key and value behind its length; `empty` is
// set when an entry has an empty value.
std::string Describe(const CConfigSection& section, bool& empty) {
  const auto field = [](const CUTF8String& s) {
    return std::to_string(s.Size()) + ":" + std::string(s.View());
  };
  std::string out = "[" + field(section.GetName());
  for (const auto& entry : section.GetEntries()) {
    empty |= entry->value.IsEmpty();
    out += field(entry->key) + "=" + field(entry->value);
  }
  for (const auto& sub : section.GetSubsections()) out += Describe(*sub, empty);
  return out + "]";
}

std::string Contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The file is an anonymous memory file, reached by a path.
  static const int file = memfd_create("zelph-fuzz-config", 0);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  Require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size),
          "the input is written");
  bool empty = false;
  const auto first = CConfigSection::Load(path.c_str());
  const std::string tree = Describe(*first, empty);
  Require(first->Save(), "the tree can be saved");
  const std::string saved = Contents(path);
  const auto second = CConfigSection::Load(path.c_str());
  if (empty) return 0;
  Require(Describe(*second, empty) == tree, "save and load give the same tree");
  Require(second->Save() && Contents(path) == saved, "saving is stable");
  return 0;
}
