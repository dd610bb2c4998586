// flowblur: allocation hooks and the allocator on top of them.
#include "runtime/NuvMem.h"

#include <cstdlib>
#include <cstring>

namespace {
NuvMemAllocHook gAllocHook = nullptr;
NuvMemFreeHook gFreeHook = nullptr;
void* gHookContext = nullptr;
}  // namespace

void NuvMemSetHooks(void* context, NuvMemAllocHook allocHook, NuvMemFreeHook freeHook) {
  gHookContext = context;
  gAllocHook = allocHook;
  gFreeHook = freeHook;
}

void* NuvMemRawAlloc(uint64_t size) {
  if (gAllocHook) return gAllocHook(gHookContext, size);
  return std::malloc(static_cast<size_t>(size));
}

void NuvMemRawFree(void* block) {
  if (gFreeHook) {
    gFreeHook(gHookContext, block);
    return;
  }
  std::free(block);
}

void* NuvMemAlloc(uint64_t size) {
  void* block = NuvMemRawAlloc(size);
  if (!block) throw PLErrOutOfMemory;
  return block;
}

void NuvMemFree(void* block) {
  if (block) NuvMemRawFree(block);
}

void* NuvMemRealloc(void* oldBlock, uint64_t newSize, uint64_t oldSize) {
  if (!oldBlock) return NuvMemAlloc(newSize);
  void* block = NuvMemRawAlloc(newSize);
  if (!block) throw PLErrOutOfMemory;
  std::memcpy(block, oldBlock, static_cast<size_t>(newSize < oldSize ? newSize : oldSize));
  NuvMemRawFree(oldBlock);
  return block;
}
