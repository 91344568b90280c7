// The end-user sentences for return values and the "Code 0x" text for values
// without one.
#include "trace/UserMessage.h"

#include <gtest/gtest.h>

#include <string>

#include "zelph/vendor.h"

namespace zelph {
namespace {

struct Expected {
  CK_RV rv;
  const char* text;
};

std::string Message(CK_RV rv) {
  return std::string(GetUserErrorMessage(rv).View());
}

TEST(UserMessageTest, SentencesAreReproducedByteForByte) {
  const Expected kCases[] = {
      {CKR_HOST_MEMORY, "Not enough memory on the host computer."},
      {CKR_PIN_INCORRECT, "The PIN value is incorrect."},
      {CKR_PIN_LOCKED, "Due to too many incorrect PINs entered, the card has been locked."},
      // Known typos that clients match on.
      {CKR_SIGNATURE_INVALID, "The digital signature in invalid."},
      {CKR_USER_NOT_LOGGED_IN,
       "The appropriate user is not logged in. You dont' have the right to perform this "
       "operation."},
      // The size and type sentences of the wrapped key sit where they always have.
      {CKR_WRAPPED_KEY_INVALID,
       "The size of the wrapped key is outside of the range supported for this operation."},
      {CKR_WRAPPED_KEY_LEN_RANGE,
       "The type of the wrapped key is not supported for this operation."},
      {CKR_INFORMATION_SENSITIVE, "The information is sensitive and cannot be revealed."},
      {CXR_CERT_NOT_TRUSTED,
       "The certificate has not been approved by an authority from the trusted zone."},
  };
  for (const Expected& c : kCases) {
    EXPECT_EQ(Message(c.rv), c.text) << "rv 0x" << std::hex << c.rv;
  }
}

TEST(UserMessageTest, ValuesWithoutSentenceShowTheCodeWithAtLeastEightDigits) {
  const Expected kCases[] = {
      {CKR_OK, "Code 0x00000000"},
      {0x7, "Code 0x00000007"},
      {0x1B, "Code 0x0000001B"},
      {CKR_WRAPPING_KEY_HANDLE_INVALID, "Code 0x00000113"},
      {CXR_CONTAINER_INVALID, "Code 0x80000064"},
      {0x123456789, "Code 0x123456789"},
      {~0UL, "Code 0xFFFFFFFFFFFFFFFF"},
  };
  for (const Expected& c : kCases) {
    EXPECT_EQ(Message(c.rv), c.text) << "rv 0x" << std::hex << c.rv;
  }
}

// Every standard return value below 0x200 plus the vendor one: exactly 47 of
// them carry a sentence, so none was lost or added.
TEST(UserMessageTest, ExactlyFortySevenValuesHaveASentence) {
  int sentences = 0;
  for (CK_RV rv = 0; rv < 0x200; ++rv) {
    if (!Message(rv).starts_with("Code 0x")) ++sentences;
  }
  if (!Message(CXR_CERT_NOT_TRUSTED).starts_with("Code 0x")) ++sentences;
  EXPECT_EQ(sentences, 47);
}

}  // namespace
}  // namespace zelph
