#include <vekutil/base32.h>
#include <vekutil/errors.h>
#include <vekutil/memory.h>

#include <string>

#include "vek_test.hpp"

namespace {

class Base32Test : public vektest::LeakCheckedTest {
 protected:
  void TearDown() override {
    base32_set_pad('=');
    LeakCheckedTest::TearDown();
  }

  static std::string encode(const std::string& bytes) {
    char* out = nullptr;
    EXPECT_EQ(0, base32_encode(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()),
                               &out));
    return vektest::take_text(out);
  }
  static std::string decode(const char* text) {
    unsigned char* out = nullptr;
    int outlen = -1;
    EXPECT_EQ(0, base32_decode(text, &out, &outlen));
    std::string bytes(reinterpret_cast<char*>(out), static_cast<size_t>(outlen));
    vekFree(out);
    return bytes;
  }
};

TEST_F(Base32Test, GroupsOfEightSeparatedByDashesAndPaddedToForty) {
  const struct { const char *plain, *coded; } vectors[] = {
      {"f", "MY======"}, {"foo", "MZXW6==="}, {"fooba", "MZXW6YTB"}, {"foobar", "MZXW6YTB-OI======"},
      {"0123456789", "GAYTEMZU-GU3DOOBZ"}};
  for (const auto& v : vectors) EXPECT_EQ(v.coded, encode(v.plain));
}

TEST_F(Base32Test, RoundTripsEveryLengthAndByteValue) {
  std::string bytes;
  for (int len = 1; len <= 64; ++len) {
    bytes.push_back(static_cast<char>(len * 37 + 200));
    const std::string text = encode(bytes);
    for (size_t i = 8; i < text.size(); i += 9) ASSERT_EQ('-', text[i]) << text;
    ASSERT_EQ(bytes, decode(text.c_str())) << len;
  }
}

TEST_F(Base32Test, DecodeIgnoresDashesCaseAndForeignCharactersAndStopsAtPad) {
  // 0, 1, 8 and 9 are not in the alphabet: skipped like other characters.
  const struct { const char *text, *bytes; } cases[] = {{"mzxw6ytb-oi======", "foobar"}, {"MZ-XW 6Y\nTBOI", "foobar"},
                                                        {"MZXW6===MZXW6YTB", "foo"},     {"M0Z1X8W96", "foo"},
                                                        {"", ""},                        {"!!!---", ""}};
  for (const auto& c : cases) EXPECT_EQ(c.bytes, decode(c.text)) << c.text;
}

TEST_F(Base32Test, PaddingCharacterCanBeChangedOrSwitchedOff) {
  base32_set_pad('*');
  EXPECT_EQ("MY******", encode("f"));
  EXPECT_EQ("f", decode("MY******"));
  base32_set_pad('\0');
  EXPECT_EQ("MZXW6YTB-OI", encode("foobar"));
  EXPECT_EQ("foobar", decode("MZXW6YTB-OI"));
}

TEST_F(Base32Test, RejectsNullAndEmptyArguments) {
  char* text = reinterpret_cast<char*>(1);
  const unsigned char byte = 1;
  EXPECT_EQ(ERR_INVALID_PARAMETER, base32_encode(&byte, 0, &text));
  EXPECT_EQ(nullptr, text);
  EXPECT_EQ(ERR_INVALID_PARAMETER, base32_decode(nullptr, nullptr, nullptr));
}

}  // namespace
