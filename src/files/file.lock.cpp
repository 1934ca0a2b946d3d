// Lock files: the lock is the existence of the file, created exclusively.
#include <vekutil/file.lock.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <vekutil/file.h>
#include <vekutil/strutil.h>

extern "C" {

int file_lock(const char* filename, int* id) {
  if (!filename || !id) return ERR_INVALID_PARAMETER;
  *id = 0;
  int fd = open(filename, O_CREAT | O_EXCL | O_RDONLY, 0700);
  if (fd < 0) return errno == EEXIST ? ERR_FILE_ACCESS_DENIED : ERR_SYSTEM;
  // The owner's process id goes to a read-only descriptor: the write fails
  // and the file stays empty. Only the file's existence carries the lock.
  char pid[7];
  format_r(pid, sizeof pid, "%d", (int)getpid());
  ssize_t ignored = write(fd, pid, std::strlen(pid) + 1);
  (void)ignored;
  *id = fd;
  return 0;
}

int file_unlock(const char* filename, int fd) {
  if (close(fd) != 0) return ERR_SYSTEM;
  file_delete(filename);
  return 0;
}

}  // extern "C"
