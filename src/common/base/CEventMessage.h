// Numbered events of the fixed message catalogue: the record every exception
// carries and the event log writes.
#pragma once

#include <cstdint>

#include "common/base/CTFmtArgs.h"
#include "common/base/CTString.h"
#include "common/base/CValRefCounter.h"

namespace zelph {

// Message identifiers: severity in bits 31-30, facility in bits 27-16,
// number in bits 15-0.
inline constexpr std::uint32_t kEvtServiceDescription = 0x0000F002;
inline constexpr std::uint32_t kEvtServiceStarted = 0x41030001;
inline constexpr std::uint32_t kEvtServiceStopped = 0x41030002;
inline constexpr std::uint32_t kEvtServiceInvalidOpcode = 0x81030006;
inline constexpr std::uint32_t kEvtServiceStatusFailed = 0x81030007;
inline constexpr std::uint32_t kEvtServiceRecovered = 0x81030008;
inline constexpr std::uint32_t kEvtServiceNotInstalled = 0x81030011;
inline constexpr std::uint32_t kEvtFreeText = 0xC1010001;
inline constexpr std::uint32_t kEvtSystemCallFailed = 0xC1010002;
inline constexpr std::uint32_t kEvtUnexpectedValue = 0xC1010003;
inline constexpr std::uint32_t kEvtInternalError = 0xC1010004;
inline constexpr std::uint32_t kEvtIOCancelled = 0xC1020001;
inline constexpr std::uint32_t kEvtIOTimedOut = 0xC1020002;
inline constexpr std::uint32_t kEvtIOBadFormat = 0xC1020003;
inline constexpr std::uint32_t kEvtSocketBusy = 0xC1020004;
inline constexpr std::uint32_t kEvtSocketNoListener = 0xC1020005;
inline constexpr std::uint32_t kEvtServiceStartFailed = 0xC1030003;
inline constexpr std::uint32_t kEvtServiceInitFailed = 0xC1030004;
inline constexpr std::uint32_t kEvtServiceFailed = 0xC1030005;
inline constexpr std::uint32_t kEvtServiceInstallFailed = 0xC1030009;
inline constexpr std::uint32_t kEvtServiceUninstallFailed = 0xC1030010;
inline constexpr std::uint32_t kEvtServiceInitTooLong = 0xC1030012;
inline constexpr std::uint32_t kEvtServiceStartupExited = 0xC1030013;
inline constexpr std::uint32_t kEvtCacheConnectFailed = 0xC1040001;
inline constexpr std::uint32_t kEvtCacheExchangeFailed = 0xC1040002;
inline constexpr std::uint32_t kEvtLogFileFailed = 0xC1060001;

// Categories; their catalogue texts are what the system log shows between
// brackets.
inline constexpr std::int16_t kCategorySystem = 1;   // "System error"
inline constexpr std::int16_t kCategoryService = 2;  // "Service management"
inline constexpr std::int16_t kCategoryIO = 3;       // "IO subsystem"
inline constexpr std::int16_t kCategoryCache = 4;    // "Global cache"
inline constexpr std::int16_t kCategorySCard = 5;    // "Smartcard subsystem"
inline constexpr std::int16_t kCategoryLog = 6;      // "Logging"

// An event: message identifier, category and the arguments for the
// template's placeholders. A handle to a shared, reference-counted record;
// copies share it. A default-constructed event is null (no message). Belongs
// to one thread at a time.
class CEventMessage {
 public:
  // The null event.
  CEventMessage() noexcept = default;
  // A new record with references 1.
  CEventMessage(std::uint32_t identifier, std::int16_t category,
                const CTFmtArgs<CUTF8Encoding>& args = {});
  CEventMessage(const CEventMessage& other) noexcept;
  CEventMessage(CEventMessage&& other) noexcept;
  CEventMessage& operator=(const CEventMessage& other) noexcept;
  CEventMessage& operator=(CEventMessage&& other) noexcept;
  ~CEventMessage();

  // True for the null event.
  bool IsNull() const noexcept { return record_ == nullptr; }
  // The message identifier; 0 for the null event.
  std::uint32_t GetIdentifier() const noexcept;
  // The category; 0 for the null event.
  std::int16_t GetCategory() const noexcept;
  // The argument list (shared); empty for the null event.
  CTFmtArgs<CUTF8Encoding> GetArgs() const noexcept;
  // Test-only: handles sharing the record; 0 for the null event.
  std::int32_t GetReferences() const noexcept;

  // The text of the event. The free-text event is the plain text of its first
  // argument, never formatted. Otherwise the catalogue template, formatted
  // when there is at least one argument and taken as it stands when there is
  // none; an identifier outside the catalogue, or the null event, gives "".
  CUTF8String GetText() const;

  // The event "The call to <`call`> failed for the following reason: ..."
  // with the text of `error`.
  static CEventMessage MakeSystemCallFailure(const CUTF8String& call, int error,
                                             std::int16_t category = kCategorySystem);

  // The catalogue template of `identifier`, or null. Identifiers 1-6 give
  // the category texts.
  static const char* GetTemplate(std::uint32_t identifier) noexcept;
  // "Internal", "Informational", "Warning", "Error" for 0-3; null otherwise.
  static const char* GetSeverityName(std::uint32_t severity) noexcept;
  // The short name of facility 257-262 ("System" ... "Log"); null otherwise.
  static const char* GetFacilityName(std::uint32_t facility) noexcept;
  // Severity (bits 31-30) of an identifier.
  static constexpr std::uint32_t GetSeverity(std::uint32_t identifier) noexcept {
    return identifier >> 30;
  }
  // Facility (bits 27-16) of an identifier.
  static constexpr std::uint32_t GetFacility(std::uint32_t identifier) noexcept {
    return (identifier >> 16) & 0xFFF;
  }
  // The system's description of error number `error` followed by ". (",
  // the number and ")", e.g. "Invalid argument. (22)".
  static CUTF8String GetErrorText(int error);

 private:
  struct CRecordData {
    CRecordData(std::uint32_t id, std::int16_t cat, const CTFmtArgs<CUTF8Encoding>& a) noexcept
        : identifier(id), category(cat), args(a) {}
    virtual ~CRecordData() = default;

    std::uint32_t identifier;
    std::int16_t category;
    CTFmtArgs<CUTF8Encoding> args;
  };
  using CRecord = CValRefCounter<CRecordData>;

  CRecord* record_ = nullptr;
};

}  // namespace zelph
