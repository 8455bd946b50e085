// The Linux host's secure storage: an object is a file in one directory, and the permissions of both take the place of
// the device's credential.
//
// No state: any thread may call, and the environment is read anew each time.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "nira_platform_log.h"
#include "nira_platform_secure_storage.h"

namespace {

constexpr off_t kMaxObjectSize = 64 << 10;
constexpr int kStatusFailed = 1;

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : m_Descriptor(descriptor) {}
  ~Descriptor() {
    if (m_Descriptor >= 0) close(m_Descriptor);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  bool IsOpen() const { return m_Descriptor >= 0; }
  int Get() const { return m_Descriptor; }

 private:
  const int m_Descriptor;
};

// The variable's value; null when it is unset, empty, or set by whom a privileged program must not trust.
const char* Variable(const char* name) {
  const char* value = secure_getenv(name);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

int OpenDirectory() {
  const char* directory = Variable("NIRA_IPC_SECURE_STORAGE");
  if (directory == nullptr) directory = Variable("CREDENTIALS_DIRECTORY");
  if (directory == nullptr) directory = "/etc/nira-ipc";
  return open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC);
}

bool IsWritableByOthers(const struct stat& file) {
  return (file.st_mode & (S_IWGRP | S_IWOTH)) != 0 || (file.st_uid != 0 && file.st_uid != geteuid());
}

// In a sticky directory others may add files, which are then theirs and refused as such.
bool IsDirectorySafe(int directory) {
  struct stat status;
  if (fstat(directory, &status) != 0) return false;
  return (status.st_mode & S_ISVTX) != 0 || !IsWritableByOthers(status);
}

// Why the open file may not be used, or null.
const char* FindFault(int directory, const struct stat& file) {
  if (!S_ISREG(file.st_mode)) return "it is no regular file";
  if (IsWritableByOthers(file)) return "others may write it";
  if (!IsDirectorySafe(directory)) return "others may write its directory";
  return file.st_size > kMaxObjectSize ? "it is too large" : nullptr;
}

int Report(int status, const char* name, const char* why) {
  __dlog_print(0, NIRA_PLATFORM_LOG_ERROR, "NIRA_IPC", "host_secure_storage.cpp: %s(%d) > object '%s' refused: %s",
               __func__, __LINE__, name, why);
  return status;
}

int OpenFailed(const char* name) {
  if (errno == ENOENT) return NIRA_SS_STATUS_NOT_INSTALLED;
  const bool special = errno == ELOOP || errno == ENXIO;  // a symbolic link, a socket
  return special ? Report(NIRA_SS_STATUS_NOT_INSTALLED, name, "it is no regular file")
                 : Report(kStatusFailed, name, "it cannot be opened");
}

// Reads up to `size` bytes; -1 when that fails.
ssize_t ReadWhole(int file, unsigned char* buffer, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t got = read(file, buffer + done, size - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

int ReadObject(const char* name, unsigned char** buffer, size_t* size) {
  if (*name == '\0' || strchr(name, '/') != nullptr) {
    return Report(NIRA_SS_STATUS_NOT_INSTALLED, name, "it is no file name");
  }
  const Descriptor directory(OpenDirectory());
  if (!directory.IsOpen()) return NIRA_SS_STATUS_NOT_INSTALLED;
  // O_NONBLOCK: a FIFO of that name must not hold the caller.
  const Descriptor file(openat(directory.Get(), name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  if (!file.IsOpen()) return OpenFailed(name);
  struct stat status;
  if (fstat(file.Get(), &status) != 0) return Report(kStatusFailed, name, "it cannot be read");
  const char* fault = FindFault(directory.Get(), status);
  if (fault != nullptr) return Report(NIRA_SS_STATUS_NOT_INSTALLED, name, fault);

  const size_t expected = static_cast<size_t>(status.st_size);
  auto* bytes = static_cast<unsigned char*>(malloc(expected + 1));  // an empty object has a buffer too
  const ssize_t length = bytes != nullptr ? ReadWhole(file.Get(), bytes, expected) : -1;
  if (length < 0) {
    free(bytes);
    return Report(kStatusFailed, name, "it cannot be read");
  }
  *buffer = bytes;
  *size = static_cast<size_t>(length);
  return NIRA_SS_STATUS_OK;
}

}  // namespace

int ss_init_credential(ss_credential* credential, const unsigned char identifier[NIRA_SS_IDENTIFIER_SIZE], int version,
                       int domain, int flags) {
  const Descriptor directory(OpenDirectory());
  if (!directory.IsOpen()) return kStatusFailed;
  memcpy(credential->identifier, identifier, NIRA_SS_IDENTIFIER_SIZE);
  credential->version = version;
  credential->domain = domain;
  credential->flags = flags;
  return 0;
}

unsigned char* ss_read(const ss_credential*, const char* name, size_t* size, int* status) {
  unsigned char* buffer = nullptr;
  *size = 0;
  *status = ReadObject(name, &buffer, size);
  return buffer;
}

void ss_free_buffer(unsigned char* buffer) {
  free(buffer);
}
