// The convolution class: Gauss against the separable filter worked out here, exact (it reads
// whole pixels); Shrink and Resize on float images whose sums stay exact, and every class.
#include "QvCudaCompConvolve.h"
#include "QvDevice.h"
#include "TestImages.h"

using namespace Qv;
using V = std::vector<double>;

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
    V xIn(static_cast<size_t>(w) * h * iChannels, c.iFlat == -2 ? 0 : c.iFlat);
    if (c.iFlat == -1) xIn = QvTest::Samples(QvTest::RandomImage(f, 7));
    if (c.iFlat == -2) xIn[(h / 2 * w + w / 2) * iChannels] = fM;
    // The taps e^(-(i/sigma)^2 / 2) and the reciprocal of their sum.
    std::vector<float> xTaps;
    float fSum = 0.0f;
    for (int i = -c.iRadius; i <= c.iRadius; ++i) {
      xTaps.push_back(static_cast<float>(std::exp(-0.5 * (i / c.dSigma) * (i / c.dSigma))));
      fSum += xTaps.back();
    }
    const V xExpected = Pass(Pass(xIn, w, h, iChannels, true, xTaps, 1.0f / fSum, fM), w, h,
                             iChannels, false, xTaps, 1.0f / fSum, fM);

    CQvDeviceImage2D xSource = QvTest::Upload(w, h, f.ePixelType, f.eDataType, xIn), xTarget;
    CQvCudaCompConvolve().Apply_Gauss(xTarget, xSource, c.dSigma, c.iRadius, 1);
    EXPECT_EQ(f, xTarget.GetFormat()) << c.szRow;
    EXPECT_EQ(QvTest::Download(xTarget), xExpected) << c.szRow;
  }
}

