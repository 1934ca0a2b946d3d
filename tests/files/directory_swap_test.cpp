// Recursive delete while hooks on lstat and openat swap a directory of the
// tree for a link outside it, between look and open: the race every time.
// The hooks define plain and 64-bit names, so no renaming to the 64-bit ones.
#undef _FILE_OFFSET_BITS
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include <vekutil/directory.h>

#include "vek_test.hpp"

namespace {

struct Swap {
  std::string victim;   // full path of the directory to replace
  std::string outside;  // where the link will point
  bool armed = false;

  // Moves the victim away and puts a link to the outside in its place.
  void now() {
    if (!armed) return;
    armed = false;
    std::rename(victim.c_str(), (outside + "-moved").c_str());
    symlink(outside.c_str(), victim.c_str());
  }
  bool is_victim(int dirfd, const char* path) const {
    if (!armed || !path) return false;
    if (path[0] == '/' || dirfd == AT_FDCWD) return victim == path;
    const std::string leaf = victim.substr(victim.rfind('/') + 1);
    return leaf == path;
  }
} g_swap;

template <class F>
F real(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// Checked and then swapped: a walk that trusts this answer opens the link.
extern "C" int lstat64(const char* path, struct stat64* st) {
  static auto next = real<int (*)(const char*, struct stat64*)>("lstat64");
  const int rc = next(path, st);
  if (g_swap.is_victim(AT_FDCWD, path)) g_swap.now();
  return rc;
}

// Swapped right before the open.
extern "C" int openat64(int dirfd, const char* path, int flags, ...) {
  static auto next = real<int (*)(int, const char*, int, ...)>("openat64");
  va_list ap;
  va_start(ap, flags);
  const mode_t mode = va_arg(ap, mode_t);
  va_end(ap);
  if (g_swap.is_victim(dirfd, path)) g_swap.now();
  return next(dirfd, path, flags, mode);
}
extern "C" int openat(int dirfd, const char* path, int flags, ...) {
  static auto next = real<int (*)(int, const char*, int, ...)>("openat");
  va_list ap;
  va_start(ap, flags);
  const mode_t mode = va_arg(ap, mode_t);
  va_end(ap);
  if (g_swap.is_victim(dirfd, path)) g_swap.now();
  return next(dirfd, path, flags, mode);
}

namespace {

class DirectorySwap : public vektest::LeakCheckedTest {};

TEST_F(DirectorySwap, NothingOutsideTheTreeIsDeleted) {
  vektest::TempDir dir;
  const std::string tree = dir.file("tree"), outside = dir.file("outside");
  for (const std::string& d : {tree, tree + "/a", tree + "/a/sub", outside}) mkdir(d.c_str(), 0700);
  vektest::write_file(tree + "/a/sub/file", "in the tree");
  vektest::write_file(outside + "/precious", "keep");
  g_swap = {tree + "/a/sub", outside, true};
  EXPECT_EQ(0, directory_delete_recursive(tree.c_str()));
  EXPECT_FALSE(g_swap.armed) << "the swap was made";
  g_swap.armed = false;
  EXPECT_EQ("keep", vektest::read_file(outside + "/precious"));
  EXPECT_NE(0, access(tree.c_str(), F_OK)) << "the tree itself is gone";
}

}  // namespace
