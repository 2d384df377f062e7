#include "AutoAdapt.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "QvException.h"

using Qv::EDataType;
using Qv::EPixelType;

namespace {

// Truncation towards zero to 32 bits; values beyond the range saturate and NaN gives 0, where
// a plain cast would be undefined.
int64_t TruncToInt32(double dValue) {
  if (std::isnan(dValue)) return 0;
  if (dValue >= 2147483647.0) return INT32_MAX;
  if (dValue <= -2147483648.0) return INT32_MIN;
  return static_cast<int32_t>(dValue);
}

// What a measure needs of the image, asked once instead of once a patch.
struct SRawView {
  int iWidth;
  int iHeight;
  bool bShort;
  const void* pData;
  size_t uPitch;
};

SRawView ViewOf(const Qv::IImage* image, size_t uRowPitch) {
  EPixelType::ID ePixel = EPixelType::None;
  EDataType::ID eData = EDataType::Void;
  image->GetType(ePixel, eData);
  if (eData != EDataType::UByte && eData != EDataType::UShort) QV_THROW("Invalid data type");
  SRawView xView{0, 0, eData == EDataType::UShort, image->GetDataPtr(), uRowPitch};
  image->GetSize(xView.iWidth, xView.iHeight);
  xView.uPitch = std::max(uRowPitch, static_cast<size_t>(std::max(xView.iWidth, 0)));
  if (xView.iWidth < 1 || xView.iHeight < 1 || !xView.pData)
    QV_THROW("Image holds no pixels to measure");
  return xView;
}

inline float Sample(const SRawView& xView, int x, int y) {
  const size_t uIndex = static_cast<size_t>(y) * xView.uPitch + x;
  if (xView.bShort)
    return static_cast<float>(static_cast<const uint16_t*>(xView.pData)[uIndex]) / 65535.0f;
  return static_cast<float>(static_cast<const uint8_t*>(xView.pData)[uIndex]) / 255.0f;
}

// The block is moved back into the image where it would reach past its right or bottom edge;
// an image one pixel wide or high reads its one column or row twice.
float Patch(const SRawView& xView, int64_t iX, int64_t iY) {
  const int x0 = static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(iX, xView.iWidth - 2)));
  const int y0 = static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(iY, xView.iHeight - 2)));
  const int x1 = std::min(x0 + 1, xView.iWidth - 1);
  const int y1 = std::min(y0 + 1, xView.iHeight - 1);
  float fSum = 0.0f;
  fSum += Sample(xView, x0, y0);
  fSum += Sample(xView, x0, y1);
  fSum += Sample(xView, x1, y0);
  fSum += Sample(xView, x1, y1);
  return fSum * 0.25f;
}

}  // namespace

CAutoAdapt::CAutoAdapt(float exposure, float exposureMin, float exposureMax, float gain,
                       float gainMin, float gainMax, const SAutoAdaptSettings& settings)
    : fExposure(exposure),
      fExposureMax(exposureMax),
      fExposureMin(exposureMin),
      fGain(gain),
      fGainMax(gainMax),
      fGainMin(gainMin),
      xSettings(settings) {}

float CAutoAdapt::_GetAverageBrightnessBayerPatch(Qv::tvec2<int> position,
                                                  const Qv::IImage* image) {
  return Patch(ViewOf(image, uRowPitch), position.x, position.y);
}

