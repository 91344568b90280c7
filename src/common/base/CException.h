// The exception tree of the common layer. An exception carries no message
// string of its own but a shared event record, whose text comes from the
// message catalogue when needed and which can be handed to the event log
// unchanged.
#pragma once

#include <cstdint>

#include "common/base/CEventMessage.h"
#include "common/base/CTFmtArgs.h"
#include "common/base/CTString.h"

namespace zelph {

// Root of the tree; also thrown directly with a free-text message. Thrown by
// value, caught by reference; copies share the event record.
class CException {
 public:
  // An exception whose type says everything: no event.
  CException() noexcept = default;
  // An exception with the free-text event (category 1) holding `text`; its
  // text is exactly `text`, never formatted.
  explicit CException(const CUTF8String& text);
  // An exception with a new event record copying the identifier and category
  // of `event` and sharing its arguments. A null `event` gives no event.
  explicit CException(const CEventMessage& event);
  CException(const CException&) noexcept = default;
  CException& operator=(const CException&) noexcept = default;
  virtual ~CException() = default;

  // The event of the exception; null when it carries no message. Its
  // GetText() is the exception's text ("" for the null event).
  const CEventMessage& GetEvent() const noexcept { return event_; }

 private:
  // Code, flags, the separate argument list and kind are fixed (0, 0, none,
  // 6) in this library; they are kept for the record's shape only.
  std::uint32_t code_ = 0;
  std::uint16_t flags_ = 0;
  CTFmtArgs<CUTF8Encoding> args_;
  CEventMessage event_;
  std::uint64_t kind_ = 6;
};

// Network failures.
class ENetwork : public CException {
 public:
  using CException::CException;
};

// HTTP protocol failures.
class CHttpException : public ENetwork {
 public:
  using ENetwork::ENetwork;
};

// Root of the ASN.1 reader's failures.
class EASN1 : public CException {
 public:
  using CException::CException;
};

// Well-formed ASN.1 input beyond the reader's limits.
class EASN1UnsupportedFormat : public EASN1 {
 public:
  using EASN1::EASN1;
};

// Malformed or truncated ASN.1 input.
class EASN1InvalidData : public EASN1 {
 public:
  using EASN1::EASN1;
};

// An output buffer too small for an ASN.1 encoding.
class EASN1BufferTooSmall : public EASN1 {
 public:
  using EASN1::EASN1;
};

// XML parse failures.
class CXMLException : public CException {
 public:
  using CException::CException;
};

// A failed threading call.
class EThreadError : public CException {
 public:
  using CException::CException;
};

// Service management failures.
class EService : public CException {
 public:
  using CException::CException;
};

// Root of stream and socket failures.
class EIOError : public CException {
 public:
  using CException::CException;
};

// An I/O operation was cancelled.
class EIOCancelled : public EIOError {
 public:
  using EIOError::EIOError;
};

// An I/O operation timed out.
class EIOTimedOut : public EIOError {
 public:
  using EIOError::EIOError;
};

// The peer closed the socket.
class EIOSocketClosed : public EIOError {
 public:
  using EIOError::EIOError;
};

// Another process already listens on the socket.
class EIOSocketBusy : public EIOError {
 public:
  using EIOError::EIOError;
};

// Nobody listens on the socket.
class EIOSocketNoListener : public EIOError {
 public:
  using EIOError::EIOError;
};

}  // namespace zelph
