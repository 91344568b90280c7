// Bodies of the exported dumps of PKCS#11 structures. They may throw; the
// exported wrappers catch.
#pragma once

#include <p11-kit/pkcs11.h>

namespace zelph {

void WriteTraceTemplate(const CK_ATTRIBUTE* attributes, CK_ULONG count, CK_BBOOL omitValues);
void WriteTraceMechanism(const CK_MECHANISM& mechanism);
void WriteTraceMechanismInfo(const CK_MECHANISM_INFO& info);
void WriteTraceTokenInfo(const CK_TOKEN_INFO& info);

}  // namespace zelph
