// Texture fetches against values worked out by hand: point and linear filter, at and between
// pixel centres, past the edges, with normalized coordinates, for each read class.
#include <gtest/gtest.h>

#include <cstring>

#include "FetchProbe.h"
#include "QvDevice.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "QvSampling.h"
#include "TextureBinding.h"

using namespace Qv;
using QvTest::SCoord;

namespace {

// The texture unit's linear filter rounds its weights to 1/256; the host emulation follows
// that rule exactly, the hardware may differ in the last bits of the blend.
float LinearTolerance() {
  return Device::IsCuda() ? 1.0f / 512.0f : 0.0f;
}

class SamplingTest : public ::testing::Test {
 protected:
  // 4 x 2 gray image:
  //   row 0:   0  255   51  102
  //   row 1: 255    0  204  153
  void SetUp() override {
    const uint8_t aPixels[8] = {0, 255, 51, 102, 255, 0, 204, 153};
    CQvImageMoniker xMoniker;
    xMoniker.Create(4, 2, EPixelType::Lum, EDataType::UByte, const_cast<uint8_t*>(aPixels));
    m_xImage.Create(xMoniker);
  }
  CQvDeviceImage2D m_xImage;
};

TEST_F(SamplingTest, PointFetchReturnsThePixelUnderTheCoordinate) {
  const auto r = QvTest::ProbeFetches(m_xImage, false, false,
                                      {{1.5f, 0.5f}, {1.0f, 0.5f}, {1.99f, 1.2f}, {2.5f, 1.5f}});
  EXPECT_EQ(1.0f, r[0].x);             // centre of (1, 0)
  EXPECT_EQ(1.0f, r[1].x);             // left edge of (1, 0) still belongs to it
  EXPECT_EQ(0.0f, r[2].x);             // (1, 1)
  EXPECT_EQ(204.0f / 255.0f, r[3].x);  // (2, 1)
}

TEST_F(SamplingTest, PointFetchPastTheEdgeRepeatsTheEdgePixel) {
  const auto r = QvTest::ProbeFetches(m_xImage, false, false,
                                      {{-3.0f, 0.5f}, {10.0f, 1.7f}, {3.5f, -8.0f}, {-1.0f, 9.0f}});
  EXPECT_EQ(0.0f, r[0].x);             // (0, 0)
  EXPECT_EQ(153.0f / 255.0f, r[1].x);  // (3, 1)
  EXPECT_EQ(102.0f / 255.0f, r[2].x);  // (3, 0)
  EXPECT_EQ(1.0f, r[3].x);             // (0, 1)
}

TEST_F(SamplingTest, LinearFetchAtCentreIsThePixelAndBetweenIsTheBlend) {
  const float t = LinearTolerance();
  const auto r = QvTest::ProbeFetches(
      m_xImage, true, false,
      {{2.5f, 0.5f}, {1.0f, 0.5f}, {2.0f, 1.0f}, {1.25f, 0.5f}, {0.5f + 1.0f / 3.0f, 0.5f}});
  EXPECT_NEAR(51.0f / 255.0f, r[0].x, t);
  EXPECT_NEAR(0.5f, r[1].x, t);  // halfway between 0 and 255
  EXPECT_NEAR((255.0f + 51.0f + 0.0f + 204.0f) / 4.0f / 255.0f, r[2].x, t);
  EXPECT_NEAR(0.75f, r[3].x, t);  // a quarter of the way from 255 to 0
  // A third of a pixel: the weight is held as 85/256, not 1/3.
  EXPECT_NEAR(85.0f / 256.0f, r[4].x, t);
  if (!Device::IsCuda()) {
    EXPECT_NE(1.0f / 3.0f, r[4].x);
  }
}

TEST_F(SamplingTest, LinearFetchPastTheEdgeBlendsClampedNeighbours) {
  const float t = LinearTolerance();
  const auto r = QvTest::ProbeFetches(m_xImage, true, false,
                                      {{-5.0f, 0.5f}, {4.0f, 0.5f}, {3.5f, 2.5f}, {0.5f, 0.0f}});
  EXPECT_NEAR(0.0f, r[0].x, t);
  EXPECT_NEAR(102.0f / 255.0f, r[1].x, t);
  EXPECT_NEAR(153.0f / 255.0f, r[2].x, t);
  EXPECT_NEAR(0.0f, r[3].x, t);  // row -0.5 clamps to row 0
}

TEST_F(SamplingTest, NormalizedCoordinatesScaleByTheImageSize) {
  const auto r = QvTest::ProbeFetches(m_xImage, false, true, {{0.6f, 0.75f}, {0.1f, 0.25f}});
  EXPECT_EQ(204.0f / 255.0f, r[0].x);  // (2.4, 1.5) -> (2, 1)
  EXPECT_EQ(0.0f, r[1].x);             // (0.4, 0.5) -> (0, 0)
}

TEST(Sampling, EachClassReadsItsOwnScale) {
  {
    const uint16_t a[3] = {65535, 257, 0};
    CQvImageMoniker m;
    m.Create(3, 1, EPixelType::Lum, EDataType::UShort, const_cast<uint16_t*>(a));
    CQvDeviceImage2D x;
    x.Create(m);
    const auto r =
        QvTest::ProbeFetches(x, false, false, {{0.5f, 0.5f}, {1.5f, 0.5f}, {2.5f, 0.5f}});
    EXPECT_EQ(1.0f, r[0].x);
    EXPECT_EQ(257.0f / 65535.0f, r[1].x);
    EXPECT_EQ(0.0f, r[2].x);
  }
  {
    const float a[2] = {-2.5f, 7.25f};
    CQvImageMoniker m;
    m.Create(2, 1, EPixelType::Lum, EDataType::Float, const_cast<float*>(a));
    CQvDeviceImage2D x;
    x.Create(m);
    const auto r = QvTest::ProbeFetches(x, false, false, {{0.5f, 0.5f}, {1.5f, 0.5f}});
    EXPECT_EQ(-2.5f, r[0].x);  // float images read unscaled
    EXPECT_EQ(7.25f, r[1].x);
    const auto l = QvTest::ProbeFetches(x, true, false, {{1.0f, 0.5f}});
    EXPECT_NEAR(2.375f, l[0].x, LinearTolerance() * 10.0f);
  }
  {
    const uint8_t a[8] = {10, 20, 30, 40, 255, 0, 128, 255};
    CQvImageMoniker m;
    m.Create(2, 1, EPixelType::RGBA, EDataType::UByte, const_cast<uint8_t*>(a));
    CQvDeviceImage2D x;
    x.Create(m);
    const auto r = QvTest::ProbeFetches(x, false, false, {{1.5f, 0.5f}, {0.2f, 0.9f}});
    EXPECT_EQ(1.0f, r[0].x);
    EXPECT_EQ(0.0f, r[0].y);
    EXPECT_EQ(128.0f / 255.0f, r[0].z);
    EXPECT_EQ(1.0f, r[0].w);
    EXPECT_EQ(10.0f / 255.0f, r[1].x);
    EXPECT_EQ(40.0f / 255.0f, r[1].w);
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

TEST(Sampling, BayerImageReadsAsOneChannel) {
  const uint8_t a[4] = {1, 2, 3, 4};
  CQvImageMoniker m;
  m.Create(2, 2, EPixelType::BayerGR, EDataType::UByte, const_cast<uint8_t*>(a));
  CQvDeviceImage2D x;
  x.Create(m);
  const auto r = QvTest::ProbeFetches(x, false, false, {{1.5f, 1.5f}});
  EXPECT_EQ(4.0f / 255.0f, r[0].x);
}

TEST(Storing, ScalesClampsAndTruncates) {
  EXPECT_EQ(255, StoreChannel<L_uc>(1.0f));
  EXPECT_EQ(254, StoreChannel<L_uc>(0.999f));  // 254.745 truncates, no rounding
  EXPECT_EQ(255, StoreChannel<L_uc>(7.0f));
  EXPECT_EQ(0, StoreChannel<L_uc>(-0.5f));
  EXPECT_EQ(255, StoreChannel<L_uc>(NAN));  // NaN stores full scale
  EXPECT_EQ(65535, StoreChannel<L_us>(NAN));
  EXPECT_EQ(32767, StoreChannel<RGBA_us>(0.5f));  // 32767.5 truncates
  EXPECT_EQ(-3.5f, StoreChannel<L_f>(-3.5f));     // float stores unscaled, unclamped
  EXPECT_EQ(128, StoreChannel<L_uc>(128.0f / 255.0f));
}

TEST(TextureBinding, RefusesInvalidAndThreeChannelImages) {
  CQvDeviceImage2D xEmpty;
  try {
    CTextureBinding x(xEmpty, false);
    FAIL();
  } catch (const CQvException& e) {
    EXPECT_STREQ("Image is invalid", e.GetMessageText());
  }
  CQvDeviceImage2D xRgb(CQvImageFormat(4, 4, EPixelType::RGB, EDataType::UByte));
  try {
    CTextureBinding x(xRgb, false);
    FAIL();
  } catch (const CQvException& e) {
    EXPECT_STREQ("Error binding device image to CUDA texture", e.GetMessageText());
    ASSERT_NE(nullptr, e.GetInnerException());
  }
}

TEST(TextureBinding, RebindAndUnbindAreSafe) {
  CQvDeviceImage2D a(CQvImageFormat(4, 4, EPixelType::Lum, EDataType::UByte));
  CQvDeviceImage2D b(CQvImageFormat(8, 2, EPixelType::RGBA, EDataType::Float));
  CTextureBinding x(a, false);
  EXPECT_TRUE(x.IsBound());
  x.Bind(b, true, false, cudaAddressModeClamp);
  EXPECT_EQ(8, x.Get().xImage.xFormat.iWidth);
  x.Unbind();
  x.Unbind();
  EXPECT_FALSE(x.IsBound());
}

}  // namespace
