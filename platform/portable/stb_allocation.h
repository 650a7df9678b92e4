// stb_image's memory. stb_image sizes some buffers from what a file declares, not from what it
// holds: a PNG chunk that claims a gigabyte is given one before its bytes are read, and a small
// deflate stream may grow its output a thousandfold. Every allocation of stb_image comes here, and
// while a bound is in force a larger request is refused; stb_image then fails the file as out of
// memory, which it handles everywhere.
#pragma once

#include <cstddef>

namespace tabforge::portable {

void* StbMalloc(std::size_t size);
void* StbRealloc(void* block, std::size_t size);
void StbFree(void* block);

// Bounds each single request of stb_image on this thread for its lifetime; the bound in force
// before comes back after it.
class StbAllocationBound {
 public:
  explicit StbAllocationBound(std::size_t bytes);
  ~StbAllocationBound();
  StbAllocationBound(const StbAllocationBound&) = delete;
  StbAllocationBound& operator=(const StbAllocationBound&) = delete;

 private:
  std::size_t previous_;
};

}  // namespace tabforge::portable
