// Hex dumps: row layout, padding of a short last row, line-feed rules.
#include <cstdio>

#include <vekutil/hexdump.h>
#include <vekutil/memory.h>

#include "vek_test.hpp"

namespace {

std::string dump(const void* data, int len) {
  char* text = hexdump(data, len);
  std::string s = text ? text : "<null>";
  vekFree(text);
  return s;
}
std::string heading(const void* data, int len) {
  char line[80];
  std::snprintf(line, sizeof line, "HEXDUMP AT [0x%p] (%d bytes)\n", data, len);
  return line;
}
std::string console(const void* data, int len) {
  testing::internal::CaptureStdout();
  hexdump_console(data, len);
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

const unsigned char kBytes[] = "0123456789abcdef\x01\x7f\x80\"\\ ~";
const std::string kRow = "  0000: 30 31 32 33 34 35 36 37 - 38 39 61 62 63 64 65 66  0123456789abcdef";

class Hexdump : public vektest::LeakCheckedTest {};

TEST_F(Hexdump, RowsAndPadding) {
  std::string five = "  0000: 30 31 32 33 34" + std::string(37, ' ') + "01234";
  std::string tail = "  0010: 01 7f 80 22" + std::string(40, ' ') + "...\"";  // quotes as themselves
  std::string eight = "  0000: 30 31 32 33 34 35 36 37 -" + std::string(26, ' ') + "01234567";
  const struct { int len; std::string rows; } cases[] = {{16, kRow}, {5, five}, {20, kRow + "\n" + tail}, {8, eight}};
  for (const auto& c : cases) {
    EXPECT_EQ(dump(kBytes, c.len), heading(kBytes, c.len) + c.rows) << "no line feed at the end";
    EXPECT_EQ(console(kBytes, c.len), c.rows + "\n");
  }
}

TEST_F(Hexdump, EmptyNullAndLongRanges) {
  std::string head = heading(kBytes, 0);
  EXPECT_EQ(dump(kBytes, 0), head.substr(0, head.size() - 1));
  EXPECT_EQ(dump(nullptr, 16), "<null>");
  EXPECT_EQ(console(kBytes, 0) + console(kBytes, -1) + console(nullptr, 16), "");
  // Offsets past 0xffff grow a digit; the buffer must still hold every row.
  static unsigned char big[70000];
  std::string text = dump(big, (int)sizeof big);
  EXPECT_EQ(text.size(), heading(big, sizeof big).size() + 4375 * 76 + (4375 - 4096) - 1);
  EXPECT_NE(text.find("\n  10000: 00 00"), std::string::npos);
}

}  // namespace
