// Abstract byte stream of the local IPC layer.
#pragma once

#include <cstdint>

namespace zelph {

// A blocking, cancellable byte stream. Every failure is an exception of the
// EIOError family; nothing is reported through return values.
class CStream {
 public:
  CStream(const CStream&) = delete;
  CStream& operator=(const CStream&) = delete;
  virtual ~CStream() = default;

  // Cancels the call in progress in another thread, if any, and every later
  // call: they throw EIOCancelled until ResetCancel. Callable from any thread.
  virtual void Cancel() = 0;
  // Clears the cancelled state so that the stream can be used again.
  virtual void ResetCancel() = 0;
  // Fills exactly `length` bytes of `buffer`, or throws. After a failure the
  // bytes received so far are in the buffer but their count is lost.
  virtual void Read(std::uint8_t* buffer, std::uint64_t length) = 0;
  // Sends the `length` bytes of `buffer`, or throws.
  virtual void Write(const std::uint8_t* buffer, std::uint64_t length) = 0;

 protected:
  CStream() = default;
};

}  // namespace zelph
