// Reading a multipart body part by part from an HTTP connection.
#pragma once

#include <cstdint>
#include <string>

#include "common/base/CTString.h"
#include "common/formats/CByteBuffer.h"
#include "common/system/CHttpConnection.h"
#include "common/system/HttpHead.h"

namespace zelph {

// Walks the parts of a multipart body (a response, or a request body on the
// server side). Parts are separated by "\r\n--" and the boundary; the body
// may begin with "--" and the boundary directly, and "--" behind a delimiter
// closes the body. Whatever comes before the first delimiter is skipped. Data that does not fit
// this shape, and a body that ends before its closing delimiter, throw CHttpException "Invalid
// multipart data". Reads through the connection's buffer; bytes behind the closing
// "--" are left unread.
//
//   CMultipartReader parts(connection);
//   CHttpHeaders headers;
//   while (parts.NextPart(headers)) Use(headers, parts.ReadPart());
class CMultipartReader {
 public:
  // The longest boundary accepted.
  static constexpr std::size_t kMaxBoundaryLength = 70;

  // Reads the body that follows the response head of `connection`, taking
  // the boundary from its "Content-Type" header. Throws "Invalid multipart
  // data" when there is no usable boundary.
  explicit CMultipartReader(CHttpConnection& connection);
  // Reads the parts of `connection` separated by `boundary`. Throws
  // "Invalid multipart data" for an empty boundary or one longer than
  // kMaxBoundaryLength.
  CMultipartReader(CHttpConnection& connection, const CISOString& boundary);
  CMultipartReader(const CMultipartReader&) = delete;
  CMultipartReader& operator=(const CMultipartReader&) = delete;

  // Moves to the next part, skipping what is left of the current one, and
  // reads its header lines into `headers` (lower-case names). False once the
  // closing delimiter is reached.
  bool NextPart(CHttpHeaders& headers);
  // Reads up to `capacity` bytes of the current part's data; 0 at its end.
  std::int32_t Read(void* buffer, std::int32_t capacity);
  // The rest of the current part's data.
  CByteBuffer ReadPart();

 private:
  enum class EState {
    kPreamble,  // before the first delimiter
    kPart,      // inside a part's data
    kBetween,   // just behind a delimiter
    kEnd,       // behind the closing delimiter
  };

  // Reads data of the current part (or preamble) up to the next delimiter,
  // which it consumes; then the state is kBetween.
  std::int32_t ReadData(void* buffer, std::int32_t capacity);
  // Reads and drops data up to the next delimiter.
  void SkipData();

  CHttpConnection& connection_;
  std::string delimiter_;  // "\r\n--" and the boundary
  EState state_ = EState::kPreamble;
};

}  // namespace zelph
