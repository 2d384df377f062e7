#pragma once
#include <cstddef>
#include <cstdint>
#include <utility>

#include "QvCudaDefs.h"
#include "QvImage.h"
#include "QvImageFormat.h"
#include "QvPixel.h"

namespace Qv {

// Where a device image lies, as a kernel gets it (by value).
struct SDeviceImageDesc2D {
  CQvImageFormat xFormat;
  void* pData;
  uint64_t uPitch;
};

namespace GPU {

// A pitched block of device memory from CQvDeviceMMU; owns it.
class CCudaMemoryPitchResource {
 public:
  CCudaMemoryPitchResource() = default;
  ~CCudaMemoryPitchResource() { Release(); }
  CCudaMemoryPitchResource(const CCudaMemoryPitchResource&) = delete;
  CCudaMemoryPitchResource& operator=(const CCudaMemoryPitchResource&) = delete;
  CCudaMemoryPitchResource(CCudaMemoryPitchResource&& xOther) noexcept { Swap(xOther); }
  CCudaMemoryPitchResource& operator=(CCudaMemoryPitchResource&& xOther) noexcept {
    Swap(xOther);
    return *this;
  }
  void Swap(CCudaMemoryPitchResource& xOther) noexcept {
    std::swap(m_pData, xOther.m_pData);
    std::swap(m_uPitch, xOther.m_uPitch);
    std::swap(m_bOwned, xOther.m_bOwned);
  }

  void Allocate(size_t uWidthBytes, size_t uHeight);
  // Points at memory that someone else owns; Release forgets it without freeing it.
  void Wrap(void* pData, size_t uPitch);
  void Release();
  void* Get() const { return m_pData; }
  size_t GetPitch() const { return m_uPitch; }

 private:
  void* m_pData = nullptr;
  size_t m_uPitch = 0;
  bool m_bOwned = true;
};

}  // namespace GPU

// An image in pitched device memory. It owns its memory and cannot be copied: a copy of the
// handle would free the memory twice.
class CQvDeviceImage2D {
 public:
  CQvDeviceImage2D();
  explicit CQvDeviceImage2D(const CQvImageFormat& xFormat);
  explicit CQvDeviceImage2D(const CQvImage& xImage);
  ~CQvDeviceImage2D();
  CQvDeviceImage2D(const CQvDeviceImage2D&) = delete;
  CQvDeviceImage2D& operator=(const CQvDeviceImage2D&) = delete;
  // Moving hands the memory over; the source is left empty.
  CQvDeviceImage2D(CQvDeviceImage2D&& xOther) noexcept;
  CQvDeviceImage2D& operator=(CQvDeviceImage2D&& xOther) noexcept;

  // Makes the image fit the format, contents undefined. An image that has this format
  // already keeps its memory and contents.
  void Create(const CQvImageFormat& xFormat);
  // As above, then fills it from packed rows at pData (on the device if bIsDevice).
  void Create(const CQvImageFormat& xFormat, const void* pData, bool bIsDevice);
  void Create(const IImage& xImage);
  // As Create(image) with the copy queued on hStream; the source must stay valid until the
  // caller has synchronised the stream.
  void CreateAsync(const IImage& xImage, cudaStream_t hStream);
  // Makes the image a view of device-visible memory that it does not own (a plane of a
  // platform buffer): Release and the destructor leave that memory alone.
  void Attach(const CQvImageFormat& xFormat, void* pDevice, size_t uPitch);
  // Fills a created image from host rows that lie uSrcPitch bytes apart.
  void Upload(const void* pSrc, size_t uSrcPitch, cudaStream_t hStream, bool bAsync);

  void CopyTo(CQvImage& xHost) const;
  void CopyTo(CQvDeviceImage2D& xOther) const;
  // Copies into packed or padded host rows; complete on return.
  void Download(void* pDst, size_t uDstPitch) const;

  const CQvImageFormat& GetFormat() const { return m_xFormat; }
  void* GetDevicePointer() const { return m_xMemory.Get(); }
  size_t GetDevicePitch() const { return m_xMemory.GetPitch(); }
  const GPU::CCudaMemoryPitchResource& GetMemory() const { return m_xMemory; }
  cudaChannelFormatDesc GetCudaChannelFormatDesc() const;
  SDeviceImageDesc2D GetDesc() const;
  bool IsValid() const { return m_xMemory.Get() != nullptr; }
  void SetZero();
  void Release();

  template <class T>
  bool IsOfType(bool bBayerAsLum = false) const {
    return IsFormatOfType<T>(m_xFormat, bBayerAsLum);
  }

 private:
  CQvImageFormat m_xFormat;
  GPU::CCudaMemoryPitchResource m_xMemory;
};

// Raw bytes on the device, for tables and packed data.
class CQvDeviceImage1D {
 public:
  CQvDeviceImage1D() = default;
  ~CQvDeviceImage1D();
  CQvDeviceImage1D(const CQvDeviceImage1D&) = delete;
  CQvDeviceImage1D& operator=(const CQvDeviceImage1D&) = delete;

  // Takes all bytes of the image (width x height x bytes per pixel).
  void Create(const IImage& xImage);
  void* GetDevicePointer() const { return m_pData; }
  size_t GetByteCount() const { return m_uBytes; }
  const CQvImageFormat& GetFormat() const { return m_xFormat; }
  void Release();

 private:
  CQvImageFormat m_xFormat;
  void* m_pData = nullptr;
  size_t m_uBytes = 0;
};

}  // namespace Qv
