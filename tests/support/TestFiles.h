// Scratch directories and whole-file helpers shared by every test area.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

namespace zelph {

// A fresh directory under /tmp ("/tmp/zelph-<tag>-XXXXXX"), removed with its
// contents when the object goes. The path is short on purpose: Unix socket
// paths inside it must stay under 108 bytes. `mode` opens it to other users
// for tests whose child drops its privileges.
class CTestDir {
 public:
  explicit CTestDir(std::string_view tag = "test", mode_t mode = 0700);
  CTestDir(const CTestDir&) = delete;
  CTestDir& operator=(const CTestDir&) = delete;
  ~CTestDir();

  const std::string& Path() const noexcept { return path_; }
  // `name` inside the directory.
  std::string File(std::string_view name) const { return path_ + "/" + std::string(name); }

 private:
  std::string path_;
};

// The whole file; "<missing>" when it cannot be opened.
std::string ReadFile(const std::string& path);
// Replaces the file's contents; false when it cannot be written.
bool WriteFile(const std::string& path, std::string_view bytes);
// `text` cut at line feeds; a last line without one is kept.
std::vector<std::string> SplitLines(std::string_view text);
// Occurrences of `needle` in `text`.
int CountOf(std::string_view text, std::string_view needle);
// Control and non-ASCII bytes as escapes, for failure messages that must tell
// a tab from a blank and an ISO-8859-1 byte from its UTF-8 form.
std::string Visible(std::string_view text);

}  // namespace zelph
