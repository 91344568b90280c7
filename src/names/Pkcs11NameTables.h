// The tables behind Pkcs11Names.h, which generate_names.py writes from the
// system's PKCS#11 headers at build time.
#pragma once

#include <p11-kit/pkcs11.h>

#include <span>

#include "names/Pkcs11Names.h"

namespace zelph {

struct CNamedValue {
  CK_ULONG value;
  const char* name;
};

// Where a kind's vendor values start, and the name of that first value.
struct CVendorRange {
  const char* marker;  // "CKM_VENDOR_DEFINED"; null for a kind without a vendor range
  CK_ULONG first;
};

// The names of a kind, one per value, sorted by value.
std::span<const CNamedValue> StandardNamesOf(CNameKind kind) noexcept;

// The names of a flag word's bits, one per bit, sorted by value.
std::span<const CNamedValue> FlagNamesOf(CFlagKind kind) noexcept;

CVendorRange VendorRangeOf(CNameKind kind) noexcept;

}  // namespace zelph
