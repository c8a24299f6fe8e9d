// Thread-local free lists of small blocks for handles and their reference-count
// blocks: made and dropped for every value the host reads, they would otherwise
// cost two trips through malloc each. Blocks may be freed on another thread
// than the one that took them.
#pragma once

#include <cstddef>
#include <new>

namespace lua {
namespace detatils {

// Blocks up to kSmallBlockSize bytes come from the pool, larger ones from new.
constexpr std::size_t kSmallBlockSize = 64;

void* AllocateSmallBlock(std::size_t size);
void FreeSmallBlock(void* block, std::size_t size) noexcept;

template <class T>
class SmallBlockAllocator {
 public:
  using value_type = T;

  SmallBlockAllocator() = default;
  template <class U>
  SmallBlockAllocator(const SmallBlockAllocator<U>&) noexcept {}

  T* allocate(std::size_t n) { return static_cast<T*>(AllocateSmallBlock(n * sizeof(T))); }
  void deallocate(T* p, std::size_t n) noexcept { FreeSmallBlock(p, n * sizeof(T)); }

  template <class U>
  bool operator==(const SmallBlockAllocator<U>&) const noexcept {
    return true;
  }
  template <class U>
  bool operator!=(const SmallBlockAllocator<U>&) const noexcept {
    return false;
  }
};

// Destroys a T that was constructed in a pool block.
template <class T>
struct SmallBlockDelete {
  void operator()(T* p) const noexcept {
    p->~T();
    FreeSmallBlock(p, sizeof(T));
  }
};

}  // namespace detatils
}  // namespace lua
