#include <cmath>
#include <cstdint>

#include "QvCudaCompYUV.h"
#include "QvException.h"
#include "QvLaunch.cuh"
#include "QvSampling.h"
#include "TextureBinding.h"

namespace Qv {
namespace Kernel {

// Each sum starts with the G term, adds R, then B, as fused multiply-adds: both backends give
// the same bits only with this fixed order.
QV_HD QV_FORCEINLINE float rgbToY(const float4& c) {
  return fmaf(0.114f, c.z, fmaf(0.299f, c.x, 0.587f * c.y));
}

QV_HD QV_FORCEINLINE float rgbToU(const float4& c) {
  return fmaf(0.436f, c.z, fmaf(-0.147f, c.x, -0.289f * c.y)) + 0.5f;
}

QV_HD QV_FORCEINLINE float rgbToV(const float4& c) {
  return fmaf(-0.1f, c.z, fmaf(0.615f, c.x, -0.515f * c.y)) + 0.5f;
}

namespace {

// Stacked I420 in one Lum image: rows [0, H) luma, [H, Hu) U and [Hu, 1.5 H) V. A chroma
// plane is a flat run of samples taken at every second column of every second source row,
// so with an odd width the run wraps across source rows.
template <class TIn, class TOut>
struct FConvertStacked {
  STexture2D xSource;
  SDeviceImageDesc2D xTarget;
  int iSrcWidth;
  int iSrcHeight;
  int iVStart;

  QV_HD void operator()(int x, int y) const {
    float fValue;
    if (y < iSrcHeight) {
      fValue = rgbToY(FetchPixel<TIn>(xSource, x, y));
    } else {
      const bool bU = y < iVStart;
      const int64_t n = 2 * (static_cast<int64_t>(y - (bU ? iSrcHeight : iVStart)) * iSrcWidth + x);
      // The column is the float remainder, as the product computes it; exact below 2^24.
      const int iCol =
          static_cast<int>(fmodf(static_cast<float>(n), static_cast<float>(iSrcWidth)));
      const int64_t iRow = 2 * (n / iSrcWidth);
      const float4 c =
          Fetch<TIn>(xSource, static_cast<float>(iCol) + 0.5f, static_cast<float>(iRow) + 0.5f);
      fValue = bU ? rgbToU(c) : rgbToV(c);
    }
    *PixelPtr<TOut>(xTarget, x, y) = StoreChannel<TOut>(fValue);
  }
};

// Three separate planes; plane Y governs, chroma from the top left pixel of each 2 x 2 block.
template <class TIn, class TOut>
struct FConvertPlanes {
  STexture2D xSource;
  SDeviceImageDesc2D xPlaneY;
  SDeviceImageDesc2D xPlaneU;
  SDeviceImageDesc2D xPlaneV;

