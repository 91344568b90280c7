// English sentences that explain PKCS#11 return values to an end user, for the
// error dialogs of programs built on the library.
#pragma once

#include <p11-kit/pkcs11.h>

#include "common/base/CTString.h"

namespace zelph {

// Returns the sentence that explains `rv` to an end user, or "Code 0x" and
// `rv` in upper-case hexadecimal (at least eight digits) when there is none,
// as for CKR_OK. The caller owns the result.
CTString<CUTF8Encoding> GetUserErrorMessage(CK_RV rv);

}  // namespace zelph
