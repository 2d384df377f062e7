// Dense convolution, Sobel, and image minimum and maximum on hand-worked images.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <string>
#include <vector>

#include "QvCudaCompConvolve.h"
#include "TestImages.h"

using namespace Qv;
using QvTest::DeviceImage;
using QvTest::Elements;

namespace {

constexpr int kW = 21, kH = 19;

// Distinct exact values: x + 100 y.
CQvDeviceImage2D Ramp() {
  std::vector<double> v;
  for (int y = 0; y < kH; ++y)
    for (int x = 0; x < kW; ++x) v.push_back(x + 100.0 * y);
  return DeviceImage(CQvImageFormat(kW, kH, EPixelType::Lum, EDataType::Float), v);
}

// A filter with a single 1 at row j, column i: the result is the source moved by the offset
// of that tap from the filter's centre.
template <int N>
std::vector<double> Tap(int i, int j) {
  tmat<double, N> xMatrix{};
  xMatrix(j, i) = 1.0;
  CQvDeviceImage2D xSource = Ramp(), xOut;
  CQvCudaCompConvolve().Convolution(xOut, xSource, xMatrix);
  return Elements(xOut);
}

TEST(Convolution, TapsLieWhereTheCentreRuleSaysWithTheEdgeRepeated) {
  struct SRow {
    std::vector<double> xOut;
    int dx, dy;
  };
  const std::vector<SRow> xRows = {{Tap<3>(1, 1), 0, 0},    {Tap<2>(1, 0), 1, 0},
                                   {Tap<2>(0, 1), 0, 1},    {Tap<4>(0, 0), -1, -1},
                                   {Tap<16>(15, 15), 8, 8}, {Tap<16>(0, 0), -7, -7},
                                   {Tap<9>(0, 8), -4, 4}};
  for (size_t r = 0; r < xRows.size(); ++r)
    for (int y = 0; y < kH; ++y)
      for (int x = 0; x < kW; ++x) {
        const int sx = std::clamp(x + xRows[r].dx, 0, kW - 1);
        const int sy = std::clamp(y + xRows[r].dy, 0, kH - 1);
        ASSERT_EQ(sx + 100.0 * sy, xRows[r].xOut[y * kW + x]) << r << ": " << x << "," << y;
      }
}

TEST(Convolution, ConstantImageGivesTheSumOfTheCoefficientsEverywhere) {
  // Coefficients 0.25 k - 3, k = 0..15: sum -18, so 0.5 x -18 = -9, border included.
  tmat<float, 4> xMatrix{};
  for (int k = 0; k < 16; ++k) xMatrix.m[k] = 0.25f * k - 3.0f;
  CQvDeviceImage2D xSource =
                       DeviceImage(CQvImageFormat(9, 7, EPixelType::Lum, EDataType::Float), {0.5}),
                   xOut;
  CQvCudaCompConvolve().Convolution(xOut, xSource, xMatrix);
  for (double v : Elements(xOut)) ASSERT_EQ(-9.0, v);
}

TEST(Sobel, FlatIsZeroAndAVerticalStepIsFour) {
  const CQvImageFormat fL(6, 3, EPixelType::Lum, EDataType::UByte);
  const CQvImageFormat fRGBA(6, 3, EPixelType::RGBA, EDataType::UByte);
  std::vector<double> xStep, xStepRGBA;
  for (int i = 0; i < 18; ++i) {
    xStep.push_back(i % 6 < 3 ? 0 : 255);
    // only the first channel counts
    xStepRGBA.insert(xStepRGBA.end(), {xStep.back(), double(i * 13 % 256), double(i * 7), 0.0});
  }
  const std::vector<double> xEdge = {0, 0, 4, 4, 0, 0};
  struct SRow {
    CQvDeviceImage2D xSource;
    std::vector<double> xRow;
  };
  SRow xRows[] = {{DeviceImage(fL, {173}), std::vector<double>(6, 0.0)},
                  {DeviceImage(fL, xStep), xEdge},
                  {DeviceImage(fRGBA, xStepRGBA), xEdge}};
  for (SRow& r : xRows) {
    CQvDeviceImage2D xOut;
    CQvCudaCompConvolve().Sobel(xOut, r.xSource);
    ASSERT_EQ(CQvImageFormat(6, 3, EPixelType::Lum, EDataType::Float), xOut.GetFormat());
    const std::vector<double> v = Elements(xOut);
    for (int i = 0; i < 18; ++i) EXPECT_EQ(r.xRow[i % 6], v[i]) << i;
  }
}

TEST(MinMax, ExactOverCountedSamplesAndNaNWhenNoneCount) {
  const double kNaN = NAN, kInf = INFINITY;
  const auto L_f = [](int w, int h) {
    return CQvImageFormat(w, h, EPixelType::Lum, EDataType::Float);
  };
  // Across many blocks and worker threads: 0.5 everywhere, -2 and 7 far apart.
  std::vector<double> xBig(301 * 203, 0.5);
  xBig[301 * 203 - 1] = -2.0;
  xBig[3 * 301 + 150] = 7.0;
  struct SRow {
    CQvImageFormat f;
    std::vector<double> v;
    unsigned uChannel;
    double dMin, dMax;
  };
  const std::vector<SRow> xRows = {
      {L_f(3, 2), {0.0}, 0, kNaN, kNaN},
      {L_f(3, 2), {kNaN}, 0, kNaN, kNaN},
      {L_f(3, 2), {0, 0, 0, 0, 0.3, 0}, 0, 0.3f, 0.3f},
      {L_f(2, 1), {0, 0.5}, 0, 0.5, 0.5},
      {L_f(4, 1), {-1, 0.25, 0, 3}, 0, -1, 3},
      {L_f(3, 1), {kInf, 1, -kInf}, 0, -kInf, kInf},
      {L_f(3, 1), {0, kInf, kNaN}, 0, kInf, kInf},
      {L_f(2, 1), {FLT_MAX, 0}, 0, FLT_MAX, FLT_MAX},
      {L_f(301, 203), xBig, 0, -2, 7},
      {CQvImageFormat(3, 1, EPixelType::Lum, EDataType::UByte), {0, 255, 51}, 0, 0.2f, 1},
      {CQvImageFormat(2, 1, EPixelType::RGBA, EDataType::UByte),
       {1, 2, 51, 4, 5, 6, 255, 8},
       2,
       0.2f,
       1},
      {CQvImageFormat(2, 1, EPixelType::RGBA, EDataType::Float),
       {1, 2, 3, -4, 5, 6, 7, 0},
       3,
       -4,
       -4},
  };
  CQvCudaCompConvolve xComp;  // one object throughout: every call starts afresh
  for (size_t i = 0; i < xRows.size(); ++i) {
    float fMin = 0.0f, fMax = 0.0f;
    xComp.GetImageMinMax(fMin, fMax, xRows[i].uChannel, DeviceImage(xRows[i].f, xRows[i].v));
    if (std::isnan(xRows[i].dMin)) {
      EXPECT_TRUE(std::isnan(fMin) && std::isnan(fMax)) << "row " << i;
    } else {
      EXPECT_EQ(static_cast<float>(xRows[i].dMin), fMin) << "row " << i;
      EXPECT_EQ(static_cast<float>(xRows[i].dMax), fMax) << "row " << i;
    }
  }
}

}  // namespace
