// Fuzzes the multipart reader. The first byte picks the receive chunk and the
// read size, the first line the boundary, the rest is the body. The parts
// must not depend on how the body arrives or is read, and parts written again
// as a plain body must read back the same.
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "CMemoryConnection.h"
#include "FuzzSupport.h"
#include "common/base/CException.h"
#include "common/system/CMultipartReader.h"

using namespace zelph;

namespace {

using Parts = std::vector<std::pair<CHttpHeaders, std::string>>;

// The parts of `body`, `chunk` bytes per receive and `capacity` bytes per
// Read (0: ReadPart); nothing when the body is refused.
std::optional<Parts> ReadAll(std::string_view body, const CISOString& boundary, std::size_t chunk,
                             std::int32_t capacity) {
  CMemoryConnection connection(body, chunk);
  Parts parts;
  try {
    CMultipartReader reader(connection, boundary);
    // Each part is at least a delimiter long, which bounds the loop.
    for (CHttpHeaders headers; parts.size() <= body.size() && reader.NextPart(headers);) {
      const CByteBuffer whole = capacity == 0 ? reader.ReadPart() : CByteBuffer();
      std::string data(whole.begin(), whole.end());
      char buffer[16];
      for (std::int32_t n; capacity > 0 && (n = reader.Read(buffer, capacity)) > 0;)
        data.append(buffer, static_cast<std::size_t>(std::min(n, capacity)));
      parts.emplace_back(headers, data);
    }
  } catch (const CHttpException& e) {
    Require(e.GetEvent().GetText().View() == "Invalid multipart data", "a bad body says so");
    return std::nullopt;
  }
  return parts;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  std::string_view body = AsText(data + 1, size - 1);
  const std::size_t newline = body.find('\n');
  if (newline == std::string_view::npos) return 0;
  const std::string boundary(body.substr(0, newline));
  body.remove_prefix(newline + 1);
  const CISOString isoBoundary(boundary.data(), boundary.size());
  const auto whole = ReadAll(body, isoBoundary, body.size() + 1, 0);
  const auto pieces = ReadAll(body, isoBoundary, 1 + data[0] % 16, 1 + (data[0] >> 4));
  Require(whole == pieces, "the parts do not depend on receive and read sizes");
  if (!whole) return 0;

  std::string again = "--" + boundary;
  for (const auto& [headers, text] : *whole) {
    again += "\r\n";
    for (const auto& [name, value] : headers)
      again += std::string(name.View()) + ": " + std::string(value.View()) + "\r\n";
    again += "\r\n" + text + "\r\n--" + boundary;
  }
  again += "--";
  Require(ReadAll(again, isoBoundary, again.size(), 0) == whole, "parts written again read back");
  return 0;
}
