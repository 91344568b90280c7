// Fuzzes the multipart reader. The first byte picks the receive chunk and
// read size, the first line the boundary, the rest is the body. The parts
// must not depend on how the body arrives or is read, and parts read from
// any body, written again as a plain multipart body, read back the same.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "CMemoryConnection.h"
#include "FuzzSupport.h"
#include "common/base/CException.h"
#include "common/system/CMultipartReader.h"

using namespace zelph;

namespace {

struct CPart {
  CHttpHeaders headers;
  std::string data;
};

// What reading a body gave: the parts up to the end or the first error.
struct COutcome {
  std::vector<CPart> parts;
  bool failed = false;
};

std::string AsString(const CByteBuffer& bytes) {
  return std::string(bytes.begin(), bytes.end());
}

// Reads every part of `body`, `chunk` bytes per receive and `capacity`
// bytes per Read (0: ReadPart).
COutcome ReadAll(std::string_view body, const CISOString& boundary, std::size_t chunk,
                 std::int32_t capacity) {
  COutcome outcome;
  CMemoryConnection connection(body, chunk);
  try {
    CMultipartReader reader(connection, boundary);
    CPart part;
    // Each part of the input is at least a delimiter long, so this bounds the loop.
    for (std::size_t round = 0; round <= body.size() && reader.NextPart(part.headers); ++round) {
      part.data.clear();
      if (capacity == 0) {
        part.data = AsString(reader.ReadPart());
      } else {
        char buffer[16];
        for (std::int32_t count; (count = reader.Read(buffer, capacity)) > 0;) {
          Require(count <= capacity, "Read stays within the capacity");
          part.data.append(buffer, static_cast<std::size_t>(count));
        }
        Require(reader.Read(buffer, capacity) == 0, "a finished part stays finished");
      }
      outcome.parts.push_back(part);
    }
    CHttpHeaders none;
    Require(!reader.NextPart(none), "after the closing delimiter there are no parts");
  } catch (const CHttpException& exception) {
    Require(exception.GetEvent().GetText().View() == "Invalid multipart data",
            "a bad body says \"Invalid multipart data\"");
    outcome.failed = true;
  }
  return outcome;
}

bool SameParts(const std::vector<CPart>& a, const std::vector<CPart>& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i].headers != b[i].headers || a[i].data != b[i].data) return false;
  }
  return true;
}

// `parts` as a body without preamble or padding.
std::string WriteBody(const std::vector<CPart>& parts, std::string_view boundary) {
  std::string body = "--" + std::string(boundary);
  for (const CPart& part : parts) {
    body += "\r\n";
    for (const auto& [name, value] : part.headers) {
      body += std::string(name.View()) + ": " + std::string(value.View()) + "\r\n";
    }
    body += "\r\n" + part.data + "\r\n--" + std::string(boundary);
  }
  return body + "--";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = (SwitchTracingOff(), true);
  (void)quiet;
  if (size == 0) return 0;
  const std::size_t chunk = 1 + data[0] % 16;
  const auto capacity = static_cast<std::int32_t>(1 + (data[0] >> 4));
  std::string_view body = AsText(data + 1, size - 1);
  const std::size_t newline = body.find('\n');
  if (newline == std::string_view::npos) return 0;
  const std::string_view boundaryText = body.substr(0, newline);
  body.remove_prefix(newline + 1);
  const CISOString boundary(boundaryText.data(), boundaryText.size());
  if (boundary.IsEmpty() || boundary.Size() > CMultipartReader::kMaxBoundaryLength) {
    Require(ReadAll(body, boundary, size, 0).failed, "an unusable boundary is refused");
    return 0;
  }

  const COutcome whole = ReadAll(body, boundary, body.size(), 0);
  const COutcome pieces = ReadAll(body, boundary, chunk, capacity);
  Require(whole.failed == pieces.failed && SameParts(whole.parts, pieces.parts),
          "the parts do not depend on receive and read sizes");
  if (whole.failed) return 0;

  const std::string again = WriteBody(whole.parts, boundaryText);
  const COutcome reread = ReadAll(again, boundary, again.size(), 0);
  Require(!reread.failed && reread.parts.size() == whole.parts.size(),
          "parts written again read back as a body of as many parts");
  for (std::size_t i = 0; i < whole.parts.size(); ++i) {
    Require(reread.parts[i].data == whole.parts[i].data, "part data reads back the same");
    for (const auto& [name, value] : whole.parts[i].headers) {
      Require(reread.parts[i].headers.count(name) == 1, "part headers read back by name");
    }
  }
  return 0;
}
