// Texture fetches against values worked out by hand, and the storing rule.

#include "FetchProbe.h"
#include "QvDevice.h"
#include "QvSampling.h"
#include "TestImages.h"

using namespace Qv;

namespace {

TEST(Sampling, FetchesGiveTheHandWorkedValues) {
  using QvTest::Upload;
  const EDataType::ID UB = EDataType::UByte, US = EDataType::UShort, F = EDataType::Float;
  const CQvDeviceImage2D aImages[] = {
      // 4 x 2 gray:   0 255  51 102
      //             255   0 204 153
      Upload(4, 2, EPixelType::Lum, UB, {0, 255, 51, 102, 255, 0, 204, 153}),
      Upload(3, 1, EPixelType::Lum, US, {65535, 257, 0}),
      Upload(2, 1, EPixelType::Lum, F, {-2.5, 7.25}),  // float reads unscaled
      Upload(2, 1, EPixelType::RGBA, UB, {10, 20, 30, 40, 255, 0, 128, 255}),
      Upload(1, 1, EPixelType::RGBA, US, {1, 2, 3, 65535}),
      Upload(2, 2, EPixelType::BayerGR, UB, {1, 2, 3, 4})};  // a mosaic reads as one channel
  const bool P = false, L = true, N = true;
  // clang-format off
  const struct { int iImage; bool bLinear, bNormalized; float x, y; float e[4]; } aCases[] = {
      {0, P, !N, 1.5f, 0.5f, {1}},                  // centre of (1, 0)
      {0, P, !N, 1.0f, 0.5f, {1}},                  // its left edge still belongs to it
      {0, P, !N, 2.5f, 1.5f, {204 / 255.0f}},       // (2, 1)
      {0, P, !N, -3.0f, 0.5f, {0}},                 // past the edges: (0, 0), (3, 1), ...
      {0, P, !N, 10.0f, 1.7f, {153 / 255.0f}},
      {0, P, !N, 3.5f, -8.0f, {102 / 255.0f}},
      {0, P, !N, -1.0f, 9.0f, {1}},
      {0, P, N, 0.6f, 0.75f, {204 / 255.0f}},       // (2.4, 1.5)
      {0, P, N, 0.1f, 0.25f, {0}},                  // (0.4, 0.5)
      {0, L, !N, 2.5f, 0.5f, {51 / 255.0f}},        // at a centre: the pixel
      {0, L, !N, 1.0f, 0.5f, {0.5f}},               // halfway between 0 and 255
      {0, L, !N, 2.0f, 1.0f, {510 / 4.0f / 255}},   // the mean of four
      {0, L, !N, 1.25f, 0.5f, {0.75f}},
      {0, L, !N, 0.5f + 1.0f / 3, 0.5f, {85 / 256.0f}},  // the weight is 85/256, not 1/3
      {0, L, !N, -5.0f, 0.5f, {0}},
      {0, L, !N, 4.0f, 0.5f, {102 / 255.0f}},
      {0, L, !N, 3.5f, 2.5f, {153 / 255.0f}},
      {0, L, !N, 0.5f, 0.0f, {0}},                  // row -0.5 clamps to row 0
      {1, P, !N, 1.5f, 0.5f, {257 / 65535.0f}},
      {1, P, !N, 0.5f, 0.5f, {1}},
      {2, P, !N, 0.5f, 0.5f, {-2.5f}},
      {2, L, !N, 1.0f, 0.5f, {2.375f}},
      {3, P, !N, 1.5f, 0.5f, {1, 0, 128 / 255.0f, 1}},
      {3, P, !N, 0.2f, 0.9f, {10 / 255.0f, 20 / 255.0f, 30 / 255.0f, 40 / 255.0f}},
      {4, P, !N, 0.5f, 0.5f, {1 / 65535.0f, 2 / 65535.0f, 3 / 65535.0f, 1}},
      {5, P, !N, 1.5f, 1.5f, {4 / 255.0f}},
  };
  // clang-format on
  for (const auto& c : aCases) {
    const CQvDeviceImage2D& xImage = aImages[c.iImage];
    const float4 r = QvTest::ProbeFetch(xImage, c.bLinear, c.bNormalized, c.x, c.y);
    // The texture unit's linear filter rounds its weights to 1/256; the host emulation follows
    // that rule exactly, the hardware may differ in the last bits of the blend.
    const float t = c.bLinear && Device::IsCuda() ? (c.iImage == 2 ? 0.02f : 1 / 512.0f) : 0.0f;
    SCOPED_TRACE(::testing::Message()
                 << xImage.GetFormat().ToString().ToCString() << (c.bLinear ? " linear" : " point")
                 << (c.bNormalized ? " normalized" : "") << " at " << c.x << "," << c.y);
    EXPECT_NEAR(r.x, c.e[0], t);
    EXPECT_NEAR(r.y, c.e[1], t);
    EXPECT_NEAR(r.z, c.e[2], t);
    EXPECT_NEAR(r.w, c.e[3], t);
  }
}

// Kernels that read raw samples from memory normalize them without a division (so does the host
// where FMA is an instruction); every 8- and 16-bit value must come out as the correctly rounded
// quotient, as the texture unit gives it.
TEST(Sampling, NormalizingWithoutDivisionIsExactForEveryValue) {
  for (const float fM : {255.0f, 65535.0f}) {
    int iWrong = 0;
    for (int v = 0; v <= static_cast<int>(fM); ++v)
      iWrong += DivideByStoreScale(static_cast<float>(v), fM) != static_cast<float>(v) / fM;
    EXPECT_EQ(0, iWrong) << "scale " << fM;
  }
}

TEST(Storing, ScalesByMClampsAndTruncatesAndNaNStoresM) {
  // clang-format off
  const struct { float v; int iByte, iWord; } aCases[] = {
      {1.0f, 255, 65535}, {0.999f, 254, 65469}, {0.5f, 127, 32767}, {7.0f, 255, 65535},
      {-0.5f, 0, 0},      {NAN, 255, 65535},    {-INFINITY, 0, 0},  {128.0f / 255.0f, 128, 32896},
  };
  // clang-format on
  for (const auto& c : aCases) {
    EXPECT_EQ(StoreChannel<L_uc>(c.v), c.iByte) << c.v;
    EXPECT_EQ(StoreChannel<RGBA_us>(c.v), c.iWord) << c.v;
  }
  EXPECT_EQ(StoreChannel<L_f>(-3.5f), -3.5f);  // float stores unscaled, unclamped
}

}  // namespace
