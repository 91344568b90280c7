#include "common/system/CMultipartReader.h"

#include <algorithm>
#include <cstring>

#include "common/base/CException.h"

namespace zelph {
namespace {

[[noreturn]] void ThrowInvalid() {
  throw CHttpException(CUTF8String("Invalid multipart data"));
}

bool StartsWith(const std::uint8_t* data, std::size_t size, std::string_view prefix) noexcept {
  return size >= prefix.size() && std::memcmp(data, prefix.data(), prefix.size()) == 0;
}

}  // namespace

CMultipartReader::CMultipartReader(CHttpConnection& connection)
    : CMultipartReader(connection,
                       GetMultipartBoundary(connection.GetHeader("content-type").View())) {}

CMultipartReader::CMultipartReader(CHttpConnection& connection, const CISOString& boundary)
    : connection_(connection), delimiter_("\r\n--") {
  if (boundary.IsEmpty() || boundary.Size() > kMaxBoundaryLength) ThrowInvalid();
  delimiter_ += boundary.View();
}

bool CMultipartReader::NextPart(CHttpHeaders& headers) {
  if (state_ == EState::kPreamble) {
    // The first delimiter may open the body without its line end.
    const std::string_view opening = std::string_view(delimiter_).substr(2);
    const std::size_t available = connection_.Peek(opening.size());
    if (StartsWith(connection_.GetBuffered(), available, opening)) {
      connection_.Consume(opening.size());
      state_ = EState::kBetween;
    } else {
      SkipData();
    }
  } else if (state_ == EState::kPart) {
    SkipData();
  }
  if (state_ == EState::kEnd) return false;

  // Behind a delimiter: "--" closes the body; otherwise optional blanks and
  // the line end lead to the part's headers.
  std::size_t available = connection_.Peek(2);
  if (StartsWith(connection_.GetBuffered(), available, "--")) {
    connection_.Consume(2);
    state_ = EState::kEnd;
    return false;
  }
  while (available > 0 &&
         (connection_.GetBuffered()[0] == ' ' || connection_.GetBuffered()[0] == '\t')) {
    connection_.Consume(1);
    available = connection_.Peek(2);
  }
  if (!StartsWith(connection_.GetBuffered(), available, "\r\n")) ThrowInvalid();
  connection_.Consume(2);

  headers.clear();
  CISOString line;
  CISOString name;
  CISOString value;
  for (;;) {
    if (!connection_.ReceiveLine(line)) ThrowInvalid();
    if (line.IsEmpty()) break;
    if (!ParseHeaderLine(line.View(), name, value)) ThrowInvalid();
    AddHeader(headers, name, value);
  }
  state_ = EState::kPart;
  return true;
}

std::int32_t CMultipartReader::Read(void* buffer, std::int32_t capacity) {
  if (state_ != EState::kPart) return 0;
  return ReadData(buffer, capacity);
}

CByteBuffer CMultipartReader::ReadPart() {
  CByteBuffer data;
  std::uint8_t chunk[4096];
  for (;;) {
    const std::int32_t count = Read(chunk, sizeof chunk);
    if (count == 0) return data;
    data.insert(data.end(), chunk, chunk + count);
  }
}

std::int32_t CMultipartReader::ReadData(void* buffer, std::int32_t capacity) {
  if (capacity <= 0) return 0;
  const std::size_t available = connection_.Peek(delimiter_.size());
  const std::uint8_t* data = connection_.GetBuffered();
  if (available < delimiter_.size()) ThrowInvalid();  // the body ended inside a part
  if (StartsWith(data, available, delimiter_)) {
    connection_.Consume(delimiter_.size());
    state_ = EState::kBetween;
    return 0;
  }
  // Everything before the next "\r" is data; a "\r" may begin the delimiter
  // and is looked at again in the next call.
  const auto* carriageReturn =
      static_cast<const std::uint8_t*>(std::memchr(data + 1, '\r', available - 1));
  const std::size_t dataSize =
      carriageReturn != nullptr ? static_cast<std::size_t>(carriageReturn - data) : available;
  const std::size_t count = std::min(dataSize, static_cast<std::size_t>(capacity));
  std::memcpy(buffer, data, count);
  connection_.Consume(count);
  return static_cast<std::int32_t>(count);
}

void CMultipartReader::SkipData() {
  std::uint8_t chunk[4096];
  while (state_ != EState::kBetween) ReadData(chunk, sizeof chunk);
}

}  // namespace zelph
