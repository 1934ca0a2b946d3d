// The FTP server with real clients: Python's ftplib (a whole session,
// passive and active, binary and ASCII) and lftp (mirroring a tree both
// ways); curl runs against the appliance, the exact replies are checked over
// a raw connection in ftp_server_test.
#include <filesystem>
#include <map>
#include <random>

#include "ftp_fixture.hpp"

namespace {

using namespace ftptest;
namespace fs = std::filesystem;

// Drives one session through the commands a client uses. Prints "FAIL ..."
// for each failed check and "DONE" at the end.
constexpr const char* kFtplibScript = R"PY(
import ftplib, io, os, sys
port, root, mode = int(sys.argv[1]), sys.argv[2], sys.argv[3]
failures = []
def check(name, cond):
    if not cond: failures.append(name)
def disk(p):
    with open(os.path.join(root, p), 'rb') as f: return f.read()
def exists(p): return os.path.exists(os.path.join(root, p))

ftp = ftplib.FTP()
check('welcome', ftp.connect('127.0.0.1', port, timeout=20).startswith('220'))
ftp.set_pasv(mode == 'passive')
check('login', ftp.login('admin', 'pw').startswith('230'))
ftp.mkd('dir')
check('mkd on disk', os.path.isdir(os.path.join(root, 'dir')))
ftp.cwd('dir')
check('cwd', ftp.pwd() == '/dir/')

blob = os.urandom(300000)
ftp.storbinary('STOR blob.bin', io.BytesIO(blob))
check('stor binary', disk('dir/blob.bin') == blob)
got = io.BytesIO(); ftp.retrbinary('RETR blob.bin', got.write)
check('retr binary', got.getvalue() == blob)
got = io.BytesIO(); ftp.retrbinary('RETR blob.bin', got.write, rest=1000)
check('rest', got.getvalue() == blob[1000:])
ftp.sendcmd('APPE')
ftp.storbinary('STOR blob.bin', io.BytesIO(b'tail'))
check('appe', disk('dir/blob.bin') == blob + b'tail')

text = b'line one\nline two\n\nlast line\n'
ftp.storlines('STOR text.txt', io.BytesIO(text))
check('stor ascii', disk('dir/text.txt') == text)
lines = []; ftp.retrlines('RETR text.txt', lines.append)
check('retr ascii', lines == ['line one', 'line two', '', 'last line'])

listing = []; ftp.retrlines('LIST', listing.append)
check('list', len(listing) == 2 and any(l.endswith(' blob.bin') and ' 300004 ' in l for l in listing))
check('nlst', sorted(ftp.nlst()) == ['blob.bin', 'text.txt'])
ftp.rename('text.txt', 'renamed.txt')
check('rename', exists('dir/renamed.txt'))
ftp.delete('renamed.txt')
check('dele', not exists('dir/renamed.txt'))
ftp.cwd('..')
check('cdup', ftp.pwd() == '/')
ftp.rmd('dir')
check('rmd', not exists('dir'))
check('quit', ftp.quit().startswith('221'))
for f in failures: print('FAIL', f)
print('DONE')
)PY";

using FtpClientsTest = ServerTest;

TEST_F(FtpClientsTest, FtplibRunsEveryCommandPassiveAndActive) {
  if (!vektest::have_program("/usr/bin/python3")) GTEST_SKIP() << "no /usr/bin/python3";
  start();
  for (const char* mode : {"passive", "active"}) {
    SCOPED_TRACE(mode);
    std::string out;
    EXPECT_EQ(0, run_python(kFtplibScript, {std::to_string(port_), root_, mode}, &out)) << out;
    EXPECT_EQ("DONE\n", out);
  }
}

// Random bytes of the given size written to path.
std::string random_file(const std::string& path, size_t size, unsigned seed) {
  std::mt19937 gen(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(gen());
  vektest::write_file(path, bytes);
  return bytes;
}

// A tree of about 200 files in 10 directories, sizes 0 to 64 KiB.
std::map<std::string, std::string> make_tree(const std::string& top) {
  std::map<std::string, std::string> files;
  for (int d = 0; d < 10; ++d) {
    std::string dir = "d" + std::to_string(d);
    fs::create_directories(top + "/" + dir);
    for (int f = 0; f < 20; ++f) {
      std::string name = dir + "/f" + std::to_string(f) + ".bin";
      files[name] = random_file(top + "/" + name, (size_t)((d * 20 + f) * 331) % 65536, (unsigned)(d * 20 + f));
    }
  }
  return files;
}

void expect_tree(const std::string& top, const std::map<std::string, std::string>& files) {
  size_t found = 0;
  for (const auto& entry : fs::recursive_directory_iterator(top))
    if (entry.is_regular_file()) ++found;
  EXPECT_EQ(files.size(), found);
  for (const auto& [name, bytes] : files) EXPECT_TRUE(vektest::read_file(top + "/" + name) == bytes) << name;
}

TEST_F(FtpClientsTest, LftpMirrorsATreeBothWays) {
  if (!vektest::have_program("lftp")) GTEST_SKIP() << "no lftp";
  auto files = make_tree(path("tree"));
  start();
  std::string local = dir_.path() + "/local";
  std::string open = "set cmd:fail-exit yes; set net:max-retries 1; set net:timeout 20; set ftp:passive-mode yes; "
                     "open -u admin,pw -p " + std::to_string(port_) + " 127.0.0.1; ";
  std::string out;
  ASSERT_EQ(0, vektest::run_program({"lftp", "-c", open + "mirror tree " + local}, &out, "", 240000)) << out;
  expect_tree(local, files);
  ASSERT_EQ(0, vektest::run_program({"lftp", "-c", open + "mirror -R " + local + " back"}, &out, "", 240000)) << out;
  expect_tree(path("back"), files);
}

}  // namespace
