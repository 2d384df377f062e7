#pragma once
// The one door to the device. Two backends stand behind it: CUDA when a GPU is present, and a
// host backend that keeps "device" memory in aligned host memory and runs kernels on CPU
// threads. The backend is chosen at first use; QV_DEVICE=cuda|host forces one.
#include <cstddef>
#include <cstdint>
#include <functional>

#include "QvCudaDefs.h"

namespace Qv {
namespace Device {

enum class EBackend { Cuda, Host };
enum class ECopyKind { HostToDevice, DeviceToHost, DeviceToDevice, HostToHost };

// The CUDA runtime's name for a copy direction.
cudaMemcpyKind ToCudaKind(ECopyKind eKind);

// Throws CQvCudaException when QV_DEVICE=cuda is forced on a machine without a usable GPU,
// and CQvException for an unknown QV_DEVICE value. The answer is fixed for the process.
EBackend GetBackend();
bool IsCuda();
const char* GetBackendName();

// Raw allocations; callers go through CQvDeviceMMU, which caches blocks. Both count every
// real allocation so that a steady state can be asserted.
void* AllocPitched(size_t uWidthBytes, size_t uHeight, size_t& uPitch);
void* AllocLinear(size_t uBytes);
void FreeDevice(void* pData);
void* AllocPinnedHost(size_t uBytes);  // page-locked and mapped on CUDA
void FreePinnedHost(void* pData);
// The device's address of memory from AllocPinnedHost, through which kernels write it.
void* GetMappedDevicePointer(void* pPinnedHost);
uint64_t GetDeviceAllocationCount();

// 2D copies between pitched regions. With a stream the copy is queued on it; without one it
// is complete on return. The host backend always completes at once.
void Copy2D(void* pDst, size_t uDstPitch, const void* pSrc, size_t uSrcPitch, size_t uWidthBytes,
            size_t uHeight, ECopyKind eKind, cudaStream_t hStream, bool bAsync);
void Memset2D(void* pDst, size_t uPitch, int iValue, size_t uWidthBytes, size_t uHeight,
              cudaStream_t hStream);

cudaStream_t CreateStream();  // null stream handle on the host backend
void DestroyStream(cudaStream_t hStream);
void SynchronizeStream(cudaStream_t hStream);

// Times work queued on a stream: CUDA events on the CUDA backend, wall time on the host
// backend (where work is complete on return).
class CStreamTimer {
 public:
  CStreamTimer();
  ~CStreamTimer();
  CStreamTimer(const CStreamTimer&) = delete;
  CStreamTimer& operator=(const CStreamTimer&) = delete;
  void Start(cudaStream_t hStream);
  void Stop(cudaStream_t hStream);
  // Waits for the stop and gives the milliseconds between start and stop.
  double ElapsedMs();

 private:
  cudaEvent_t m_hStart = nullptr;
  cudaEvent_t m_hStop = nullptr;
  int64_t m_iStartNs = 0;
  int64_t m_iStopNs = 0;
};

// Host backend runner: calls fnRows(y0, y1) for disjoint row ranges covering [0, iRows) on
// worker threads and returns when all are done.
void HostParallelFor(int iRows, int64_t iWorkPerRow, const std::function<void(int, int)>& fnRows);

}  // namespace Device
}  // namespace Qv
