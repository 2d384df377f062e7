// The Gauss filter: its refusals, and every pixel against the separable filter worked out here
// in single precision with the storing rule after each pass. The filter reads whole pixels
// (no blend of the texture unit), so the results are exact on either backend.

#include "QvCudaCompConvolve.h"
#include "TestImages.h"

using namespace Qv;

namespace {

// One pass along x or y over channels iChannels of an image of c channels; with four channels
// the fourth stores full scale. Edges repeat.
std::vector<double> Pass(const std::vector<double>& xIn, int w, int h, int c, bool bAlongX,
                         const std::vector<float>& xTaps, float fNorm, float fM) {
  const int R = static_cast<int>(xTaps.size()) / 2;
  std::vector<double> xOut(xIn.size());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int i = 0; i < c; ++i) {
        float s = 0.0f;
        for (int k = -R; k <= R; ++k) {
          const int sx = bAlongX ? std::clamp(x + k, 0, w - 1) : x;
          const int sy = bAlongX ? y : std::clamp(y + k, 0, h - 1);
          s = std::fmaf(xTaps[k + R], static_cast<float>(xIn[(sy * w + sx) * c + i]) / fM, s);
        }
        const float v = i == 3 ? 1.0f : s * fNorm;
        xOut[(y * w + x) * c + i] = QvTest::StoreRule(v, fM);
      }
  return xOut;
}

TEST(Gauss, EveryPixelIsTheSeparableFilterStoredAfterEachPass) {
  // iFlat: the value of a flat image, or a random image for -1 and a centred impulse for -2.
  // clang-format off
  const struct { const char* szRow; CQvImageFormat xFormat; double dSigma; int iRadius, iFlat;
  } aCases[] = {
      {"flat", CQvImageFormat(11, 9, EPixelType::RGBA, EDataType::UByte), 2.0, 5, 173},
      {"flat 16", CQvImageFormat(7, 5, EPixelType::Lum, EDataType::UShort), 1.5, 11, 40000},
      {"impulse", CQvImageFormat(5, 5, EPixelType::Lum, EDataType::UShort), 1.0, 1, -2},
      {"bayer impulse", CQvImageFormat(6, 6, EPixelType::BayerRG, EDataType::UByte), 1.0, 1, -2},
      {"random", CQvImageFormat(13, 7, EPixelType::RGBA, EDataType::UByte), 1.2, 3, -1},
      {"random 16", CQvImageFormat(9, 6, EPixelType::RGBA, EDataType::UShort), 4.0, 11, -1},
      {"one row", CQvImageFormat(17, 1, EPixelType::Lum, EDataType::UByte), 0.8, 2, -1},
      {"one column", CQvImageFormat(1, 17, EPixelType::Lum, EDataType::UShort), 3.0, 4, -1},
  };
  // clang-format on
  for (const auto& c : aCases) {
    const CQvImageFormat& f = c.xFormat;
    const float fM = f.eDataType == EDataType::UByte ? 255.0f : 65535.0f;
    const int iChannels = f.GetComponentCount(), w = f.iWidth, h = f.iHeight;
    std::vector<double> xIn(static_cast<size_t>(w) * h * iChannels, c.iFlat);
    if (c.iFlat == -1) xIn = QvTest::Samples(QvTest::RandomImage(f, 7));
    if (c.iFlat == -2) {
      xIn.assign(xIn.size(), 0.0);
      xIn[(h / 2 * w + w / 2) * iChannels] = fM;
    }
    // The taps e^(-(i/sigma)^2 / 2) and the reciprocal of their sum.
    std::vector<float> xTaps;
    float fSum = 0.0f;
    for (int i = -c.iRadius; i <= c.iRadius; ++i) {
      xTaps.push_back(static_cast<float>(std::exp(-0.5 * (i / c.dSigma) * (i / c.dSigma))));
      fSum += xTaps.back();
    }
    const std::vector<double> xFirst = Pass(xIn, w, h, iChannels, true, xTaps, 1.0f / fSum, fM);
    const std::vector<double> xExpected =
        Pass(xFirst, w, h, iChannels, false, xTaps, 1.0f / fSum, fM);

    CQvDeviceImage2D xSource = QvTest::Upload(w, h, f.ePixelType, f.eDataType, xIn), xTarget;
    CQvCudaCompConvolve().Apply_Gauss(xTarget, xSource, c.dSigma, c.iRadius, 1);
    ASSERT_EQ(f, xTarget.GetFormat()) << c.szRow;
    const std::vector<double> xOut = QvTest::Download(xTarget);
    int iWrong = 0;
    for (size_t i = 0; i < xOut.size(); ++i) iWrong += xOut[i] != xExpected[i];
    EXPECT_EQ(0, iWrong) << c.szRow << ", e.g. centre " << xOut[(h / 2 * w + w / 2) * iChannels]
                         << " for " << xExpected[(h / 2 * w + w / 2) * iChannels];
  }
}

TEST(Gauss, DivisorShrinksTheResultAsResizeWould) {
  CQvDeviceImage2D xSource(CQvImageFormat(16, 10, EPixelType::Lum, EDataType::UByte)), xTarget;
  xSource.SetZero();
  CQvCudaCompConvolve().Apply_Gauss(xTarget, xSource, 1.5, 3, 3);
  EXPECT_EQ(CQvImageFormat(5, 3, EPixelType::Lum, EDataType::UByte), xTarget.GetFormat());
}

}  // namespace
