#include "QvDevice.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "QvCudaException.h"

namespace Qv {
namespace Device {
namespace {

// Pitch of host-backend images: wide enough that row starts stay aligned for every pixel class,
// small enough that odd widths really get a pitch larger than their row.
constexpr size_t kHostPitchAlignment = 64;

std::atomic<uint64_t> g_uAllocations{0};

struct SBackendChoice {
  EBackend eBackend = EBackend::Host;
  bool bFailed = false;
  std::string sError;
  cudaError_t eError = cudaSuccess;
};

bool CudaDeviceUsable(cudaError_t& eError) {
  int iCount = 0;
  eError = cudaGetDeviceCount(&iCount);
  if (eError == cudaSuccess && iCount < 1) eError = cudaErrorNoDevice;
  if (eError != cudaSuccess) {
    cudaGetLastError();
    return false;
  }
  return true;
}

const SBackendChoice& Choice() {
  static const SBackendChoice xChoice = [] {
    SBackendChoice x;
    const char* szForced = std::getenv("QV_DEVICE");
    std::string sForced = szForced ? szForced : "";
    cudaError_t eError = cudaSuccess;
    if (sForced == "host") {
      x.eBackend = EBackend::Host;
    } else if (sForced == "cuda") {
      if (CudaDeviceUsable(eError)) {
        x.eBackend = EBackend::Cuda;
      } else {
        x.bFailed = true;
        x.eError = eError;
        x.sError = "QV_DEVICE=cuda was requested but no usable CUDA device was found";
      }
    } else if (sForced.empty()) {
      x.eBackend = CudaDeviceUsable(eError) ? EBackend::Cuda : EBackend::Host;
    } else {
      x.bFailed = true;
      x.sError = "QV_DEVICE must be 'cuda' or 'host', not '" + sForced + "'";
    }
    return x;
  }();
  return xChoice;
}

void* AlignedHostAlloc(size_t uBytes) {
  void* p = nullptr;
  if (posix_memalign(&p, 256, std::max<size_t>(uBytes, 1)) != 0) return nullptr;
  return p;
}

}  // namespace

cudaMemcpyKind ToCudaKind(ECopyKind eKind) {
  switch (eKind) {
    case ECopyKind::HostToDevice:
      return cudaMemcpyHostToDevice;
    case ECopyKind::DeviceToHost:
      return cudaMemcpyDeviceToHost;
    case ECopyKind::DeviceToDevice:
      return cudaMemcpyDeviceToDevice;
    case ECopyKind::HostToHost:
      return cudaMemcpyHostToHost;
  }
  return cudaMemcpyDefault;
}

EBackend GetBackend() {
  const SBackendChoice& x = Choice();
  if (x.bFailed) {
    if (x.eError != cudaSuccess)
      throw CQvCudaException::CreateFirst(x.sError.c_str(), __FILE__, __func__, __LINE__, x.eError);
    QV_THROW(x.sError.c_str());
  }
  return x.eBackend;
}

bool IsCuda() {
  return GetBackend() == EBackend::Cuda;
}

const char* GetBackendName() {
  return IsCuda() ? "cuda" : "host";
}

void* AllocPitched(size_t uWidthBytes, size_t uHeight, size_t& uPitch) {
  void* p = nullptr;
  if (IsCuda()) {
    QV_CUDA_CHECK(cudaMallocPitch(&p, &uPitch, uWidthBytes, uHeight),
                  "Error allocating pitched device memory");
  } else {
    uPitch = (uWidthBytes + kHostPitchAlignment - 1) / kHostPitchAlignment * kHostPitchAlignment;
    p = AlignedHostAlloc(uPitch * uHeight);
    if (!p) QV_THROW("Out of memory allocating a device image on the host backend");
  }
  ++g_uAllocations;
  return p;
}

void* AllocLinear(size_t uBytes) {
  void* p = nullptr;
  if (IsCuda()) {
    QV_CUDA_CHECK(cudaMalloc(&p, std::max<size_t>(uBytes, 1)), "Error allocating device memory");
  } else {
    p = AlignedHostAlloc(uBytes);
    if (!p) QV_THROW("Out of memory allocating device memory on the host backend");
  }
  ++g_uAllocations;
  return p;
}

void FreeDevice(void* pData) {
  if (!pData) return;
  if (IsCuda())
    cudaFree(pData);  // a failing free leaves nothing to recover; the error is not kept
  else
    std::free(pData);
}

void* AllocPinnedHost(size_t uBytes) {
  void* p = nullptr;
  if (IsCuda()) {
    if (cudaHostAlloc(&p, std::max<size_t>(uBytes, 1), cudaHostAllocMapped) != cudaSuccess) {
      cudaGetLastError();
      return nullptr;
    }
    return p;
  }
  return AlignedHostAlloc(uBytes);
}

void FreePinnedHost(void* pData) {
  if (!pData) return;
  if (IsCuda())
    cudaFreeHost(pData);
  else
    std::free(pData);
}

void* GetMappedDevicePointer(void* pPinnedHost) {
  if (!pPinnedHost || !IsCuda()) return pPinnedHost;
  void* pDevice = nullptr;
  QV_CUDA_CHECK(cudaHostGetDevicePointer(&pDevice, pPinnedHost, 0),
                "Error taking the device address of pinned host memory");
  return pDevice;
}

uint64_t GetDeviceAllocationCount() {
  return g_uAllocations.load();
}

void Copy2D(void* pDst, size_t uDstPitch, const void* pSrc, size_t uSrcPitch, size_t uWidthBytes,
            size_t uHeight, ECopyKind eKind, cudaStream_t hStream, bool bAsync) {
  if (uWidthBytes == 0 || uHeight == 0) return;
  if (IsCuda()) {
    if (bAsync) {
      QV_CUDA_CHECK(cudaMemcpy2DAsync(pDst, uDstPitch, pSrc, uSrcPitch, uWidthBytes, uHeight,
                                      ToCudaKind(eKind), hStream),
                    "Error queueing a 2D copy");
    } else {
      // cudaMemcpy2D may return before the copy is done (device to device, and pageable host
      // to device), and work on the non-blocking streams does not wait for the default
      // stream: wait for it here, so that a copy that is not asynchronous is complete.
      QV_CUDA_CHECK(
          cudaMemcpy2D(pDst, uDstPitch, pSrc, uSrcPitch, uWidthBytes, uHeight, ToCudaKind(eKind)),
          "Error copying 2D memory");
      QV_CUDA_CHECK(cudaStreamSynchronize(nullptr), "Error copying 2D memory");
    }
    return;
  }
  auto* pD = static_cast<unsigned char*>(pDst);
  const auto* pS = static_cast<const unsigned char*>(pSrc);
  if (uDstPitch == uWidthBytes && uSrcPitch == uWidthBytes) {
    std::memcpy(pD, pS, uWidthBytes * uHeight);
    return;
  }
  for (size_t y = 0; y < uHeight; ++y)
    std::memcpy(pD + y * uDstPitch, pS + y * uSrcPitch, uWidthBytes);
}

void Memset2D(void* pDst, size_t uPitch, int iValue, size_t uWidthBytes, size_t uHeight,
              cudaStream_t hStream) {
  if (uWidthBytes == 0 || uHeight == 0) return;
  if (IsCuda()) {
    QV_CUDA_CHECK(cudaMemset2DAsync(pDst, uPitch, iValue, uWidthBytes, uHeight, hStream),
                  "Error setting device memory");
    QV_CUDA_CHECK(cudaStreamSynchronize(hStream), "Error setting device memory");
    return;
  }
  auto* pD = static_cast<unsigned char*>(pDst);
  for (size_t y = 0; y < uHeight; ++y) std::memset(pD + y * uPitch, iValue, uWidthBytes);
}

cudaStream_t CreateStream() {
  cudaStream_t hStream = nullptr;
  if (IsCuda())
    QV_CUDA_CHECK(cudaStreamCreateWithFlags(&hStream, cudaStreamNonBlocking),
                  "Error creating a CUDA stream");
  return hStream;
}

void DestroyStream(cudaStream_t hStream) {
  if (hStream && IsCuda()) cudaStreamDestroy(hStream);
}

void SynchronizeStream(cudaStream_t hStream) {
  if (IsCuda()) QV_CUDA_CHECK(cudaStreamSynchronize(hStream), "Error synchronizing a CUDA stream");
}

namespace {
int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}
}  // namespace

CStreamTimer::CStreamTimer() {
  if (IsCuda()) {
    QV_CUDA_CHECK(cudaEventCreate(&m_hStart), "Error creating a CUDA event");
    QV_CUDA_CHECK(cudaEventCreate(&m_hStop), "Error creating a CUDA event");
  }
}

CStreamTimer::~CStreamTimer() {
  if (m_hStart) cudaEventDestroy(m_hStart);
  if (m_hStop) cudaEventDestroy(m_hStop);
}

void CStreamTimer::Start(cudaStream_t hStream) {
  m_iStartNs = NowNs();
  if (m_hStart) QV_CUDA_CHECK(cudaEventRecord(m_hStart, hStream), "Error recording a CUDA event");
}

void CStreamTimer::Stop(cudaStream_t hStream) {
  m_iStopNs = NowNs();
  if (m_hStop) QV_CUDA_CHECK(cudaEventRecord(m_hStop, hStream), "Error recording a CUDA event");
}

double CStreamTimer::ElapsedMs() {
  if (!m_hStop) return static_cast<double>(m_iStopNs - m_iStartNs) / 1e6;
  QV_CUDA_CHECK(cudaEventSynchronize(m_hStop), "Error waiting for a CUDA event");
  float fMs = 0.0f;
  QV_CUDA_CHECK(cudaEventElapsedTime(&fMs, m_hStart, m_hStop), "Error timing CUDA events");
  return fMs;
}

namespace {

// The host backend's worker threads, made at the first launch that needs them and kept for the
// process, so that a launch costs a wake-up instead of thread starts. A launch splits its rows
// into one chunk per thread, runs the first on its calling thread and the others on workers.
// One launch uses the workers at a time: a launch that finds them taken (another streaming
// thread's, or a launch inside a launch) runs on its calling thread alone.
class CHostWorkers {
 public:
  // Never destroyed: workers blocked in their wait end with the process, and no launch can
  // find the pool gone while exit handlers run. A forked child has none of its parent's
  // threads, so it makes workers of its own at its first launch.
  static CHostWorkers& Get() {
    for (;;) {
      if (CHostWorkers* pxWorkers = s_pxWorkers.load(std::memory_order_acquire)) return *pxWorkers;
      bool bIdle = false;
      if (s_bMaking.compare_exchange_strong(bIdle, true, std::memory_order_acquire)) {
        static const int s_iAtFork = pthread_atfork(nullptr, nullptr, [] {
          s_pxWorkers.store(nullptr, std::memory_order_relaxed);
          s_bMaking.store(false, std::memory_order_relaxed);
        });
        (void)s_iAtFork;
        // Another thread may have made them between the load above and taking the flag.
        if (!s_pxWorkers.load(std::memory_order_acquire))
          s_pxWorkers.store(
              new CHostWorkers(std::max(1, static_cast<int>(std::thread::hardware_concurrency())) -
                               1),
              std::memory_order_release);
        s_bMaking.store(false, std::memory_order_release);
      } else {
        std::this_thread::yield();
      }
    }
  }