  QV_HD void operator()(int x, int y) const {
    *PixelPtr<TOut>(xPlaneY, x, y) = StoreChannel<TOut>(rgbToY(FetchPixel<TIn>(xSource, x, y)));
    if (x < xPlaneY.xFormat.iWidth / 2 && y < xPlaneY.xFormat.iHeight / 2) {
      const float4 c = FetchPixel<TIn>(xSource, 2 * x, 2 * y);
      *PixelPtr<TOut>(xPlaneU, x, y) = StoreChannel<TOut>(rgbToU(c));
      *PixelPtr<TOut>(xPlaneV, x, y) = StoreChannel<TOut>(rgbToV(c));
    }
  }
};

}  // namespace
}  // namespace Kernel

namespace {

const char* const kConvertLabel = "Convert --> Kernel::Convert";

void CheckSource(const CQvDeviceImage2D& xSource) {
  if (xSource.IsOfType<RGBA_uc>(false) || xSource.IsOfType<RGBA_us>(false)) return;
  CQvString sText("Source image has wrong format '");
  sText << xSource.GetFormat().ToString() << "'. It has to be unsigned 8/16 bit rgba";
  QV_THROW(sText.ToCString());
}

template <class TOut>
void CheckPlane(const CQvDeviceImage2D& xPlane, const char* szName, int iMinWidth, int iMinHeight) {
  const CQvImageFormat& xFormat = xPlane.GetFormat();
  if (!xPlane.IsValid() || !xPlane.IsOfType<TOut>(false)) {
    CQvString sText("Plane ");
    sText << szName << " has format '" << xFormat.ToString() << "'. It has to be Lum, "
          << CQvImageFormat::DataType2String(TOut::eDataType) << " like the source";
    QV_THROW(sText.ToCString());
  }
  if (xFormat.iWidth < iMinWidth || xFormat.iHeight < iMinHeight) {
    CQvString sText("Plane ");
    sText << szName << " of " << xFormat.iWidth << "x" << xFormat.iHeight << " is smaller than "
          << iMinWidth << "x" << iMinHeight;
    QV_THROW(sText.ToCString());
  }
}

template <class TIn, class TOut>
void LaunchPlanes(CQvCudaComp& xComp, CQvDeviceImage2D& xPlaneY, CQvDeviceImage2D& xPlaneU,
                  CQvDeviceImage2D& xPlaneV, const STexture2D& xSource) {
  const CQvImageFormat& xFormatY = xPlaneY.GetFormat();
  CheckPlane<TOut>(xPlaneY, "Y", 1, 1);
  CheckPlane<TOut>(xPlaneU, "U", xFormatY.iWidth / 2, xFormatY.iHeight / 2);
  CheckPlane<TOut>(xPlaneV, "V", xFormatY.iWidth / 2, xFormatY.iHeight / 2);
  LaunchPerPixel(xComp, kConvertLabel, xFormatY.iWidth, xFormatY.iHeight,
                 Kernel::FConvertPlanes<TIn, TOut>{xSource, xPlaneY.GetDesc(), xPlaneU.GetDesc(),
                                                   xPlaneV.GetDesc()});
}

}  // namespace

CQvCudaCompYUV::CQvCudaCompYUV() = default;

CQvCudaCompYUV::~CQvCudaCompYUV() = default;

void CQvCudaCompYUV::Convert(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource) {
  try {
    CheckSource(xSource);
    // Creating the target would release the source it reads from.
    if (&xTarget == &xSource) QV_THROW("Target and source must be different images");
    const CQvImageFormat& xSrcFormat = xSource.GetFormat();
    const CQvImageFormat xTrgFormat(
        xSrcFormat.iWidth, static_cast<int32_t>(static_cast<double>(xSrcFormat.iHeight) * 1.5),
        EPixelType::Lum, xSrcFormat.eDataType);
    xTarget.Create(xTrgFormat);
    EvalKernelDim_2D_1D(xTrgFormat, 32, 8);
    CTextureBinding xSourceTex(xSource, false, false, cudaAddressModeClamp);
    const int iVStart = static_cast<int>(static_cast<float>(xSrcFormat.iHeight) * 1.25f);
    if (xSrcFormat.eDataType == EDataType::UByte)
      LaunchPerPixel(
          *this, kConvertLabel, xTrgFormat.iWidth, xTrgFormat.iHeight,
          Kernel::FConvertStacked<RGBA_uc, L_uc>{xSourceTex.Get(), xTarget.GetDesc(),
                                                 xSrcFormat.iWidth, xSrcFormat.iHeight, iVStart});
    else
      LaunchPerPixel(
          *this, kConvertLabel, xTrgFormat.iWidth, xTrgFormat.iHeight,
          Kernel::FConvertStacked<RGBA_us, L_us>{xSourceTex.Get(), xTarget.GetDesc(),
                                                 xSrcFormat.iWidth, xSrcFormat.iHeight, iVStart});
  } catch (const CQvException& e) {
    QV_RETHROW("Error on YUV Conversion", e);
  }
}

void CQvCudaCompYUV::Convert(CQvDeviceImage2D& xPlaneY, CQvDeviceImage2D& xPlaneU,
                             CQvDeviceImage2D& xPlaneV, const CQvDeviceImage2D& xSource) {
  try {
    CheckSource(xSource);
    EvalKernelDim_2D_1D(xPlaneY.GetFormat(), 32, 8);
    CTextureBinding xSourceTex(xSource, false, false, cudaAddressModeClamp);
    if (xSource.GetFormat().eDataType == EDataType::UByte)
      LaunchPlanes<RGBA_uc, L_uc>(*this, xPlaneY, xPlaneU, xPlaneV, xSourceTex.Get());
    else
      LaunchPlanes<RGBA_us, L_us>(*this, xPlaneY, xPlaneU, xPlaneV, xSourceTex.Get());
  } catch (const CQvException& e) {
    QV_RETHROW("Error on YUV Conversion", e);
  }
}

}  // namespace Qv
