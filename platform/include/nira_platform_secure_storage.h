// What the device supplies for secure storage: objects of bytes, read by name under a credential.
#ifndef NIRA_PLATFORM_SECURE_STORAGE_H
#define NIRA_PLATFORM_SECURE_STORAGE_H

#include <stddef.h>

enum {
  NIRA_SS_IDENTIFIER_SIZE = 16,
  NIRA_SS_STATUS_OK = 0,
  NIRA_SS_STATUS_NOT_INSTALLED = 5,
};

// Opaque to the library: ss_init_credential fills it, ss_read takes it.
typedef struct ss_credential {
  unsigned char identifier[NIRA_SS_IDENTIFIER_SIZE];
  int version;
  int domain;
  int flags;
} ss_credential;

#pragma GCC visibility push(default)
extern "C" {

// Fills `*credential` from the provisioning's fixed parameters. Returns 0, or another value when the storage cannot be
// used. Any thread.
int ss_init_credential(ss_credential* credential, const unsigned char identifier[NIRA_SS_IDENTIFIER_SIZE], int version,
                       int domain, int flags);

// Reads the object `name`: returns a newly allocated buffer of `*size` bytes, to be released with ss_free_buffer, or
// null. `*status` tells why: 0 read, 5 not installed, other values other failures. Any thread.
unsigned char* ss_read(const ss_credential* credential, const char* name, size_t* size, int* status);

// Releases a buffer of ss_read; null is ignored.
void ss_free_buffer(unsigned char* buffer);
}
#pragma GCC visibility pop

#endif  // NIRA_PLATFORM_SECURE_STORAGE_H
