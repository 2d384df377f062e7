// The Gauss filter: radius limits, unit gain, a worked impulse response, reduction.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "QvCudaCompConvolve.h"
#include "QvException.h"
#include "TestImages.h"

using namespace Qv;

namespace {

template <class TElem>
std::vector<TElem> Pixels(const CQvDeviceImage2D& xImage) {
  CQvImage xHost;
  xImage.CopyTo(xHost);
  const auto* p = static_cast<const TElem*>(xHost.GetDataPtr());
  return std::vector<TElem>(p, p + xHost.GetFormat().GetImageBytes() / sizeof(TElem));
}

template <class TElem>
CQvDeviceImage2D Upload(int w, int h, EPixelType::ID ePixel, EDataType::ID eData,
                        const std::vector<TElem>& xData) {
  CQvImageMoniker xMoniker;
  xMoniker.Create(w, h, ePixel, eData, const_cast<TElem*>(xData.data()));
  CQvDeviceImage2D xImage;
  xImage.Create(xMoniker);
  return xImage;
}

void ExpectGaussFailure(const std::function<void()>& fnCall, const char* szInner) {
  try {
    fnCall();
    FAIL() << "expected " << szInner;
  } catch (const CQvException& e) {
    EXPECT_STREQ("Error applying gauss filter", e.GetMessageText());
    ASSERT_NE(nullptr, e.GetInnerException());
    const IException* pxInnermost = e.GetInnerException();
    while (pxInnermost->GetInnerException()) pxInnermost = pxInnermost->GetInnerException();
    EXPECT_STREQ(szInner, pxInnermost->GetMessageText());
  }
}

TEST(Gauss, RadiusElevenIsAcceptedAndTwelveRefused) {
  CQvDeviceImage2D xSource(CQvImageFormat(30, 30, EPixelType::Lum, EDataType::UByte));
  xSource.SetZero();
  CQvDeviceImage2D xTarget;
  CQvCudaCompConvolve xComp;
  EXPECT_NO_THROW(xComp.Apply_Gauss(xTarget, xSource, 4.0, 11, 1));
  ExpectGaussFailure([&] { xComp.Apply_Gauss(xTarget, xSource, 4.0, 12, 1); },
                     "Filtersize too large");
}

TEST(Gauss, NonPositiveSigmaAndDivisorAreRefusedBeforeAnyWork) {
  CQvDeviceImage2D xSource(CQvImageFormat(8, 8, EPixelType::Lum, EDataType::UByte));
  CQvDeviceImage2D xTarget;
  CQvCudaCompConvolve xComp;
  ExpectGaussFailure([&] { xComp.Apply_Gauss(xTarget, xSource, 0.0, 2, 1); },
                     "Sigma of the gauss filter must be positive");
  ExpectGaussFailure([&] { xComp.Apply_Gauss(xTarget, xSource, NAN, 2, 1); },
                     "Sigma of the gauss filter must be positive");
  ExpectGaussFailure([&] { xComp.Apply_Gauss(xTarget, xSource, 1.0, 2, 0); },
                     "Divisor of the gauss filter must be at least 1");
  EXPECT_FALSE(xTarget.IsValid());
}

TEST(Gauss, RadiusZeroCreatesTheTargetAndLaunchesNothing) {
  CQvDeviceImage2D xSource(CQvImageFormat(5, 3, EPixelType::RGBA, EDataType::UShort));
  xSource.SetZero();
  CQvDeviceImage2D xTarget;
  CQvCudaCompConvolve().Apply_Gauss(xTarget, xSource, 1.0, 0, 1);
  EXPECT_EQ(xSource.GetFormat(), xTarget.GetFormat());
}

TEST(Gauss, FlatImageKeepsItsValueButForOneStepAPass) {
  const std::vector<uint8_t> xFlat(11 * 9 * 4, 173);
  CQvDeviceImage2D xSource = Upload<uint8_t>(11, 9, EPixelType::RGBA, EDataType::UByte, xFlat);
  CQvDeviceImage2D xTarget;
  CQvCudaCompConvolve().Apply_Gauss(xTarget, xSource, 2.0, 5, 1);
  const auto p = Pixels<uint8_t>(xTarget);
  for (size_t i = 0; i < p.size(); ++i) {
    if (i % 4 == 3) {
      EXPECT_EQ(255, p[i]);  // alpha full scale
    } else {
      EXPECT_LE(p[i], 173);
      EXPECT_GE(p[i], 171);
    }
  }
}

TEST(Gauss, ImpulseResponseIsTheNormalizedSeparableKernel) {
  // A 65535 impulse in the middle of a 5 x 5 zero image, radius 1, sigma 1: taps
  // e^-0.5, 1, e^-0.5 over their sum; each pass truncates to 16 bits.
  std::vector<uint16_t> xData(25, 0);
  xData[12] = 65535;
  CQvDeviceImage2D xSource = Upload<uint16_t>(5, 5, EPixelType::Lum, EDataType::UShort, xData);
  CQvDeviceImage2D xTarget;
  CQvCudaCompConvolve().Apply_Gauss(xTarget, xSource, 1.0, 1, 1);
  const double e = std::exp(-0.5), s = 1.0 + 2.0 * e;
  const double aWeight[3] = {e / s, 1.0 / s, e / s};
  const auto p = Pixels<uint16_t>(xTarget);
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 5; ++x) {
      double dExpected = 0.0;
      if (std::abs(x - 2) <= 1 && std::abs(y - 2) <= 1) {
        const double dFirst = std::floor(65535.0 * aWeight[x - 1]);  // the X pass, stored
        dExpected = std::floor(dFirst * aWeight[y - 1]);
      }
      EXPECT_NEAR(dExpected, p[y * 5 + x], 1) << x << "," << y;
    }
}

