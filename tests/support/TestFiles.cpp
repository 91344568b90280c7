#include "TestFiles.h"

#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace zelph {

namespace fs = std::filesystem;

CTestDir::CTestDir(std::string_view tag, mode_t mode)
    : path_("/tmp/zelph-" + std::string(tag) + "-XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) path_.clear();
  chmod(path_.c_str(), mode);
}

CTestDir::~CTestDir() {
  std::error_code ignored;
  // Give back what a test took away (a read-only trace directory), so that
  // everything can go.
  fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ignored);
  for (auto it = fs::recursive_directory_iterator(path_, ignored);
       it != fs::recursive_directory_iterator(); it.increment(ignored)) {
    fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
  }
  if (!path_.empty()) fs::remove_all(path_, ignored);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "<missing>";
}

bool WriteFile(const std::string& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  return static_cast<bool>(out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush());
}

std::vector<std::string> SplitLines(std::string_view text) {
  std::vector<std::string> lines;
  for (std::size_t end; !text.empty(); text.remove_prefix(std::min(text.size(), end + 1))) {
    end = text.find('\n');
    lines.emplace_back(text.substr(0, end));
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
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\x%02X", c);
    shown += c == '\t' ? "\\t" : c == '\\' ? "\\\\" : c < 0x20 || c >= 0x7F ? escape : "";
    if (c >= 0x20 && c < 0x7F && c != '\\') shown += static_cast<char>(c);
  }
  return shown;
}

}  // namespace zelph
