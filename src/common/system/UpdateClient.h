// The update-download client: listing and fetching files from the update
// server's two scripts under "/downloads/", over HTTP or HTTPS.
#pragma once

#include <vector>

#include "common/base/CTString.h"
#include "common/system/CHttpConnection.h"

namespace zelph {

// Asks `serverUrl` + "/downloads/index.php" for the files of `directory`
// that match `pattern`, on behalf of `clientId` (all three percent-encoded
// into the query), and returns the names in the order of the answer, a JSON
// list of strings; items that are not strings, or are empty, are skipped.
// Traces its progress. A failure (connection, HTTP, an answer that is not
// JSON, a time-out or an answer beyond `limits`) does not leave the function:
// it is traced as "\tFailed: <message>" and the names found so far are
// returned. Only exhausted memory throws.
std::vector<CUTF8String> ListRemoteDownloadFiles(const CISOString& serverUrl,
                                                 const CUTF8String& directory,
                                                 const CUTF8String& pattern,
                                                 const CUTF8String& clientId,
                                                 const CHttpLimits& limits = {});

// Fetches `name` of `directory` from `serverUrl` + "/downloads/download.php"
// and writes the body to `localPath`, replacing an existing file. Nothing is
// written before the whole body has arrived; it then goes to a new file
// beside `localPath` (with the old file's permissions) that is renamed over
// it once written, so `localPath` is always either the old file or the whole
// new one. Throws CHttpException and the other CException kinds of the
// transfer, a time-out and a body beyond `limits` included; a local file that
// cannot be written is silently not written (and the old one kept).
void DownloadFile(const CISOString& serverUrl, const CUTF8String& directory,
                  const CUTF8String& name, const CUTF8String& localPath,
                  const CHttpLimits& limits = {});

}  // namespace zelph