TEST(Gauss, DivisorShrinksTheResultAsResizeWould) {
  CQvDeviceImage2D xSource(CQvImageFormat(16, 10, EPixelType::Lum, EDataType::UByte));
  xSource.SetZero();
  CQvDeviceImage2D xTarget;
  CQvCudaCompConvolve().Apply_Gauss(xTarget, xSource, 1.5, 3, 3);
  EXPECT_EQ(CQvImageFormat(5, 3, EPixelType::Lum, EDataType::UByte), xTarget.GetFormat());
}

TEST(Gauss, BayerUByteIsFilteredAsOneChannelAndKeepsItsType) {
  std::vector<uint8_t> xData(6 * 6, 0);
  xData[14] = 255;
  CQvDeviceImage2D xSource = Upload<uint8_t>(6, 6, EPixelType::BayerRG, EDataType::UByte, xData);
  CQvDeviceImage2D xTarget;
  CQvCudaCompConvolve().Apply_Gauss(xTarget, xSource, 1.0, 1, 1);
  EXPECT_EQ(EPixelType::BayerRG, xTarget.GetFormat().ePixelType);
  const auto p = Pixels<uint8_t>(xTarget);
  EXPECT_GT(p[13], 0);  // the impulse spread to its neighbour of another colour
}

TEST(Gauss, FloatAndBayerUShortImagesAreRefused) {
  CQvCudaCompConvolve xComp;
  CQvDeviceImage2D xTarget;
  CQvDeviceImage2D xFloat(CQvImageFormat(4, 4, EPixelType::RGBA, EDataType::Float));
  CQvDeviceImage2D xBayer16(CQvImageFormat(4, 4, EPixelType::BayerRG, EDataType::UShort));
  ExpectGaussFailure([&] { xComp.Apply_Gauss(xTarget, xFloat, 1.0, 2, 1); },
                     "Image is of invalid type");
  ExpectGaussFailure([&] { xComp.Apply_Gauss(xTarget, xBayer16, 1.0, 2, 1); },
                     "Image is of invalid type");
}

TEST(Gauss, FailuresNestOuterToInner) {
  CQvDeviceImage2D xFloat(CQvImageFormat(4, 4, EPixelType::Lum, EDataType::Float));
  CQvDeviceImage2D xTarget;
  try {
    CQvCudaCompConvolve().Apply_Gauss(xTarget, xFloat, 1.0, 2, 1);
    FAIL();
  } catch (const CQvException& e) {
    EXPECT_STREQ("Error applying gauss filter", e.GetMessageText());
    EXPECT_STREQ("Error performing convolution", e.GetInnerException()->GetMessageText());
  }
}

}  // namespace
