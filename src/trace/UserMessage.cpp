#include "trace/UserMessage.h"

#include <cstdio>

#include "common/base/CTFmtArgs.h"
#include "zelph/vendor.h"

namespace zelph {
namespace {

// The sentence for `rv`, or null when there is none. Some pairings look
// shifted (CKR_WRAPPED_KEY_INVALID speaks of the key's size,
// CKR_WRAPPED_KEY_LEN_RANGE of its type); clients show these texts as they
// have always been, so they stay, typos included.
const char* FindSentence(CK_RV rv) noexcept {
  switch (rv) {
    case CKR_HOST_MEMORY:
      return "Not enough memory on the host computer.";
    case CKR_GENERAL_ERROR:
      return "An unrecoverable error occurred. This may be due to an inconsistency in the smart "
             "card data.";
    case CKR_FUNCTION_FAILED:
      return "The operation failed for some unknown reason. Please try again.";
    case CKR_ATTRIBUTE_READ_ONLY:
      return "The token object cannot be modified because it is read-only.";
    case CKR_ATTRIBUTE_SENSITIVE:
      return "The token object cannot be read because it is sensitive.";
    case CKR_ATTRIBUTE_TYPE_INVALID:
      return "The object attribute is invalid.";
    case CKR_ATTRIBUTE_VALUE_INVALID:
      return "The value of the object attribute is invalid.";
    case CKR_DATA_INVALID:
      return "The data is invalid.";
    case CKR_DATA_LEN_RANGE:
      return "The length of the data is inconsistent.";
    case CKR_DEVICE_ERROR:
      return "An error occurred during the communication with the token.";
    case CKR_DEVICE_MEMORY:
      return "There is not enough memory space available in the token.";
    case CKR_DEVICE_REMOVED:
      return "The token has been removed during the operation.";
    case CKR_ENCRYPTED_DATA_INVALID:
      return "The encrypted data is invalid.";
    case CKR_ENCRYPTED_DATA_LEN_RANGE:
      return "The length of the encrypted data is invalid.";
    case CKR_FUNCTION_CANCELED:
      return "The operation has been cancelled.";
    case CKR_FUNCTION_NOT_SUPPORTED:
      return "The operation is not supported by the token.";
    case CKR_KEY_SIZE_RANGE:
      return "The key size is outside of the range supported for this operation.";
    case CKR_KEY_TYPE_INCONSISTENT:
      return "The key types are inconsistent for this operation.";
    case CKR_KEY_INDIGESTIBLE:
      return "The key cannot be digested.";
    case CKR_KEY_FUNCTION_NOT_PERMITTED:
      return "The key does not support this operation.";
    case CKR_KEY_UNEXTRACTABLE:
      return "The key cannot be extracted.";
    case CKR_MECHANISM_INVALID:
      return "The cryptographic algorithm is not supported.";
    case CKR_MECHANISM_PARAM_INVALID:
      return "The parameters for the cryptographic operation are incorrect.";
    case CKR_PIN_INCORRECT:
      return "The PIN value is incorrect.";
    case CKR_PIN_INVALID:
      return "The PIN does not have the proper format.";
    case CKR_PIN_LEN_RANGE:
      return "The length of the PIN is outside of the range.";
    case CKR_PIN_EXPIRED:
      return "The PIN has expired and needs to be changed.";
    case CKR_PIN_LOCKED:
      return "Due to too many incorrect PINs entered, the card has been locked.";
    case CKR_SIGNATURE_INVALID:
      return "The digital signature in invalid.";
    case CKR_SIGNATURE_LEN_RANGE:
      return "The length of the digital signature is inconsistent.";
    case CKR_TOKEN_NOT_PRESENT:
      return "The token has been removed.";
    case CKR_TOKEN_NOT_RECOGNIZED:
      return "The token is not supported.";
    case CKR_TOKEN_WRITE_PROTECTED:
      return "The token is write-protected.";
    case CKR_UNWRAPPING_KEY_SIZE_RANGE:
      return "The size of the unwrapping key is outside of the range supported for this operation.";
    case CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT:
      return "The type of the unwrapping key is not supported for this operation.";
    case CKR_USER_ALREADY_LOGGED_IN:
      return "The user is already logged in.";
    case CKR_USER_NOT_LOGGED_IN:
      return "The appropriate user is not logged in. You dont' have the right to perform this "
             "operation.";
    case CKR_USER_PIN_NOT_INITIALIZED:
      return "The user PIN on this token has never been initially set.";
    case CKR_USER_TYPE_INVALID:
      return "There is no such user supported by the token.";
    case CKR_USER_ANOTHER_ALREADY_LOGGED_IN:
      return "Another user is currently logged in.";
    case CKR_USER_TOO_MANY_TYPES:
      return "Too many users are logged in the token.";
    case CKR_WRAPPED_KEY_INVALID:
      return "The size of the wrapped key is outside of the range supported for this operation.";
    case CKR_WRAPPED_KEY_LEN_RANGE:
      return "The type of the wrapped key is not supported for this operation.";
    case CKR_WRAPPING_KEY_SIZE_RANGE:
      return "The size of the wrapping key is outside of the range supported for this operation.";
    case CKR_WRAPPING_KEY_TYPE_INCONSISTENT:
      return "The type of the wrapping key is not supported for this operation.";
    case CKR_INFORMATION_SENSITIVE:
      return "The information is sensitive and cannot be revealed.";
    case CXR_CERT_NOT_TRUSTED:
      return "The certificate has not been approved by an authority from the trusted zone.";
  }
  return nullptr;
}

}  // namespace

CTString<CUTF8Encoding> GetUserErrorMessage(CK_RV rv) {
  if (const char* sentence = FindSentence(rv)) return sentence;
  // All 64 bits, at least eight digits: 16 digits and the terminator.
  char digits[17];
  std::snprintf(digits, sizeof digits, "%08lX", rv);
  CTFmtArgs<CUTF8Encoding> args;
  args.Add(digits);
  return Format(CTString<CUTF8Encoding>("Code 0x%1"), args);
}

}  // namespace zelph
