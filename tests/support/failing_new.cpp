#include "failing_new.h"

#include <cstdlib>
#include <new>
#include <utility>

static thread_local int t_UntilFailure = 0;

int FailAllocation(int number) {
  return std::exchange(t_UntilFailure, number);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return t_UntilFailure > 0 && --t_UntilFailure == 0 ? nullptr : malloc(size);
}

void* operator new(size_t size) {
  void* memory = operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept {
  free(memory);
}

void operator delete(void* memory, size_t) noexcept {
  free(memory);
}
