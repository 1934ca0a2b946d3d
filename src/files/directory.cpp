// Directories: listing, walking, creating and deleting, also whole trees.
#define _FILE_OFFSET_BITS 64  // 64-bit inode numbers and sizes also on 32-bit builds

#include <vekutil/directory.h>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vekutil/file.h>
#include <vekutil/fileinfo.h>
#include <vekutil/strutil.h>

#include "core/internal.hpp"

namespace {

constexpr const char* kSource = "src/directory.c";
constexpr mode_t kDirectoryMode = 0771;

// Closes the directory stream on every way out.
class DirStream {
 public:
  explicit DirStream(const char* name) : dir_(opendir(name)) {}
  ~DirStream() {
    if (dir_) closedir(dir_);
  }
  DirStream(const DirStream&) = delete;
  DirStream& operator=(const DirStream&) = delete;
  DIR* get() const { return dir_; }

 private:
  DIR* dir_;
};

bool is_dot_or_dotdot(const char* entry) {
  return entry[0] == '.' && (entry[1] == '\0' || (entry[1] == '.' && entry[2] == '\0'));
}

bool matches(const char* pattern, const char* entry) {
  return !pattern || fnmatch(pattern, entry, FNM_NOESCAPE) == 0;
}

// Frees a list from directory_query2 (or the first count slots of a partly
// filled one).
void free_names(char** names, int count) {
  for (int i = 0; i < count && names[i]; ++i) _vekFree(names[i], kSource, __LINE__);
}

void free_list(char** names) {
  int n = 0;
  while (names[n]) ++n;
  free_names(names, n);
  _vekFree(names, kSource, __LINE__);
}

// name and entry joined with '/', unless name already ends in a separator.
char* join_path(const char* name, const char* entry) {
  size_t name_len = std::strlen(name);
  bool has_separator = name_len > 0 && (name[name_len - 1] == '/' || name[name_len - 1] == '\\');
  size_t size = name_len + 1 + std::strlen(entry) + 1;
  char* path = static_cast<char*>(_vekMalloc(size, kSource, __LINE__));
  if (!path) return nullptr;
  if (has_separator)
    format_r(path, (int)size, "%s%s", name, entry);
  else
    format_r(path, (int)size, "%s%c%s", name, '/', entry);
  return path;
}

bool is_symlink(const char* path) {
  struct stat st;
  return lstat(path, &st) == 0 && S_ISLNK(st.st_mode);
}

void visit_entry(const char* path, int recursive, directory_fefunc func, void* custom) {
  void* info = nullptr;
  if (fileinfo_create(&info, path) != 0) return;  // vanished or unreadable: skipped
  // A link to a directory is reported but not entered: the walk stays inside
  // the tree it was given and cannot loop.
  if (recursive == 1 && fileinfo_isdirectory(info) == 1 && !is_symlink(path))
    directory_foreach(path, recursive, func, custom);
  func(path, info, custom);
  fileinfo_delete(info);
}

// One directory being emptied by the recursive delete: its open stream and
// its name in the parent (null for the top).
struct OpenDirectory {
  DIR* dir;
  char* name;
};

// The directories being emptied, innermost last, in a block that grows as
// the walk goes deeper (never one stack frame per level).
class DirectoryStack {
 public:
  DirectoryStack() = default;
  ~DirectoryStack() {
    while (count_ > 0) pop();
    if (items_) _vekFree(items_, kSource, __LINE__);  // a null release would count a block down
  }
  DirectoryStack(const DirectoryStack&) = delete;
  DirectoryStack& operator=(const DirectoryStack&) = delete;

  bool empty() const { return count_ == 0; }
  OpenDirectory& top() { return items_[count_ - 1]; }

  // Takes over dir; false (and dir closed) when there is no room.
  bool push(DIR* dir, const char* name) {
    char* copy = name ? clone_string(name, -1) : nullptr;
    if ((name && !copy) || !reserve()) {
      if (copy) _vekFree(copy, kSource, __LINE__);
      closedir(dir);
      return false;
    }
    items_[count_++] = {dir, copy};
    return true;
  }

  void pop() {
    OpenDirectory& d = items_[--count_];
    closedir(d.dir);
    if (d.name) _vekFree(d.name, kSource, __LINE__);
  }

 private:
  bool reserve() {
    if (count_ < capacity_) return true;
    const size_t capacity = capacity_ ? capacity_ * 2 : 16;
    void* grown = items_ ? _vekRealloc(items_, capacity * sizeof(OpenDirectory), kSource, __LINE__)
                         : _vekMalloc(capacity * sizeof(OpenDirectory), kSource, __LINE__);
    if (!grown) return false;
    items_ = static_cast<OpenDirectory*>(grown);
    capacity_ = capacity;
    return true;
  }

