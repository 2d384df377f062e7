// Demosaic against a reference worked out in double precision from the colours of the
// neighbouring sites, in every phase, with gains, at 8 and 16 bits.

#include "QvCudaCompDemosaic.h"
#include "TestImages.h"

using namespace Qv;

namespace {

// Colour of site (x, y) in the endless pattern: 'R', 'G' or 'B'.
char SiteColour(EPixelType::ID ePattern, int x, int y) {
  static const char* aszTopLeft[4] = {"RGGB", "BGGR", "GRBG", "GBRG"};
  return aszTopLeft[ePattern - EPixelType::BayerRG][(y & 1) * 2 + (x & 1)];
}

// Malvar-He-Cutler with gains, written from the site colours: the samples two away carry the
// centre's gain even where the clamped edge puts another colour there. Gives r, g, b in [0, 1].
std::vector<double> Reference(const std::vector<double>& xRaw, int w, int h,
                              EPixelType::ID ePattern, int x, int y, const double (&aGain)[3]) {
  auto p = [&](int dx, int dy) {
    return xRaw[std::clamp(y + dy, 0, h - 1) * w + std::clamp(x + dx, 0, w - 1)];
  };
  auto gain = [&](char c) { return aGain[c == 'R' ? 0 : (c == 'G' ? 1 : 2)]; };
  const char k = SiteColour(ePattern, x, y), kh = SiteColour(ePattern, x + 1, y);
  const char kv = SiteColour(ePattern, x, y + 1), kd = SiteColour(ePattern, x + 1, y + 1);
  const double C = gain(k) * p(0, 0);
  const double X = gain(k) * (p(-2, 0) + p(2, 0)), Y = gain(k) * (p(0, -2) + p(0, 2));
  const double H = gain(kh) * (p(-1, 0) + p(1, 0)), V = gain(kv) * (p(0, -1) + p(0, 1));
  const double D = gain(kd) * (p(-1, -1) + p(-1, 1) + p(1, -1) + p(1, 1));
  const double T = 10 * C - 2 * D;
  double r, g, b;
  if (k == 'G') {
    const double EH = (T + 8 * H + Y - 2 * X) / 16, EV = (T + 8 * V + X - 2 * Y) / 16;
    g = C;
    r = kh == 'R' ? EH : EV;
    b = kh == 'R' ? EV : EH;
  } else {
    g = (4 * C + 2 * V + 2 * H - (X + Y)) / 8;
    const double ED = (12 * C + 4 * D - 3 * (X + Y)) / 16;
    r = k == 'R' ? C : ED;
    b = k == 'R' ? ED : C;
  }
  return {r, g, b};
}

TEST(Demosaic, RandomMosaicsMatchTheReferenceInEveryPhaseWithGains) {
  // clang-format off
  const struct { int w, h; EDataType::ID eData; double aGain[3]; } aCases[] = {
      {7, 5, EDataType::UByte, {1.4285715, 1.0, 1.1363636}},
      {7, 5, EDataType::UShort, {0.8, 1.25, 1.5}},
      {6, 6, EDataType::UShort, {2.0, 1.0, 0.5}},  // saturates red
      {1, 1, EDataType::UByte, {1.0, 1.0, 1.0}},   // every neighbour clamps
      {1, 5, EDataType::UByte, {1.2, 1.0, 0.9}},
      {7, 1, EDataType::UShort, {1.2, 1.0, 0.9}},
  };
  // clang-format on
  uint32_t uSeed = 0;
  for (const EPixelType::ID ePattern :
       {EPixelType::BayerRG, EPixelType::BayerBG, EPixelType::BayerGR, EPixelType::BayerGB}) {
    for (const auto& c : aCases) {
      const CQvImage xMosaic =
          QvTest::RandomImage(CQvImageFormat(c.w, c.h, ePattern, c.eData), ++uSeed);
      const double dM = c.eData == EDataType::UByte ? 255.0 : 65535.0;
      std::vector<double> xRaw = QvTest::Samples(xMosaic);
      for (double& v : xRaw) v /= dM;
      CQvDeviceImage2D xSource(xMosaic), xTarget;
      CQvCudaCompDemosaic().Debayer(xTarget, xSource, static_cast<float>(c.aGain[0]),
                                    static_cast<float>(c.aGain[1]), static_cast<float>(c.aGain[2]));
      const std::string sRow = xMosaic.GetFormat().ToString().ToCString();
      SCOPED_TRACE(sRow);
      QV_EXPECT_FORMAT_OR_NEXT(CQvImageFormat(c.w, c.h, EPixelType::RGBA, c.eData),
                               xTarget.GetFormat());
      const std::vector<double> xOut = QvTest::Download(xTarget);
      for (int y = 0; y < c.h; ++y) {
        for (int x = 0; x < c.w; ++x) {
          const std::vector<double> e = Reference(xRaw, c.w, c.h, ePattern, x, y, c.aGain);
          const double* q = &xOut[(static_cast<size_t>(y) * c.w + x) * 4];
          for (int i = 0; i < 3; ++i) {
            // Single precision against double: at most one step apart after truncation.
            EXPECT_NEAR(std::floor(std::clamp(e[i] * dM, 0.0, dM)), q[i], 1)
                << sRow << " channel " << i << " at " << x << "," << y;
          }
          EXPECT_EQ(dM, q[3]) << sRow << " alpha at " << x << "," << y;
        }
      }
    }
  }
}

}  // namespace
