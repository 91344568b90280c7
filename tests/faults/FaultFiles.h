// Temporary directories, files and trace configurations for the fault tests.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace zelph {

// A fresh directory under /tmp, open to every user (a test may drop its
// privileges in a child), removed with its contents at the end.
class CFaultDir {
 public:
  CFaultDir() : path_("/tmp/zelph-fault-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) {
      path_.clear();
      return;
    }
    chmod(path_.c_str(), 0755);
  }
  ~CFaultDir() {
    std::error_code ignored;
    if (path_.empty()) return;
    // Restore permissions a test took away, so that everything can go.
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ignored);
    std::filesystem::remove_all(path_, ignored);
  }
  CFaultDir(const CFaultDir&) = delete;
  CFaultDir& operator=(const CFaultDir&) = delete;

  const std::string& Path() const noexcept { return path_; }
  std::string File(std::string_view name) const { return path_ + "/" + std::string(name); }

 private:
  std::string path_;
};

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline bool WriteFile(const std::string& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out);
}

// A configuration that switches tracing on with logs in `directory`.
inline std::string TraceConfig(const std::string& directory) {
  return "Quillon {\n\tEnableTrace = 1\n\tTrace = " + directory + "\n}\n";
}

// The trace logs ("zelph_*.log") in `directory`, sorted by name.
inline std::vector<std::string> LogFiles(const std::string& directory) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with("zelph_") && name.ends_with(".log")) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace zelph
