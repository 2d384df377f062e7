#include "DemosaicKernel.h"
#include "QvCudaCompDemosaic.h"
#include "QvException.h"
#include "QvLaunch.cuh"
#include "TextureBinding.h"

namespace Qv {

CQvCudaCompDemosaic::CQvCudaCompDemosaic() = default;

CQvCudaCompDemosaic::~CQvCudaCompDemosaic() = default;

void CQvCudaCompDemosaic::Debayer(CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource,
                                  float fRedGain, float fGreenGain, float fBlueGain) {
  try {
    const CQvImageFormat& xSrcFormat = xSource.GetFormat();
    if (!IsBayerPixelType(xSrcFormat.ePixelType))
      QV_THROW("The given source image is not of bayer pixel type");
    if (xSrcFormat.eDataType != EDataType::UByte && xSrcFormat.eDataType != EDataType::UShort)
      QV_THROW("The given source image is not of UByte or UShort data type");
    if (&xTarget == &xSource) QV_THROW("Target and source must be different images");

    CQvImageFormat xTrgFormat = xSrcFormat;
    xTrgFormat.ePixelType = EPixelType::RGBA;
    xTarget.Create(xTrgFormat);
    EvalKernelDim_2D_1D(xTrgFormat, 32, 8);
    CTextureBinding xBinding(xSource, false, false, cudaAddressModeClamp);
    const char* szName = "Debayer --> Kernel::DemosaicImage";
    if (xSrcFormat.eDataType == EDataType::UByte) {
      LaunchPerPixel(
          *this, szName, xTrgFormat.iWidth, xTrgFormat.iHeight,
          Kernel::FDemosaic<RGBA_uc, L_uc>{xTarget.GetDesc(), xBinding.Get(), xSrcFormat.ePixelType,
                                           fRedGain, fGreenGain, fBlueGain});
    } else {
      LaunchPerPixel(
          *this, szName, xTrgFormat.iWidth, xTrgFormat.iHeight,
          Kernel::FDemosaic<RGBA_us, L_us>{xTarget.GetDesc(), xBinding.Get(), xSrcFormat.ePixelType,
                                           fRedGain, fGreenGain, fBlueGain});
    }
  } catch (const CQvException& e) {
    QV_RETHROW("Error demosaicing", e);
  }
}

}  // namespace Qv
