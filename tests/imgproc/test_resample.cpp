// Shrink and Resize: where each target pixel samples, on float images whose values and blend
// weights (multiples of 1/256) keep every sum exact; copies of every class; refusals.

#include "QvCudaCompConvolve.h"
#include "QvDevice.h"
#include "TestImages.h"

using namespace Qv;
using V = std::vector<double>;

namespace {

// Runs Shrink to a x b with one sample ('s') or the box ('b'), or Resize with border a and
// divisor b ('r').
void Resample(char cOp, int a, int b, CQvDeviceImage2D& xTarget, const CQvDeviceImage2D& xSource) {
  if (cOp == 'r')
    CQvCudaCompConvolve().Resize(xTarget, xSource, a, b);
  else
    CQvCudaCompConvolve().Shrink(xTarget, xSource, a, b, cOp == 's');
}

TEST(Resample, TargetPixelsSampleWhereTheScaleFactorPutsThem) {
  const V xRamp = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};  // x + 4 y, or x + 5 y
  // Values in sixteenths.
  // clang-format off
  const struct { const char* szRow; int w, h; V xSource; char cOp; int a, b, iWidth, iHeight;
                 V xExpected; } aCases[] = {
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
  };
  // clang-format on
  // The texture unit's blend may differ from the separable product in its last bits.
  const double dTolerance = Device::IsCuda() ? 0.004 : 0.0;
  for (const auto& c : aCases) {
    V xSource = c.xSource;
    for (double& v : xSource) v /= 16;
    const CQvDeviceImage2D xImage =
        QvTest::Upload(c.w, c.h, EPixelType::Lum, EDataType::Float, xSource);
    CQvDeviceImage2D xTarget;
    Resample(c.cOp, c.a, c.b, xTarget, xImage);
    ASSERT_EQ(CQvImageFormat(c.iWidth, c.iHeight, EPixelType::Lum, EDataType::Float),
              xTarget.GetFormat())
        << c.szRow;
    const V xOut = QvTest::Download(xTarget);
    for (size_t i = 0; i < xOut.size(); ++i)
      EXPECT_NEAR(static_cast<float>(c.xExpected[i] / 16), xOut[i], dTolerance)
          << c.szRow << " [" << i << "]";
  }
}

TEST(Resample, SameSizeSingleSampleCopiesEveryClassExactly) {
  for (const CQvImageFormat& f : {CQvImageFormat(13, 7, EPixelType::RGBA, EDataType::UByte),
                                  CQvImageFormat(13, 7, EPixelType::Lum, EDataType::UByte),
                                  CQvImageFormat(1, 9, EPixelType::Lum, EDataType::UShort),
                                  CQvImageFormat(9, 1, EPixelType::BayerGR, EDataType::UByte)}) {
    V xSamples = QvTest::Samples(QvTest::RandomImage(f, 9));
    if (f.ePixelType == EPixelType::RGBA)  // the store writes full alpha
      for (size_t i = 3; i < xSamples.size(); i += 4) xSamples[i] = 255;
    const CQvDeviceImage2D xSource =
        QvTest::Upload(f.iWidth, f.iHeight, f.ePixelType, f.eDataType, xSamples);
    CQvDeviceImage2D xTarget;
    CQvCudaCompConvolve().Shrink(xTarget, xSource, f.iWidth, f.iHeight, true);
    ASSERT_EQ(f, xTarget.GetFormat());
    EXPECT_EQ(xSamples, QvTest::Download(xTarget)) << f.ToString().ToCString();
  }
}

}  // namespace
