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
    return vektest::take_text(out);
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

TEST_F(Base64Test, StandardVectorsAndUnpaddedLastGroup) {
  const struct { const char *plain, *coded; } vectors[] = {{"", ""},         {"f", "Zg=="},     {"fo", "Zm8="},
                                                           {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"}};
  for (const auto& v : vectors) {
    EXPECT_EQ(v.coded, encode(v.plain));
    EXPECT_EQ(v.plain, decode(v.coded));
  }
  EXPECT_EQ("+/+/", encode("\xfb\xff\xbf"));
  EXPECT_EQ("fo", decode("Zm8"));
  EXPECT_EQ("foob", decode("Zm9vYg"));
}

TEST_F(Base64Test, RoundTripsEveryLengthAndByteValueWithinTheAnnouncedSize) {
  const int sizes[][2] = {{0, 4}, {1, 4}, {2, 4}, {3, 8}, {4, 8}, {6, 12}};
  for (const auto& s : sizes) EXPECT_EQ(s[1], base64_sizeof(s[0])) << s[0];
  std::string bytes;
  for (int len = 0; len < 1000; ++len) {
    const std::string text = encode(bytes);
    ASSERT_GE(base64_sizeof(len), static_cast<int>(text.size())) << len;
    ASSERT_EQ(bytes, decode(text.c_str())) << len;
    bytes.push_back(static_cast<char>(len));
  }
}

TEST_F(Base64Test, MalformedTextIsRefused) {
  // Groups of one character, broken or surplus padding, text after the
  // padding, and foreign characters (line breaks and spaces included).
  for (const char* text : {"Z", "Zm9vY", "Zg=", "Z===", "====", "Zg==Zg==", "Zg===", "Zm9v!", "Zm9v\n", " Zm9v",
                           "Zm-v"})
    EXPECT_EQ("<error>", decode(text)) << text;
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
  const unsigned char byte = 'x';
  int outlen = 0;
  EXPECT_EQ(-1, base64_encode(&byte, -1, nullptr));
  EXPECT_EQ(-1, base64_decode(nullptr, nullptr, &outlen));
}

}  // namespace
