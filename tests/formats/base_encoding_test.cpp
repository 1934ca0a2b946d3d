// Base32 and Base64: vectors, every length and byte, lenient and malformed text, padding.
#include <string>

#include <vekutil/base32.h>
#include <vekutil/base64.h>
#include <vekutil/errors.h>
#include <vekutil/memory.h>

#include "vek_test.hpp"

namespace {

struct Codec {
  const char* name;
  int (*encode)(const unsigned char*, int, char**);
  int (*decode)(const char*, unsigned char**, int*);
  void (*set_pad)(char);
};
const Codec kBase32{"base32", base32_encode, base32_decode, base32_set_pad};
const Codec kBase64{"base64", base64_encode, base64_decode, base64_set_pad};

std::string encode(const Codec& c, const std::string& bytes) {
  char* out = nullptr;
  EXPECT_EQ(0, c.encode(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()), &out));
  return vektest::take_text(out);
}

// Decoded bytes, or "<error>" when decoding fails.
std::string decode(const Codec& c, const char* text) {
  unsigned char* out = nullptr;
  int outlen = -1;
  if (c.decode(text, &out, &outlen) != 0) {
    EXPECT_EQ(nullptr, out);
    return "<error>";
  }
  EXPECT_TRUE(&c != &kBase64 || out[outlen] == 0);  // Base64 terminates for callers decoding text
  std::string bytes(reinterpret_cast<char*>(out), static_cast<size_t>(outlen));
  vekFree(out);
  return bytes;
}

class BaseEncodingTest : public vektest::LeakCheckedTest {
 protected:
  void TearDown() override {
    base32_set_pad('=');
    base64_set_pad('=');
    LeakCheckedTest::TearDown();
  }
};

// Base32 comes in groups of eight separated by dashes, padded to forty bits.
TEST_F(BaseEncodingTest, VectorsBothWays) {
  const struct { const Codec& codec; const char *plain, *coded; } vectors[] = {
      {kBase32, "f", "MY======"},         {kBase32, "foo", "MZXW6==="},
      {kBase32, "fooba", "MZXW6YTB"},     {kBase32, "foobar", "MZXW6YTB-OI======"},
      {kBase32, "0123456789", "GAYTEMZU-GU3DOOBZ"},
      {kBase64, "", ""},                  {kBase64, "f", "Zg=="},
      {kBase64, "fo", "Zm8="},            {kBase64, "foo", "Zm9v"},
      {kBase64, "foob", "Zm9vYg=="},      {kBase64, "fooba", "Zm9vYmE="},
      {kBase64, "foobar", "Zm9vYmFy"},    {kBase64, "\xfb\xff\xbf", "+/+/"},
  };
  for (const auto& v : vectors) {
    EXPECT_EQ(v.coded, encode(v.codec, v.plain)) << v.codec.name << " " << v.plain;
    EXPECT_EQ(v.plain, decode(v.codec, v.coded)) << v.codec.name << " " << v.coded;
  }
}

TEST_F(BaseEncodingTest, RoundTripsEveryLengthAndByteValue) {
  std::string bytes;
  for (int len = 1; len <= 64; ++len) {
    bytes.push_back(static_cast<char>(len * 37 + 200));
    const std::string text = encode(kBase32, bytes);
    for (size_t i = 8; i < text.size(); i += 9) ASSERT_EQ('-', text[i]) << text;
    ASSERT_EQ(bytes, decode(kBase32, text.c_str())) << len;
  }
  const int sizes[][2] = {{0, 4}, {1, 4}, {2, 4}, {3, 8}, {4, 8}, {6, 12}};
  for (const auto& s : sizes) EXPECT_EQ(s[1], base64_sizeof(s[0])) << s[0];
  bytes.clear();
  for (int len = 0; len < 1000; ++len) {
    const std::string text = encode(kBase64, bytes);
    ASSERT_GE(base64_sizeof(len), static_cast<int>(text.size())) << len;
    ASSERT_EQ(bytes, decode(kBase64, text.c_str())) << len;
    bytes.push_back(static_cast<char>(len));
  }
}

// Base32 skips dashes, case, spaces and characters outside its alphabet (0, 1,
// 8, 9 included) and stops at the pad; Base64 accepts only an unpadded last
// group and refuses broken padding, text after it and foreign characters.
TEST_F(BaseEncodingTest, LenientAndMalformedText) {
  const struct { const Codec& codec; const char *text, *bytes; } cases[] = {
      {kBase32, "mzxw6ytb-oi======", "foobar"}, {kBase32, "MZ-XW 6Y\nTBOI", "foobar"},
      {kBase32, "MZXW6===MZXW6YTB", "foo"},     {kBase32, "M0Z1X8W96", "foo"},
      {kBase32, "", ""},                        {kBase32, "!!!---", ""},
      {kBase64, "Zm8", "fo"},                   {kBase64, "Zm9vYg", "foob"},
      {kBase64, "Z", "<error>"},                {kBase64, "Zm9vY", "<error>"},
      {kBase64, "Zg=", "<error>"},              {kBase64, "Z===", "<error>"},
      {kBase64, "====", "<error>"},             {kBase64, "Zg==Zg==", "<error>"},
      {kBase64, "Zg===", "<error>"},            {kBase64, "Zm9v!", "<error>"},
      {kBase64, "Zm9v\n", "<error>"},           {kBase64, " Zm9v", "<error>"},
      {kBase64, "Zm-v", "<error>"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.bytes, decode(c.codec, c.text)) << c.codec.name << " " << c.text;
}

TEST_F(BaseEncodingTest, PaddingCharacterCanBeChangedOrSwitchedOff) {
  const struct { const Codec& codec; char pad; const char *plain, *coded; } cases[] = {
      {kBase32, '*', "f", "MY******"}, {kBase32, '\0', "foobar", "MZXW6YTB-OI"},
      {kBase64, '.', "f", "Zg.."},     {kBase64, '\0', "f", "Zg"},
      {kBase64, '\0', "fo", "Zm8"},
  };
  for (const auto& c : cases) {
    c.codec.set_pad(c.pad);
    EXPECT_EQ(c.coded, encode(c.codec, c.plain)) << c.codec.name << " " << c.coded;
    EXPECT_EQ(c.plain, decode(c.codec, c.coded)) << c.codec.name << " " << c.coded;
  }
  base64_set_pad('.');
  EXPECT_EQ("<error>", decode(kBase64, "Zg=="));
}

TEST_F(BaseEncodingTest, RefusedArguments) {
  char* text = reinterpret_cast<char*>(1);
  const unsigned char byte = 1;
  EXPECT_EQ(ERR_INVALID_PARAMETER, base32_encode(nullptr, 3, &text));
  EXPECT_EQ(nullptr, text);
  for (int bad_length : {0, -1}) EXPECT_EQ(ERR_INVALID_PARAMETER, base32_encode(&byte, bad_length, &text));
  EXPECT_EQ(ERR_INVALID_PARAMETER, base32_encode(&byte, 1, nullptr));
  unsigned char* out = nullptr;
  int outlen = 0;
  EXPECT_EQ(ERR_INVALID_PARAMETER, base32_decode(nullptr, &out, &outlen));
  EXPECT_EQ(ERR_INVALID_PARAMETER, base32_decode("MY", nullptr, &outlen));
  EXPECT_EQ(ERR_INVALID_PARAMETER, base32_decode("MY", &out, nullptr));
  // Base64 gives a plain -1.
  EXPECT_EQ(-1, base64_encode(&byte, -1, nullptr));
  EXPECT_EQ(-1, base64_decode(nullptr, nullptr, &outlen));
}

}  // namespace
