#include "lua/internal/block_pool.h"

namespace lua {
namespace detatils {

namespace {

#if defined(__SANITIZE_ADDRESS__)
// AddressSanitizer finds a use after free only in blocks it handed out itself.
constexpr bool kPooling = false;
#else
constexpr bool kPooling = true;
#endif

// Enough for the handles of a busy call chain; beyond it blocks go back to malloc.
constexpr std::size_t kMaxFreeBlocks = 1024;

struct FreeBlock {
  FreeBlock* next;
};

struct FreeList {
  FreeBlock* head;
  std::size_t count;
  bool ownerActive;
  bool gone;
};

// Plain data with the initial-exec model: the hot path needs no TLS lookup call
// and no initialisation guard.
__attribute__((tls_model("initial-exec"))) thread_local FreeList tFree = {nullptr, 0, false, false};

// Returns the thread's blocks at thread exit; later frees go straight to delete.
struct FreeListOwner {
  bool active = false;
  ~FreeListOwner() {
    while (tFree.head != nullptr) {
      FreeBlock* block = tFree.head;
      tFree.head = block->next;
      ::operator delete(block);
    }
    tFree.count = 0;
    tFree.gone = true;
  }
};
thread_local FreeListOwner tOwner;

}  // namespace

void* AllocateSmallBlock(std::size_t size) {
  if (!kPooling || size > kSmallBlockSize) return ::operator new(size);
  if (tFree.head != nullptr) {
    FreeBlock* block = tFree.head;
    tFree.head = block->next;
    --tFree.count;
    return block;
  }
  // Every pooled size gets a whole block, so that any of them can be reused.
  return ::operator new(kSmallBlockSize);
}

void FreeSmallBlock(void* block, std::size_t size) noexcept {
  if (!kPooling || size > kSmallBlockSize || tFree.gone || tFree.count >= kMaxFreeBlocks) {
    ::operator delete(block);
    return;
  }
  if (!tFree.ownerActive) {
    tOwner.active = true;  // the first use constructs the owner, which registers its destructor
    tFree.ownerActive = true;
  }
  FreeBlock* freed = static_cast<FreeBlock*>(block);
  freed->next = tFree.head;
  tFree.head = freed;
  ++tFree.count;
}

}  // namespace detatils
}  // namespace lua
