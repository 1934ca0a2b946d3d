#include <vekutil/blob.h>
#include <vekutil/errors.h>
#include <vekutil/memory.h>

#include <cstring>
#include <string>

#include "vek_test.hpp"

namespace {

// Owns one blob for a test.
class BlobTest : public vektest::LeakCheckedTest {
 protected:
  void TearDown() override {
    blob_delete(handle_);
    LeakCheckedTest::TearDown();
  }
  _BLOB* make(int initial_length) {
    blob_delete(handle_);
    EXPECT_EQ(0, blob_create(&handle_, initial_length));
    return static_cast<_BLOB*>(handle_);
  }
  static std::string contents(const _BLOB* b) { return std::string(b->buffer, static_cast<size_t>(b->len)); }
  // Every byte from len to size must be zero, and unused must match.
  static void expect_consistent(const _BLOB* b) {
    ASSERT_EQ(b->size - b->len, b->unused);
    ASSERT_GE(b->len, 0);
    for (int i = b->len; i < b->size; ++i) ASSERT_EQ(0, b->buffer[i]) << "byte " << i;
  }

  void* handle_ = nullptr;
};

TEST_F(BlobTest, CreateUsesDefaultSizeBelowOneCloneCopiesTheBytesInUseDeleteObjectKeepsThem) {
  EXPECT_EQ(1024, make(0)->size);
  _BLOB* b = make(16);
  EXPECT_EQ(16, b->size);
  EXPECT_EQ(16, b->unused);
  EXPECT_EQ(0, b->len);
  void* copy = nullptr;
  ASSERT_EQ(0, blob_clone(b, &copy));
  EXPECT_EQ(1, static_cast<_BLOB*>(copy)->size) << "empty blob: size 1";
  blob_delete(copy);
  blob_append_string(b, "hello");
  ASSERT_EQ(0, blob_clone(b, &copy));
  auto* c = static_cast<_BLOB*>(copy);
  EXPECT_EQ(6, c->size);
  EXPECT_EQ("hello", contents(c));
  expect_consistent(c);
  blob_delete(copy);
  // Deleting only the object hands the buffer to the caller.
  char* buffer = static_cast<char*>(blob_get_buffer(b));
  blob_delete_object(b);
  handle_ = nullptr;
  EXPECT_EQ(0, std::memcmp(buffer, "hello", 5));
  vekFree(buffer);
}

TEST_F(BlobTest, AppendingExactlyTheFreeSpaceGrowsFirst) {
  _BLOB* b = make(8);
  ASSERT_EQ(0, blob_append(b, "1234567", 7));
  EXPECT_EQ(8, b->size);  // 7 < 8 free: no growth
  ASSERT_EQ(0, blob_append(b, "8", 1));
  EXPECT_EQ(16, b->size);  // 1 free, 1 needed: doubled
  ASSERT_EQ(0, blob_append(b, nullptr, 3));  // zero bytes
  ASSERT_EQ(0, blob_append(b, std::string(100, 'x').data(), 100));
  EXPECT_EQ(111, b->size);  // doubling is not enough: len + needed
  EXPECT_EQ(std::string("12345678\0\0\0", 11) + std::string(100, 'x'), contents(b));
  expect_consistent(b);
}

TEST_F(BlobTest, ManyAppendsKeepContentsAndZeroTail) {
  _BLOB* b = make(1);
  std::string expected;
  for (int i = 0; i < 500; ++i) {
    expected += std::to_string(i) + ",";
    ASSERT_EQ(0, blob_append_string(b, (std::to_string(i) + ",").c_str()));
  }
  EXPECT_EQ(expected, contents(b));
  EXPECT_EQ(static_cast<int>(expected.size()), blob_get_length(b));
  expect_consistent(b);
  // Formatted text grows the blob as needed and keeps its terminator outside.
  const std::string long_text(3000, 'y');
  ASSERT_EQ(0, blob_format_append(b, "%s=%d;[%s]", "key", 42, long_text.c_str()));
  EXPECT_EQ(expected + "key=42;[" + long_text + "]", contents(b));
  EXPECT_EQ(0, b->buffer[b->len]);
  expect_consistent(b);
}

TEST_F(BlobTest, TruncateShrinksFromTheEndAndOnlyExtendsWhenPositive) {
  _BLOB* b = make(16);
  blob_append_string(b, "0123456789");
  EXPECT_EQ(10, blob_truncate(b, 2));  // not above len: nothing
  EXPECT_EQ(10, blob_truncate(b, 0));  // zero does not clear
  EXPECT_EQ(7, blob_truncate(b, -3));
  EXPECT_EQ("0123456", contents(b));
  expect_consistent(b);
  // Extending takes over bytes the caller wrote into the free space.
  b->buffer[7] = 'x';
  EXPECT_EQ(8, blob_truncate(b, 8));
  EXPECT_EQ("0123456x", contents(b));
  EXPECT_EQ(16, blob_truncate(b, 1000));  // never past the allocation
  EXPECT_EQ(0, b->unused);
  EXPECT_EQ(0, blob_truncate(b, -1000));  // dropping everything clears
  expect_consistent(b);
  blob_append_string(b, "abc");
  EXPECT_EQ(0, blob_truncate(b, -5));
  EXPECT_EQ(0, blob_truncate(b, -2147483647 - 1));
}

TEST_F(BlobTest, FileIsAppendedWhole) {
  vektest::TempDir dir;
  std::string body;
  for (int i = 0; i < 3000; ++i) body.push_back(static_cast<char>('a' + i % 26));
  vektest::write_file(dir.file("in.txt"), body);
  _BLOB* b = make(0);
  blob_append_string(b, ">");
  ASSERT_EQ(0, blob_file2blob(b, dir.file("in.txt").c_str()));
  EXPECT_EQ(">" + body, contents(b));
  EXPECT_EQ(ERR_FILE_OPEN, blob_file2blob(b, dir.file("missing").c_str()));
  // A growth that fails ends the read with its code; what was there stays.
  const VEK_MEMORY_FUNCTIONS saved = vekMemoryGetFunctions();
  VEK_MEMORY_FUNCTIONS failing = saved;
  failing.reallocFunc = [](void*, size_t) -> void* { return nullptr; };
  vekMemorySetFunctions(failing);
  const int rc = blob_file2blob(b, dir.file("in.txt").c_str());
  vekMemorySetFunctions(saved);
  EXPECT_EQ(ERR_NO_MEMORY, rc);
  EXPECT_EQ(">" + body, contents(b).substr(0, body.size() + 1));
}

// The source may be the blob's own bytes, also when the buffer moves.
TEST_F(BlobTest, AppendFromItsOwnBufferAcrossGrowth) {
  _BLOB* b = make(16);
  blob_append_string(b, "0123456789");
  ASSERT_EQ(0, blob_append(b, b->buffer, 10));
  ASSERT_EQ(0, blob_append(b, b->buffer + 5, 15));
  EXPECT_EQ("01234567890123456789567890123456789", contents(b));
  blob_array_init(b, 8);
  b->len = 0, b->unused = b->size, b->array_cur = 0;
  blob_array_push(b, const_cast<char*>("abcdefgh"));
  for (int i = 0; i < 6; ++i) ASSERT_EQ(i + 2, blob_array_push(b, b->buffer));
  for (int i = 0; i < 7; ++i) EXPECT_EQ("abcdefgh", contents(b).substr(i * 8, 8)) << i;
}

struct Record {
  int id;
  char name[12];
};

TEST_F(BlobTest, ArrayPushGetSetAcrossGrowthAndClear) {
  _BLOB* b = make(sizeof(Record));
  Record rec{};
  EXPECT_EQ(ERR_BLOB_NOT_ARRAY, blob_array_count(b));
  EXPECT_EQ(ERR_BLOB_NOT_ARRAY, blob_array_push(b, &rec));
  ASSERT_EQ(0, blob_array_init(b, sizeof(Record)));
  for (int i = 0; i < 100; ++i) {
    rec.id = i;
    std::snprintf(rec.name, sizeof rec.name, "rec%d", i);
    ASSERT_EQ(i + 1, blob_array_push(b, &rec));
  }
  EXPECT_EQ(100, blob_array_count(b));
  EXPECT_EQ(static_cast<int>(100 * sizeof(Record)), b->len);
  expect_consistent(b);
  ASSERT_EQ(0, blob_array_get(b, 57, &rec));
  EXPECT_EQ(57, rec.id);
  EXPECT_STREQ("rec57", rec.name);
  Record changed{7, "seven"};
  ASSERT_EQ(0, blob_array_set(b, 99, &changed));
  void* slot = nullptr;
  ASSERT_EQ(0, blob_array_get_buffer(b, 99, &slot));
  EXPECT_STREQ("seven", static_cast<Record*>(slot)->name);
  ASSERT_EQ(0, blob_clear(b));
  expect_consistent(b);
  EXPECT_EQ(100, blob_array_count(b)) << "clear zeroes but keeps the record count";
}

TEST_F(BlobTest, ArrayIndexOutsideTheRecordsNullHandlesAndBadArgumentsAreRefused) {
  _BLOB* b = make(0);
  blob_array_init(b, 8);
  blob_array_push(b, const_cast<char*>("12345678"));
  char out[8];
  void* slot = nullptr;
  for (int index : {1, 5, -1}) {
    EXPECT_EQ(ERR_INVALID_PARAMETER, blob_array_get(b, index, out)) << index;
    EXPECT_EQ(ERR_INVALID_PARAMETER, blob_array_set(b, index, out)) << index;
    EXPECT_EQ(ERR_INVALID_PARAMETER, blob_array_get_buffer(b, index, &slot)) << index;
  }
  // A record size raised after the fact must not reach past the buffer.
  blob_array_init(b, 1 << 20);
  EXPECT_EQ(ERR_INVALID_PARAMETER, blob_array_get_buffer(b, 0, &slot));
  EXPECT_EQ(ERR_INVALID_PARAMETER, blob_array_init(b, -1));

  EXPECT_EQ(nullptr, blob_get_buffer(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, blob_append(nullptr, "x", 1));
  for (int rc : {blob_create(nullptr, 1), blob_array_count(nullptr), blob_clone(b, nullptr),
                 blob_append_string(b, nullptr), blob_append(b, "x", -1), blob_format_append(b, nullptr)})
    EXPECT_EQ(ERR_INVALID_PARAMETER, rc);
  blob_delete(nullptr);
}

}  // namespace
