// The operations no element calls, on tiny images; expected raw values are worked out by hand
// from the formulas, with samples read as v / 255 or v / 65535.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <string>
#include <vector>

#include "QvCudaCompConvolve.h"
#include "QvException.h"

using namespace Qv;

namespace {

using F = CQvImageFormat;
using Values = std::vector<double>;
const auto kRGBA = EPixelType::RGBA, kL = EPixelType::Lum;
const auto kUB = EDataType::UByte, kUS = EDataType::UShort, kF = EDataType::Float;
const F kRGBA8(1, 1, kRGBA, kUB), kRGBA16(1, 1, kRGBA, kUS), kRGBAF(1, 1, kRGBA, kF);
const F kL8(1, 1, kL, kUB), kL16(1, 1, kL, kUS), kLF(1, 1, kL, kF);

// Element i of an image as a number, stored first where pSet gives one.
template <class T>
double At(void* p, size_t i, const double* pSet) {
  T& v = static_cast<T*>(p)[i];
  if (pSet) v = static_cast<T>(*pSet);
  return v;
}
double At(const F& f, void* p, size_t i, const double* pSet = nullptr) {
  return f.eDataType == kUB   ? At<uint8_t>(p, i, pSet)
         : f.eDataType == kUS ? At<uint16_t>(p, i, pSet)
                              : At<float>(p, i, pSet);
}

// An image whose elements take the values in order; one value fills it.
CQvDeviceImage2D Img(const F& f, const Values& v) {
  CQvImage x(f);
  for (size_t i = 0; i < f.GetImageBytes() / f.GetBytesPerChannel(); ++i)
    At(f, x.GetDataPtr(), i, &v.at(v.size() == 1 ? 0 : i));
  return CQvDeviceImage2D(x);
}

// Exact, or within one step where the rounding of the normalized arithmetic decides.
void Expect(const CQvDeviceImage2D& xImage, const F& f, const Values& e, double dTolerance,
            const std::string& sRow) {
  ASSERT_EQ(f, xImage.GetFormat()) << sRow;
  CQvImage x;
  xImage.CopyTo(x);
  for (size_t i = 0; i < e.size(); ++i)
    EXPECT_NEAR(e[i], At(f, x.GetDataPtr(), i), dTolerance) << sRow << " #" << i;
}

TEST(Pixelwise, OperationsOnClassPairsGiveTheHandWorkedValues) {
  const F kL3(3, 1, kL, kUB), kLF2(2, 1, kL, kF), kRGBA2(2, 1, kRGBA, kUB), kL2(2, 1, kL, kUB);
  const F kL6(6, 1, kL, kUB), kLF6(6, 1, kL, kF);
  const Values kPhoto = {9, 80, 200, 255, 0, 17, 255, 255}, kEdge = {0, 0, 4, 4, 0, 0};
  const Values k16 = {65535, 0, 13107, 5}, kStepRGBA = {0,   9, 9, 9, 0,   50, 0, 0, 0,   1, 2, 3,
                                                        255, 0, 0, 0, 255, 7,  7, 7, 255, 0, 0, 0};
  const struct {
    char cOp;  // Mix, Subtract, Add, Compare, sHarpening, sObel
    F f1;
    Values a, b, e;
    float p, q;  // weight and black, scale and offset, threshold, or sharpening's two
    double dTolerance;
    F f2 = F(), fOut = F();  // where not those of input1
  } xRows[] = {
      // weight 1 gives input1, 0 input2 (not black: blue 1), alpha ignored; black transparent
      {'M', kRGBA8, {100, 150, 200, 7}, {0, 0, 0, 9}, {100, 150, 200, 255}, 1, 0, 0},
      {'M', kRGBA8, {100, 150, 200, 7}, {0, 0, 1, 9}, {0, 0, 1, 255}, 0, 1, 0},
      {'M', kRGBA8, {100, 150, 200, 7}, {0, 0, 0, 9}, {100, 150, 200, 255}, 0, 1, 0},
      // weight 3 extrapolates 3 a - 2 b: clamped at 255 and 0, a where a = b
      {'M', kRGBA8, {255, 0, 100, 0}, {0, 255, 100, 0}, {255, 0, 100, 255}, 3, 0, 1},
      // 8 with 16 bit, L with RGBA: 0.5 (1, 0, 0.2) + 0.5 x 0.2
      {'M', kL8, {51}, k16, {39321, 6553, 13107, 65535}, 0.5f, 0, 1, kRGBA16, kRGBA16},
      // float targets keep values outside 0 to 1
      {'M', kLF, {-0.5}, {255}, {-2.0}, 2, 0, 0, kL8},
      {'M', kRGBAF, {0.5, 2, -1, 0}, {65535}, {0.75, 1.5, 0, 1}, 0.5f, 0, 0, kL16},
      {'M', kRGBA16, {0, 0, 0, 0}, {255, 255, 255, 0}, {0, 0, 0, 255}, 1, 0, 0, kRGBA8, kRGBA8},
      {'S', kL3, {200, 50, 77}, {50, 200, 77}, {150, 0, 0}, 1, 0, 1},  // clamps
      {'S', kL3, {200, 50, 77}, {50, 200, 77}, {202, 52, 127}, 0.5f, 0.5f, 1},
      {'S', kLF2, {0.25, -1}, {1, 2}, {-1.5, -6}, 2, 0, 0},
      {'A', kRGBA8, {200, 10, 0, 0}, {100, 20, 0, 0}, {255, 30, 0, 255}, 0, 0, 0},
      // threshold 0.1 is 25.5 levels, and strict; equal gives 51, not 0
      {'C', kL3, {0, 0, 100}, {26, 25, 100}, {255, 51, 51}, 0.1f, 0, 0},
      {'C', kRGBA2, {0}, {90, 90, 90, 0, 90, 90, 0, 0}, {255, 51}, 0.1f, 0, 0, kRGBA2, kL2},
      {'H', kRGBA2, kPhoto, {0}, kPhoto, 1.5f, 1.0f, 0},  // by 1: the source
      // Sobel: flat is 0 and a vertical step 4, border included; RGBA reads the first channel
      {'O', F(6, 3, kL, kUB), {173}, {0}, Values(18, 0.0), 0, 0, 0, kL8, F(6, 3, kL, kF)},
      {'O', kL6, {0, 0, 0, 255, 255, 255}, {0}, kEdge, 0, 0, 0, kL8, kLF6},
      {'O', F(6, 1, kRGBA, kUB), kStepRGBA, {0}, kEdge, 0, 0, 0, kL8, kLF6},
  };
  for (const auto& r : xRows) {
    CQvCudaCompConvolve c;
    const F& f2 = r.f2.iWidth ? r.f2 : r.f1;
    CQvDeviceImage2D xOut, xA = Img(r.f1, r.a), xB = Img(f2, r.b);
    if (r.cOp == 'M') c.Mix(xOut, xA, xB, r.p, r.q != 0);
    if (r.cOp == 'S') c.Subtract(xOut, xA, xB, r.p, r.q);
    if (r.cOp == 'A') c.Add(xOut, xA, xB);
    if (r.cOp == 'C') c.Compare(xOut, xA, xB, r.p);
    if (r.cOp == 'H') c.Sharpening(xOut, xA, r.p, r.q);
    if (r.cOp == 'O') c.Sobel(xOut, xA);
    Expect(xOut, r.fOut.iWidth ? r.fOut : r.f1, r.e, r.dTolerance,
           "row " + std::to_string(&r - xRows));
  }
  CQvDeviceImage2D xSum = Img(kLF2, {0}), xMean = Img(kL2, {9});
  CQvCudaCompConvolve xComp;
  xComp.Increment(xSum, Img(kL2, {255, 0}));
  xComp.Increment(xSum, Img(kL2, {51, 0}));
  Expect(xSum, kLF2, {1.2, 0}, 1e-6, "increment");
  xComp.Divide(xMean, xSum, 2);
  Expect(xMean, kL2, {153, 0}, 1, "divide");
  xComp.Divide(xMean, xSum, 0);  // 1.2 / 0 and 0 / 0, a NaN, both store 255
  Expect(xMean, kL2, {255, 255}, 0, "divide by zero");
}

// The failure's own text, and innermost its cause.
template <class Fn>
void ExpectFailure(Fn&& fnOp, const char* szOuter, const char* szInner) {
  try {
    fnOp();
    ADD_FAILURE() << szInner << ": no failure";
  } catch (const CQvException& e) {
    const IException* p = &e;
    while (p->GetInnerException()) p = p->GetInnerException();
    EXPECT_STREQ(szOuter, e.GetMessageText());
    EXPECT_STREQ(szInner, p->GetMessageText());
  }
}

TEST(Arithmetic, ChecksFailWithTheirMessages) {
  CQvDeviceImage2D xLF = Img(F(2, 2, kL, kF), {0}), xRGBA = Img(F(2, 2, kRGBA, kUB), {0}), t;
  CQvCudaCompConvolve c;
  float f = 0.0f;
  ExpectFailure([&] { c.Mix(xLF, xRGBA, xLF, 1, false); }, "Error performing mix operation",
                "The target may be an input image only if it has the format of the result");
  ExpectFailure([&] { c.Convolution(t, xRGBA, tmat<float, 3>::Identity()); },
                "Error applying convolution", "Source image is not grayscale float image");
  ExpectFailure([&] { c.GetImageMinMax(f, f, 1, xLF); },
                "Error getting minimum and maximum of the given image",
                "Invalid channel index for luminance image");
}

// The ramp x + 100 y through an N x N filter whose only tap, 1, is at row j, column i: the
// source moved by dx, dy, that tap's offset from the filter's centre.
template <int N>
void ExpectTap(int i, int j, int dx, int dy) {
  const int w = 21, h = 19;
  Values v, e;
  for (int k = 0; k < w * h; ++k) {
    v.push_back(k % w + 100.0 * (k / w));
    e.push_back(std::clamp(k % w + dx, 0, w - 1) + 100.0 * std::clamp(k / w + dy, 0, h - 1));
  }
  tmat<double, N> xMatrix{};
  xMatrix(j, i) = 1.0;
  CQvDeviceImage2D xOut;
  CQvCudaCompConvolve().Convolution(xOut, Img(F(w, h, kL, kF), v), xMatrix);
  Expect(xOut, F(w, h, kL, kF), e, 0, "tap of " + std::to_string(N));
}

TEST(Convolution, TapsLieWhereTheCentreRuleSaysWithTheEdgeRepeatedSumsWhereFlat) {
  ExpectTap<3>(1, 1, 0, 0);  // identity
  ExpectTap<2>(1, 0, 1, 0);
  ExpectTap<4>(0, 0, -1, -1);
  ExpectTap<16>(0, 15, -7, 8);
  // A constant image gives the sum of the coefficients, border included.
  tmat<float, 4> xMatrix{};  // 0.25 k - 3 for k = 0 to 15: sum -18, negative results survive
  for (int k = 0; k < 16; ++k) xMatrix.m[k] = 0.25f * k - 3.0f;
  CQvDeviceImage2D xOut;
  CQvCudaCompConvolve().Convolution(xOut, Img(F(9, 7, kL, kF), {0.5}), xMatrix);
  Expect(xOut, F(9, 7, kL, kF), Values(63, -9.0), 0, "constant");
}

TEST(MinMax, ExactOverCountedSamplesAndNaNWhenNoneCount) {
  const double kNaN = NAN, kInf = INFINITY;  // NaN samples do not count
  Values xBig(301 * 203, 0.5);               // across blocks and worker threads
  xBig.back() = -2.0;
  xBig[3 * 301 + 150] = 7.0;
  const struct {
    F f;
    Values v;
    unsigned uChannel;
    double dMin, dMax;
  } xRows[] = {
      {F(3, 2, kL, kF), {0}, 0, kNaN, kNaN},
      {F(3, 2, kL, kF), {kNaN}, 0, kNaN, kNaN},
      {F(3, 2, kL, kF), {0, 0, 0, 0, 0.3, 0}, 0, 0.3f, 0.3f},
      {F(4, 1, kL, kF), {-1, 0.25, 0, 3}, 0, -1, 3},
      {F(3, 1, kL, kF), {kInf, 1, -kInf}, 0, -kInf, kInf},
      {F(3, 1, kL, kF), {0, kInf, kNaN}, 0, kInf, kInf},
      {F(2, 1, kL, kF), {FLT_MAX, 0}, 0, FLT_MAX, FLT_MAX},
      {F(301, 203, kL, kF), xBig, 0, -2, 7},
      {F(3, 1, kL, kUB), {0, 255, 51}, 0, 0.2f, 1},
      {F(2, 1, kRGBA, kUB), {1, 2, 51, 4, 5, 6, 255, 8}, 2, 0.2f, 1},
  };
  CQvCudaCompConvolve xComp;  // one object throughout: each call starts afresh
  for (const auto& r : xRows) {
    float fMin = 0.0f, fMax = 0.0f;
    xComp.GetImageMinMax(fMin, fMax, r.uChannel, Img(r.f, r.v));
    const std::string sRow = "row " + std::to_string(&r - xRows);
    EXPECT_TRUE(std::isnan(r.dMin) ? std::isnan(fMin) : fMin == float(r.dMin)) << sRow << fMin;
    EXPECT_TRUE(std::isnan(r.dMax) ? std::isnan(fMax) : fMax == float(r.dMax)) << sRow << fMax;
  }
}

}  // namespace
