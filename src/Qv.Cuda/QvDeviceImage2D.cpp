#include "QvDeviceImage2D.h"

#include <cstring>
#include <limits>

#include "QvDevice.h"
#include "QvDeviceMMU.h"
#include "QvException.h"

namespace Qv {
namespace GPU {

void CCudaMemoryPitchResource::Allocate(size_t uWidthBytes, size_t uHeight) {
  Release();
  size_t uPitch = 0;
  m_pData = CQvDeviceMMU::AllocPitched(uWidthBytes, uHeight, uPitch);
  m_uPitch = uPitch;
}

void CCudaMemoryPitchResource::Wrap(void* pData, size_t uPitch) {
  Release();
  m_pData = pData;
  m_uPitch = uPitch;
  m_bOwned = false;
}

void CCudaMemoryPitchResource::Release() {
  if (m_pData && m_bOwned) CQvDeviceMMU::FreePitched(m_pData);
  m_pData = nullptr;
  m_uPitch = 0;
  m_bOwned = true;
}

}  // namespace GPU

namespace {

// Row bytes of a format that a device image can hold; refuses what cannot be allocated.
size_t CheckedRowBytes(const CQvImageFormat& xFormat) {
  if (xFormat.iWidth <= 0 || xFormat.iHeight <= 0) {
    CQvString sText("Invalid device image size ");
    sText << xFormat.iWidth << "x" << xFormat.iHeight;
    QV_THROW(sText.ToCString());
  }
  const int iBytesPerPixel = xFormat.GetBytesPerPixel();
  if (iBytesPerPixel <= 0) {
    CQvString sText("Device image format has no pixel size: ");
    sText << xFormat.ToString();
    QV_THROW(sText.ToCString());
  }
  return static_cast<size_t>(xFormat.iWidth) * static_cast<size_t>(iBytesPerPixel);
}

CQvImageFormat FormatOf(const IImage& xImage) {
  return CQvImageFormat(xImage);
}

}  // namespace

CQvDeviceImage2D::CQvDeviceImage2D() = default;

CQvDeviceImage2D::CQvDeviceImage2D(const CQvImageFormat& xFormat) {
  Create(xFormat);
}

CQvDeviceImage2D::CQvDeviceImage2D(const CQvImage& xImage) {
  Create(xImage);
}

CQvDeviceImage2D::~CQvDeviceImage2D() = default;

CQvDeviceImage2D::CQvDeviceImage2D(CQvDeviceImage2D&& xOther) noexcept
    : m_xFormat(xOther.m_xFormat), m_xMemory(std::move(xOther.m_xMemory)) {
  xOther.m_xFormat = CQvImageFormat();
}

CQvDeviceImage2D& CQvDeviceImage2D::operator=(CQvDeviceImage2D&& xOther) noexcept {
  if (this != &xOther) {
    m_xMemory.Release();
    m_xMemory.Swap(xOther.m_xMemory);
    m_xFormat = xOther.m_xFormat;
    xOther.m_xFormat = CQvImageFormat();
  }
  return *this;
}

void CQvDeviceImage2D::Release() {
  m_xMemory.Release();
  m_xFormat = CQvImageFormat();
}

void CQvDeviceImage2D::Create(const CQvImageFormat& xFormat) {
  if (IsValid() && xFormat == m_xFormat) return;
  const size_t uRowBytes = CheckedRowBytes(xFormat);
  Release();
  m_xMemory.Allocate(uRowBytes, static_cast<size_t>(xFormat.iHeight));
  m_xFormat = xFormat;
}

void CQvDeviceImage2D::Attach(const CQvImageFormat& xFormat, void* pDevice, size_t uPitch) {
  const size_t uRowBytes = CheckedRowBytes(xFormat);
  if (!pDevice) QV_THROW("No memory to attach a device image to");
  if (uPitch < uRowBytes) QV_THROW("Attached rows are shorter than the image rows");
  Release();
  m_xMemory.Wrap(pDevice, uPitch);
  m_xFormat = xFormat;
}

void CQvDeviceImage2D::Create(const CQvImageFormat& xFormat, const void* pData, bool bIsDevice) {
  Create(xFormat);
  if (!pData) QV_THROW("No source data for device image");
  const size_t uRowBytes = m_xFormat.GetRowBytes();
  Device::Copy2D(GetDevicePointer(), GetDevicePitch(), pData, uRowBytes, uRowBytes,
                 static_cast<size_t>(m_xFormat.iHeight),
                 bIsDevice ? Device::ECopyKind::DeviceToDevice : Device::ECopyKind::HostToDevice,
                 nullptr, false);
}

void CQvDeviceImage2D::Create(const IImage& xImage) {
  Create(FormatOf(xImage), xImage.GetDataPtr(), false);
}

void CQvDeviceImage2D::CreateAsync(const IImage& xImage, cudaStream_t hStream) {
  const CQvImageFormat xFormat = FormatOf(xImage);
  if (!xImage.GetDataPtr()) QV_THROW("No source data for device image");
  Create(xFormat);
  Upload(xImage.GetDataPtr(), m_xFormat.GetRowBytes(), hStream, true);
}

void CQvDeviceImage2D::Upload(const void* pSrc, size_t uSrcPitch, cudaStream_t hStream,
                              bool bAsync) {
  if (!IsValid()) QV_THROW("Image is invalid");
  const size_t uRowBytes = m_xFormat.GetRowBytes();
  if (uSrcPitch < uRowBytes) QV_THROW("Source rows are shorter than the image rows");
  Device::Copy2D(GetDevicePointer(), GetDevicePitch(), pSrc, uSrcPitch, uRowBytes,
                 static_cast<size_t>(m_xFormat.iHeight), Device::ECopyKind::HostToDevice, hStream,
                 bAsync);
}

void CQvDeviceImage2D::CopyTo(CQvImage& xHost) const {
  if (!IsValid()) QV_THROW("Image is invalid");
  xHost.Create(m_xFormat);
  Download(xHost.GetDataPtr(), m_xFormat.GetRowBytes());
}

void CQvDeviceImage2D::Download(void* pDst, size_t uDstPitch) const {
  if (!IsValid()) QV_THROW("Image is invalid");
  const size_t uRowBytes = m_xFormat.GetRowBytes();
  if (uDstPitch < uRowBytes) QV_THROW("Target rows are shorter than the image rows");
  Device::Copy2D(pDst, uDstPitch, GetDevicePointer(), GetDevicePitch(), uRowBytes,
                 static_cast<size_t>(m_xFormat.iHeight), Device::ECopyKind::DeviceToHost, nullptr,
                 false);
}

void CQvDeviceImage2D::CopyTo(CQvDeviceImage2D& xOther) const {
  if (!IsValid()) QV_THROW("Image is invalid");
  if (&xOther == this) return;
  xOther.Create(m_xFormat);
  Device::Copy2D(xOther.GetDevicePointer(), xOther.GetDevicePitch(), GetDevicePointer(),
                 GetDevicePitch(), m_xFormat.GetRowBytes(), static_cast<size_t>(m_xFormat.iHeight),
                 Device::ECopyKind::DeviceToDevice, nullptr, false);
}

cudaChannelFormatDesc CQvDeviceImage2D::GetCudaChannelFormatDesc() const {
  cudaChannelFormatDesc xDesc{0, 0, 0, 0, cudaChannelFormatKindNone};
  int iBits = 0;
  cudaChannelFormatKind eKind = cudaChannelFormatKindNone;
  switch (m_xFormat.eDataType) {
    case EDataType::Byte:
      iBits = 8, eKind = cudaChannelFormatKindSigned;
      break;
    case EDataType::UByte:
      iBits = 8, eKind = cudaChannelFormatKindUnsigned;
      break;
    case EDataType::Short:
      iBits = 16, eKind = cudaChannelFormatKindSigned;
      break;
    case EDataType::UShort:
    case EDataType::Custom_10in16_LSB:
    case EDataType::Custom_10in16_MSB:
    case EDataType::Custom_12in16_LSB:
    case EDataType::Custom_12in16_MSB:
      iBits = 16, eKind = cudaChannelFormatKindUnsigned;
      break;
    case EDataType::Int:
      iBits = 32, eKind = cudaChannelFormatKindSigned;
      break;
    case EDataType::UInt:
      iBits = 32, eKind = cudaChannelFormatKindUnsigned;
      break;
    case EDataType::Float:
      iBits = 32, eKind = cudaChannelFormatKindFloat;
      break;
    default:
      return xDesc;
  }
  int iChannels = 0;
  try {
    iChannels = m_xFormat.GetComponentCount();
  } catch (const IException&) {
    return xDesc;
  }
  xDesc.f = eKind;
  xDesc.x = iChannels >= 1 ? iBits : 0;
  xDesc.y = iChannels >= 2 ? iBits : 0;
  xDesc.z = iChannels >= 3 ? iBits : 0;
  xDesc.w = iChannels >= 4 ? iBits : 0;
  return xDesc;
}

SDeviceImageDesc2D CQvDeviceImage2D::GetDesc() const {
  return SDeviceImageDesc2D{m_xFormat, GetDevicePointer(), GetDevicePitch()};
}

void CQvDeviceImage2D::SetZero() {
  if (!IsValid()) QV_THROW("Image is invalid");
  Device::Memset2D(GetDevicePointer(), GetDevicePitch(), 0, m_xFormat.GetRowBytes(),
                   static_cast<size_t>(m_xFormat.iHeight), nullptr);
  Device::SynchronizeStream(nullptr);  // work on other streams does not wait for this one
}

CQvDeviceImage1D::~CQvDeviceImage1D() {
  Release();
}

void CQvDeviceImage1D::Release() {
  if (m_pData) CQvDeviceMMU::QvCudaFree(m_pData);
  m_pData = nullptr;
  m_uBytes = 0;
  m_xFormat = CQvImageFormat();
}

void CQvDeviceImage1D::Create(const IImage& xImage) {
  const CQvImageFormat xFormat(xImage);
  const size_t uBytes = CheckedRowBytes(xFormat) * static_cast<size_t>(xFormat.iHeight);
  if (!xImage.GetDataPtr()) QV_THROW("No source data for device image");
  if (m_uBytes != uBytes) {
    Release();
    m_pData = CQvDeviceMMU::QvCudaMalloc(uBytes, 1);
    m_uBytes = uBytes;
  }
  m_xFormat = xFormat;
  Device::Copy2D(m_pData, uBytes, xImage.GetDataPtr(), uBytes, uBytes, 1,
                 Device::ECopyKind::HostToDevice, nullptr, false);
}

}  // namespace Qv
