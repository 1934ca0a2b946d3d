// Directories: listing, walking, creating and deleting, also whole trees.
#define _FILE_OFFSET_BITS 64  // 64-bit inode numbers and sizes also on 32-bit builds

#include <vekutil/directory.h>

#include <cerrno>
#include <cstring>
#include <dirent.h>
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

int delete_entry(const char* path, void* info, void*) {
  if (fileinfo_isdirectory(info) == 1 && !is_symlink(path))
    directory_delete_recursive(path);  // already emptied by the walk
  else
    file_delete(path);
  return 0;
}

// The walk skips entries it cannot describe; a link whose target is gone is
// one of them and would keep its directory from being removed.
void delete_dangling_links(const char* name) {
  char** names = nullptr;
  if (directory_query2(name, nullptr, &names) <= 0) {
    if (names) free_list(names);
    return;
  }
  for (char** entry = names; *entry; ++entry) {
    char* path = join_path(name, *entry);
    if (path && is_symlink(path)) file_delete(path);
    _vekFree(path, kSource, __LINE__);
  }
  free_list(names);
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
  directory_create(path);
  _vekFree(path, kSource, __LINE__);
  return 0;
}

int directory_delete(const char* name) {
  if (!name) {
    errno = EINVAL;
    return -1;
  }
  return rmdir(name);
}

int directory_delete_recursive(const char* name) {
  if (!name) return ERR_INVALID_PARAMETER;
  if (is_symlink(name)) {  // the link goes, never what it points to
    file_delete(name);
    return 0;
  }
  int rc = directory_foreach(name, 1, delete_entry, nullptr);
  if (rc == 0) delete_dangling_links(name);
  rmdir(name);
  return rc < 0 ? rc : 0;
}

}  // extern "C"
