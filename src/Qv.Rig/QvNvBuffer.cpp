#include "QvNvBuffer.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include "QvDevice.h"
#include "QvException.h"
#include "QvImageFormat.h"
#include "QvMessage.h"
#include "QvOperatorTexts.h"

namespace {

// Rows start on 256 bytes, as pitched device memory does, so that the kernels' stores stay
// aligned whatever the frame's width.
constexpr uint32_t kRowAlignment = 256;

uint32_t AlignedPitch(uint32_t uWidth) {
  return (uWidth + kRowAlignment - 1) / kRowAlignment * kRowAlignment;
}

}  // namespace

void TegraBufferShim::Initialize() {
  m_bInitialized = true;
}

void TegraBufferShim::Destroy() {
  m_bInitialized = false;
}

NvMemory TegraBufferShim::CreateNvBuffer(NvBufferColorFormat eFormat, int iWidth, int iHeight,
                                         ENvBufferMemory eMemory) {
  if (!m_bInitialized) QV_THROW("The buffer shim is not initialized");
  if (eFormat != NvBufferColorFormat_YUV420) QV_THROW("Only YUV 4:2:0 buffers can be created");
  // Half a plane of a 2 x 2 frame is one sample; the pitch must stay in 32 bits.
  if (iWidth < 2 || iHeight < 2 || iWidth > (1 << 20) || iHeight > (1 << 20)) {
    Qv::CQvString sText("Cannot create a YUV 4:2:0 buffer of ");
    sText << iWidth << "x" << iHeight;
    QV_THROW(sText.ToCString());
  }
  NvMemory xMemory{};
  xMemory.eMemory = eMemory;
  _NvBufferParams& xParams = xMemory.xParams;
  xParams.num_planes = 3;
  xParams.pixel_format = eFormat;
  const uint32_t uWidth[3] = {static_cast<uint32_t>(iWidth), static_cast<uint32_t>(iWidth + 1) / 2,
                              static_cast<uint32_t>(iWidth + 1) / 2};
  const uint32_t uHeight[3] = {static_cast<uint32_t>(iHeight),
                               static_cast<uint32_t>(iHeight + 1) / 2,
                               static_cast<uint32_t>(iHeight + 1) / 2};
  size_t uOffset = 0;
  for (int i = 0; i < 3; ++i) {
    xParams.width[i] = uWidth[i];
    xParams.height[i] = uHeight[i];
    xParams.pitch[i] = AlignedPitch(uWidth[i]);
    xParams.offset[i] = static_cast<uint32_t>(uOffset);
    uOffset += static_cast<size_t>(xParams.pitch[i]) * uHeight[i];
  }
  xMemory.uBytes = uOffset;
  if (eMemory == ENvBufferMemory::Device) {
    xMemory.pDevice = static_cast<uint8_t*>(Qv::Device::AllocLinear(uOffset));
    return xMemory;
  }
  xMemory.pHost = static_cast<uint8_t*>(Qv::Device::AllocPinnedHost(uOffset));
  if (!xMemory.pHost) {
    Qv::CQvString sText("Out of pinned host memory for a YUV 4:2:0 buffer of ");
    sText << iWidth << "x" << iHeight;
    QV_THROW(sText.ToCString());
  }
  try {
    xMemory.pDevice = static_cast<uint8_t*>(Qv::Device::GetMappedDevicePointer(xMemory.pHost));
  } catch (...) {
    Qv::Device::FreePinnedHost(xMemory.pHost);
    throw;
  }
  return xMemory;
}

NvMappedMemory TegraBufferShim::MapNvBuffer(const NvMemory& xMemory) {
  NvMappedMemory xMapped{};
  if (!xMemory.pDevice) QV_THROW("Cannot map an empty buffer");
  for (int i = 0; i < 3; ++i) {
    xMapped.pPlane[i] = xMemory.pDevice + xMemory.xParams.offset[i];
    xMapped.uPitch[i] = xMemory.xParams.pitch[i];
    xMapped.iWidth[i] = static_cast<int>(xMemory.xParams.width[i]);
    xMapped.iHeight[i] = static_cast<int>(xMemory.xParams.height[i]);
  }
  return xMapped;
}

void TegraBufferShim::GetMoniker(const NvMappedMemory& xMapped, Qv::CQvDeviceImage2D& y,
                                 Qv::CQvDeviceImage2D& u, Qv::CQvDeviceImage2D& v) {
  if (!xMapped.pPlane[0]) QV_THROW("The platform buffer is not mapped");
  Qv::CQvDeviceImage2D* pxPlanes[3] = {&y, &u, &v};
  for (int i = 0; i < 3; ++i)
    pxPlanes[i]->Attach(Qv::CQvImageFormat(xMapped.iWidth[i], xMapped.iHeight[i],
                                           Qv::EPixelType::Lum, Qv::EDataType::UByte),
                        xMapped.pPlane[i], xMapped.uPitch[i]);
}

void TegraBufferShim::UnmapNvBuffer(NvMappedMemory& xMapped) {
  xMapped = NvMappedMemory{};
}

void TegraBufferShim::DestroyNvBuffer(NvMemory& xMemory) {
  if (xMemory.eMemory == ENvBufferMemory::Device)
    Qv::Device::FreeDevice(xMemory.pDevice);
  else
    Qv::Device::FreePinnedHost(xMemory.pHost);
  xMemory = NvMemory{};
}

cudaError_t CopyYUVToNvBuffer(Qv::CQvDeviceImage2D* image, int fd, _NvBufferParams& params) {
  if (!image || !image->IsValid() || fd < 0 || params.num_planes < 1) return cudaErrorInvalidValue;
  const Qv::CQvImageFormat& xFormat = image->GetFormat();
  const size_t uRow = xFormat.GetRowBytes();
  const size_t uRows = static_cast<size_t>(xFormat.iHeight);
  const size_t uPitch = params.pitch[0];
  if (uPitch < uRow) return cudaErrorInvalidValue;
  // The rows reach this far into the file; a mapping past its end would fault on the write.
  const size_t uExtent = uPitch * (uRows - 1) + uRow;
  struct stat xStat {};
  if (fstat(fd, &xStat) != 0 || static_cast<size_t>(xStat.st_size) < uExtent)
    return cudaErrorInvalidValue;
  void* pMapped = mmap(nullptr, uExtent, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (pMapped == MAP_FAILED) return cudaErrorInvalidValue;
  Qv::OperatorMessage(QV_TEXT_MEMCPY_Y, static_cast<size_t>(uRow * uRows));
  cudaError_t eResult = cudaSuccess;
  try {
    Qv::Device::Copy2D(pMapped, uPitch, image->GetDevicePointer(), image->GetDevicePitch(), uRow,
                       uRows, Qv::Device::ECopyKind::DeviceToHost, nullptr, false);
  } catch (const Qv::IException&) {
    eResult = cudaErrorUnknown;
  }
  munmap(pMapped, uExtent);
  return eResult;
}
