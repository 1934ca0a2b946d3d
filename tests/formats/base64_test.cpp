#include <vekutil/base64.h>
#include <vekutil/memory.h>

#include <string>

#include "vek_test.hpp"

namespace {

class Base64Test : public vektest::LeakCheckedTest {
 protected:
  void TearDown() override {
    base64_set_pad('=');
    LeakCheckedTest::TearDown();
  }

  static std::string encode(const std::string& bytes) {
    char* out = nullptr;
    EXPECT_EQ(0, base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()),
                               &out));
    std::string text = out ? out : "<null>";
    vekFree(out);
    return text;
  }
  // Decoded bytes, or "<error>" when decoding fails.
  static std::string decode(const char* text) {
    unsigned char* out = nullptr;
    int outlen = -1;
    if (base64_decode(text, &out, &outlen) != 0) {
      EXPECT_EQ(nullptr, out);
      return "<error>";
    }
    EXPECT_EQ(0, out[outlen]);  // terminated for callers decoding text
    std::string bytes(reinterpret_cast<char*>(out), static_cast<size_t>(outlen));
    vekFree(out);
    return bytes;
  }
};

TEST_F(Base64Test, StandardVectors) {
  const char* const plain[] = {"", "f", "fo", "foo", "foob", "fooba", "foobar"};
  const char* const coded[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(coded[i], encode(plain[i]));
    EXPECT_EQ(plain[i], decode(coded[i]));
  }
  EXPECT_EQ("+/+/", encode("\xfb\xff\xbf"));
}

TEST_F(Base64Test, SizeIsAlwaysOneToFourAboveFourThirds) {
  EXPECT_EQ(4, base64_sizeof(0));
  EXPECT_EQ(4, base64_sizeof(1));
  EXPECT_EQ(4, base64_sizeof(2));
  EXPECT_EQ(8, base64_sizeof(3));
  EXPECT_EQ(8, base64_sizeof(4));
  EXPECT_EQ(12, base64_sizeof(6));
  for (int n = 0; n < 1000; ++n) ASSERT_GE(base64_sizeof(n), (n + 2) / 3 * 4) << n;
}

TEST_F(Base64Test, RoundTripsEveryLengthAndByteValue) {
  std::string bytes;
  for (int len = 0; len <= 300; ++len) {
    ASSERT_EQ(bytes, decode(encode(bytes).c_str())) << len;
    bytes.push_back(static_cast<char>(len));
  }
}

TEST_F(Base64Test, MalformedTextIsRefused) {
  const char* const bad[] = {
      "Z",         // one character cannot make a byte
      "Zm9vY",     // nor can a group of one after full groups
      "Zg=",       // incomplete padding
      "Z===",      // padding after a single character
      "====",      // padding only
      "Zg==Zg==",  // text after the padding
      "Zg===",     // too much padding
      "Zm9v!",     // foreign character
      "Zm9v\n",    // line breaks are foreign too
      " Zm9v",
      "Zm-v",
  };
  for (const char* text : bad) EXPECT_EQ("<error>", decode(text)) << text;
}

TEST_F(Base64Test, ShortLastGroupWithoutPaddingIsAccepted) {
  EXPECT_EQ("fo", decode("Zm8"));
  EXPECT_EQ("foob", decode("Zm9vYg"));
}

TEST_F(Base64Test, PaddingCharacterCanBeChangedOrSwitchedOff) {
  base64_set_pad('.');
  EXPECT_EQ("Zg..", encode("f"));
  EXPECT_EQ("f", decode("Zg.."));
  EXPECT_EQ("<error>", decode("Zg=="));
  base64_set_pad('\0');
  EXPECT_EQ("Zg", encode("f"));
  EXPECT_EQ("Zm8", encode("fo"));
  EXPECT_EQ("fo", decode("Zm8"));
}

TEST_F(Base64Test, NullArgumentsGivePlainMinusOne) {
  char* text = nullptr;
  unsigned char* out = nullptr;
  int outlen = 0;
  const unsigned char byte = 'x';
  EXPECT_EQ(-1, base64_encode(nullptr, 1, &text));
  EXPECT_EQ(-1, base64_encode(&byte, -1, &text));
  EXPECT_EQ(-1, base64_encode(&byte, 1, nullptr));
  EXPECT_EQ(-1, base64_decode(nullptr, &out, &outlen));
  EXPECT_EQ(-1, base64_decode("Zg==", nullptr, &outlen));
  EXPECT_EQ(-1, base64_decode("Zg==", &out, nullptr));
}

}  // namespace
