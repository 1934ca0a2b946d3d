// Escape attempts through every command that takes a path: "..", a sibling
// whose name continues the root's, links that lead out, paths at the
// 1024-byte limit. Nothing outside the root may be read, written, listed or removed.
#include <filesystem>
#include <map>

#include "ftp_fixture.hpp"

namespace {

using namespace ftptest;
namespace fs = std::filesystem;

const char* const kNoBad = "550 No/Bad file or directory.\r\n";
const char* const kNoSuch = "550 No such file or directory.\r\n";

struct Attempt {
  const char* command;
  std::string arg;
  const char* expect;  // the reply; the data connection must carry nothing outside
};

// Names on each level: root/ holds file.txt, sub/, out_dir -> ../outside,
// out_file -> ../outside/secret.txt and dangling -> ../outside/new.txt;
// root2/ (the sibling) holds secret2.txt.
std::vector<Attempt> attempts(const std::string& root) {
  // With the root and "/" in front: deep is past the 1024-byte limit of a
  // path, edge just fits it (1023 bytes and the terminator) and climbs out
  // with its last component. Both fit in a command line.
  std::string deep;
  while (root.size() + 1 + deep.size() < 1026) deep += "a/";
  std::string edge = "../root2";
  while (root.size() + 1 + edge.size() < 1022) edge = "./" + edge;
  if (root.size() + 1 + edge.size() == 1022) edge = ".//" + edge.substr(2);
  return {
      {"CWD", "..", "250 CWD command successful.\r\n"},  // stays at "/"
      {"CWD", "../root2", kNoSuch},
      {"CWD", "/../", kNoSuch},
      {"CWD", "/../root2", kNoSuch},
      {"CWD", "sub/../../root2", kNoSuch},
      {"CWD", "out_dir", kNoSuch},
      {"CWD", "out_dir/../..", kNoSuch},
      {"CWD", deep, kNoSuch},
      {"CWD", edge, kNoSuch},
      {"LIST", edge, kNoBad},
      {"RMD", edge, kNoBad},
      {"LIST", "..", kNoBad},
      {"LIST", "../root2", kNoBad},
      {"LIST", "/../", kNoBad},
      {"LIST", "out_dir", kNoBad},
      {"LIST", "out_file", kNoBad},
      {"LIST", "sub/../../outside", kNoBad},
      {"LIST", deep, kNoBad},
      {"NLST", "out_dir", kNoBad},
      {"NLST", "out_file", kNoBad},
      {"RETR", "../root2/secret2.txt", kNoSuch},
      {"RETR", "/../outside/secret.txt", kNoSuch},
      {"RETR", "out_file", kNoBad},
      {"RETR", "out_dir/secret.txt", kNoBad},
      {"RETR", deep + "x", kNoBad},
      {"STOR", "../root2/new.txt", kNoSuch},
      {"STOR", "dangling", kNoBad},
      {"STOR", "out_dir/new.txt", kNoBad},
      {"STOR", "out_file", kNoBad},
      {"STOR", deep + "x", kNoBad},
      {"DELE", "../root2/secret2.txt", kNoBad},
      {"DELE", "/../outside/secret.txt", kNoBad},
      {"DELE", "out_dir/secret.txt", kNoBad},
      {"DELE", "out_file", kNoBad},
      {"DELE", "", kNoBad},  // the root itself
      {"MKD", "../root2/made", kNoBad},
      {"MKD", "/../made", kNoBad},
      {"MKD", "out_dir/made", kNoBad},
      {"MKD", deep + "x", kNoBad},
      {"RMD", "..", kNoBad},
      {"RMD", "../root2", kNoBad},
      {"RMD", "/../outside", kNoBad},
      {"RMD", "../../", kNoBad},
      {"RMD", "out_dir", kNoBad},
      {"RMD", "out_dir/dir", kNoBad},
      {"RMD", ".", kNoBad},
      {"RMD", "/", kNoBad},
      {"RMD", deep, kNoBad},
      {"RNFR", "file.txt", "350 RNFR command successful.\r\n"},
      {"RNTO", "../root2/moved.txt", kNoBad},
      {"RNFR", "file.txt", "350 RNFR command successful.\r\n"},
      {"RNTO", "out_dir/moved.txt", kNoBad},
      {"RNFR", "../root2/secret2.txt", "350 RNFR command successful.\r\n"},
      {"RNTO", "stolen.txt", kNoBad},
      {"RNFR", "out_file", "350 RNFR command successful.\r\n"},
      {"RNTO", "stolen.txt", kNoBad},
      {"RNFR", "sub", "350 RNFR command successful.\r\n"},
      {"RNTO", "/../sub", kNoBad},
  };
}

bool uses_data(const std::string& command) {
  return command == "LIST" || command == "NLST" || command == "RETR" || command == "STOR";
}

// Every path below top with its contents ("<dir>" for directories).
std::map<std::string, std::string> snapshot(const std::string& top) {
  std::map<std::string, std::string> out;
  for (const auto& e : fs::recursive_directory_iterator(top))
    out[e.path().string()] = e.is_directory() ? "<dir>" : vektest::read_file(e.path().string());
  return out;
}

class FtpConfinementTest : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    std::string base = dir_.path();
    fs::create_directories(base + "/outside/dir");
    vektest::write_file(base + "/outside/secret.txt", "outside secret");
    fs::create_directories(base + "/root2");
    vektest::write_file(base + "/root2/secret2.txt", "sibling secret");
    fs::create_directories(path("sub"));
    vektest::write_file(path("file.txt"), "inside");
    fs::create_directory_symlink(base + "/outside", path("out_dir"));
    fs::create_symlink(base + "/outside/secret.txt", path("out_file"));
    fs::create_symlink(base + "/outside/new.txt", path("dangling"));
    fs::create_symlink(path("file.txt"), path("in_link"));
  }
};

