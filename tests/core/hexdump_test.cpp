// Hex dumps: the row layout, the padding of a short last row and the
// line-feed rules of the string form.
#include <cstdio>
#include <string>

#include <vekutil/hexdump.h>
#include <vekutil/memory.h>

#include "vek_test.hpp"

namespace {

class HexdumpTest : public vektest::LeakCheckedTest {
 protected:
  // hexdump() as a std::string, released through the allocator.
  static std::string dump(const void* data, int len) {
    char* text = hexdump(data, len);
    if (!text) return "<null>";
    std::string s = text;
    _vekFree(text, VEK_HERE);
    return s;
  }
  static std::string heading(const void* data, int len) {
    char line[80];
    std::snprintf(line, sizeof line, "HEXDUMP AT [0x%p] (%d bytes)\n", data, len);
    return line;
  }
  static std::string console(const void* data, int len) {
    testing::internal::CaptureStdout();
    hexdump_console(data, len);
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
  }
};

const unsigned char kBytes[] = "0123456789abcdef\x01\x7f\x80\"\\ ~";  // 23 bytes
const std::string kRow0 = "  0000: 30 31 32 33 34 35 36 37 - 38 39 61 62 63 64 65 66  0123456789abcdef";

TEST_F(HexdumpTest, FullRowHasNoTrailingLineFeed) {
  EXPECT_EQ(dump(kBytes, 16), heading(kBytes, 16) + kRow0);
  EXPECT_EQ(console(kBytes, 16), kRow0 + "\n");
}

TEST_F(HexdumpTest, ShortRowIsPaddedToFullWidth) {
  // Five bytes: eleven missing columns plus the missing " -".
  std::string five = "  0000: 30 31 32 33 34" + std::string(35, ' ') + "  01234";
  EXPECT_EQ(dump(kBytes, 5), heading(kBytes, 5) + five);
  EXPECT_EQ(console(kBytes, 5), five + "\n");

  // Twenty bytes: a full row, then four bytes; quotes and backslashes are
  // shown as themselves, unprintable bytes as dots.
  std::string tail = "  0010: 01 7f 80 22" + std::string(38, ' ') + "  ...\"";
  EXPECT_EQ(dump(kBytes, 20), heading(kBytes, 20) + kRow0 + "\n" + tail);
  EXPECT_EQ(console(kBytes, 20), kRow0 + "\n" + tail + "\n");

  // Eight bytes already carry the " -": no extra two blanks.
  std::string eight = "  0000: 30 31 32 33 34 35 36 37 -" + std::string(24, ' ') + "  01234567";
  EXPECT_EQ(console(kBytes, 8), eight + "\n");
  EXPECT_EQ(eight.size(), kRow0.size() - 8);
}

TEST_F(HexdumpTest, EmptyAndNullRanges) {
  std::string head = heading(kBytes, 0);
  EXPECT_EQ(dump(kBytes, 0), head.substr(0, head.size() - 1));
  head = heading(kBytes, -3);
  EXPECT_EQ(dump(kBytes, -3), head.substr(0, head.size() - 1));
  EXPECT_EQ(dump(nullptr, 16), "<null>");
  EXPECT_EQ(console(kBytes, 0), "");
  EXPECT_EQ(console(kBytes, -1), "");
  EXPECT_EQ(console(nullptr, 16), "");
}

TEST_F(HexdumpTest, LongDumpFitsItsBufferAndOffsetsGrow) {
  static unsigned char big[70000];
  for (size_t i = 0; i < sizeof big; ++i) big[i] = (unsigned char)i;
  std::string text = dump(big, (int)sizeof big);
  EXPECT_EQ(text.size(), heading(big, sizeof big).size() + 4375 * 76 - 1 + (4375 - 4096) * 1);
  EXPECT_NE(text.find("\n  10000: 00 01 02"), std::string::npos);
  EXPECT_NE(text.back(), '\n');
}

}  // namespace
