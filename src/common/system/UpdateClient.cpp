#include "common/system/UpdateClient.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>

#include "common/base/CException.h"
#include "common/formats/CJSValue.h"
#include "common/formats/JSONReader.h"
#include "common/system/CHttpConnection.h"
#include "common/system/CHttpsConnectionFactory.h"
#include "common/system/CUrl.h"
#include "zelph/trace.h"

namespace zelph {
namespace {

constexpr char kListName[] = "List remote download files";

// Opens a connection for `url`, sends a GET request and reads the body.
CByteBuffer FetchBody(const CISOString& url, const CHttpLimits& limits) {
  const CUrl parsed = ParseUrl(url.View());
  const CHttpsConnectionFactory factory;
  const std::unique_ptr<CHttpConnection> connection = factory.CreateConnection(parsed);
  connection->SetTimeout(limits.timeout);
  connection->Open(parsed);
  connection->Get(parsed);
  return connection->ReceiveAll(limits.maxBodySize);
}

// Closes a descriptor and, unless released, removes the file it was made for.
class CTemporaryFile {
 public:
  CTemporaryFile(int descriptor, std::string path) noexcept
      : descriptor_(descriptor), path_(std::move(path)) {}
  CTemporaryFile(const CTemporaryFile&) = delete;
  CTemporaryFile& operator=(const CTemporaryFile&) = delete;
  ~CTemporaryFile() {
    if (descriptor_ >= 0) close(descriptor_);
    if (!path_.empty()) unlink(path_.c_str());
  }
  int Descriptor() const noexcept { return descriptor_; }
  // Closes the descriptor; false when the system reports a failed write.
  bool Close() noexcept {
    const int descriptor = descriptor_;
    descriptor_ = -1;
    return close(descriptor) == 0;
  }
  // The file stays (it has been renamed into place).
  void Keep() noexcept { path_.clear(); }

 private:
  int descriptor_;
  std::string path_;
};

// Writes all of `body` to `descriptor`; false on any failure.
bool WriteAll(int descriptor, const CByteBuffer& body) noexcept {
  const std::uint8_t* next = body.data();
  std::size_t left = body.size();
  while (left > 0) {
    const ssize_t written = write(descriptor, next, left);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    next += written;
    left -= static_cast<std::size_t>(written);
  }
  return true;
}

// Puts `body` in place as `path`: a new file beside it, written, flushed to
// the disk and renamed over it. False, with `path` untouched, when any step
// fails.
bool ReplaceFile(const std::string& path, const CByteBuffer& body) {
  static std::atomic<unsigned> counter{0};
  const std::string temporary =
      path + ".part-" + std::to_string(getpid()) + "-" + std::to_string(counter.fetch_add(1));
  CTemporaryFile file(open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666),
                      temporary);
  if (file.Descriptor() < 0) return false;
  // The new file keeps the old one's permissions; otherwise the umask's.
  struct stat old {};
  if (stat(path.c_str(), &old) == 0) fchmod(file.Descriptor(), old.st_mode & 07777);
  if (!WriteAll(file.Descriptor(), body) || fsync(file.Descriptor()) != 0 || !file.Close()) {
    return false;
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) return false;
  file.Keep();
  return true;
}

// `text` as trace text (ISO-8859-1).
CISOString ForTrace(const CUTF8String& text) {
  return CISOString(text.c_str());
}

}  // namespace

std::vector<CUTF8String> ListRemoteDownloadFiles(const CISOString& serverUrl,
                                                 const CUTF8String& directory,
                                                 const CUTF8String& pattern,
                                                 const CUTF8String& clientId,
                                                 const CHttpLimits& limits) {
  TraceEnter(kListName);
  std::vector<CUTF8String> names;
  try {
    const CISOString url =
        serverUrl + "/downloads/index.php?" + "directory=" + PercentEncode(directory.View()) +
        "&pattern=" + PercentEncode(pattern.View()) + "&clientId=" + PercentEncode(clientId.View());
    TraceString("Asking update server: %s", url.c_str());

    CByteBuffer body = FetchBody(url, limits);
    // The reader expects zero-terminated text.
    body.push_back(0);
    const char* position = reinterpret_cast<const char*>(body.data());
    const CJSValuePtr answer = ParseJSON(position, position + body.size() - 1);
    if (answer->IsNull()) throw CException(CUTF8String("The update server's answer is not JSON"));

    for (std::uint64_t i = 0; i < answer->GetCount(); ++i) {
      const CUTF8String name = answer->GetItem(i).GetString();
      if (name.IsEmpty()) continue;
      TraceString("\tFound file: %s", ForTrace(name).c_str());
      names.push_back(name);
    }
  } catch (const CException& failure) {
    TraceString("\tFailed: %s", ForTrace(failure.GetEvent().GetText()).c_str());
  }
  TraceLeave(kListName);
  return names;
}

void DownloadFile(const CISOString& serverUrl, const CUTF8String& directory,
                  const CUTF8String& name, const CUTF8String& localPath,
                  const CHttpLimits& limits) {
  const CISOString url = serverUrl + "/downloads/download.php?" +
                         "directory=" + PercentEncode(directory.View()) +
                         "&name=" + PercentEncode(name.View());
  TraceString("Downloading: %s", url.c_str());
  const CByteBuffer body = FetchBody(url, limits);
  // A file that cannot be written is left as it was, without a word.
  (void)ReplaceFile(localPath.c_str(), body);
}

}  // namespace zelph
