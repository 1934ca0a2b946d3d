#include "vek_test.hpp"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <vekutil/btree.h>
#include <vekutil/event.h>
#include <vekutil/log.h>
#include <vekutil/mutex.h>
#include <vekutil/queue.h>
#include <vekutil/rwlock.h>
#include <vekutil/socket.h>

namespace vektest {

void LeakCheckedTest::SetUp() {
  btree_instrument_handle();
  mutex_instrument_handle();
  rwlock_instrument_handle();
  event_instrument_handle();
  queue_instrument_handle();
  socket_instrument_handle();
  socket_foreach([](const void*, void*) {}, nullptr);  // makes the socket registry
  blocks_at_start_ = vekMemoryBlockUsed();
  bytes_at_start_ = vekMemoryUsed();
}

void LeakCheckedTest::TearDown() {
  EXPECT_EQ(blocks_at_start_, vekMemoryBlockUsed()) << "accounted blocks leaked by the test";
  EXPECT_EQ(bytes_at_start_, vekMemoryUsed()) << "accounted bytes leaked by the test";
}

TempDir::TempDir() {
  std::string templ = (std::filesystem::temp_directory_path() / "vektest.XXXXXX").string();
  if (mkdtemp(templ.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed";
  path_ = templ;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string TempDir::file(const std::string& name) const { return path_ + "/" + name; }

std::string take_text(char* text) {
  if (!text) return "<null>";
  std::string s = text;
  vekFree(text);
  return s;
}

std::string compact_json(JSON* json) {
  char* text = json_PrintUnformatted(json);
  return text ? take_text(text) : "";
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void write_file(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

LogCapture::LogCapture() {
  if (vekLogInit(dir_.file("test.log").c_str(), nullptr) != 0) ADD_FAILURE() << "vekLogInit failed";
}

LogCapture::~LogCapture() {
  // vekLogInit never closes an earlier stream; the test owns this one.
  FILE* f = g_log_file;
  g_log_file = nullptr;
  if (f) fclose(f);
}

std::string LogCapture::text() const {
  if (g_log_file) fflush(g_log_file);
  return read_file(dir_.file("test.log"));
}

}  // namespace vektest
