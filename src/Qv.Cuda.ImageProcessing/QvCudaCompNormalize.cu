#include <climits>
#include <cstdint>

#include "NormalizeKernels.h"
#include "QvCudaCompNormalize.h"
#include "QvException.h"
#include "QvLaunch.cuh"
#include "QvSampling.h"
#include "TextureBinding.h"

namespace Qv {
namespace Kernel {
namespace {

// 10 or 12 significant bits in a 16-bit word, or 12 bits packed two pixels in three bytes,
// to full-range 16 bit.
struct FConvertCustomDataType {
  STexture2D xRaw;
  SDeviceImageDesc2D xTarget;
  int eDataType;
  const unsigned char* pPacked;

  QV_HD void operator()(int x, int y) const {
    float fValue;
    if (eDataType == EDataType::Custom_10in16_LSB || eDataType == EDataType::Custom_12in16_LSB) {
      const float r = FetchPixel<L_us>(xRaw, x, y).x;
      fValue = (r * 65535.0f) / (eDataType == EDataType::Custom_10in16_LSB ? 1023.0f : 4095.0f);
    } else if (eDataType == EDataType::Custom_12Packed) {
      const int64_t n = static_cast<int64_t>(y) * xTarget.xFormat.iWidth + x;
      const int64_t iBit = 12 * n;
      const int64_t k = iBit / 8;
      const unsigned uFirst = pPacked[k], uSecond = pPacked[k + 1];
      const unsigned uValue =
          iBit % 8 == 0 ? (uFirst << 4) | (uSecond >> 4) : (uFirst & 15u) | (uSecond << 4);
      fValue = static_cast<float>(static_cast<unsigned short>(uValue)) / 4095.0f;
    } else {
      return;
    }
    *PixelPtr<L_us>(xTarget, x, y) = StoreChannel<L_us>(fValue);
  }
};

}  // namespace
}  // namespace Kernel

namespace {

const char* const kNormalizeLabel = "Normalize --> Kernel::Normalize";
const char* const kCustomLabel = "ConvertCustomDataType --> Kernel::ConvertCustomDataType";

// The read class of an image, or -1 for one that Normalize cannot read.
int ReadClassOf(const CQvImageFormat& xFormat) {
  const bool bLum = xFormat.ePixelType == EPixelType::Lum;
  if (!bLum && xFormat.ePixelType != EPixelType::RGBA) return -1;
  switch (xFormat.eDataType) {
    case EDataType::UByte:
      return bLum ? Kernel::kRead_L_uc : Kernel::kRead_RGBA_uc;
    case EDataType::UShort:
      return bLum ? Kernel::kRead_L_us : Kernel::kRead_RGBA_us;
    case EDataType::Float:
      return bLum ? Kernel::kRead_L_f : Kernel::kRead_RGBA_f;
    default:
      return -1;
  }
}

void CheckTargetDataType(EDataType::ID eDataType) {
  if (eDataType != EDataType::UByte && eDataType != EDataType::UShort)
    QV_THROW("The given target data type must be UByte or UShort");
}

void CheckNotAliased(const CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xInput) {
  // Creating the target would release an input it reads from.
  if (&xTarget == &xInput) QV_THROW("Target and source must be different images");
}

template <class TOut>
void LaunchNormalize(CQvCudaComp& xComp, const CQvDeviceImage2D& xTarget, const STexture2D& xRaw,
                     const STexture2D& xGray, int iRawClass, int iGrayClass, bool bUseGray) {
  const CQvImageFormat& xFormat = xTarget.GetFormat();
  const Kernel::FNormalize<TOut> fnPixel{xRaw,      xGray,      xTarget.GetDesc(),
                                         iRawClass, iGrayClass, bUseGray};
  if (Device::IsCuda()) {
    LaunchPerPixel(xComp, kNormalizeLabel, xFormat.iWidth, xFormat.iHeight, fnPixel);
    return;
  }
  LaunchHostRows(xComp, kNormalizeLabel, xFormat.iHeight, xFormat.iWidth,
                 [&](int y0, int y1) { Kernel::HostNormalizeRows(fnPixel, y0, y1); });
}

// Steps shared by both overloads once the target exists and the inputs are bound; the pixel
// type is checked here, so that a refused image leaves the target created and unwritten.
void RunNormalize(CQvCudaComp& xComp, const CQvDeviceImage2D& xTarget,
                  const CQvDeviceImage2D& xSource, const CTextureBinding& xRaw,
                  const CTextureBinding* pxGray, const CQvDeviceImage2D* pxGrayImage,
                  EDataType::ID eDataType) {
  const CQvImageFormat& xSrcFormat = xSource.GetFormat();
  const bool bLum = xSrcFormat.ePixelType == EPixelType::Lum;
  if (!bLum && xSrcFormat.ePixelType != EPixelType::RGBA) QV_THROW("Unsupported Pixel type");
  const int iRawClass = ReadClassOf(xSrcFormat);
  if (iRawClass < 0) {
    CQvString sText("Unsupported source data type '");
    sText << CQvImageFormat::DataType2String(xSrcFormat.eDataType) << "'";
    QV_THROW(sText.ToCString());
  }
  int iGrayClass = 0;
  if (pxGrayImage) {
    iGrayClass = ReadClassOf(pxGrayImage->GetFormat());
    if (iGrayClass < 0) {
      CQvString sText("Unsupported gray image format '");
      sText << pxGrayImage->GetFormat().ToString() << "'";
      QV_THROW(sText.ToCString());
    }
  }
  const STexture2D xGray = pxGray ? pxGray->Get() : STexture2D();
  const bool bUseGray = pxGray != nullptr;
  if (eDataType == EDataType::UByte) {
    if (bLum)
      LaunchNormalize<L_uc>(xComp, xTarget, xRaw.Get(), xGray, iRawClass, iGrayClass, bUseGray);
    else
      LaunchNormalize<RGBA_uc>(xComp, xTarget, xRaw.Get(), xGray, iRawClass, iGrayClass, bUseGray);
  } else {
    if (bLum)
      LaunchNormalize<L_us>(xComp, xTarget, xRaw.Get(), xGray, iRawClass, iGrayClass, bUseGray);
    else
      LaunchNormalize<RGBA_us>(xComp, xTarget, xRaw.Get(), xGray, iRawClass, iGrayClass, bUseGray);
  }
}

CQvImageFormat WithDataType(const CQvImageFormat& xFormat, EDataType::ID eDataType) {
  CQvImageFormat x = xFormat;
  x.eDataType = eDataType;
  return x;
}

}  // namespace

CQvCudaCompNormalize::CQvCudaCompNormalize() = default;

CQvCudaCompNormalize::~CQvCudaCompNormalize() = default;

uint64_t CQvCudaCompNormalize::GetPackedByteCount(const CQvImageFormat& xFormat) {
  if (xFormat.iWidth <= 0 || xFormat.iHeight <= 0) return 0;
  const uint64_t n = static_cast<uint64_t>(xFormat.iWidth) * static_cast<uint64_t>(xFormat.iHeight);
  return (3 * n + 1) / 2;
}

void CQvCudaCompNormalize::Normalize(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                                     const CQvDeviceImage2D& xGray, EDataType::ID eDataType) {
  try {
    CheckTargetDataType(eDataType);
    const CQvImageFormat& xSrcFormat = xSource.GetFormat();
    const CQvImageFormat& xGrayFormat = xGray.GetFormat();
    if (static_cast<int64_t>(xSrcFormat.iWidth) * xSrcFormat.iHeight !=
        static_cast<int64_t>(xGrayFormat.iWidth) * xGrayFormat.iHeight) {
      CQvString sText("Source and gray image are of different sizes. Source image is '");
      sText << xSrcFormat.ToString() << "'. Gray image is '" << xGrayFormat.ToString() << "'";
      QV_THROW(sText.ToCString());
    }
    CheckNotAliased(xTarget, xSource);
    CheckNotAliased(xTarget, xGray);
    const CQvImageFormat xTrgFormat = WithDataType(xSrcFormat, eDataType);
    xTarget.Create(xTrgFormat);
    EvalKernelDim_2D_1D(xSrcFormat, 32, 8);
    CTextureBinding xRaw(xSource, false, false, cudaAddressModeClamp);
    CTextureBinding xGrayTex(xGray, false, false, cudaAddressModeClamp);
    RunNormalize(*this, xTarget, xSource, xRaw, &xGrayTex, &xGray, eDataType);
  } catch (const CQvException& e) {
    QV_RETHROW("Error normalizing raw image with gray image", e);
  }
}

void CQvCudaCompNormalize::Normalize(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                                     EDataType::ID eDataType) {
  try {
    CheckTargetDataType(eDataType);
    CheckNotAliased(xTarget, xSource);
    const CQvImageFormat xTrgFormat = WithDataType(xSource.GetFormat(), eDataType);
    xTarget.Create(xTrgFormat);
    EvalKernelDim_2D_1D(xSource.GetFormat(), 32, 8);
    CTextureBinding xRaw(xSource, false, false, cudaAddressModeClamp);
    RunNormalize(*this, xTarget, xSource, xRaw, nullptr, nullptr, eDataType);
  } catch (const CQvException& e) {
    QV_RETHROW("Error normalizing raw image", e);
  }
}

void CQvCudaCompNormalize::ConvertCustomDataType(CQvDeviceImage2D& xTarget, const IImage& xSource) {
  try {
    const CQvImageFormat xSrcFormat(xSource);
    const EDataType::ID eData = xSrcFormat.eDataType;
    if (eData != EDataType::Custom_10in16_LSB && eData != EDataType::Custom_12in16_LSB &&
        eData != EDataType::Custom_12Packed)
      QV_THROW("The given image is not of a known custom data type");
    // The kernel writes one 16-bit value a pixel.
    if (xSrcFormat.GetComponentCount() != 1) {
      CQvString sText("Custom data type images must have one channel, not '");
      sText << CQvImageFormat::PixelType2String(xSrcFormat.ePixelType) << "'";
      QV_THROW(sText.ToCString());
    }
    if (!xSource.GetDataPtr()) QV_THROW("No source data for device image");
    const CQvImageFormat xTrgFormat = WithDataType(xSrcFormat, EDataType::UShort);
    xTarget.Create(xTrgFormat);
    EvalKernelDim_2D_1D(xSrcFormat, 32, 8);
    if (eData == EDataType::Custom_12Packed) {
      // Exactly the bytes the packed pixels own: the kernel reads no further.
      const uint64_t uBytes = GetPackedByteCount(xSrcFormat);
      if (uBytes > static_cast<uint64_t>(INT_MAX)) QV_THROW("Packed image is too large");
      CQvImageMoniker xBytes(static_cast<int>(uBytes), 1, EPixelType::Lum, EDataType::UByte,
                             const_cast<void*>(xSource.GetDataPtr()));
      CQvDeviceImage1D xPacked;
      xPacked.Create(xBytes);
      LaunchPerPixel(*this, kCustomLabel, xTrgFormat.iWidth, xTrgFormat.iHeight,
                     Kernel::FConvertCustomDataType{
                         STexture2D(), xTarget.GetDesc(), eData,
                         static_cast<const unsigned char*>(xPacked.GetDevicePointer())});
    } else {
      CQvDeviceImage2D xWords;
      xWords.Create(xSource);
      CTextureBinding xRaw(xWords, false, false, cudaAddressModeClamp);
      LaunchPerPixel(*this, kCustomLabel, xTrgFormat.iWidth, xTrgFormat.iHeight,
                     Kernel::FConvertCustomDataType{xRaw.Get(), xTarget.GetDesc(), eData, nullptr});
    }
  } catch (const CQvException& e) {
    QV_RETHROW("Error converting custom data type", e);
  }
}

}  // namespace Qv
