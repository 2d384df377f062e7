#pragma once
// Device memory with a cache of freed blocks. A running pipeline frees and allocates images of
// the same few sizes every frame; serving those from the cache keeps cudaMalloc and cudaFree
// (which synchronises the whole device) out of the frame loop.
#include <cstddef>
#include <cstdint>

namespace Qv {

class CQvDeviceMMU {
 public:
  static void* QvCudaMalloc(size_t uCount, size_t uElementSize);
  static void QvCudaFree(void* pData);

  // Pitched blocks for 2D images; uPitch receives the row pitch of the block.
  static void* AllocPitched(size_t uWidthBytes, size_t uHeight, size_t& uPitch);
  static void FreePitched(void* pData);

  // Real device allocations made since the process started (cache hits excluded).
  static uint64_t GetAllocationCount();
  static size_t GetCachedBytes();
  // Gives every cached block back to the device.
  static void Trim();
};

}  // namespace Qv
