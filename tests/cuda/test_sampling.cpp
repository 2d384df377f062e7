// Texture fetches against values worked out by hand (point and linear filter, at and between
// pixel centres, past the edges, normalized coordinates, each read class), and the storing rule.
#include <gtest/gtest.h>

#include <cmath>

#include "FetchProbe.h"
#include "QvDevice.h"
#include "QvSampling.h"
#include "TestImages.h"
#include "TextureBinding.h"

using namespace Qv;

namespace {

// The texture unit's linear filter rounds its weights to 1/256; the host emulation follows
// that rule exactly, the hardware may differ in the last bits of the blend.
float LinearTolerance() {
  return Device::IsCuda() ? 1.0f / 512.0f : 0.0f;
}

TEST(Sampling, PointAndLinearFetchesClampAtTheEdges) {
  // 4 x 2 gray:   0 255  51 102
  //             255   0 204 153
  const CQvDeviceImage2D xImage =
      QvTest::Upload(4, 2, EPixelType::Lum, EDataType::UByte, {0, 255, 51, 102, 255, 0, 204, 153});
  const struct {
    bool bLinear, bNormalized;
    float x, y, fExpected;
  } aCases[] = {
      {false, false, 1.5f, 0.5f, 1.0f},             // centre of (1, 0)
      {false, false, 1.0f, 0.5f, 1.0f},             // its left edge still belongs to it
      {false, false, 1.99f, 1.2f, 0.0f},            // (1, 1)
      {false, false, 2.5f, 1.5f, 204.0f / 255.0f},  // (2, 1)
      {false, false, -3.0f, 0.5f, 0.0f},  // past the edges: (0, 0), (3, 1), (3, 0), (0, 1)
      {false, false, 10.0f, 1.7f, 153.0f / 255.0f},
      {false, false, 3.5f, -8.0f, 102.0f / 255.0f},
      {false, false, -1.0f, 9.0f, 1.0f},
      {false, true, 0.6f, 0.75f, 204.0f / 255.0f},  // (2.4, 1.5)
      {false, true, 0.1f, 0.25f, 0.0f},             // (0.4, 0.5)
      {true, false, 2.5f, 0.5f, 51.0f / 255.0f},    // at a centre: the pixel
      {true, false, 1.0f, 0.5f, 0.5f},              // halfway between 0 and 255
      {true, false, 2.0f, 1.0f, (255.0f + 51.0f + 0.0f + 204.0f) / 4.0f / 255.0f},
      {true, false, 1.25f, 0.5f, 0.75f},
      {true, false, 0.5f + 1.0f / 3.0f, 0.5f, 85.0f / 256.0f},  // weight 85/256, not 1/3
      {true, false, -5.0f, 0.5f, 0.0f},
      {true, false, 4.0f, 0.5f, 102.0f / 255.0f},
      {true, false, 3.5f, 2.5f, 153.0f / 255.0f},
      {true, false, 0.5f, 0.0f, 0.0f},  // row -0.5 clamps to row 0
      {true, true, 0.5f, 0.5f, (255.0f + 51.0f + 0.0f + 204.0f) / 4.0f / 255.0f},
  };
  for (const auto& c : aCases) {
    const float4 r = QvTest::ProbeFetches(xImage, c.bLinear, c.bNormalized, {{c.x, c.y}})[0];
    EXPECT_NEAR(r.x, c.fExpected, c.bLinear ? LinearTolerance() : 0.0f)
        << (c.bLinear ? "linear" : "point") << (c.bNormalized ? " normalized" : "") << " at " << c.x
        << "," << c.y;
  }
}

TEST(Sampling, EachClassReadsItsOwnScale) {
  const struct {
    EPixelType::ID ePixel;
    EDataType::ID eData;
    int w;
    std::vector<double> xSamples;
    bool bLinear;
    float x, y;
    float4 xExpected;
  } aCases[] = {
      // clang-format off
      {EPixelType::Lum, EDataType::UShort, 3, {65535, 257, 0}, false, 1.5f, 0.5f,
       {257.0f / 65535.0f, 0, 0, 0}},
      {EPixelType::Lum, EDataType::UShort, 3, {65535, 257, 0}, false, 0.5f, 0.5f, {1, 0, 0, 0}},
      {EPixelType::Lum, EDataType::Float, 2, {-2.5, 7.25}, false, 0.5f, 0.5f, {-2.5f, 0, 0, 0}},
      {EPixelType::Lum, EDataType::Float, 2, {-2.5, 7.25}, true, 1.0f, 0.5f, {2.375f, 0, 0, 0}},
      {EPixelType::RGBA, EDataType::UByte, 2, {10, 20, 30, 40, 255, 0, 128, 255}, false, 1.5f, 0.5f,
       {1, 0, 128.0f / 255.0f, 1}},
      {EPixelType::RGBA, EDataType::UByte, 2, {10, 20, 30, 40, 255, 0, 128, 255}, false, 0.2f, 0.9f,
       {10.0f / 255.0f, 20.0f / 255.0f, 30.0f / 255.0f, 40.0f / 255.0f}},
      {EPixelType::RGBA, EDataType::UShort, 1, {1, 2, 3, 65535}, false, 0.5f, 0.5f,
       {1.0f / 65535.0f, 2.0f / 65535.0f, 3.0f / 65535.0f, 1}},
      {EPixelType::BayerGR, EDataType::UByte, 2, {1, 2, 3, 4}, false, 1.5f, 1.5f,
       {4.0f / 255.0f, 0, 0, 0}},  // a mosaic reads as one channel
      // clang-format on
  };
  for (const auto& c : aCases) {
    const int n = CQvImageFormat(1, 1, c.ePixel, c.eData).GetComponentCount();
    const int h = static_cast<int>(c.xSamples.size()) / n / c.w;
    const CQvDeviceImage2D xImage = QvTest::Upload(c.w, h, c.ePixel, c.eData, c.xSamples);
    const float4 r = QvTest::ProbeFetches(xImage, c.bLinear, false, {{c.x, c.y}})[0];
    const float t = c.bLinear ? LinearTolerance() * 10.0f : 0.0f;
    const std::string sRow = xImage.GetFormat().ToString().ToCString();
    EXPECT_NEAR(r.x, c.xExpected.x, t) << sRow << " at " << c.x << "," << c.y;
    EXPECT_NEAR(r.y, c.xExpected.y, t) << sRow;
    EXPECT_NEAR(r.z, c.xExpected.z, t) << sRow;
    EXPECT_NEAR(r.w, c.xExpected.w, t) << sRow;
  }
}

// Kernels that read raw samples from memory normalize them without a division; every 8- and
// 16-bit value must come out as the correctly rounded quotient, as the texture unit gives it.
TEST(Sampling, NormalizingWithoutDivisionIsExactForEveryValue) {
  for (const float fM : {255.0f, 65535.0f}) {
    int iWrong = 0;
    for (int v = 0; v <= static_cast<int>(fM); ++v)
      iWrong += DivideByStoreScale(static_cast<float>(v), fM) != static_cast<float>(v) / fM;
    EXPECT_EQ(0, iWrong) << "scale " << fM;
  }
}

TEST(Storing, ScalesByMClampsAndTruncatesAndNaNStoresM) {
  const struct {
    float v;
    int iByte, iWord;
  } aCases[] = {
      {1.0f, 255, 65535}, {0.999f, 254, 65469}, {0.5f, 127, 32767}, {7.0f, 255, 65535},
      {-0.5f, 0, 0},      {NAN, 255, 65535},    {-INFINITY, 0, 0},  {128.0f / 255.0f, 128, 32896},
  };
  for (const auto& c : aCases) {
    EXPECT_EQ(StoreChannel<L_uc>(c.v), c.iByte) << c.v;
    EXPECT_EQ(StoreChannel<RGBA_us>(c.v), c.iWord) << c.v;
  }
  EXPECT_EQ(StoreChannel<L_f>(-3.5f), -3.5f);  // float stores unscaled, unclamped
}

TEST(TextureBinding, RefusesInvalidAndThreeChannelImagesAndRebinds) {
  CQvDeviceImage2D xEmpty, xRgb(CQvImageFormat(4, 4, EPixelType::RGB, EDataType::UByte));
  EXPECT_EQ(QvTest::Thrown([&] { CTextureBinding x(xEmpty, false); }), "Image is invalid");
  EXPECT_EQ(QvTest::Thrown([&] { CTextureBinding x(xRgb, false); }),
            "Error binding device image to CUDA texture > Image format cannot be read through a "
            "texture: 4x4, RGB, UByte");
  CQvDeviceImage2D a(CQvImageFormat(4, 4, EPixelType::Lum, EDataType::UByte));
  CQvDeviceImage2D b(CQvImageFormat(8, 2, EPixelType::RGBA, EDataType::Float));
  CTextureBinding x(a, false);
  x.Bind(b, true, false, cudaAddressModeClamp);
  EXPECT_EQ(8, x.Get().xImage.xFormat.iWidth);
  x.Unbind();
  x.Unbind();
  EXPECT_FALSE(x.IsBound());
}

}  // namespace
