#include "TestFiles.h"

#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace zelph {

CTestDir::CTestDir(std::string_view tag, mode_t mode) : path_("/tmp/zelph-" + std::string(tag) + "-XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) {
    path_.clear();
    return;
  }
  chmod(path_.c_str(), mode);
}

CTestDir::~CTestDir() {
  if (path_.empty()) return;
  namespace fs = std::filesystem;
  std::error_code ignored;
  // Give back what a test took away (a read-only trace directory), so that
  // everything can go.
  for (auto it = fs::recursive_directory_iterator(path_, ignored); it != fs::recursive_directory_iterator();
       it.increment(ignored)) {
    if (it->is_directory(ignored)) fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
  }
  fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ignored);
  fs::remove_all(path_, ignored);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "<missing>";
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool WriteFile(const std::string& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out.flush());
}

std::vector<std::string> SplitLines(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    lines.emplace_back(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return lines;
}

int CountOf(std::string_view text, std::string_view needle) {
  int count = 0;
  for (std::size_t at = text.find(needle); !needle.empty() && at != std::string_view::npos;
       at = text.find(needle, at + needle.size())) {
    ++count;
  }
  return count;
}

std::string Visible(std::string_view text) {
  std::string shown;
  for (const unsigned char c : text) {
    if (c == '\t') {
      shown += "\\t";
    } else if (c == '\\') {
      shown += "\\\\";
    } else if (c < 0x20 || c >= 0x7F) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\x%02X", c);
      shown += escape;
    } else {
      shown += static_cast<char>(c);
    }
  }
  return shown;
}

}  // namespace zelph
