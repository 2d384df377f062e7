// Demosaic against a reference worked out in double precision from the colours of the
// neighbouring sites, plus exact cases: flat fields, constant colour planes, saturation.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "QvCudaCompDemosaic.h"
#include "QvException.h"
#include "TestImages.h"

using namespace Qv;

namespace {

// Colour of site (x, y) in the endless pattern: 'R', 'G' or 'B'.
char SiteColour(EPixelType::ID ePattern, int x, int y) {
  static const char* aszTopLeft[4] = {"RGGB", "BGGR", "GRBG", "GBRG"};
  const char* szLayout = aszTopLeft[ePattern - EPixelType::BayerRG];
  return szLayout[(y & 1) * 2 + (x & 1)];
}

struct SRgb {
  double r, g, b;
};

// Malvar-He-Cutler with gains, written from the site colours: the samples two away carry the
// centre's gain even where the clamped edge puts another colour there.
SRgb Reference(const std::vector<double>& xRaw, int w, int h, EPixelType::ID ePattern, int x, int y,
               double gr, double gg, double gb) {
  auto p = [&](int dx, int dy) {
    const int cx = std::min(std::max(x + dx, 0), w - 1), cy = std::min(std::max(y + dy, 0), h - 1);
    return xRaw[cy * w + cx];
  };
  auto gain = [&](char c) { return c == 'R' ? gr : (c == 'G' ? gg : gb); };
  const char k = SiteColour(ePattern, x, y);
  const char kh = SiteColour(ePattern, x + 1, y), kv = SiteColour(ePattern, x, y + 1);
  const char kd = SiteColour(ePattern, x + 1, y + 1);
  const double C = gain(k) * p(0, 0);
  const double X = gain(k) * (p(-2, 0) + p(2, 0)), Y = gain(k) * (p(0, -2) + p(0, 2));
  const double H = gain(kh) * (p(-1, 0) + p(1, 0)), V = gain(kv) * (p(0, -1) + p(0, 1));
  const double D = gain(kd) * (p(-1, -1) + p(-1, 1) + p(1, -1) + p(1, 1));
  const double T = 10 * C - 2 * D;
  SRgb o{};
  if (k == 'G') {
    const double EH = (T + 8 * H + Y - 2 * X) / 16, EV = (T + 8 * V + X - 2 * Y) / 16;
    o.g = C;
    (kh == 'R' ? o.r : o.b) = EH;
    (kv == 'R' ? o.r : o.b) = EV;
  } else {
    const double EG = (4 * C + 2 * V + 2 * H - (X + Y)) / 8;
    const double ED = (12 * C + 4 * D - 3 * (X + Y)) / 16;
    o.g = EG;
    (k == 'R' ? o.r : o.b) = C;
    (k == 'R' ? o.b : o.r) = ED;
  }
  return o;
}

// Debayers 8-bit mosaic bytes and brings the RGBA result back.
CQvImage DebayerBytes(int w, int h, EPixelType::ID ePattern, const std::vector<uint8_t>& xBytes,
                      float gr, float gg, float gb) {
  CQvImageMoniker xMoniker;
  xMoniker.Create(w, h, ePattern, EDataType::UByte, const_cast<uint8_t*>(xBytes.data()));
  CQvDeviceImage2D xSource, xTarget;
  xSource.Create(xMoniker);
  CQvCudaCompDemosaic().Debayer(xTarget, xSource, gr, gg, gb);
  CQvImage xOut;
  xTarget.CopyTo(xOut);
  return xOut;
}

// Bytes of a mosaic whose sites hold the value of their own colour.
std::vector<uint8_t> ColourPlanes(int w, int h, EPixelType::ID ePattern, uint8_t r, uint8_t g,
                                  uint8_t b) {
  std::vector<uint8_t> xBytes(static_cast<size_t>(w) * h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const char c = SiteColour(ePattern, x, y);
      xBytes[y * w + x] = c == 'R' ? r : (c == 'G' ? g : b);
    }
  return xBytes;
}

int StoreRef(double v, double m) {
  return static_cast<int>(std::min(m, std::max(0.0, v * m)));
}

template <class TElem>
void RunAndCompare(int w, int h, EPixelType::ID ePattern, EDataType::ID eData, uint32_t uSeed,
                   float gr, float gg, float gb) {
  const double dM = eData == EDataType::UByte ? 255.0 : 65535.0;
  const CQvImageFormat xFormat(w, h, ePattern, eData);
  const CQvImage xHost = QvTest::RandomImage(xFormat, uSeed);
  const auto* pRaw = static_cast<const TElem*>(xHost.GetDataPtr());
  std::vector<double> xRaw(static_cast<size_t>(w) * h);
  for (size_t i = 0; i < xRaw.size(); ++i) xRaw[i] = pRaw[i] / dM;

  CQvDeviceImage2D xSource(xHost), xTarget;
  CQvCudaCompDemosaic xComp;
  xComp.Debayer(xTarget, xSource, gr, gg, gb);
  ASSERT_EQ(CQvImageFormat(w, h, EPixelType::RGBA, eData), xTarget.GetFormat());
  CQvImage xOut;
  xTarget.CopyTo(xOut);
  const auto* pOut = static_cast<const TElem*>(xOut.GetDataPtr());
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const SRgb e = Reference(xRaw, w, h, ePattern, x, y, gr, gg, gb);
      const TElem* q = pOut + (static_cast<size_t>(y) * w + x) * 4;
      // Single precision against double: at most one step apart after truncation.
      EXPECT_NEAR(StoreRef(e.r, dM), q[0], 1) << "R at " << x << "," << y;
      EXPECT_NEAR(StoreRef(e.g, dM), q[1], 1) << "G at " << x << "," << y;
      EXPECT_NEAR(StoreRef(e.b, dM), q[2], 1) << "B at " << x << "," << y;
      EXPECT_EQ(static_cast<TElem>(dM), q[3]) << "alpha at " << x << "," << y;
    }
  }
}

