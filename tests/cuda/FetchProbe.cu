#include "FetchProbe.h"
#include "QvCudaComp.h"
#include "QvDevice.h"
#include "QvDeviceMMU.h"
#include "QvException.h"
#include "QvLaunch.cuh"
#include "QvSampling.h"
#include "TextureBinding.h"

namespace QvTest {
namespace {

template <class T>
struct FFetch {
  Qv::STexture2D xTex;
  const SCoord* pCoords;
  float4* pOut;
  QV_HD void operator()(int x, int) const {
    pOut[x] = Qv::Fetch<T>(xTex, pCoords[x].x, pCoords[x].y);
  }
};

struct FIndex {
  Qv::SDeviceImageDesc2D xDesc;
  QV_HD void operator()(int x, int y) const {
    *Qv::PixelPtr<Qv::L_f>(xDesc, x, y) = static_cast<float>(x + y * 1000);
  }
};

template <class T>
void Run(Qv::CQvCudaComp& xComp, const Qv::STexture2D& xTex, const SCoord* pCoords, float4* pOut,
         int iCount) {
  Qv::LaunchPerPixel(xComp, "Probe --> Kernel::Fetch", iCount, 1, FFetch<T>{xTex, pCoords, pOut});
}

}  // namespace

std::vector<float4> ProbeFetches(const Qv::CQvDeviceImage2D& xImage, bool bLinear,
                                 bool bNormalizedCoordinates, const std::vector<SCoord>& xCoords) {
  const int iCount = static_cast<int>(xCoords.size());
  auto* pCoords =
      static_cast<SCoord*>(Qv::CQvDeviceMMU::QvCudaMalloc(xCoords.size(), sizeof(SCoord)));
  auto* pOut = static_cast<float4*>(Qv::CQvDeviceMMU::QvCudaMalloc(xCoords.size(), sizeof(float4)));
  const size_t uCoordBytes = xCoords.size() * sizeof(SCoord);
  Qv::Device::Copy2D(pCoords, uCoordBytes, xCoords.data(), uCoordBytes, uCoordBytes, 1,
                     Qv::Device::ECopyKind::HostToDevice, nullptr, false);
  Qv::CTextureBinding xBinding(xImage, bLinear, bNormalizedCoordinates);
  Qv::CQvCudaComp xComp;
  xComp.EvalKernelDim_2D_1D(
      Qv::CQvImageFormat(iCount, 1, Qv::EPixelType::Lum, Qv::EDataType::Float), 32, 8);
  const Qv::STexture2D& xTex = xBinding.Get();
  if (xImage.IsOfType<Qv::L_uc>(true))
    Run<Qv::L_uc>(xComp, xTex, pCoords, pOut, iCount);
  else if (xImage.IsOfType<Qv::L_us>(true))
    Run<Qv::L_us>(xComp, xTex, pCoords, pOut, iCount);
  else if (xImage.IsOfType<Qv::L_f>(true))
    Run<Qv::L_f>(xComp, xTex, pCoords, pOut, iCount);
  else if (xImage.IsOfType<Qv::RGBA_uc>())
    Run<Qv::RGBA_uc>(xComp, xTex, pCoords, pOut, iCount);
  else if (xImage.IsOfType<Qv::RGBA_us>())
    Run<Qv::RGBA_us>(xComp, xTex, pCoords, pOut, iCount);
  else if (xImage.IsOfType<Qv::RGBA_f>())
    Run<Qv::RGBA_f>(xComp, xTex, pCoords, pOut, iCount);
  else
    QV_THROW("no pixel class for probe image");
  std::vector<float4> xResult(xCoords.size());
  const size_t uOutBytes = xCoords.size() * sizeof(float4);
  Qv::Device::Copy2D(xResult.data(), uOutBytes, pOut, uOutBytes, uOutBytes, 1,
                     Qv::Device::ECopyKind::DeviceToHost, nullptr, false);
  Qv::CQvDeviceMMU::QvCudaFree(pCoords);
  Qv::CQvDeviceMMU::QvCudaFree(pOut);
  return xResult;
}

void FillIndexImage(Qv::CQvCudaComp& xComp, Qv::CQvDeviceImage2D& xImage, int iBlockX,
                    int iBlockY) {
  if (!xImage.IsOfType<Qv::L_f>()) QV_THROW("index image must be Lum Float");
  xComp.EvalKernelDim_2D_1D(xImage.GetFormat(), iBlockX, iBlockY);
  Qv::LaunchPerPixel(xComp, "Probe --> Kernel::Index", xImage.GetFormat().iWidth,
                     xImage.GetFormat().iHeight, FIndex{xImage.GetDesc()});
}

}  // namespace QvTest
