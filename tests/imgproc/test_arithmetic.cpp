// Mix and the pixelwise operations on one- and two-pixel images, expectations worked out by hand
// from the formulas in normalized units (v / 255, v / 65535).
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "QvCudaCompConvolve.h"
#include "QvException.h"
#include "TestImages.h"

using namespace Qv;
using QvTest::DeviceImage;
using QvTest::Elements;

namespace {

const auto kRGBA = EPixelType::RGBA, kL = EPixelType::Lum;
const auto kUB = EDataType::UByte, kUS = EDataType::UShort, kF = EDataType::Float;

CQvImageFormat Fmt(EPixelType::ID p, EDataType::ID d, int w = 1, int h = 1) {
  return CQvImageFormat(w, h, p, d);
}

// Raw values exact, or within one step where the rounding of the normalized arithmetic decides.
void ExpectRaw(const CQvDeviceImage2D& x, const CQvImageFormat& f, const std::vector<double>& e,
               double dTolerance, const std::string& sRow) {
  ASSERT_EQ(f, x.GetFormat()) << sRow;
  const std::vector<double> v = Elements(x);
  for (size_t i = 0; i < e.size(); ++i) EXPECT_NEAR(e[i], v[i], dTolerance) << sRow << " #" << i;
}

struct SMixRow {
  CQvImageFormat f1;
  std::vector<double> a;
  CQvImageFormat f2;
  std::vector<double> b;
  float w;
  bool bBlack;
  CQvImageFormat fOut;
  std::vector<double> e;
  double dTolerance;
};

TEST(Mix, BlendsEveryClassPairIntoTheClassItWrites) {
  const std::vector<SMixRow> xRows = {
      // weight 1 gives input1, alpha of both ignored; weight 0 gives input2
      {Fmt(kRGBA, kUB),
       {100, 150, 200, 7},
       Fmt(kRGBA, kUB),
       {0, 0, 0, 9},
       1.0f,
       false,
       Fmt(kRGBA, kUB),
       {100, 150, 200, 255},
       0},
      {Fmt(kRGBA, kUB),
       {100, 150, 200, 7},
       Fmt(kRGBA, kUB),
       {0, 0, 0, 9},
       0.0f,
       false,
       Fmt(kRGBA, kUB),
       {0, 0, 0, 255},
       0},
      // black input2 is transparent: input1 at full weight; a blue 1 is not black
      {Fmt(kRGBA, kUB),
       {100, 150, 200, 7},
       Fmt(kRGBA, kUB),
       {0, 0, 0, 9},
       0.0f,
       true,
       Fmt(kRGBA, kUB),
       {100, 150, 200, 255},
       0},
      {Fmt(kRGBA, kUB),
       {100, 150, 200, 7},
       Fmt(kRGBA, kUB),
       {0, 0, 1, 9},
       0.0f,
       true,
       Fmt(kRGBA, kUB),
       {0, 0, 1, 255},
       0},
      // weight 3 extrapolates 3 a - 2 b: clamped at 255 and at 0, a where a = b
      {Fmt(kRGBA, kUB),
       {255, 0, 100, 0},
       Fmt(kRGBA, kUB),
       {0, 255, 100, 0},
       3.0f,
       false,
       Fmt(kRGBA, kUB),
       {255, 0, 100, 255},
       1},
      // 8 with 16 bit, L with RGBA: 0.5 (1, 0, 0.2) + 0.5 x 0.2
      {Fmt(kL, kUB),
       {51},
       Fmt(kRGBA, kUS),
       {65535, 0, 13107, 5},
       0.5f,
       false,
       Fmt(kRGBA, kUS),
       {39321, 6553, 13107, 65535},
       1},
      {Fmt(kL, kUB), {255}, Fmt(kL, kUS), {0}, 0.25f, false, Fmt(kL, kUS), {16383}, 1},
      // float targets keep values outside 0 to 1: 2 x -0.5 - 1 x 1
      {Fmt(kL, kF), {-0.5}, Fmt(kL, kUB), {255}, 2.0f, false, Fmt(kL, kF), {-2.0}, 0},
      {Fmt(kRGBA, kF),
       {0.5, 2, -1, 0},
       Fmt(kL, kUS),
       {65535},
       0.5f,
       false,
       Fmt(kRGBA, kF),
       {0.75, 1.5, 0.0, 1.0},
       0},
      {Fmt(kL, kUS), {65535}, Fmt(kL, kF), {3.0}, 0.5f, false, Fmt(kL, kUS), {65535}, 0},
      {Fmt(kRGBA, kUS),
       {0, 0, 0, 0},
       Fmt(kRGBA, kUB),
       {255, 255, 255, 0},
       1.0f,
       false,
       Fmt(kRGBA, kUB),
       {0, 0, 0, 255},
       0},
  };
  for (size_t i = 0; i < xRows.size(); ++i) {
    const SMixRow& r = xRows[i];
    CQvDeviceImage2D xA = DeviceImage(r.f1, r.a), xB = DeviceImage(r.f2, r.b), xOut;
    CQvCudaCompConvolve().Mix(xOut, xA, xB, r.w, r.bBlack);
    ExpectRaw(xOut, r.fOut, r.e, r.dTolerance, "mix row " + std::to_string(i));
  }
}

TEST(Mix, SharpeningWithAmountOneReturnsTheSourceInPlace) {
  const CQvImageFormat f = Fmt(kRGBA, kUB, 3, 2);
  const std::vector<double> v = {9, 80, 200, 255, 0,   17, 255, 255, 40, 40, 40,  255,
                                 1, 2,  3,   255, 250, 0,  90,  255, 7,  77, 177, 255};
  CQvDeviceImage2D xSource = DeviceImage(f, v), xOut;
  CQvCudaCompConvolve().Sharpening(xOut, xSource, 1.5f, 1.0f);
  ExpectRaw(xOut, f, v, 0, "sharpening");
}

TEST(Arithmetic, AccumulatesAndDividesIntoEightBit) {
  CQvDeviceImage2D xSum = DeviceImage(Fmt(kL, kF, 2, 1), {0.0});
  CQvCudaCompConvolve xComp;
  xComp.Increment(xSum, DeviceImage(Fmt(kL, kUB, 2, 1), {255, 0}));
  xComp.Increment(xSum, DeviceImage(Fmt(kL, kUB, 2, 1), {51, 0}));
  ExpectRaw(xSum, Fmt(kL, kF, 2, 1), {1.2, 0.0}, 1e-6, "increment");
  CQvDeviceImage2D xMean = DeviceImage(Fmt(kL, kUB, 2, 1), {9});
  xComp.Divide(xMean, xSum, 2.0f);
  ExpectRaw(xMean, Fmt(kL, kUB, 2, 1), {153, 0}, 1, "divide");
  // by zero: 1.2 / 0 and 0 / 0 (NaN) both store full scale
  xComp.Divide(xMean, xSum, 0.0f);
  ExpectRaw(xMean, Fmt(kL, kUB, 2, 1), {255, 255}, 0, "divide by zero");
}

TEST(Arithmetic, SubtractAddCompare) {
  CQvCudaCompConvolve xComp;
  CQvDeviceImage2D xOut;
  auto fnImg = [](CQvImageFormat f, std::vector<double> v) { return DeviceImage(f, v); };
  const CQvImageFormat fL = Fmt(kL, kUB, 3, 1), fRGBA = Fmt(kRGBA, kUB), fF = Fmt(kL, kF, 2, 1);
  xComp.Subtract(xOut, fnImg(fL, {200, 50, 77}), fnImg(fL, {50, 200, 77}), 1.0f, 0.0f);
  ExpectRaw(xOut, fL, {150, 0, 0}, 1, "subtract clamps");
  xComp.Subtract(xOut, fnImg(fL, {200, 50, 77}), fnImg(fL, {50, 200, 77}), 0.5f, 0.5f);
  ExpectRaw(xOut, fL, {202, 52, 127}, 1, "signed difference, mid gray");
  xComp.Subtract(xOut, fnImg(fRGBA, {0, 255, 100, 3}), fnImg(fRGBA, {255, 0, 100, 9}), 0.5f, 0.5f);
  ExpectRaw(xOut, fRGBA, {0, 255, 127, 255}, 0, "signed RGBA");
  xComp.Subtract(xOut, fnImg(fF, {0.25, -1}), fnImg(fF, {1.0, 2}), 2.0f, 0.0f);
  ExpectRaw(xOut, fF, {-1.5, -6.0}, 0, "float keeps negatives");
  xComp.Add(xOut, fnImg(fRGBA, {200, 10, 0, 0}), fnImg(fRGBA, {100, 20, 0, 0}));
  ExpectRaw(xOut, fRGBA, {255, 30, 0, 255}, 0, "add saturates");
  // threshold 0.1 = 25.5 levels; strict test, equal gives 51, not 0
  xComp.Compare(xOut, fnImg(fL, {0, 0, 100}), fnImg(fL, {26, 25, 100}), 0.1f);
  ExpectRaw(xOut, fL, {255, 51, 51}, 0, "compare L");
  xComp.Compare(xOut, fnImg(Fmt(kRGBA, kUB, 2, 1), {0, 0, 0, 0, 0, 0, 0, 0}),
                fnImg(Fmt(kRGBA, kUB, 2, 1), {90, 90, 90, 0, 90, 90, 0, 0}), 0.1f);
  ExpectRaw(xOut, Fmt(kL, kUB, 2, 1), {255, 51}, 0, "compare RGBA needs all three");
  xComp.Compare(xOut, fnImg(fF, {0.5, 0.5}), fnImg(fF, {0.75, 0.625}), 0.125f);
  ExpectRaw(xOut, Fmt(kL, kUB, 2, 1), {255, 51}, 0, "compare float");
}

struct SFailure {
  std::function<void(CQvCudaCompConvolve&, CQvDeviceImage2D&)> fnCall;
  const char* szOuter;
  const char* szInner;
};

TEST(Arithmetic, EveryCheckFailsWithItsMessage) {
  auto I = [](EPixelType::ID p, EDataType::ID d, int w = 2, int h = 2) {
    return DeviceImage(CQvImageFormat(w, h, p, d), {0.0});
  };
  const auto kBayer = EPixelType::BayerGR;
  CQvDeviceImage2D L2 = I(kL, kUB), L3 = I(kL, kUB, 3, 1), B2 = I(kBayer, kUB), F2 = I(kL, kF);
  CQvDeviceImage2D US = I(kRGBA, kUS), R2 = I(kRGBA, kUB), LUS = I(kL, kUS);
  const char* kMix = "Error performing mix operation";
  const char* kMinMax = "Error getting minimum and maximum of the given image";
  float f = 0.0f;
  const std::vector<SFailure> xRows = {
      {[&](auto& c, auto& t) { c.Mix(t, L2, L3, 0.5f, false); }, kMix,
       "Input images must be of same size"},
      {[&](auto& c, auto& t) { c.Mix(t, B2, L2, 0.5f, false); }, kMix,
       "Input images are of invalid type. Allowed are RGBA_uc, RGBA_us, L_uc and L_us"},
      {[&](auto& c, auto& t) { c.Mix(t, L2, B2, 0.5f, false); }, kMix,
       "Input images are of invalid type. Allowed are RGBA_uc and L_uc"},
      {[&](auto& c, auto&) { c.Mix(F2, R2, F2, 0.5f, false); }, kMix,
       "The target may be an input image only if it has the format of the result"},
      {[&](auto& c, auto&) { c.Divide(L3, F2, 2.0f); }, "Error performing divide operation",
       "Input image must be of same size as target"},
      {[&](auto& c, auto&) { c.Divide(L2, L2, 2.0f); }, "Error performing divide operation",
       "Input image is of invalid type"},
      {[&](auto& c, auto&) { c.Divide(F2, F2, 2.0f); }, "Error performing divide operation",
       "Target image is of invalid type"},
      {[&](auto& c, auto& t) { c.Increment(t, L2); }, "Error performing increment operation",
       "Target image is NOT valid"},
      {[&](auto& c, auto&) { c.Increment(F2, L3); }, "Error performing increment operation",
       "Input image must be of same size as target"},
      {[&](auto& c, auto&) { c.Increment(L2, L2); }, "Error performing increment operation",
       "Input image is of invalid type"},
      {[&](auto& c, auto&) { c.Increment(F2, F2); }, "Error performing increment operation",
       "Second input image is of invalid type"},
      {[&](auto& c, auto& t) { c.Subtract(t, L2, B2, 1.0f, 0.0f); }, "Error substracting images",
       "Input images must be of same type"},
      {[&](auto& c, auto& t) { c.Subtract(t, US, US, 1.0f, 0.0f); }, "Error substracting images",
       "Invalid input texture types"},
      {[&](auto& c, auto& t) { c.Add(t, F2, F2); }, "Error performing Mix operation",
       "Input images are of invalid type"},
      {[&](auto& c, auto& t) { c.Compare(t, LUS, LUS, 0.1f); }, "Error compairing images",
       "Invalid input texture types"},
      {[&](auto& c, auto& t) { c.Sharpening(t, L2, 10.5f, 2.0f); }, "Error performing convolution",
       "Filtersize too large"},
      {[&](auto& c, auto& t) { c.Sharpening(t, B2, 1.0f, 2.0f); }, "Error performing convolution",
       "Input images are of invalid type. Allowed are RGBA_uc, RGBA_us, L_uc and L_us"},
      {[&](auto& c, auto& t) { c.Convolution(t, R2, tmat<float, 3>::Identity()); },
       "Error applying convolution", "Source image is not grayscale float image"},
      {[&](auto& c, auto&) { c.GetImageMinMax(f, f, 0, LUS); }, kMinMax,
       "Image is of invalid type"},
      {[&](auto& c, auto&) { c.GetImageMinMax(f, f, 1, F2); }, kMinMax,
       "Invalid channel index for luminance image"},
      {[&](auto& c, auto&) { c.GetImageMinMax(f, f, 4, R2); }, kMinMax,
       "Invalid channel index for RGBA image"},
  };
  for (size_t i = 0; i < xRows.size(); ++i) {
    CQvCudaCompConvolve xComp;
    CQvDeviceImage2D xTarget;
    try {
      xRows[i].fnCall(xComp, xTarget);
      ADD_FAILURE() << "row " << i << " did not fail";
    } catch (const CQvException& e) {
      const IException* p = &e;
      while (p->GetInnerException()) p = p->GetInnerException();
      EXPECT_STREQ(xRows[i].szOuter, e.GetMessageText()) << "row " << i;
      EXPECT_STREQ(xRows[i].szInner, p->GetMessageText()) << "row " << i;
    }
  }
}

}  // namespace