class DemosaicPatternTest : public ::testing::TestWithParam<EPixelType::ID> {};

TEST_P(DemosaicPatternTest, SmallMosaicsMatchTheReferenceInEveryPhase) {
  RunAndCompare<uint8_t>(6, 6, GetParam(), EDataType::UByte, 1, 1.4285715f, 1.0f, 1.1363636f);
  RunAndCompare<uint8_t>(7, 5, GetParam(), EDataType::UByte, 2, 1.4285715f, 1.0f, 1.1363636f);
  RunAndCompare<uint16_t>(7, 5, GetParam(), EDataType::UShort, 3, 0.8f, 1.25f, 1.5f);
  RunAndCompare<uint16_t>(6, 6, GetParam(), EDataType::UShort, 4, 1.0f, 1.0f, 1.0f);
}

TEST_P(DemosaicPatternTest, ImagesOfWidthOrHeightOneClampEveryNeighbour) {
  RunAndCompare<uint8_t>(1, 1, GetParam(), EDataType::UByte, 5, 1.0f, 1.0f, 1.0f);
  RunAndCompare<uint8_t>(1, 5, GetParam(), EDataType::UByte, 6, 1.2f, 1.0f, 0.9f);
  RunAndCompare<uint16_t>(7, 1, GetParam(), EDataType::UShort, 7, 1.2f, 1.0f, 0.9f);
}

TEST_P(DemosaicPatternTest, ConstantColourPlanesComeBackExactlyAwayFromTheBorder) {
  // Each site holds the value of its own colour: the corrections cancel, so every pixel at
  // least two away from the border is (200, 100, 50), less at most one truncation step.
  const int w = 8, h = 8;
  const CQvImage xOut =
      DebayerBytes(w, h, GetParam(), ColourPlanes(w, h, GetParam(), 200, 100, 50), 1, 1, 1);
  const auto* p = static_cast<const uint8_t*>(xOut.GetDataPtr());
  for (int y = 2; y < h - 2; ++y)
    for (int x = 2; x < w - 2; ++x) {
      const uint8_t* q = p + (y * w + x) * 4;
      EXPECT_GE(q[0], 199) << x << "," << y;
      EXPECT_LE(q[0], 200);
      EXPECT_GE(q[1], 99);
      EXPECT_LE(q[1], 100);
      EXPECT_GE(q[2], 49);
      EXPECT_LE(q[2], 50);
    }
}

INSTANTIATE_TEST_SUITE_P(AllOrders, DemosaicPatternTest,
                         ::testing::Values(EPixelType::BayerRG, EPixelType::BayerBG,
                                           EPixelType::BayerGR, EPixelType::BayerGB));

