// A file descriptor that is closed with its owner.
#ifndef NIRA_IPC_DESCRIPTOR_H
#define NIRA_IPC_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

class CNiraIpcDescriptor {
 public:
  explicit CNiraIpcDescriptor(int descriptor = -1) : m_Descriptor(descriptor) {}
  ~CNiraIpcDescriptor() { Reset(); }
  CNiraIpcDescriptor(const CNiraIpcDescriptor&) = delete;
  CNiraIpcDescriptor& operator=(const CNiraIpcDescriptor&) = delete;

  void Reset(int descriptor = -1) {
    const int before = std::exchange(m_Descriptor, descriptor);
    if (before >= 0) close(before);
  }
  int Release() { return std::exchange(m_Descriptor, -1); }
  int Get() const { return m_Descriptor; }
  bool IsOpen() const { return m_Descriptor >= 0; }

 private:
  int m_Descriptor;
};

#endif  // NIRA_IPC_DESCRIPTOR_H