TEST_F(FtpConfinementTest, NothingOutsideTheRootIsReachable) {
  std::string base = dir_.path();
  auto outside_before = snapshot(base + "/outside");
  auto sibling_before = snapshot(base + "/root2");
  start();
  Control c(port_);
  ASSERT_TRUE(c.login("admin"));
  for (const Attempt& a : attempts(root_)) {
    std::string line = std::string(a.command) + (a.arg.empty() ? "" : " " + a.arg);
    SCOPED_TRACE(line.substr(0, 80));
    int data = -1;
    if (uses_data(a.command)) data = connect_passive(c.cmd("PASV"));
    EXPECT_EQ(a.expect, c.cmd(line));
    if (data >= 0) {
      shutdown(data, SHUT_WR);
      std::string carried = read_all(data, 100);
      EXPECT_EQ(std::string::npos, carried.find("secret")) << carried;
    }
  }
  EXPECT_EQ("257 \"/\" is current directory.\r\n", c.cmd("PWD"));
  // The listing shows links that stay inside and hides those that lead out.
  Transfer list = passive_transfer(c, "LIST");
  EXPECT_EQ("226 Transfer complete.\r\n", list.done);
  for (const char* shown : {" in_link\r\n", " file.txt\r\n"}) EXPECT_NE(std::string::npos, list.data.find(shown));
  for (const char* hidden : {"out_", "dangling"}) EXPECT_EQ(std::string::npos, list.data.find(hidden)) << list.data;
  c.cmd("QUIT");
  stop();
  EXPECT_EQ(outside_before, snapshot(base + "/outside"));
  EXPECT_EQ(sibling_before, snapshot(base + "/root2"));
  EXPECT_FALSE(fs::exists(base + "/made"));
  EXPECT_FALSE(fs::exists(base + "/sub"));
  EXPECT_TRUE(fs::exists(path("file.txt")));
}

}  // namespace