  int GetWorkers() const { return m_iWorkers; }

  bool TryRun(int iThreads, int iRows, const std::function<void(int, int)>& fnRows) {
    std::unique_lock<std::mutex> xTaken(m_xTaken, std::try_to_lock);
    if (!xTaken.owns_lock()) return false;
    const int iChunk = (iRows + iThreads - 1) / iThreads;
    {
      std::lock_guard<std::mutex> xLock(m_xMutex);
      m_pfnRows = &fnRows;
      m_iRows = iRows;
      m_iChunk = iChunk;
      m_iThreads = iThreads;
      m_iPending = iThreads - 1;
      ++m_uLaunch;
    }
    m_xWake.notify_all();
    fnRows(0, std::min(iRows, iChunk));
    std::unique_lock<std::mutex> xLock(m_xMutex);
    m_xDone.wait(xLock, [this] { return m_iPending == 0; });
    return true;
  }

 private:
  explicit CHostWorkers(int iWorkers) : m_iWorkers(iWorkers) {
    for (int i = 0; i < iWorkers; ++i) std::thread([this, i] { Work(i + 1); }).detach();
  }

  // Worker for chunk iChunkIndex of every launch that has that many threads.
  void Work(int iChunkIndex) {
    uint64_t uSeen = 0;
    std::unique_lock<std::mutex> xLock(m_xMutex);
    for (;;) {
      m_xWake.wait(xLock, [&] { return m_uLaunch != uSeen; });
      uSeen = m_uLaunch;
      if (iChunkIndex >= m_iThreads) continue;
      const int y0 = iChunkIndex * m_iChunk, y1 = std::min(m_iRows, y0 + m_iChunk);
      const std::function<void(int, int)>* pfnRows = m_pfnRows;
      xLock.unlock();
      if (y0 < y1) (*pfnRows)(y0, y1);
      xLock.lock();
      if (--m_iPending == 0) m_xDone.notify_one();
    }
  }