void CAutoAdapt::_GetAverageBrightnessPercent(const Qv::IImage* image, SAutoAdaptSettings& settings,
                                              float& average, float& overexposed) {
  EPixelType::ID ePixel = EPixelType::None;
  EDataType::ID eData = EDataType::Void;
  image->GetType(ePixel, eData);
  if (ePixel != EPixelType::Lum && ePixel != EPixelType::BayerRG && ePixel != EPixelType::BayerBG &&
      ePixel != EPixelType::BayerGR && ePixel != EPixelType::BayerGB)
    QV_THROW("Invalid pixel type");
  const int iSamples = settings.iSamples;
  if (iSamples < 1) QV_THROW("At least one sample per axis is needed");
  const SRawView xView = ViewOf(image, uRowPitch);

  const float fWidth = static_cast<float>(xView.iWidth);
  const float fHeight = static_cast<float>(xView.iHeight);
  const float fSamples = static_cast<float>(iSamples);
  const float fX0 = fWidth * settings.fRoiX1;
  const float fY0 = fHeight * settings.fRoiY1;
  const float fStepX = (fWidth * settings.fRoiX2 - fX0) / fSamples;
  const float fStepY = (fHeight * settings.fRoiY2 - fY0) / fSamples;
  // The grid advances in whole pixels.
  const int64_t iX0 = TruncToInt32(fX0), iY0 = TruncToInt32(fY0);
  const int64_t iStepX = TruncToInt32(fStepX), iStepY = TruncToInt32(fStepY);

  // The patches are read row by row, which keeps the frame's cache lines in order, and summed
  // column by column, the order that fixes the float result.
  const size_t uCount = static_cast<size_t>(iSamples) * static_cast<size_t>(iSamples);
  std::vector<float> xPatches(uCount);
  for (int j = 0; j < iSamples; ++j)
    for (int i = 0; i < iSamples; ++i)
      xPatches[static_cast<size_t>(i) * iSamples + j] =
          Patch(xView, iX0 + i * iStepX, iY0 + j * iStepY);
  float fSum = 0.0f;
  int iOver = 0;
  for (float fPatch : xPatches) {
    fSum += fPatch;
    if (static_cast<double>(fPatch) >= 0.99) ++iOver;
  }
  const float fCount = static_cast<float>(iSamples * iSamples);
  overexposed = static_cast<float>(iOver) / fCount;
  average = fSum / fCount;
}

float CAutoAdapt::GetAverageBrightness(const Qv::IImage* image) {
  float fAverage = 0.0f, fOver = 0.0f;
  _GetAverageBrightnessPercent(image, xSettings, fAverage, fOver);
  const float fBrightness = std::fmaf(xSettings.fPenalty, fOver, 1.0f) * fAverage;
  // Never 0: the control law divides by it.
  return static_cast<double>(fBrightness) < 0.0001 ? 0.0001f : fBrightness;
}

bool CAutoAdapt::CalculateExposureGain(float& gain, float& exposure, float brightness) {
  if (brightness >= xSettings.fTarget - xSettings.fTolerance &&
      brightness <= xSettings.fTarget + xSettings.fTolerance)
    return false;
  const float fRatio = xSettings.fTarget / brightness;
  // The wanted product of exposure and gain.
  const double dProduct =
      static_cast<double>(fExposure * fGain) *
      std::fma(static_cast<double>(fRatio) - 1.0, static_cast<double>(xSettings.fAdaption), 1.0);
  if (xSettings.bAutoExp && !xSettings.bAutoGain) {
    exposure = static_cast<float>(dProduct / static_cast<double>(gain));
  } else if (!xSettings.bAutoExp && xSettings.bAutoGain) {
    gain = static_cast<float>(TruncToInt32(dProduct / static_cast<double>(fExposure)) + 1);
  } else if (xSettings.bAutoExp && xSettings.bAutoGain) {
    // Exposure first: gain grows by whole steps only once the longest exposure is not enough.
    gain = static_cast<float>(TruncToInt32(dProduct / static_cast<double>(fExposureMax)) + 1);
    exposure = static_cast<float>(dProduct / static_cast<double>(gain));
  }
  return true;
}

void CAutoAdapt::ClipValues(float& gain, float& exposure) {
  if (gain > fGainMax) gain = fGainMax;
  if (fGainMin > gain) gain = fGainMin;
  if (exposure > fExposureMax) exposure = fExposureMax;
  if (fExposureMin > exposure) exposure = fExposureMin;
}

void CAutoAdapt::DoAutoExposure(float& gain, float& exposure, const Qv::IImage* image) {
  const float fBrightness = GetAverageBrightness(image);
  gain = fGain;
  exposure = fExposure;
  if (CalculateExposureGain(gain, exposure, fBrightness)) ClipValues(gain, exposure);
}
