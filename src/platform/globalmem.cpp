// Global memory blocks. Blocks never move, so "locking" only counts; what the registry buys is
// that a stale or made-up handle is answered with a failure instead of touching freed memory.
//
// Every block is zero-filled, with or without MV_GMEM_ZEROINIT: applications written against
// movable memory often forget the flag and then read the tail of a list they did not fill.
//
// A block allocated without MV_GMEM_MOVEABLE uses its data address as its handle, as fixed
// memory does elsewhere, so that code treating such a handle as a pointer keeps working. A
// movable block gets a token that is never a heap address and is never handed out twice, so a
// handle kept past MVGlobalFree stays invalid even after the memory is reused.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <unordered_map>

#include "MVCore.h"

namespace {

struct Block {
  void* data = nullptr;
  std::size_t size = 0;
  std::uint32_t locks = 0;
};

class Registry {
 public:
  MVHGLOBAL allocate(bool movable, std::size_t bytes) {
    if (bytes > PTRDIFF_MAX) return nullptr;
    // One byte at least, so that a zero-size block still has an address of its own.
    void* data = std::calloc(1, bytes == 0 ? 1 : bytes);
    if (data == nullptr) return nullptr;
    std::lock_guard guard(mutex_);
    MVHGLOBAL handle = movable ? nextToken() : data;
    try {
      byHandle_.emplace(handle, Block{data, bytes, 0});
      byAddress_.emplace(data, handle);
    } catch (...) {
      byHandle_.erase(handle);
      std::free(data);
      return nullptr;
    }
    return handle;
  }

  void* lock(MVHGLOBAL h) {
    std::lock_guard guard(mutex_);
    Block* block = find(h);
    if (block == nullptr) return nullptr;
    if (block->locks < UINT32_MAX) ++block->locks;
    return block->data;
  }

  int unlock(MVHGLOBAL h) {
    std::lock_guard guard(mutex_);
    Block* block = find(h);
    if (block == nullptr || block->locks == 0) return 0;
    return --block->locks != 0 ? 1 : 0;
  }

  std::size_t size(MVHGLOBAL h) {
    std::lock_guard guard(mutex_);
    const Block* block = find(h);
    return block == nullptr ? 0 : block->size;
  }

  MVHGLOBAL handleOf(const void* p) {
    std::lock_guard guard(mutex_);
    auto it = byAddress_.find(p);
    return it == byAddress_.end() ? nullptr : it->second;
  }

  // A block still locked is freed all the same: the application owns it and has decided.
  bool free(MVHGLOBAL h) {
    void* data = nullptr;
    {
      std::lock_guard guard(mutex_);
      auto it = byHandle_.find(h);
      if (it == byHandle_.end()) return false;
      data = it->second.data;
      byAddress_.erase(data);
      byHandle_.erase(it);
    }
    std::free(data);
    return true;
  }

 private:
  Block* find(MVHGLOBAL h) {
    auto it = byHandle_.find(h);
    return it == byHandle_.end() ? nullptr : &it->second;
  }

  // Tokens are 2 modulo 16: malloc never returns such an address, so a token can't collide
  // with a fixed block's handle.
  MVHGLOBAL nextToken() {
    tokenCounter_ += 16;
    return reinterpret_cast<MVHGLOBAL>(tokenCounter_ | 2);  // NOLINT(performance-no-int-to-ptr)
  }

  std::mutex mutex_;
  std::unordered_map<MVHGLOBAL, Block> byHandle_;
  std::unordered_map<const void*, MVHGLOBAL> byAddress_;
  std::uintptr_t tokenCounter_ = 0;
};

// Never destroyed: blocks may be freed by the application during static destruction.
Registry& registry() {
  static auto* instance = new Registry;
  return *instance;
}

}  // namespace

extern "C" MVAPI MVHGLOBAL MVGlobalAlloc(uint32_t flags, size_t bytes) {
  return registry().allocate((flags & MV_GMEM_MOVEABLE) != 0, bytes);
}

extern "C" MVAPI void* MVGlobalLock(MVHGLOBAL h) { return registry().lock(h); }

extern "C" MVAPI int MVGlobalUnlock(MVHGLOBAL h) { return registry().unlock(h); }

extern "C" MVAPI size_t MVGlobalSize(MVHGLOBAL h) { return registry().size(h); }

extern "C" MVAPI MVHGLOBAL MVGlobalHandle(const void* p) { return registry().handleOf(p); }

extern "C" MVAPI MVHGLOBAL MVGlobalFree(MVHGLOBAL h) { return registry().free(h) ? nullptr : h; }
