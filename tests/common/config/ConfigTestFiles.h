// Real files in a private temporary directory for the configuration tests.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "common/config/CConfigSection.h"

namespace zelph {

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes.
class CTempDir {
 public:
  CTempDir() : m_path((std::filesystem::temp_directory_path() / "zelph-config-XXXXXX").string()) {
    if (mkdtemp(m_path.data()) == nullptr) m_path.clear();
  }
  ~CTempDir() {
    std::error_code ignored;
    if (!m_path.empty()) std::filesystem::remove_all(m_path, ignored);
  }
  CTempDir(const CTempDir&) = delete;
  CTempDir& operator=(const CTempDir&) = delete;

  // `name` inside the directory.
  std::string File(const std::string& name) const { return m_path + "/" + name; }
  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
};

inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// The whole file, or "<missing>" when it cannot be read.
inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "<missing>";
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline std::string ToStd(const CUTF8String& s) {
  return std::string(s.View());
}

// A tree in one line: entries as key="value"; then subsections as name{...}.
inline std::string Dump(const CConfigSection& section) {
  std::string out;
  for (const auto& entry : section.GetEntries()) {
    out += ToStd(entry->key) + "=\"" + ToStd(entry->value) + "\";";
  }
  for (const auto& sub : section.GetSubsections()) {
    out += ToStd(sub->GetName()) + "{" + Dump(*sub) + "}";
  }
  return out;
}

}  // namespace zelph
