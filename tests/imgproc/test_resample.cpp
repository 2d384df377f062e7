// Shrink and Resize on hand-worked images: copies, 2x reductions, box sampling, enlarging.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "QvCudaCompConvolve.h"
#include "QvDevice.h"
#include "QvException.h"
#include "TestImages.h"

using namespace Qv;

namespace {

CQvDeviceImage2D* Gray(int w, int h, const std::vector<uint8_t>& xBytes,
                       EPixelType::ID ePixel = EPixelType::Lum) {
  CQvImageMoniker xMoniker;
  xMoniker.Create(w, h, ePixel, EDataType::UByte, const_cast<uint8_t*>(xBytes.data()));
  auto* pxImage = new CQvDeviceImage2D();
  pxImage->Create(xMoniker);
  return pxImage;
}

std::vector<uint8_t> Bytes(const CQvDeviceImage2D& xImage) {
  CQvImage xHost;
  xImage.CopyTo(xHost);
  const auto* p = static_cast<const uint8_t*>(xHost.GetDataPtr());
  return std::vector<uint8_t>(p, p + xHost.GetFormat().GetImageBytes());
}

// 4 x 4 gray ramp: value 10 * (x + 4 y).
const std::vector<uint8_t> kRamp = {0,  10, 20,  30,  40,  50,  60,  70,
                                    80, 90, 100, 110, 120, 130, 140, 150};

TEST(Shrink, SameSizeSingleSampleCopiesEveryClassExactly) {
  struct SCase {
    EPixelType::ID p;
    EDataType::ID d;
  };
  for (const SCase& c :
       {SCase{EPixelType::RGBA, EDataType::UByte}, SCase{EPixelType::Lum, EDataType::UByte},
        SCase{EPixelType::Lum, EDataType::UShort}, SCase{EPixelType::Lum, EDataType::Float},
        SCase{EPixelType::BayerGR, EDataType::UByte}}) {
    const CQvImageFormat xFormat(13, 7, c.p, c.d);
    CQvImage xHost = QvTest::RandomImage(xFormat, 9);
    if (c.d == EDataType::Float) {  // keep floats finite and in range
      auto* pf = static_cast<float*>(xHost.GetDataPtr());
      for (int i = 0; i < 13 * 7; ++i) pf[i] = static_cast<float>(i) * 0.25f - 3.0f;
    }
    if (c.p == EPixelType::RGBA) {  // the store writes full alpha
      auto* pb = static_cast<uint8_t*>(xHost.GetDataPtr());
      for (int i = 0; i < 13 * 7; ++i) pb[i * 4 + 3] = 255;
    }
    CQvDeviceImage2D xSource(xHost), xTarget;
    CQvCudaCompConvolve().Shrink(xTarget, xSource, 13, 7, true);
    ASSERT_EQ(xFormat, xTarget.GetFormat());
    CQvImage xOut;
    xTarget.CopyTo(xOut);
    EXPECT_TRUE(QvTest::BytesEqual(xHost, xOut)) << xFormat.ToString().ToCString();
  }
}

TEST(Shrink, SameSizeBoxAveragesTwoByTwoWithTheEdgeRepeated) {
  // 3 x 2: row 0: 0 40 80, row 1: 120 160 200.
  std::unique_ptr<CQvDeviceImage2D> xSource(Gray(3, 2, {0, 40, 80, 120, 160, 200}));
  CQvDeviceImage2D xTarget;
  CQvCudaCompConvolve().Shrink(xTarget, *xSource, 3, 2, false);
  const auto b = Bytes(xTarget);
  // (0,0): 0 40 120 160 -> 80; (2,0): 80 80 200 200 -> 140; (1,1): 160 200 160 200 -> 180.
  EXPECT_NEAR(80, b[0], 1);
  EXPECT_NEAR(140, b[2], 1);
  EXPECT_NEAR(180, b[4], 1);
  EXPECT_NEAR(200, b[5], 1);  // the last pixel averages itself four times
}

TEST(Shrink, HalvingWithOneSampleTakesEverySecondPixel) {
  std::unique_ptr<CQvDeviceImage2D> xSource(Gray(4, 4, kRamp));
  CQvDeviceImage2D xTarget;
  CQvCudaCompConvolve().Shrink(xTarget, *xSource, 2, 2, true);
  EXPECT_EQ((std::vector<uint8_t>{0, 20, 80, 100}), Bytes(xTarget));
}

TEST(Shrink, HalvingWithTheBoxAveragesThreeByThreeSamples) {
  std::unique_ptr<CQvDeviceImage2D> xSource(Gray(4, 4, kRamp));
  CQvDeviceImage2D xTarget;
  CQvCudaCompConvolve().Shrink(xTarget, *xSource, 2, 2, false);
  const auto b = Bytes(xTarget);
  // (0,0): rows 0..2, columns 0..2 -> mean 50; (1,1) from (2,2): columns 2,3,3 and rows
  // 2,3,3 with the edge repeated -> (100+110+110 + 2*(140+150+150)) / 9 = 133.3.
  EXPECT_NEAR(50, b[0], 1);
  EXPECT_NEAR(133, b[3], 1);
}

TEST(Shrink, EnlargingTakesOneSampleInBothModes) {
  std::unique_ptr<CQvDeviceImage2D> xSource(Gray(4, 4, kRamp));
  CQvDeviceImage2D xSingle, xBox;
  CQvCudaCompConvolve xComp;
  xComp.Shrink(xSingle, *xSource, 8, 8, true);
  xComp.Shrink(xBox, *xSource, 8, 8, false);
  EXPECT_EQ(Bytes(xSingle), Bytes(xBox));
  // Column 0 and row 0 sample pixel centres: exact.
  EXPECT_EQ(0, Bytes(xSingle)[0]);
}

TEST(Shrink, FractionalFactorBlendsNeighboursAndKeepsTheFirstColumnExact) {
  std::unique_ptr<CQvDeviceImage2D> xSource(Gray(4, 1, {0, 100, 200, 250}));
  CQvDeviceImage2D xTarget;
  CQvCudaCompConvolve().Shrink(xTarget, *xSource, 3, 1, true);
  const auto b = Bytes(xTarget);
  // fx = 4/3: x = 1 samples at 1.8333, between pixels 1 and 2 with weight 85/256 of pixel 2.
  EXPECT_EQ(0, b[0]);
  EXPECT_NEAR(100.0 + 100.0 * 85.0 / 256.0, b[1], 1);
}

TEST(Resize, BorderZeroDivisorOneIsTheSource) {
  std::unique_ptr<CQvDeviceImage2D> xSource(Gray(4, 4, kRamp));
  CQvDeviceImage2D xTarget;
  CQvCudaCompConvolve().Resize(xTarget, *xSource, 0, 1);
  EXPECT_EQ(kRamp, Bytes(xTarget));
}

TEST(Resize, DivisorTwoIsTheMeanOfEachTwoByTwoBlock) {
  std::unique_ptr<CQvDeviceImage2D> xSource(Gray(4, 4, kRamp));
  CQvDeviceImage2D xTarget;
  CQvCudaCompConvolve().Resize(xTarget, *xSource, 0, 2);
  ASSERT_EQ(2, xTarget.GetFormat().iWidth);
  const auto b = Bytes(xTarget);
  const double aExpected[4] = {25, 45, 105, 125};  // e.g. (0 + 10 + 40 + 50) / 4
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(aExpected[i], b[i], 1) << i;
}

TEST(Resize, BorderIsCutBeforeDividing) {
  std::unique_ptr<CQvDeviceImage2D> xSource(Gray(4, 4, kRamp));
  CQvDeviceImage2D xTarget;
  CQvCudaCompConvolve().Resize(xTarget, *xSource, 1, 1);
  EXPECT_EQ((std::vector<uint8_t>{50, 60, 90, 100}), Bytes(xTarget));
}

TEST(Resample, BayerUByteRunsAsOneChannelAndKeepsItsFormat) {
  std::unique_ptr<CQvDeviceImage2D> xSource(Gray(4, 4, kRamp, EPixelType::BayerGR));
  CQvDeviceImage2D xTarget;
  CQvCudaCompConvolve().Resize(xTarget, *xSource, 0, 2);
  EXPECT_EQ(EPixelType::BayerGR, xTarget.GetFormat().ePixelType);
  EXPECT_NEAR(25, Bytes(xTarget)[0], 1);  // colours blend
}

void ExpectResizeFailure(const std::function<void()>& fnCall, const char* szInner) {
  try {
    fnCall();
    FAIL() << "expected " << szInner;
  } catch (const CQvException& e) {
    EXPECT_STREQ("Error resizing image", e.GetMessageText());
    ASSERT_NE(nullptr, e.GetInnerException());
    EXPECT_STREQ(szInner, e.GetInnerException()->GetMessageText());
  }
}

TEST(Resample, RefusesUnacceptedClassesAndSizesWithoutAPositiveArea) {
  CQvCudaCompConvolve xComp;
  CQvDeviceImage2D xTarget;
  CQvDeviceImage2D xRgba16(CQvImageFormat(4, 4, EPixelType::RGBA, EDataType::UShort));
  CQvDeviceImage2D xRgbaF(CQvImageFormat(4, 4, EPixelType::RGBA, EDataType::Float));
  CQvDeviceImage2D xBayer16(CQvImageFormat(4, 4, EPixelType::BayerGR, EDataType::UShort));
  ExpectResizeFailure([&] { xComp.Shrink(xTarget, xRgba16, 2, 2, true); },
                      "Source image is of invalid type");
  ExpectResizeFailure([&] { xComp.Resize(xTarget, xRgbaF, 0, 2); },
                      "Source image is of invalid type");
  ExpectResizeFailure([&] { xComp.Resize(xTarget, xBayer16, 0, 1); },
                      "Source image is of invalid type");

  CQvDeviceImage2D xUntouched;
  std::unique_ptr<CQvDeviceImage2D> xSource(Gray(4, 4, kRamp));
  ExpectResizeFailure([&] { xComp.Resize(xUntouched, *xSource, 0, 0); },
                      "Divisor of resize must not be 0");
  ExpectResizeFailure([&] { xComp.Resize(xUntouched, *xSource, 2, 1); },
                      "Border and divisor of resize leave no positive size: 0x0");
  ExpectResizeFailure([&] { xComp.Shrink(xUntouched, *xSource, 0, 5, true); },
                      "Target size of shrink must be positive: 0x5");
  EXPECT_FALSE(xUntouched.IsValid());
}

}  // namespace
