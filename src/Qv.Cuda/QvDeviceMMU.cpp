#include "QvDeviceMMU.h"

#include <cstdio>
#include <map>
#include <mutex>
#include <tuple>
#include <unordered_map>

#include "QvDevice.h"
#include "QvException.h"

namespace Qv {
namespace {

// Blocks are cached by the request that made them, so a reused block has the same pitch as a
// fresh one would have.
struct SKey {
  size_t uWidthBytes;
  size_t uHeight;
  bool bPitched;
  bool operator<(const SKey& o) const {
    return std::tie(uWidthBytes, uHeight, bPitched) <
           std::tie(o.uWidthBytes, o.uHeight, o.bPitched);
  }
};

struct SBlock {
  SKey xKey;
  size_t uPitch;
};

// Cached memory beyond this is given back at once instead of being kept.
constexpr size_t kMaxCachedBytes = size_t(2) << 30;

class CCache {
 public:
  void* Get(const SKey& xKey, size_t& uPitch) {
    {
      std::lock_guard<std::mutex> xLock(m_xMutex);
      auto it = m_xFree.find(xKey);
      if (it != m_xFree.end()) {
        void* p = it->second.first;
        uPitch = it->second.second;
        m_uCachedBytes -= uPitch * xKey.uHeight;
        m_xFree.erase(it);
        m_xUsed[p] = SBlock{xKey, uPitch};
        return p;
      }
    }
    void* p = Allocate(xKey, uPitch);
    std::lock_guard<std::mutex> xLock(m_xMutex);
    m_xUsed[p] = SBlock{xKey, uPitch};
    return p;
  }

  void Put(void* p) {
    if (!p) return;
    std::unique_lock<std::mutex> xLock(m_xMutex);
    auto it = m_xUsed.find(p);
    if (it == m_xUsed.end()) {
      // Runs from destructors: report and keep going rather than end the process.
      std::fprintf(stderr, "qvvideoproc: ignoring free of unknown device block %p\n", p);
      return;
    }
    SBlock xBlock = it->second;
    m_xUsed.erase(it);
    const size_t uBytes = xBlock.uPitch * xBlock.xKey.uHeight;
    if (m_uCachedBytes + uBytes > kMaxCachedBytes) {
      xLock.unlock();
      Device::FreeDevice(p);
      return;
    }
    m_uCachedBytes += uBytes;
    m_xFree.emplace(xBlock.xKey, std::make_pair(p, xBlock.uPitch));
  }

  void Trim() {
    std::multimap<SKey, std::pair<void*, size_t>> xFree;
    {
      std::lock_guard<std::mutex> xLock(m_xMutex);
      xFree.swap(m_xFree);
      m_uCachedBytes = 0;
    }
    for (auto& x : xFree) Device::FreeDevice(x.second.first);
  }

  size_t CachedBytes() {
    std::lock_guard<std::mutex> xLock(m_xMutex);
    return m_uCachedBytes;
  }

 private:
  void* Allocate(const SKey& xKey, size_t& uPitch) {
    try {
      return DoAllocate(xKey, uPitch);
    } catch (const IException&) {
      // The cache may hold what the device lacks: give it back and try once more.
      Trim();
      return DoAllocate(xKey, uPitch);
    }
  }
  static void* DoAllocate(const SKey& xKey, size_t& uPitch) {
    if (xKey.bPitched) return Device::AllocPitched(xKey.uWidthBytes, xKey.uHeight, uPitch);
    uPitch = xKey.uWidthBytes;
    return Device::AllocLinear(xKey.uWidthBytes);
  }

  std::mutex m_xMutex;
  std::multimap<SKey, std::pair<void*, size_t>> m_xFree;
  std::unordered_map<void*, SBlock> m_xUsed;
  size_t m_uCachedBytes = 0;
};

// Never destroyed: images owned by buffers may be released during process exit.
CCache& Cache() {
  static CCache* pxCache = new CCache();
  return *pxCache;
}

}  // namespace

void* CQvDeviceMMU::QvCudaMalloc(size_t uCount, size_t uElementSize) {
  if (uElementSize != 0 && uCount > SIZE_MAX / uElementSize)
    QV_THROW("Device allocation size overflows");
  size_t uPitch = 0;
  return Cache().Get(SKey{uCount * uElementSize, 1, false}, uPitch);
}

void CQvDeviceMMU::QvCudaFree(void* pData) {
  Cache().Put(pData);
}

void* CQvDeviceMMU::AllocPitched(size_t uWidthBytes, size_t uHeight, size_t& uPitch) {
  return Cache().Get(SKey{uWidthBytes, uHeight, true}, uPitch);
}

void CQvDeviceMMU::FreePitched(void* pData) {
  Cache().Put(pData);
}

uint64_t CQvDeviceMMU::GetAllocationCount() {
  return Device::GetDeviceAllocationCount();
}

size_t CQvDeviceMMU::GetCachedBytes() {
  return Cache().CachedBytes();
}

void CQvDeviceMMU::Trim() {
  Cache().Trim();
}

}  // namespace Qv