TEST(Resample, TargetPixelsSampleWhereTheScaleFactorPutsThem) {
  const EDataType::ID F = EDataType::Float, US = EDataType::UShort, UB = EDataType::UByte;
  const V xRamp = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};  // x + 4 y, or x + 5 y
  // Shrink to a x b with one sample ('s') or the box ('b'), or Resize with border a and
  // divisor b ('r'); values in sixteenths.
  // clang-format off
  const struct { const char* szRow; int w, h; V xSource; char cOp; int a, b, iWidth, iHeight;
                 V xExpected; EPixelType::ID ePixel = EPixelType::Lum; EDataType::ID eData = F;
  } aCases[] = {
      {"same size, box of 2 x 2, edge repeated", 3, 2, {0, 1, 2, 3, 4, 5}, 'b', 3, 2, 3, 2,
       {2, 3, 3.5, 3.5, 4.5, 5}},
      {"halve, one sample: every second pixel", 4, 4, xRamp, 's', 2, 2, 2, 2, {0, 2, 8, 10}},
      {"halve, box of 3 x 3, edge repeated", 4, 4, xRamp, 'b', 2, 2, 2, 2,
       {5, 60 / 9.0, 105 / 9.0, 120 / 9.0}},
      {"enlarge, one sample", 4, 1, {0, 1, 2, 3}, 's', 8, 1, 8, 1, {0, 0.5, 1, 1.5, 2, 2.5, 3, 3}},
      {"enlarge, the box takes one sample too", 4, 1, {0, 1, 2, 3}, 'b', 8, 1, 8, 1,
       {0, 0.5, 1, 1.5, 2, 2.5, 3, 3}},
      // Factor 4/3: x = 1 samples at 1.8333, weight 85/256 of pixel 2; x = 2 171/256 of pixel 3.
      {"4 to 3", 4, 1, {0, 4, 8, 10}, 's', 3, 1, 3, 1,
       {0, (4 * 171 + 8 * 85) / 256.0, (8 * 85 + 10 * 171) / 256.0}},
      {"resize by 1 is the source", 4, 4, xRamp, 'r', 0, 1, 4, 4, xRamp},
      {"resize by 2: means of 2 x 2 blocks", 4, 4, xRamp, 'r', 0, 2, 2, 2, {2.5, 4.5, 10.5, 12.5}},
      {"resize cuts the border first", 4, 4, xRamp, 'r', 1, 1, 2, 2, {5, 6, 9, 10}},
      // 5 x 3 by 2: x = 0 samples at 0.75 between pixels 0 and 1 of row 1, x = 1 at 3.25.
      {"resize 5 x 3 by 2", 5, 3, V(xRamp.begin(), xRamp.end() - 1), 'r', 0, 2, 2, 1, {5.75, 8.25}},
      // The other classes, whole pixels: RGBA stores full alpha; a mosaic runs as one channel.
      {"rgba 8", 2, 1, {10, 20, 30, 40, 50, 60, 70, 80}, 's', 2, 1, 2, 1,
       {10, 20, 30, 255, 50, 60, 70, 255}, EPixelType::RGBA, UB},
      // 3 x 2 samples of the one target pixel: columns 0, 1 and 1 again (clamped), row 0 twice.
      {"rgba 8, box", 2, 1, {10, 20, 30, 40, 50, 60, 70, 80}, 'b', 1, 1, 1, 1,
       {36, 46, 56, 255}, EPixelType::RGBA, UB},
      {"gray 8", 1, 3, {0, 17, 255}, 's', 1, 3, 1, 3, {0, 17, 255}, EPixelType::Lum, UB},
      {"gray 16", 3, 1, {0, 257, 65535}, 'r', 0, 1, 3, 1, {0, 257, 65535}, EPixelType::Lum, US},
      {"rgba 16", 1, 1, {0, 257, 65535, 1}, 's', 1, 1, 1, 1, {0, 257, 65535, 65535}, EPixelType::RGBA, US},
      {"mosaic", 4, 2, {0, 1, 2, 3, 4, 5, 6, 7}, 's', 2, 1, 2, 1, {0, 2}, EPixelType::BayerGR, UB},
  };
  // clang-format on
  // The texture unit's blend may differ from the separable product in its last bits.
  const double dTolerance = Device::IsCuda() ? 0.004 : 0.0;
  for (const auto& c : aCases) {
    const double dUnit = c.eData == F ? 16 : 1;
    V xSource = c.xSource;
    for (double& v : xSource) v /= dUnit;
    const CQvDeviceImage2D xImage = QvTest::Upload(c.w, c.h, c.ePixel, c.eData, xSource);
    CQvDeviceImage2D xTarget;
    CQvCudaCompConvolve C;
    c.cOp == 'r' ? C.Resize(xTarget, xImage, c.a, c.b)
                 : C.Shrink(xTarget, xImage, c.a, c.b, c.cOp == 's');
    SCOPED_TRACE(c.szRow);
    QV_EXPECT_FORMAT_OR_NEXT(CQvImageFormat(c.iWidth, c.iHeight, c.ePixel, c.eData),
                             xTarget.GetFormat());
    const V xOut = QvTest::Download(xTarget);
    for (size_t i = 0; i < xOut.size(); ++i)
      EXPECT_NEAR(static_cast<float>(c.xExpected[i] / dUnit), xOut[i],
                  c.eData == F ? dTolerance : 0)
          << c.szRow << " [" << i << "]";
  }
}

// Rows wide enough for the host's vector placing of texel pairs, enlarged and shrunk by less
// and more than two. A ramp of sixteenths blended with weights in 256ths is exact in floats, so
// each target pixel is worked out from the texture rule: sample at x * W / w + 0.5, texels
// floor(x - 0.5) and the next, edge repeated, weight rounded to 1/256.
TEST(Resample, WideRowsSampleWhereTheScaleFactorPutsThem) {
  const int W = 40;
  V xRamp(W);
  for (int i = 0; i < W; ++i) xRamp[i] = i / 16.0;
  const CQvDeviceImage2D xImage = QvTest::Upload(W, 1, EPixelType::Lum, EDataType::Float, xRamp);
  for (const int w : {80, 57, 40, 23, 15}) {
    CQvDeviceImage2D xTarget;
    CQvCudaCompConvolve().Shrink(xTarget, xImage, w, 1, true);
    const float fx = static_cast<float>(W) / static_cast<float>(w);
    V xExpected;
    for (int x = 0; x < w; ++x) {
      const float c = static_cast<float>(x) * fx + 0.5f - 0.5f;
      const int i = static_cast<int>(std::floor(c));
      const double a = std::floor((c - std::floor(c)) * 256.0 + 0.5);
      const int i0 = std::clamp(i, 0, W - 1), i1 = std::clamp(i + 1, 0, W - 1);
      xExpected.push_back((i0 * (256 - a) + i1 * a) / 4096.0);
    }
    EXPECT_EQ(xExpected, QvTest::Download(xTarget)) << W << " to " << w;
  }
}

}  // namespace