  std::mutex m_xTaken;  // held by the launch that uses the workers
  std::mutex m_xMutex;  // guards the launch's fields below
  std::condition_variable m_xWake, m_xDone;
  const std::function<void(int, int)>* m_pfnRows = nullptr;
  int m_iRows = 0, m_iChunk = 0, m_iThreads = 0, m_iPending = 0;
  uint64_t m_uLaunch = 0;
  const int m_iWorkers;

  static std::atomic<CHostWorkers*> s_pxWorkers;
  static std::atomic<bool> s_bMaking;  // held while one thread makes the workers
};

std::atomic<CHostWorkers*> CHostWorkers::s_pxWorkers{nullptr};
std::atomic<bool> CHostWorkers::s_bMaking{false};

}  // namespace

void HostParallelFor(int iRows, int64_t iWorkPerRow, const std::function<void(int, int)>& fnRows) {
  if (iRows <= 0) return;
  // Handing rows out costs microseconds: small images run on the calling thread.
  const int64_t iWork = static_cast<int64_t>(iRows) * std::max<int64_t>(iWorkPerRow, 1);
  CHostWorkers& xWorkers = CHostWorkers::Get();
  const int iThreads = static_cast<int>(std::min<int64_t>(
      {iRows, std::max<int64_t>(1, iWork / 65536), xWorkers.GetWorkers() + int64_t{1}}));
  if (iThreads <= 1 || !xWorkers.TryRun(iThreads, iRows, fnRows)) fnRows(0, iRows);
}

}  // namespace Device
}  // namespace Qv
