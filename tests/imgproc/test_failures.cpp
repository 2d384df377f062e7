// What each computation class refuses, and the messages, outermost first, that say why.

#include "QvCudaCompConvolve.h"
#include "QvCudaCompDemosaic.h"
#include "QvCudaCompNormalize.h"
#include "QvCudaCompYUV.h"
#include "TestImages.h"

using namespace Qv;

namespace {

TEST(Failures, EveryRefusalNamesItsCauseInsideTheOperationsMessage) {
  const EPixelType::ID Lum = EPixelType::Lum, RGBA = EPixelType::RGBA, GR = EPixelType::BayerGR;
  const EDataType::ID UB = EDataType::UByte, US = EDataType::UShort, F = EDataType::Float;
  auto D = [](int w, int h, EPixelType::ID p, EDataType::ID d) {
    return CQvDeviceImage2D(CQvImageFormat(w, h, p, d));
  };
  CQvDeviceImage2D xLum = D(4, 4, Lum, UB), xRgbaF = D(4, 4, RGBA, F), xBayer16 = D(4, 4, GR, US);
  CQvDeviceImage2D xRgba8 = D(8, 6, RGBA, UB), xY = D(8, 6, Lum, UB), xU = D(4, 3, Lum, UB);
  CQvDeviceImage2D xSmallU = D(4, 2, Lum, UB), xWideV = D(4, 3, Lum, US);
  const std::string sGauss = "Error applying gauss filter > ", sResize = "Error resizing image > ";
  const std::string sInvalid = sResize + "Source image is of invalid type";
  const std::string sConvolution =
      sGauss + "Error performing convolution > Image is of invalid type";
  const std::string sYuv = "Error on YUV Conversion > ";
  const std::string sWrong = sYuv + "Source image has wrong format '";
  const std::string sRgba = "'. It has to be unsigned 8/16 bit rgba";
  const std::string sLike = "'. It has to be Lum, UByte like the source";
  const std::string sNormalize = "Error normalizing raw image with gray image > ";
  const std::string sTargetType = "The given target data type must be UByte or UShort";
  const std::string sCustom = "Error converting custom data type > ";
  const EDataType::ID P10Msb = EDataType::Custom_10in16_MSB, P12Lsb = EDataType::Custom_12in16_LSB;
  auto Raw = [](const CQvImageFormat& f) { return QvTest::SRawImage(f, std::vector<uint8_t>(32)); };
  CQvCudaCompConvolve C;
  CQvCudaCompNormalize N;
  CQvCudaCompYUV Y;
  // clang-format off
  const struct { std::function<void(CQvDeviceImage2D&)> fnRun; std::string sThrown;
                 bool bTargetUntouched = true; } aCases[] = {
      {[&](auto& t) { CQvCudaCompDemosaic().Debayer(t, xRgba8, 1, 1, 1); },
       "Error demosaicing > The given source image is not of bayer pixel type"},
      {[&](auto& t) { CQvCudaCompDemosaic().Debayer(t, D(4, 4, GR, F), 1, 1, 1); },
       "Error demosaicing > The given source image is not of UByte or UShort data type"},
      {[&](auto& t) { C.Apply_Gauss(t, xLum, 4.0, 12, 1); }, sGauss + "Filtersize too large"},
      {[&](auto& t) { C.Apply_Gauss(t, xLum, 0.0, 2, 1); },
       sGauss + "Sigma of the gauss filter must be positive"},
      {[&](auto& t) { C.Apply_Gauss(t, xLum, NAN, 2, 1); },
       sGauss + "Sigma of the gauss filter must be positive"},
      {[&](auto& t) { C.Apply_Gauss(t, xLum, 1.0, 2, 0); },
       sGauss + "Divisor of the gauss filter must be at least 1"},
      {[&](auto& t) { C.Apply_Gauss(t, xRgbaF, 1.0, 2, 1); }, sConvolution, false},
      {[&](auto& t) { C.Apply_Gauss(t, xBayer16, 1.0, 2, 1); }, sConvolution, false},
      {[&](auto& t) { C.Shrink(t, D(4, 4, RGBA, F), 2, 2, true); }, sInvalid, false},
      {[&](auto& t) { C.Resize(t, xRgbaF, 0, 2); }, sInvalid, false},
      {[&](auto& t) { C.Resize(t, xBayer16, 0, 1); }, sInvalid, false},
      {[&](auto& t) { C.Resize(t, xLum, 0, 0); }, sResize + "Divisor of resize must not be 0"},
      {[&](auto& t) { C.Resize(t, xLum, 2, 1); },
       sResize + "Border and divisor of resize leave no positive size: 0x0"},
      {[&](auto& t) { C.Shrink(t, xLum, 0, 5, true); },
       sResize + "Target size of shrink must be positive: 0x5"},
      {[&](auto& t) { Y.Convert(t, xLum); }, sWrong + "4x4, Lum, UByte" + sRgba},
      {[&](auto& t) { Y.Convert(t, D(4, 4, EPixelType::BGRA, UB)); },
       sWrong + "4x4, BGRA, UByte" + sRgba},
      {[&](auto&) { Y.Convert(xY, xU, xU, xRgbaF); }, sWrong + "4x4, RGBA, Float" + sRgba},
      {[&](auto&) { Y.Convert(xY, xSmallU, xU, xRgba8); },
       sYuv + "Plane U of 4x2 is smaller than 4x3"},
      {[&](auto&) { Y.Convert(xY, xU, xWideV, xRgba8); },
       sYuv + "Plane V has format '4x3, Lum, UShort" + sLike},
      {[&](auto& t) { Y.Convert(t, xU, xU, xRgba8); },
       sYuv + "Plane Y has format '0x0, None, Void" + sLike},
      {[&](auto& t) { N.Normalize(t, xLum, D(5, 3, RGBA, UB), UB); },
       sNormalize + "Source and gray image are of different sizes. Source image is '4x4, Lum, "
                    "UByte'. Gray image is '5x3, RGBA, UByte'"},
      {[&](auto& t) { N.Normalize(t, xLum, xLum, F); }, sNormalize + sTargetType},
      {[&](auto& t) { N.Normalize(t, xLum, F); }, "Error normalizing raw image > " + sTargetType},
      {[&](auto& t) { N.Normalize(t, D(4, 4, GR, UB), xLum, US); },
       sNormalize + "Unsupported Pixel type", false},
      {[&](auto& t) { N.ConvertCustomDataType(t, Raw({2, 2, Lum, P10Msb})); },
       sCustom + "The given image is not of a known custom data type"},
      {[&](auto& t) { N.ConvertCustomDataType(t, Raw({2, 2, Lum, US})); },
       sCustom + "The given image is not of a known custom data type"},
      {[&](auto& t) { N.ConvertCustomDataType(t, Raw({2, 2, RGBA, P12Lsb})); },
       sCustom + "Custom data type images must have one channel, not 'RGBA'"},
  };
  // clang-format on
  for (const auto& c : aCases) {
    CQvDeviceImage2D xTarget;
    EXPECT_EQ(c.sThrown, QvTest::Thrown([&] { c.fnRun(xTarget); }));
    if (c.bTargetUntouched) {
      EXPECT_FALSE(xTarget.IsValid()) << c.sThrown;
    }
  }
}

}  // namespace
