// flowblur: allocation with replaceable hooks, and the common base of library classes.
#pragma once
#include <cstddef>
#include <cstdint>

#include "runtime/PLErr.h"

typedef void* (*NuvMemAllocHook)(void* context, uint64_t size);
typedef void (*NuvMemFreeHook)(void* context, void* block);

// Stores the three hook words. Set them before any other use: they are plain words,
// and the hooks must be safe to call from every worker.
void NuvMemSetHooks(void* context, NuvMemAllocHook allocHook, NuvMemFreeHook freeHook);

// The alloc hook when set, else malloc. The only form that may return null.
void* NuvMemRawAlloc(uint64_t size);
// The free hook when set, else free. Null goes to the back end as it is.
void NuvMemRawFree(void* block);
// Never null: a failed allocation throws PLErrOutOfMemory. Size 0 goes to the back end.
void* NuvMemAlloc(uint64_t size);
// Ignores null.
void NuvMemFree(void* block);
// With no old block, as NuvMemAlloc. Otherwise copies min(newSize, oldSize) bytes into a
// new block and frees the old one; on failure throws 1 and leaves the old block alone.
void* NuvMemRealloc(void* oldBlock, uint64_t newSize, uint64_t oldSize);

// Empty base: routes a class's new and delete through NuvMemAlloc and NuvMemFree.
// The source line form exists so that allocating expressions can pass __LINE__; it has
// no effect.
class NuvMem {
 public:
  static void* operator new(size_t size) { return NuvMemAlloc(size); }
  static void* operator new[](size_t size) { return NuvMemAlloc(size); }
  static void* operator new(size_t size, int32_t /*line*/) { return NuvMemAlloc(size); }
  static void* operator new[](size_t size, int32_t /*line*/) { return NuvMemAlloc(size); }
  static void operator delete(void* block) { NuvMemFree(block); }
  static void operator delete[](void* block) { NuvMemFree(block); }
  static void operator delete(void* block, int32_t /*line*/) { NuvMemFree(block); }
  static void operator delete[](void* block, int32_t /*line*/) { NuvMemFree(block); }
};

// Allocating expression that passes its source line, as library code does.
#define NUV_NEW new (static_cast<int32_t>(__LINE__))