  OpenDirectory* items_ = nullptr;
  size_t count_ = 0;
  size_t capacity_ = 0;
};

// Opens a directory below parent without following a symbolic link, so the
// walk can never leave the tree, whatever is swapped in meanwhile.
DIR* open_subdirectory(int parent, const char* name) {
  const int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return nullptr;
  DIR* dir = fdopendir(fd);
  if (!dir) close(fd);
  return dir;
}

// Empties the tree whose top is open in the stack: every entry is removed
// relative to its parent's descriptor; a directory is entered, emptied and
// then removed. Anything that is not a directory (links included) is
// unlinked, never followed.
void empty_tree(DirectoryStack& open) {
  while (!open.empty()) {
    OpenDirectory& current = open.top();
    const int fd = dirfd(current.dir);
    const dirent* entry = readdir(current.dir);
    if (!entry) {
      char* name = current.name;
      current.name = nullptr;
      open.pop();
      if (name && !open.empty()) unlinkat(dirfd(open.top().dir), name, AT_REMOVEDIR);
      if (name) _vekFree(name, kSource, __LINE__);
      continue;
    }
    if (is_dot_or_dotdot(entry->d_name)) continue;
    if (DIR* sub = open_subdirectory(fd, entry->d_name)) {
      open.push(sub, entry->d_name);  // no room: that subtree stays
      continue;
    }
    unlinkat(fd, entry->d_name, 0);
  }
}

}  // namespace

extern "C" {

int directory_cwd_set(const char* buffer) {
  if (!buffer) {
    errno = EINVAL;
    return -1;
  }
  return chdir(buffer);
}

char* directory_cwd_get(char* buffer, int len) {
  if (!buffer || len < 1) {
    errno = EINVAL;
    return nullptr;
  }
  return getcwd(buffer, (size_t)len);
}

int directory_query(const char* name, const char* pattern, char** entries, int count) {
  if (!name) return ERR_INVALID_PARAMETER;
  DirStream dir(name);
  if (!dir.get()) return ERR_SYSTEM;
  int found = 0;
  while (const dirent* entry = readdir(dir.get())) {
    if (is_dot_or_dotdot(entry->d_name) || !matches(pattern, entry->d_name)) continue;
    if (entries && found < count) {
      entries[found] = clone_string(entry->d_name, -1);
      if (!entries[found]) {
        free_names(entries, found);
        for (int i = 0; i < found; ++i) entries[i] = nullptr;
        return ERR_NO_MEMORY;
      }
    }
    ++found;
  }
  return found;
}

int directory_query2(const char* name, const char* pattern, char*** entries) {
  if (!name || !entries) return ERR_INVALID_PARAMETER;
  *entries = nullptr;
  for (;;) {
    int expected = directory_query(name, pattern, nullptr, -1);
    if (expected < 0) return expected;
    auto** list = static_cast<char**>(vek::zalloc(sizeof(char*) * ((size_t)expected + 1), kSource, __LINE__));
    if (!list) return ERR_NO_MEMORY;
    int found = directory_query(name, pattern, list, expected);
    if (found >= 0 && found <= expected) {
      *entries = list;  // a shrunken directory leaves the tail null
      return found;
    }
    free_list(list);
    if (found < 0) return found;
    // The directory grew between the two passes: list it again.
  }
}

int directory_foreach(const char* name, int recursive, directory_fefunc func, void* custom) {
  if (!name || !func) return ERR_INVALID_PARAMETER;
  char** names = nullptr;
  int count = directory_query2(name, nullptr, &names);
  if (count < 0) return count;
  for (int i = 0; i < count; ++i) {
    char* path = join_path(name, names[i]);
    if (path) visit_entry(path, recursive, func, custom);
    _vekFree(path, kSource, __LINE__);
  }
  free_list(names);
  return 0;
}

int directory_create(const char* name) {
  if (!name) return EINVAL;
  return mkdir(name, kDirectoryMode) == 0 ? 0 : errno;
}

int directory_create_recursive(const char* name) {
  if (!name) return ERR_INVALID_PARAMETER;
  char* path = clone_string(name, -1);
  if (!path) return ERR_NO_MEMORY;
  size_t len = std::strlen(path);
  if (len > 1 && path[len - 1] == '/') path[--len] = '\0';
  // Each ancestor in turn; starting at the second character keeps a leading
  // '/' from being created on its own. Existing directories are no error.
  for (size_t i = 1; i < len; ++i) {
    if (path[i] != '/') continue;
    path[i] = '\0';
    directory_create(path);
    path[i] = '/';
  }
  int rc = directory_create(path);
  if (rc == EEXIST) {
    struct stat st;
    rc = stat(path, &st) == 0 && S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
  }
  _vekFree(path, kSource, __LINE__);
  return rc;
}

int directory_delete(const char* name) {
  if (!name) {
    errno = EINVAL;
    return -1;
  }
  return rmdir(name);
}

// Deletes the tree at path, which ends in no '/' (so a link at its end is
// not followed).
static int delete_tree(const char* path) {
  DIR* top = open_subdirectory(AT_FDCWD, path);
  if (!top) {
    if (errno != ELOOP && errno != ENOTDIR) return ERR_SYSTEM;
    // A link (or a file): it goes, never what it points to.
    return unlink(path) == 0 ? 0 : ERR_SYSTEM;
  }
  DirectoryStack open;
  if (!open.push(top, nullptr)) return ERR_NO_MEMORY;
  empty_tree(open);
  rmdir(path);
  return 0;
}

int directory_delete_recursive(const char* name) {
  if (!name) return ERR_INVALID_PARAMETER;
  size_t len = std::strlen(name);
  if (len < 2 || name[len - 1] != '/') return delete_tree(name);
  // "link/" would resolve the link: the trailing separators go first.
  char* path = clone_string(name, -1);
  if (!path) return ERR_NO_MEMORY;
  while (len > 1 && path[len - 1] == '/') path[--len] = '\0';
  const int rc = delete_tree(path);
  _vekFree(path, kSource, __LINE__);
  return rc;
}

}  // extern "C"
