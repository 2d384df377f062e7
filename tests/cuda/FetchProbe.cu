#include "FetchProbe.h"
#include "QvDevice.h"
#include "QvDeviceMMU.h"
#include "QvLaunch.cuh"
#include "QvSampling.h"
#include "TextureBinding.h"

namespace QvTest {
using namespace Qv;
namespace {

template <class T>
struct FFetch {
  STexture2D xTex;
  float x, y;
  float4* pOut;
  QV_HD void operator()(int, int) const { *pOut = Fetch<T>(xTex, x, y); }
};

}  // namespace

float4 ProbeFetch(const CQvDeviceImage2D& xImage, bool bLinear, bool bNormalized, float x,
                  float y) {
  auto* pOut = static_cast<float4*>(CQvDeviceMMU::QvCudaMalloc(1, sizeof(float4)));
  const CTextureBinding xBinding(xImage, bLinear, bNormalized);
  CQvCudaComp xComp;
  xComp.EvalKernelDim_2D_1D(CQvImageFormat(1, 1, EPixelType::Lum, EDataType::Float), 32, 8);
  const char* szName = "Probe --> Kernel::Fetch";
  const STexture2D& t = xBinding.Get();
  if (xImage.IsOfType<L_uc>(true))
    LaunchPerPixel(xComp, szName, 1, 1, FFetch<L_uc>{t, x, y, pOut});
  else if (xImage.IsOfType<L_us>(true))
    LaunchPerPixel(xComp, szName, 1, 1, FFetch<L_us>{t, x, y, pOut});
  else if (xImage.IsOfType<L_f>())
    LaunchPerPixel(xComp, szName, 1, 1, FFetch<L_f>{t, x, y, pOut});
  else if (xImage.IsOfType<RGBA_uc>())
    LaunchPerPixel(xComp, szName, 1, 1, FFetch<RGBA_uc>{t, x, y, pOut});
  else if (xImage.IsOfType<RGBA_us>())
    LaunchPerPixel(xComp, szName, 1, 1, FFetch<RGBA_us>{t, x, y, pOut});
  else
    LaunchPerPixel(xComp, szName, 1, 1, FFetch<RGBA_f>{t, x, y, pOut});
  float4 xResult;
  Device::Copy2D(&xResult, sizeof(xResult), pOut, sizeof(xResult), sizeof(xResult), 1,
                 Device::ECopyKind::DeviceToHost, nullptr, false);
  CQvDeviceMMU::QvCudaFree(pOut);
  return xResult;
}

}  // namespace QvTest
