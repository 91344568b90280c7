// First look at the library: the symbolic names it gives PKCS#11 numbers, and
// the sentences it has for telling an end user what went wrong.
#include <cstdio>
#include <span>

#include "trace/UserMessage.h"
#include "zelph/trace.h"
#include "zelph/vendor.h"

namespace zelph {
namespace {

using NameFunction = const char* (*)(CK_ULONG);

// Prints a heading and the name of each value, unknown ones included.
void PrintNames(const char* heading, NameFunction name, std::span<const CK_ULONG> values) {
  std::printf("%s\n", heading);
  for (CK_ULONG value : values) std::printf("  0x%08lX  %s\n", value, name(value));
  std::printf("\n");
}

}  // namespace
}  // namespace zelph

int main() {
  const CK_RV returnCodes[] = {CKR_OK, CKR_PIN_INCORRECT, CKR_TOKEN_NOT_PRESENT,
                               CXR_CERT_NOT_TRUSTED, 0x80000067};
  const CK_MECHANISM_TYPE mechanisms[] = {CKM_RSA_PKCS, CKM_SHA256_RSA_PKCS, CKM_AES_CBC_PAD,
                                          CKM_ECDSA_SHA256, 0x80001234};
  const CK_ATTRIBUTE_TYPE attributes[] = {CKA_CLASS, CKA_LABEL, CKA_MODULUS_BITS,
                                          CXA_CONTAINER_NAME, 0x80000066};

  std::printf("zelph names demo: PKCS#11 numbers and their names\n\n");
  zelph::PrintNames("Return codes:", GetCkErrorString, returnCodes);
  zelph::PrintNames("Mechanisms:", GetCkMechanismTypeString, mechanisms);
  zelph::PrintNames("Attributes:", GetCkAttributeTypeString, attributes);

  std::printf("What an end user is told:\n");
  const CK_RV userCodes[] = {CKR_PIN_INCORRECT, CKR_PIN_LOCKED, CKR_TOKEN_NOT_PRESENT,
                             CXR_CERT_NOT_TRUSTED, CKR_OK};
  for (CK_RV rv : userCodes) {
    std::printf("  %-22s %s\n", GetCkErrorString(rv), zelph::GetUserErrorMessage(rv).c_str());
  }
  return 0;
}