TEST(Demosaic, FlatFieldStaysFlatButForTruncation) {
  for (int v : {0, 1, 77, 128, 254, 255}) {
    const CQvImage xOut = DebayerBytes(
        9, 7, EPixelType::BayerGR, std::vector<uint8_t>(9 * 7, static_cast<uint8_t>(v)), 1, 1, 1);
    const auto* p = static_cast<const uint8_t*>(xOut.GetDataPtr());
    for (int i = 0; i < 9 * 7; ++i) {
      for (int c = 0; c < 3; ++c) {
        EXPECT_LE(p[i * 4 + c], v);
        EXPECT_GE(p[i * 4 + c], std::max(0, v - 1)) << "value " << v;
      }
      EXPECT_EQ(255, p[i * 4 + 3]);
    }
  }
}

TEST(Demosaic, GainAboveOneSaturatesItsChannel) {
  std::vector<uint16_t> xWords(6 * 6, 50000);
  CQvImageMoniker xMoniker;
  xMoniker.Create(6, 6, EPixelType::BayerRG, EDataType::UShort, xWords.data());
  CQvDeviceImage2D xSource, xTarget;
  xSource.Create(xMoniker);
  CQvCudaCompDemosaic().Debayer(xTarget, xSource, 2.0f, 1.0f, 1.0f);
  CQvImage xOut;
  xTarget.CopyTo(xOut);
  const auto* p = static_cast<const uint16_t*>(xOut.GetDataPtr());
  for (int i = 0; i < 36; ++i) {
    EXPECT_EQ(65535, p[i * 4 + 0]) << i;  // 2 x 50000 clamps
    EXPECT_EQ(65535, p[i * 4 + 3]);
  }
}

TEST(Demosaic, BorderSampleTwoAwayTakesTheCentreGainOnTheOtherColour) {
  // GRBG row 0 at x = 1 is a red site; two to the left clamps onto column 0, a green site,
  // yet it counts with the red gain. Hand-worked: with R sites 0.8 and G sites 0.4 (raw
  // 204 and 102), red gain 1: X = 0.4 + 0.8, Y = 0.8 + 0.8 (row -2 clamps onto row 0),
  // so EG = (4*0.8 + 2V + 2H - 2.8) / 8.
  const CQvImage xOut = DebayerBytes(
      6, 6, EPixelType::BayerGR, ColourPlanes(6, 6, EPixelType::BayerGR, 204, 102, 51), 1, 1, 1);
  const auto* q = static_cast<const uint8_t*>(xOut.GetDataPtr()) + 1 * 4;
  // H: left (0,0) G 0.4, right (2,0) G 0.4 -> 0.8; V: up clamps to (1,0) R 0.8, down (1,1) G
  // 0.4 -> 1.2. EG = (3.2 + 2.4 + 1.6 - 2.8) / 8 = 0.55 -> 140.25 -> 140.
  EXPECT_NEAR(204, q[0], 1);
  EXPECT_NEAR(140, q[1], 1);
}

TEST(Demosaic, RefusesWhatIsNoUByteOrUShortMosaic) {
  CQvCudaCompDemosaic xComp;
  CQvDeviceImage2D xTarget;
  CQvDeviceImage2D xRgba(CQvImageFormat(4, 4, EPixelType::RGBA, EDataType::UByte));
  try {
    xComp.Debayer(xTarget, xRgba, 1, 1, 1);
    FAIL();
  } catch (const CQvException& e) {
    EXPECT_STREQ("Error demosaicing", e.GetMessageText());
    ASSERT_NE(nullptr, e.GetInnerException());
    EXPECT_STREQ("The given source image is not of bayer pixel type",
                 e.GetInnerException()->GetMessageText());
  }
  CQvDeviceImage2D xFloat(CQvImageFormat(4, 4, EPixelType::BayerGB, EDataType::Float));
  try {
    xComp.Debayer(xTarget, xFloat, 1, 1, 1);
    FAIL();
  } catch (const CQvException& e) {
    EXPECT_STREQ("The given source image is not of UByte or UShort data type",
                 e.GetInnerException()->GetMessageText());
  }
  EXPECT_FALSE(xTarget.IsValid());  // both checks come before the target is touched
  CQvDeviceImage2D xEmptyBayer;
  EXPECT_THROW(xComp.Debayer(xTarget, xEmptyBayer, 1, 1, 1), CQvException);
}

}  // namespace
