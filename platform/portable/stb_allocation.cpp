#include "platform/portable/stb_allocation.h"

#include <cstdint>
#include <cstdlib>

namespace tabforge::portable {
namespace {

thread_local std::size_t bound = SIZE_MAX;

}  // namespace

void* StbMalloc(std::size_t size) {
  return size <= bound ? std::malloc(size) : nullptr;
}

void* StbRealloc(void* block, std::size_t size) {
  // A refused request leaves the block as it was, as a failing realloc does; stb_image frees it.
  return size <= bound ? std::realloc(block, size) : nullptr;
}

void StbFree(void* block) {
  std::free(block);
}

StbAllocationBound::StbAllocationBound(std::size_t bytes) : previous_(bound) {
  bound = bytes;
}

StbAllocationBound::~StbAllocationBound() {
  bound = previous_;
}

}  // namespace tabforge::portable
