#include "QvCudaCompYUV.h"
#include "QvException.h"
#include "QvLaunch.cuh"
#include "QvSampling.h"
#include "TextureBinding.h"
#include "YuvKernels.h"

namespace Qv {

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

// The functor per pixel on the CUDA backend, and rows of it through fnHostRows on the host.
template <class F, class FHostRows>
void LaunchRows(CQvCudaComp& xComp, const CQvImageFormat& xFormat, const F& fnPixel,
                const FHostRows& fnHostRows) {
  if (Device::IsCuda()) {
    LaunchPerPixel(xComp, kConvertLabel, xFormat.iWidth, xFormat.iHeight, fnPixel);
    return;
  }
  LaunchHostRows(xComp, kConvertLabel, xFormat.iHeight, xFormat.iWidth,
                 [&](int y0, int y1) { fnHostRows(fnPixel, y0, y1); });
}

template <class TIn, class TOut>
void LaunchPlanes(CQvCudaComp& xComp, CQvDeviceImage2D& xPlaneY, CQvDeviceImage2D& xPlaneU,
                  CQvDeviceImage2D& xPlaneV, const STexture2D& xSource) {
  const CQvImageFormat& xFormatY = xPlaneY.GetFormat();
  CheckPlane<TOut>(xPlaneY, "Y", 1, 1);
  CheckPlane<TOut>(xPlaneU, "U", xFormatY.iWidth / 2, xFormatY.iHeight / 2);
  CheckPlane<TOut>(xPlaneV, "V", xFormatY.iWidth / 2, xFormatY.iHeight / 2);
  LaunchRows(xComp, xFormatY,
             Kernel::FConvertPlanes<TIn, TOut>{xSource, xPlaneY.GetDesc(), xPlaneU.GetDesc(),
                                               xPlaneV.GetDesc()},
             [](const auto& f, int y0, int y1) { Kernel::HostConvertPlanesRows(f, y0, y1); });
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
    const auto fnHostRows = [](const auto& f, int y0, int y1) {
      Kernel::HostConvertStackedRows(f, y0, y1);
    };
    if (xSrcFormat.eDataType == EDataType::UByte)
      LaunchRows(
          *this, xTrgFormat,
          Kernel::FConvertStacked<RGBA_uc, L_uc>{xSourceTex.Get(), xTarget.GetDesc(),
                                                 xSrcFormat.iWidth, xSrcFormat.iHeight, iVStart},
          fnHostRows);
    else
      LaunchRows(
          *this, xTrgFormat,
          Kernel::FConvertStacked<RGBA_us, L_us>{xSourceTex.Get(), xTarget.GetDesc(),
                                                 xSrcFormat.iWidth, xSrcFormat.iHeight, iVStart},
          fnHostRows);
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
