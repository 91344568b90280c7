// How the spy writes a mechanism argument: its name and, for the mechanisms
// people use most, the fields of its parameter by name.
#pragma once

#include <p11-kit/pkcs11.h>

#include "spy/CSpyCall.h"

namespace zelph {

// One line: "pMechanism = <name>", then the parameter on the same line. The
// fields of the known structures are named; IVs and counter blocks are
// written in hexadecimal, labels, AAD and shared or public data only by their
// length; any other parameter as the hexadecimal of its first 64 bytes. The
// parameter is read no further than ulParameterLen. "pMechanism = NULL" for
// none.
void TraceMechanismArgument(CSpyCall& call, const CK_MECHANISM* mechanism) noexcept;

}  // namespace zelph
