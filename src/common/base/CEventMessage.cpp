#include "common/base/CEventMessage.h"

#include <cstring>
#include <iterator>

namespace zelph {

namespace {

struct CCatalogueEntry {
  std::uint32_t identifier;
  const char* text;
};

// The message catalogue; identifiers 1-6 hold the category texts.
constexpr CCatalogueEntry kCatalogue[] = {
    {1, "System error"},
    {2, "Service management"},
    {3, "IO subsystem"},
    {4, "Global cache"},
    {5, "Smartcard subsystem"},
    {6, "Logging"},
    {kEvtServiceDescription,
     "Provides mechanisms to share smart card and token data among processes. If this service "
     "is disabled, you will not be able to use the keys and certificates stored in your "
     "cryptographic tokens."},
    {kEvtServiceStarted, "The service \"%1\" successfully started."},
    {kEvtServiceStopped, "The service \"%1\" has been successfully stopped."},
    {kEvtServiceInvalidOpcode, "The service \"%1\" received an invalid opcode (%2)."},
    {kEvtServiceStatusFailed, "Unable to update status of service \"%1\".\n%2"},
    {kEvtServiceRecovered,
     "The service \"%1\" has encountered a problem but could recover:\n%2\nThe service is still "
     "running."},
    {kEvtServiceNotInstalled,
     "The service \"%1\" is not installed and has been launched as a simple user process.\nThis "
     "may cause synchronization or access right problems if several users want to use it at the "
     "same time."},
    {kEvtFreeText, "%1"},
    {kEvtSystemCallFailed, "The call to <%1> failed for the following reason: %2"},
    {kEvtUnexpectedValue, "The call to <%1> succeeded but returned an unexpected value: %2."},
    {kEvtInternalError, "An internal error has been raised.\n%1"},
    {kEvtIOCancelled, "The input/output operation has been cancelled."},
    {kEvtIOTimedOut, "The input/output operation has timed out."},
    {kEvtIOBadFormat, "The input data is incorrectly formatted."},
    {kEvtSocketBusy,
     "Another process is already listening on this socket. Please check that the service is not "
     "already running."},
    {kEvtSocketNoListener,
     "The socket is unavailable for connection. Please check that the appropriate service is "
     "running."},
    {kEvtServiceStartFailed,
     "The service \"%1\" could not be started. Please check that it has been installed "
     "correctly.\nDetails of the failure reason are given below:\n%2\nReinstalling the software "
     "may correct the problem."},
    {kEvtServiceInitFailed,
     "The initialization phase of service \"%1\" failed. The service has not been started.\n%2"},
    {kEvtServiceFailed,
     "The service \"%1\" has encountered a problem. The service has been stopped.\n%2"},
    {kEvtServiceInstallFailed, "Service \"%1\" could not be installed.\n%2"},
    {kEvtServiceUninstallFailed, "Service \"%1\" could not be uninstalled.\n%2"},
    {kEvtServiceInitTooLong, "The service was too long to initialize itself."},
    {kEvtServiceStartupExited,
     "The service process has been signaled or has exited while starting up. More detailed "
     "information may have been reported in the logs.\nStatus is %1."},
    {kEvtCacheConnectFailed,
     "Unable to connect to the global cache service. Please check that the service is "
     "running.\n%1"},
    {kEvtCacheExchangeFailed,
     "There has been a problem during an exchange with the cache server.\n%1\nThe connection has "
     "probably been terminated."},
    {kEvtLogFileFailed, "Unable to create log file %1.\n%2\nNo logs will be generated."},
};

constexpr const char* kSeverityNames[] = {"Internal", "Informational", "Warning", "Error"};

constexpr const char* kFacilityNames[] = {"System", "IO", "Service", "Cache", "SCard", "Log"};
constexpr std::uint32_t kFirstFacility = 0x101;

}  // namespace

CEventMessage::CEventMessage(std::uint32_t identifier, std::int16_t category,
                             const CTFmtArgs<CUTF8Encoding>& args)
    : record_(new CRecord(identifier, category, args)) {}

CEventMessage::CEventMessage(const CEventMessage& other) noexcept : record_(other.record_) {
  if (record_ != nullptr) record_->AddRef();
}

CEventMessage::CEventMessage(CEventMessage&& other) noexcept : record_(other.record_) {
  other.record_ = nullptr;
}

CEventMessage& CEventMessage::operator=(const CEventMessage& other) noexcept {
  if (record_ == other.record_) return *this;
  if (other.record_ != nullptr) other.record_->AddRef();
  if (record_ != nullptr) record_->Release();
  record_ = other.record_;
  return *this;
}

CEventMessage& CEventMessage::operator=(CEventMessage&& other) noexcept {
  if (this != &other) {
    if (record_ != nullptr) record_->Release();
    record_ = other.record_;
    other.record_ = nullptr;
  }
  return *this;
}

CEventMessage::~CEventMessage() {
  if (record_ != nullptr) record_->Release();
}

std::uint32_t CEventMessage::GetIdentifier() const noexcept {
  return record_ != nullptr ? record_->identifier : 0;
}

std::int16_t CEventMessage::GetCategory() const noexcept {
  return record_ != nullptr ? record_->category : 0;
}

CTFmtArgs<CUTF8Encoding> CEventMessage::GetArgs() const noexcept {
  return record_ != nullptr ? record_->args : CTFmtArgs<CUTF8Encoding>();
}

std::int32_t CEventMessage::GetReferences() const noexcept {
  return record_ != nullptr ? record_->GetReferences() : 0;
}

CUTF8String CEventMessage::GetText() const {
  if (record_ == nullptr) return {};
  const CTFmtArgs<CUTF8Encoding>& args = record_->args;
  if (record_->identifier == kEvtFreeText) {
    // Free text is shown as given, so a "%1" inside it stays.
    const CTFmtArg<CUTF8Encoding>* first = args.GetArg(1);
    return first != nullptr ? first->GetText() : CUTF8String();
  }
  const char* templ = GetTemplate(record_->identifier);
  if (templ == nullptr) return {};
  if (args.GetCount() == 0) return CUTF8String(templ);
  return Format<CUTF8Encoding>(templ, args);
}

CEventMessage CEventMessage::MakeSystemCallFailure(const CUTF8String& call, int error,
                                                   std::int16_t category) {
  CTFmtArgs<CUTF8Encoding> args;
  args.Add(call).Add(GetErrorText(error));
  return CEventMessage(kEvtSystemCallFailed, category, args);
}

const char* CEventMessage::GetTemplate(std::uint32_t identifier) noexcept {
  for (const CCatalogueEntry& entry : kCatalogue) {
    if (entry.identifier == identifier) return entry.text;
  }
  return nullptr;
}

const char* CEventMessage::GetSeverityName(std::uint32_t severity) noexcept {
  return severity < std::size(kSeverityNames) ? kSeverityNames[severity] : nullptr;
}

const char* CEventMessage::GetFacilityName(std::uint32_t facility) noexcept {
  if (facility < kFirstFacility || facility - kFirstFacility >= std::size(kFacilityNames)) {
    return nullptr;
  }
  return kFacilityNames[facility - kFirstFacility];
}

CUTF8String CEventMessage::GetErrorText(int error) {
  char buffer[256];
  // The GNU strerror_r returns a pointer to the text, which need not be
  // `buffer`.
  const char* description = strerror_r(error, buffer, sizeof buffer);
  CTFmtArgs<CUTF8Encoding> args;
  args.Add(description).Add(error);
  return Format<CUTF8Encoding>("%1. (%2)", args);
}

}  // namespace zelph
