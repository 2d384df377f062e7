#include "QvImage.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "QvException.h"

namespace Qv {

namespace {

constexpr std::align_val_t kDataAlignment{64};

uint8_t* AllocateBytes(uint64_t uBytes) {
  if (uBytes == 0) return nullptr;
  if (uBytes > std::numeric_limits<size_t>::max()) QV_THROW("Invalid image size");
  return static_cast<uint8_t*>(::operator new(static_cast<size_t>(uBytes), kDataAlignment));
}

void FreeBytes(uint8_t* pData) {
  if (pData != nullptr) ::operator delete(pData, kDataAlignment);
}

// Validates the format and gives its byte size; throws for negative sizes, unknown types and
// sizes that do not fit in 64 bit.
uint64_t CheckedImageBytes(const CQvImageFormat& xFormat) {
  if (xFormat.iWidth < 0 || xFormat.iHeight < 0) QV_THROW("Invalid image size");
  const uint64_t uBytesPerPixel = static_cast<uint64_t>(xFormat.GetBytesPerPixel());
  const uint64_t uPixels =
      static_cast<uint64_t>(xFormat.iWidth) * static_cast<uint64_t>(xFormat.iHeight);
  if (uBytesPerPixel != 0 && uPixels > std::numeric_limits<uint64_t>::max() / uBytesPerPixel) {
    QV_THROW("Invalid image size");
  }
  return uPixels * uBytesPerPixel;
}

// ---- type conversion -----------------------------------------------------------------------

// Where the channels of a pixel live; -1 when absent. Gray layouts use iGray.
struct SChannelLayout {
  bool bValid = false;
  int iChannels = 0;
  int iGray = -1;
  int iRed = -1;
  int iGreen = -1;
  int iBlue = -1;
  int iAlpha = -1;
};

SChannelLayout LayoutOf(EPixelType::ID ePixelType, bool bSource) {
  SChannelLayout xLayout;
  switch (ePixelType) {
    case EPixelType::BayerRG:
    case EPixelType::BayerBG:
    case EPixelType::BayerGR:
    case EPixelType::BayerGB:
      if (!bSource) return xLayout;  // mosaics are read as gray, never written
      xLayout.iChannels = 1;
      xLayout.iGray = 0;
      break;
    case EPixelType::Lum:
      xLayout.iChannels = 1;
      xLayout.iGray = 0;
      break;
    case EPixelType::LumA:
      xLayout.iChannels = 2;
      xLayout.iGray = 0;
      xLayout.iAlpha = 1;
      break;
    case EPixelType::RGB:
    case EPixelType::RGBA:
      xLayout.iChannels = ePixelType == EPixelType::RGB ? 3 : 4;
      xLayout.iRed = 0;
      xLayout.iGreen = 1;
      xLayout.iBlue = 2;
      xLayout.iAlpha = ePixelType == EPixelType::RGB ? -1 : 3;
      break;
    case EPixelType::BGR:
    case EPixelType::BGRA:
      xLayout.iChannels = ePixelType == EPixelType::BGR ? 3 : 4;
      xLayout.iBlue = 0;
      xLayout.iGreen = 1;
      xLayout.iRed = 2;
      xLayout.iAlpha = ePixelType == EPixelType::BGR ? -1 : 3;
      break;
    default:
      return xLayout;
  }
  xLayout.bValid = true;
  return xLayout;
}

bool IsConvertibleData(EDataType::ID eDataType) {
  return eDataType == EDataType::UByte || eDataType == EDataType::UShort ||
         eDataType == EDataType::Float;
}

template <typename T>
constexpr T FullScale() {
  if constexpr (std::is_floating_point<T>::value) {
    return T(1);
  } else {
    return std::numeric_limits<T>::max();
  }
}

// Float to an integer type: NaN gives 0, otherwise clamp to [0, max] and truncate.
template <typename TDst>
TDst FloatToInteger(float fValue, bool bScaleRange) {
  if (std::isnan(fValue)) return 0;
  const float fMax = static_cast<float>(std::numeric_limits<TDst>::max());
  if (bScaleRange) {
    const float fClamped = fValue < 0.0f ? 0.0f : (fValue > 1.0f ? 1.0f : fValue);
    return static_cast<TDst>(fClamped * fMax);
  }
  const float fClamped = fValue < 0.0f ? 0.0f : (fValue > fMax ? fMax : fValue);
  return static_cast<TDst>(fClamped);
}

template <typename TSrc, typename TDst>
TDst ConvertValue(TSrc value, bool bScaleRange) {
  if constexpr (std::is_same<TSrc, TDst>::value) {
    return value;
  } else if constexpr (std::is_same<TSrc, float>::value) {
    return FloatToInteger<TDst>(value, bScaleRange);
  } else if constexpr (std::is_same<TDst, float>::value) {
    return bScaleRange ? static_cast<float>(value) / static_cast<float>(FullScale<TSrc>())
                       : static_cast<float>(value);
  } else if constexpr (sizeof(TSrc) > sizeof(TDst)) {  // UShort -> UByte
    if (bScaleRange) return static_cast<TDst>(value >> 8);
    return static_cast<TDst>(value > FullScale<TDst>() ? FullScale<TDst>() : value);
  } else {  // UByte -> UShort
    return static_cast<TDst>(bScaleRange ? value * 257u : value);
  }
}

template <typename T>
T Luma(T red, T green, T blue) {
  if constexpr (std::is_floating_point<T>::value) {
    return red * 0.299f + green * 0.587f + blue * 0.114f;
  } else {
    const uint32_t uSum = static_cast<uint32_t>(red) * 299u + static_cast<uint32_t>(green) * 587u +
                          static_cast<uint32_t>(blue) * 114u + 500u;
    return static_cast<T>(uSum / 1000u);
  }
}

template <typename TSrc, typename TDst>
void ConvertPixels(const void* pSourceData, const SChannelLayout& xSource, void* pTargetData,
                   const SChannelLayout& xTarget, uint64_t uPixels, bool bScaleRange) {
  const TSrc* pSource = static_cast<const TSrc*>(pSourceData);
  TDst* pTarget = static_cast<TDst*>(pTargetData);
  const bool bSourceGray = xSource.iGray >= 0;
  const bool bTargetGray = xTarget.iGray >= 0;
  for (uint64_t uPixel = 0; uPixel < uPixels; ++uPixel) {
    TDst gray = 0;
    TDst red = 0;
    TDst green = 0;
    TDst blue = 0;
    if (bSourceGray) {
      gray = ConvertValue<TSrc, TDst>(pSource[xSource.iGray], bScaleRange);
      red = green = blue = gray;
    } else {
      red = ConvertValue<TSrc, TDst>(pSource[xSource.iRed], bScaleRange);
      green = ConvertValue<TSrc, TDst>(pSource[xSource.iGreen], bScaleRange);
      blue = ConvertValue<TSrc, TDst>(pSource[xSource.iBlue], bScaleRange);
      if (bTargetGray) gray = Luma<TDst>(red, green, blue);
    }
    if (bTargetGray) {
      pTarget[xTarget.iGray] = gray;
    } else {
      pTarget[xTarget.iRed] = red;
      pTarget[xTarget.iGreen] = green;
      pTarget[xTarget.iBlue] = blue;
    }
    if (xTarget.iAlpha >= 0) {
      pTarget[xTarget.iAlpha] = xSource.iAlpha >= 0
                                    ? ConvertValue<TSrc, TDst>(pSource[xSource.iAlpha], bScaleRange)
                                    : FullScale<TDst>();
    }
    pSource += xSource.iChannels;
    pTarget += xTarget.iChannels;
  }
}

template <typename TSrc>
void ConvertFrom(const void* pSourceData, const SChannelLayout& xSource, void* pTargetData,
                 const SChannelLayout& xTarget, EDataType::ID eTargetData, uint64_t uPixels,
                 bool bScaleRange) {
  switch (eTargetData) {
    case EDataType::UByte:
      ConvertPixels<TSrc, uint8_t>(pSourceData, xSource, pTargetData, xTarget, uPixels,
                                   bScaleRange);
      break;
    case EDataType::UShort:
      ConvertPixels<TSrc, uint16_t>(pSourceData, xSource, pTargetData, xTarget, uPixels,
                                    bScaleRange);
      break;
    default:
      ConvertPixels<TSrc, float>(pSourceData, xSource, pTargetData, xTarget, uPixels, bScaleRange);
      break;
  }
}

}  // namespace

// ---- CQvImage ------------------------------------------------------------------------------

CQvImage::CQvImage() = default;

CQvImage::CQvImage(const CQvImageFormat& xFormat) {
  Create(xFormat);
}

CQvImage::CQvImage(const CQvImage& xOther) {
  Create(xOther);
}

CQvImage::CQvImage(CQvImage&& xOther) noexcept {
  Swap(xOther);
}

CQvImage& CQvImage::operator=(const CQvImage& xOther) {
  if (this != &xOther) Create(xOther);
  return *this;
}

CQvImage& CQvImage::operator=(CQvImage&& xOther) noexcept {
  if (this != &xOther) {
    Release();
    Swap(xOther);
  }
  return *this;
}

CQvImage::~CQvImage() {
  FreeBytes(m_pData);
}

void CQvImage::Swap(CQvImage& xOther) noexcept {
  std::swap(m_xFormat, xOther.m_xFormat);
  std::swap(m_pData, xOther.m_pData);
  std::swap(m_uBytes, xOther.m_uBytes);
}

void CQvImage::Create(const CQvImageFormat& xFormat) {
  const uint64_t uBytes = CheckedImageBytes(xFormat);
  if (uBytes != m_uBytes) {
    uint8_t* pNew = AllocateBytes(uBytes);  // may throw; the image is unchanged then
    FreeBytes(m_pData);
    m_pData = pNew;
    m_uBytes = uBytes;
  }
  m_xFormat = xFormat;
}

void CQvImage::Create(const IImage& xSource) {
  if (&xSource == this) return;
  const CQvImageFormat xFormat(xSource);
  const uint64_t uBytes = CheckedImageBytes(xFormat);
  const void* pSourceData = xSource.GetDataPtr();
  if (uBytes != 0 && pSourceData == nullptr) QV_THROW("Invalid image data pointer");
  if (uBytes == m_uBytes) {
    // The source may view this image's own memory, hence memmove.
    if (uBytes != 0) std::memmove(m_pData, pSourceData, static_cast<size_t>(uBytes));
    m_xFormat = xFormat;
    return;
  }
  CQvImage xCopy(xFormat);
  std::memcpy(xCopy.m_pData, pSourceData, static_cast<size_t>(uBytes));
  Swap(xCopy);
}

void CQvImage::Release() {
  FreeBytes(m_pData);
  m_pData = nullptr;
  m_uBytes = 0;
  m_xFormat = CQvImageFormat();
}

bool CQvImage::IsValid() const {
  return m_pData != nullptr;
}

int CQvImage::GetBytesPerPixel() const {
  return m_xFormat.GetBytesPerPixel();
}

void CQvImage::GetSize(int& iWidth, int& iHeight) const {
  iWidth = m_xFormat.iWidth;
  iHeight = m_xFormat.iHeight;
}

void CQvImage::GetType(EPixelType::ID& ePixelType, EDataType::ID& eDataType) const {
  ePixelType = m_xFormat.ePixelType;
  eDataType = m_xFormat.eDataType;
}

void* CQvImage::GetDataPtr() {
  return m_pData;
}

const void* CQvImage::GetDataPtr() const {
  return m_pData;
}

void CQvImage::ConvertType(CQvImage& xTarget, EPixelType::ID ePixelType,
                           EDataType::ID eDataType) const {
  ConvertType(xTarget, *this, ePixelType, eDataType, true);
}

void CQvImage::ConvertType(CQvImage& xTarget, const IImage& xSource, EPixelType::ID ePixelType,
                           EDataType::ID eDataType, bool bScaleRange) {
  const CQvImageFormat xSourceFormat(xSource);
  const CQvImageFormat xTargetFormat(xSourceFormat.iWidth, xSourceFormat.iHeight, ePixelType,
                                     eDataType);
  if (xSourceFormat == xTargetFormat) {
    xTarget.Create(xSource);
    return;
  }
  const SChannelLayout xSourceLayout = LayoutOf(xSourceFormat.ePixelType, true);
  const SChannelLayout xTargetLayout = LayoutOf(ePixelType, false);
  if (!xSourceLayout.bValid || !xTargetLayout.bValid ||
      !IsConvertibleData(xSourceFormat.eDataType) || !IsConvertibleData(eDataType)) {
    CQvString sMessage("Unsupported image type conversion: ");
    sMessage << xSourceFormat.ToString() << " to " << xTargetFormat.ToString();
    QV_THROW(sMessage.ToCString());
  }

  const uint64_t uSourceBytes = CheckedImageBytes(xSourceFormat);
  const void* pSourceData = xSource.GetDataPtr();
  if (uSourceBytes != 0 && pSourceData == nullptr) QV_THROW("Invalid image data pointer");

  // Convert into a new image so that the target may be the source (or view its memory).
  CQvImage xResult(xTargetFormat);
  const uint64_t uPixels =
      static_cast<uint64_t>(xSourceFormat.iWidth) * static_cast<uint64_t>(xSourceFormat.iHeight);
  if (uPixels != 0) {
    switch (xSourceFormat.eDataType) {
      case EDataType::UByte:
        ConvertFrom<uint8_t>(pSourceData, xSourceLayout, xResult.m_pData, xTargetLayout, eDataType,
                             uPixels, bScaleRange);
        break;
      case EDataType::UShort:
        ConvertFrom<uint16_t>(pSourceData, xSourceLayout, xResult.m_pData, xTargetLayout, eDataType,
                              uPixels, bScaleRange);
        break;
      default:
        ConvertFrom<float>(pSourceData, xSourceLayout, xResult.m_pData, xTargetLayout, eDataType,
                           uPixels, bScaleRange);
        break;
    }
  }
  xTarget = std::move(xResult);
}

// ---- CQvImageMoniker -----------------------------------------------------------------------

CQvImageMoniker::CQvImageMoniker() = default;

CQvImageMoniker::CQvImageMoniker(int iWidth, int iHeight, EPixelType::ID ePixelType,
                                 EDataType::ID eDataType, void* pData) {
  Create(iWidth, iHeight, ePixelType, eDataType, pData);
}

void CQvImageMoniker::Create(int iWidth, int iHeight, EPixelType::ID ePixelType,
                             EDataType::ID eDataType, void* pData) {
  const CQvImageFormat xFormat(iWidth, iHeight, ePixelType, eDataType);
  const uint64_t uBytes = CheckedImageBytes(xFormat);
  if (uBytes != 0 && pData == nullptr) QV_THROW("Invalid image data pointer");
  m_xFormat = xFormat;
  m_pData = pData;
}

bool CQvImageMoniker::IsValid() const {
  return m_pData != nullptr && !m_xFormat.IsEmpty();
}

int CQvImageMoniker::GetBytesPerPixel() const {
  return m_xFormat.GetBytesPerPixel();
}

void CQvImageMoniker::GetSize(int& iWidth, int& iHeight) const {
  iWidth = m_xFormat.iWidth;
  iHeight = m_xFormat.iHeight;
}

void CQvImageMoniker::GetType(EPixelType::ID& ePixelType, EDataType::ID& eDataType) const {
  ePixelType = m_xFormat.ePixelType;
  eDataType = m_xFormat.eDataType;
}

}  // namespace Qv
