// The exposure control's law on hand-made frames.
#include <gtest/gtest.h>

#include <cstring>
#include <utility>
#include <vector>

#include "AutoAdapt.h"
#include "QvImage.h"

using namespace Qv;

namespace {

CQvImage Frame(int w, int h, EPixelType::ID ePixel, uint8_t uFill,
               std::vector<std::pair<int, uint8_t>> xPixels = {}) {
  CQvImage x(CQvImageFormat(w, h, ePixel, EDataType::UByte));
  std::memset(x.GetDataPtr(), uFill, x.GetImageBytes());
  for (const auto& p : xPixels) static_cast<uint8_t*>(x.GetDataPtr())[p.first] = p.second;
  return x;
}

TEST(AutoAdaptLaw, BrightnessOfHandMadeFrames) {
  struct {
    const char* szName;
    CQvImage xImage;
    int iSamples;
    float fRoi1, fPenalty, fWant;
  } axRows[] = {
      {"black frame", Frame(64, 48, EPixelType::BayerGR, 0), 50, 0, 1, 0.0001f},
      {"253: all overexposed", Frame(64, 48, EPixelType::Lum, 253), 50, 0, 1, 2 * 253 / 255.0f},
      {"252: none overexposed", Frame(64, 48, EPixelType::Lum, 252), 50, 0, 1, 252 / 255.0f},
      // From the last column and row the block moves back inside: all four read once.
      {"edge block", Frame(5, 3, EPixelType::BayerRG, 0, {{8, 51}, {9, 102}, {13, 153}, {14, 204}}),
       1, 1, 0, (51 + 102 + 153 + 204) / 1020.0f},
      // 4 pixels for 5 samples: the step is 0, every sample is the white corner block.
      {"step 0", Frame(4, 4, EPixelType::Lum, 0, {{0, 255}, {1, 255}, {4, 255}, {5, 255}}), 5, 0, 1,
       2.0f},
  };
  for (auto& r : axRows) {
    SAutoAdaptSettings xSettings;
    xSettings.iSamples = r.iSamples;
    xSettings.fRoiX1 = xSettings.fRoiY1 = r.fRoi1;
    xSettings.fPenalty = r.fPenalty;
    CAutoAdapt xAdapt(0.01f, 0.001f, 0.02f, 1, 1, 16, xSettings);
    // 2500 equal samples summed in single precision drift by up to about 2e-5.
    EXPECT_NEAR(r.fWant, xAdapt.GetAverageBrightness(&r.xImage), 5e-5) << r.szName;
  }
}

TEST(AutoAdaptLaw, ExposureAndGainFollowTheFlags) {
  const double dBlack = 2000.5;  // 1 + (0.4 / 0.0001 - 1) * 0.5
  struct {
    const char* szName;
    float fBrightness;
    bool bExp, bGain;
    float fExposure, fGain, fExposureMax, fWantGain, fWantExposure;
  } axRows[] = {
      {"band edge", 0.4f + 0.1f, true, true, 0.01f, 2, 0.02f, 2, 0.01f},
      {"worked example", 0.1f, true, true, 0.01f, 1, 0.01f, 3, 0.025f / 3},
      {"no flag", 0.1f, false, false, 0.004f, 3, 0.01f, 3, 0.004f},
      {"exposure only", 0.1f, true, false, 0.004f, 3, 0.1f, 3, 0.004f * 2.5f},
      {"gain only", 0.1f, false, true, 0.004f, 3, 0.01f, 8, 0.004f},
      {"black: product 2000.5 times", 0.0001f, true, false, 0.01f, 1, 100, 1,
       static_cast<float>(static_cast<double>(0.01f) * dBlack)},
      {"black: exposure clipped", 0.0001f, true, false, 0.01f, 1, 0.02f, 1, 0.02f},
      {"black: gain clipped", 0.0001f, false, true, 0.01f, 1, 0.02f, 16, 0.01f},
  };
  for (const auto& r : axRows) {
    SAutoAdaptSettings xSettings;
    xSettings.bAutoExp = r.bExp;
    xSettings.bAutoGain = r.bGain;
    CAutoAdapt xAdapt(r.fExposure, 0.0001f, r.fExposureMax, r.fGain, 1, 16, xSettings);
    float fGain = r.fGain, fExposure = r.fExposure;
    xAdapt.CalculateExposureGain(fGain, fExposure, r.fBrightness);
    xAdapt.ClipValues(fGain, fExposure);
    EXPECT_EQ(r.fWantGain, fGain) << r.szName;
    EXPECT_FLOAT_EQ(r.fWantExposure, fExposure) << r.szName;
  }
}

}  // namespace
