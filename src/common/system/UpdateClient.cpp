#include "common/system/UpdateClient.h"

#include <fstream>
#include <memory>

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
CByteBuffer FetchBody(const CISOString& url) {
  const CUrl parsed = ParseUrl(url.View());
  const CHttpsConnectionFactory factory;
  const std::unique_ptr<CHttpConnection> connection = factory.CreateConnection(parsed);
  connection->Open(parsed);
  connection->Get(parsed);
  return connection->ReceiveAll();
}

// `text` as trace text (ISO-8859-1).
CISOString ForTrace(const CUTF8String& text) {
  return CISOString(text.c_str());
}

}  // namespace

std::vector<CUTF8String> ListRemoteDownloadFiles(const CISOString& serverUrl,
                                                 const CUTF8String& directory,
                                                 const CUTF8String& pattern,
                                                 const CUTF8String& clientId) {
  TraceEnter(kListName);
  std::vector<CUTF8String> names;
  try {
    const CISOString url =
        serverUrl + "/downloads/index.php?" + "directory=" + PercentEncode(directory.View()) +
        "&pattern=" + PercentEncode(pattern.View()) + "&clientId=" + PercentEncode(clientId.View());
    TraceString("Asking update server: %s", url.c_str());

    CByteBuffer body = FetchBody(url);
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
                  const CUTF8String& name, const CUTF8String& localPath) {
  const CISOString url = serverUrl + "/downloads/download.php?" +
                         "directory=" + PercentEncode(directory.View()) +
                         "&name=" + PercentEncode(name.View());
  TraceString("Downloading: %s", url.c_str());
  const CByteBuffer body = FetchBody(url);

  std::ofstream file(localPath.c_str(), std::ios::out | std::ios::binary);
  file.write(reinterpret_cast<const char*>(body.data()), static_cast<std::streamsize>(body.size()));
  file.close();
}

}  // namespace zelph
