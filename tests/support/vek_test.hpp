// Shared test helpers: a leak-checked fixture, temporary directories, text and log helpers.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include <string>

#include <vekutil/json.h>
#include <vekutil/memory.h>

namespace vektest {

// Checks that the block (and byte) count is back at its start when the test
// ends; the process-wide registry groups are made before counting.
class LeakCheckedTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

 private:
  long long blocks_at_start_ = 0;
  long long bytes_at_start_ = 0;
};

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes out of scope.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string file(const std::string& name) const;

 private:
  std::string path_;
};

// The key under which the registry files an object: its address.
inline long long registry_key(const void* object) { return (long long)(intptr_t)object; }

// json as compact text ("" for NULL); the printed copy is released.
std::string compact_json(JSON* json);

// Text a codec allocated, copied and released ("<null>" for NULL).
std::string take_text(char* text);

// Whole contents of a file ("" if it cannot be read).
std::string read_file(const std::string& path);
// Writes text to a file, replacing it.
void write_file(const std::string& path, const std::string& text);

// Sends the library's log to a file in a private directory for the lifetime
// of the object, so a test can check the lines it expects.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  std::string text() const;
  bool contains(const std::string& needle) const { return text().find(needle) != std::string::npos; }

 private:
  TempDir dir_;
};

}  // namespace vektest
