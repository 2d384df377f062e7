// Flat-field normalization and the custom data types: expected values are worked out here
// from the division and the storing rule (scale, clamp, truncate; NaN stores full scale).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "QvCudaCompNormalize.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "TestImages.h"

using namespace Qv;

namespace {

uint32_t Store(float v, float fM) {
  if (std::isnan(v)) return static_cast<uint32_t>(fM);
  float s = v * fM;
  if (s > fM) s = fM;
  if (s < 0.0f) s = 0.0f;
  return static_cast<uint32_t>(s);
}

template <class T>
CQvImage MakeImage(int w, int h, EPixelType::ID ePixel, const std::vector<T>& xValues) {
  const EDataType::ID eData = sizeof(T) == 1 ? EDataType::UByte : EDataType::UShort;
  CQvImage x(CQvImageFormat(w, h, ePixel, eData));
  EXPECT_EQ(xValues.size() * sizeof(T), x.GetImageBytes());
  std::memcpy(x.GetDataPtr(), xValues.data(), x.GetImageBytes());
  return x;
}

template <class T>
std::vector<T> Values(const CQvImage& x) {
  const T* p = static_cast<const T*>(x.GetDataPtr());
  return std::vector<T>(p, p + x.GetImageBytes() / sizeof(T));
}

CQvImage RunNormalize(const CQvImage& xSource, const CQvImage* pxGray, EDataType::ID eData) {
  CQvDeviceImage2D xDevSource(xSource), xTarget;
  CQvCudaCompNormalize xComp;
  if (pxGray) {
    CQvDeviceImage2D xDevGray(*pxGray);
    xComp.Normalize(xTarget, xDevSource, xDevGray, eData);
  } else {
    xComp.Normalize(xTarget, xDevSource, eData);
  }
  CQvImage xBack;
  xTarget.CopyTo(xBack);
  return xBack;
}

std::string InnerMessage(const CQvException& e) {
  return e.GetInnerException() ? e.GetInnerException()->GetMessageText() : "";
}

TEST(Normalize, DividesByTheGrayImageAtEightAndSixteenBits) {
  const std::vector<uint8_t> xRaw = {200, 10, 0, 255, 255, 77};
  const std::vector<uint8_t> xGray = {250, 20, 9, 255, 128, 200};
  const CQvImage xSource = MakeImage(3, 2, EPixelType::Lum, xRaw);
  const CQvImage xGrayImage = MakeImage(3, 2, EPixelType::Lum, xGray);
  const std::vector<uint8_t> x8 =
      Values<uint8_t>(RunNormalize(xSource, &xGrayImage, EDataType::UByte));
  const std::vector<uint16_t> x16 =
      Values<uint16_t>(RunNormalize(xSource, &xGrayImage, EDataType::UShort));
  for (size_t i = 0; i < xRaw.size(); ++i) {
    const float q = (xRaw[i] / 255.0f) / (xGray[i] / 255.0f);
    EXPECT_EQ(Store(q, 255.0f), x8[i]) << i;
    EXPECT_EQ(Store(q, 65535.0f), x16[i]) << i;
  }
  // Equal pixels give exactly full scale; a raw pixel brighter than its gray saturates.
  EXPECT_EQ(255, x8[3]);
  EXPECT_EQ(65535, x16[3]);
  EXPECT_EQ(255, x8[4]);
}

TEST(Normalize, DivisionByZeroAndByNaNStoreFullScale) {
  // A dead reference pixel: 5 / 0 is infinity, 0 / 0 is NaN; both store M, not black.
  const CQvImage xSource = MakeImage(2, 1, EPixelType::Lum, std::vector<uint8_t>{5, 0});
  const CQvImage xGray = MakeImage(2, 1, EPixelType::Lum, std::vector<uint8_t>{0, 0});
  EXPECT_EQ((std::vector<uint8_t>{255, 255}),
            Values<uint8_t>(RunNormalize(xSource, &xGray, EDataType::UByte)));
  EXPECT_EQ((std::vector<uint16_t>{65535, 65535}),
            Values<uint16_t>(RunNormalize(xSource, &xGray, EDataType::UShort)));
}

TEST(Normalize, RgbaDividesEveryChannelAlphaIncluded) {
  const std::vector<uint8_t> xRaw = {100, 50, 25, 100, 0, 255, 10, 255};
  const std::vector<uint8_t> xGray = {200, 100, 50, 200, 1, 255, 0, 255};
  const CQvImage xSource = MakeImage(2, 1, EPixelType::RGBA, xRaw);
  const CQvImage xGrayImage = MakeImage(2, 1, EPixelType::RGBA, xGray);
  const std::vector<uint8_t> x =
      Values<uint8_t>(RunNormalize(xSource, &xGrayImage, EDataType::UByte));
  for (size_t i = 0; i < xRaw.size(); ++i)
    EXPECT_EQ(Store((xRaw[i] / 255.0f) / (xGray[i] / 255.0f), 255.0f), x[i]) << i;
  EXPECT_EQ(Store(0.5f, 255.0f), x[3]) << "alpha is divided, not set to full scale";
}

TEST(Normalize, LumGrayUnderRgbaReadsAsValueZeroZeroOne) {
  // Green and blue divide by zero and store M; alpha divides by one and keeps its value.
  const std::vector<uint8_t> xRaw = {100, 50, 0, 128};
  const CQvImage xSource = MakeImage(1, 1, EPixelType::RGBA, xRaw);
  const CQvImage xGray = MakeImage(1, 1, EPixelType::Lum, std::vector<uint8_t>{200});
  const std::vector<uint8_t> x = Values<uint8_t>(RunNormalize(xSource, &xGray, EDataType::UByte));
  EXPECT_EQ(Store((100 / 255.0f) / (200 / 255.0f), 255.0f), x[0]);
  EXPECT_EQ(255, x[1]);
  EXPECT_EQ(255, x[2]);
  EXPECT_EQ(128, x[3]);
}

TEST(Normalize, GrayOfAnotherShapeButTheSamePixelCountIsSampledAtTheSameCoordinates) {
  // Source 4 x 3, gray 6 x 2: pixel (x, y) divides by gray (x, y), repeating the gray
  // image's edge outside it.
  const CQvImage xSource =
      QvTest::RandomImage(CQvImageFormat(4, 3, EPixelType::Lum, EDataType::UByte), 5);
  std::vector<uint8_t> xGrayValues(12);
  for (size_t i = 0; i < xGrayValues.size(); ++i)
    xGrayValues[i] = static_cast<uint8_t>(40 + 17 * i);
  const CQvImage xGray = MakeImage(6, 2, EPixelType::Lum, xGrayValues);
  const std::vector<uint8_t> xOut =
      Values<uint8_t>(RunNormalize(xSource, &xGray, EDataType::UByte));
  const uint8_t* pRaw = static_cast<const uint8_t*>(xSource.GetDataPtr());
  for (int y = 0; y < 3; ++y) {
    for (int x = 0; x < 4; ++x) {
      const int gy = y < 2 ? y : 1;
      const float q = (pRaw[y * 4 + x] / 255.0f) / (xGrayValues[gy * 6 + x] / 255.0f);
      EXPECT_EQ(Store(q, 255.0f), xOut[y * 4 + x]) << x << "," << y;
    }
  }
}

TEST(Normalize, WithoutGrayOnlyTheBitDepthChanges) {
  // 16 to 8 bit scales and truncates: 65535 gives 255 and 256 gives 0.
  const std::vector<uint16_t> x16 = {65535, 256, 257, 0, 32768, 1000};
  const std::vector<uint8_t> x8 = Values<uint8_t>(
      RunNormalize(MakeImage(3, 2, EPixelType::Lum, x16), nullptr, EDataType::UByte));
  EXPECT_EQ(255, x8[0]);
  EXPECT_EQ(0, x8[1]);
  for (size_t i = 0; i < x16.size(); ++i) EXPECT_EQ(Store(x16[i] / 65535.0f, 255.0f), x8[i]) << i;
  // And 8 to 16 bit the other way round.
  const std::vector<uint8_t> xBytes = {255, 1, 0, 128};
  const std::vector<uint16_t> xWide = Values<uint16_t>(
      RunNormalize(MakeImage(1, 1, EPixelType::RGBA, xBytes), nullptr, EDataType::UShort));
  EXPECT_EQ(65535, xWide[0]);
  for (size_t i = 0; i < xBytes.size(); ++i)
    EXPECT_EQ(Store(xBytes[i] / 255.0f, 65535.0f), xWide[i]) << i;
}

TEST(NormalizeErrors, GrayOfAnotherPixelCountIsRefusedWithBothFormats) {
  CQvDeviceImage2D xSource(CQvImageFormat(4, 3, EPixelType::Lum, EDataType::UByte));
  CQvDeviceImage2D xGray(CQvImageFormat(5, 3, EPixelType::RGBA, EDataType::UByte)), xTarget;
  CQvCudaCompNormalize xComp;
  try {
    xComp.Normalize(xTarget, xSource, xGray, EDataType::UByte);
    ADD_FAILURE() << "no exception";
  } catch (const CQvException& e) {
    EXPECT_STREQ("Error normalizing raw image with gray image", e.GetMessageText());
    EXPECT_EQ(
        "Source and gray image are of different sizes. Source image is '4x3, Lum, UByte'. Gray "
        "image is '5x3, RGBA, UByte'",
        InnerMessage(e));
  }
  EXPECT_FALSE(xTarget.IsValid());
}

TEST(NormalizeErrors, TargetDataTypeMustBeUByteOrUShort) {
  CQvDeviceImage2D xSource(CQvImageFormat(2, 2, EPixelType::Lum, EDataType::UByte)), xTarget;
  CQvCudaCompNormalize xComp;
  for (int iOverload = 0; iOverload < 2; ++iOverload) {
    try {
      if (iOverload == 0)
        xComp.Normalize(xTarget, xSource, xSource, EDataType::Float);
      else
        xComp.Normalize(xTarget, xSource, EDataType::Float);
      ADD_FAILURE() << "no exception";
    } catch (const CQvException& e) {
      EXPECT_STREQ(iOverload == 0 ? "Error normalizing raw image with gray image"
                                  : "Error normalizing raw image",
                   e.GetMessageText());
      EXPECT_EQ("The given target data type must be UByte or UShort", InnerMessage(e));
    }
  }
}

TEST(NormalizeErrors, OtherPixelTypesAreRefusedAfterTheTargetIsCreated) {
  CQvDeviceImage2D xSource(CQvImageFormat(3, 2, EPixelType::BayerGR, EDataType::UByte));
  CQvDeviceImage2D xGray(CQvImageFormat(3, 2, EPixelType::Lum, EDataType::UByte)), xTarget;
  CQvCudaCompNormalize xComp;
  try {
    xComp.Normalize(xTarget, xSource, xGray, EDataType::UShort);
    ADD_FAILURE() << "no exception";
  } catch (const CQvException& e) {
    EXPECT_EQ("Unsupported Pixel type", InnerMessage(e));
  }
  EXPECT_TRUE(xTarget.IsValid());
  EXPECT_EQ(CQvImageFormat(3, 2, EPixelType::BayerGR, EDataType::UShort), xTarget.GetFormat());
}

// A host image of packed or 16-bit custom data: no image class of the core library holds
// packed pixels, so the test brings its own.
class CCustomImage : public IImage {
 public:
  CCustomImage(int w, int h, EPixelType::ID ePixel, EDataType::ID eData, std::vector<uint8_t> x)
      : m_iWidth(w), m_iHeight(h), m_ePixel(ePixel), m_eData(eData), m_xBytes(std::move(x)) {}
  int GetBytesPerPixel() const override { return 0; }
  void GetSize(int& w, int& h) const override { w = m_iWidth, h = m_iHeight; }
  void GetType(EPixelType::ID& p, EDataType::ID& d) const override { p = m_ePixel, d = m_eData; }
  void* GetDataPtr() override { return m_xBytes.data(); }
  const void* GetDataPtr() const override { return m_xBytes.data(); }

 private:
  int m_iWidth, m_iHeight;
  EPixelType::ID m_ePixel;
  EDataType::ID m_eData;
  std::vector<uint8_t> m_xBytes;
};

std::vector<uint16_t> Convert(const IImage& xSource, CQvImageFormat* pxFormat = nullptr) {
  CQvDeviceImage2D xTarget;
  CQvCudaCompNormalize xComp;
  xComp.ConvertCustomDataType(xTarget, xSource);
  if (pxFormat) *pxFormat = xTarget.GetFormat();
  CQvImage xBack;
  xTarget.CopyTo(xBack);
  return Values<uint16_t>(xBack);
}

std::vector<uint8_t> Words(const std::vector<uint16_t>& x) {
  std::vector<uint8_t> xBytes(x.size() * 2);
  std::memcpy(xBytes.data(), x.data(), xBytes.size());
  return xBytes;
}

TEST(CustomDataType, TenAndTwelveBitWordsSpreadOverSixteenBits) {
  const std::vector<uint16_t> xWords = {0, 1, 512, 1023, 1024, 4095, 65535, 300};
  CQvImageFormat xFormat;
  const std::vector<uint16_t> x10 =
      Convert(CCustomImage(4, 2, EPixelType::BayerGR, EDataType::Custom_10in16_LSB, Words(xWords)),
              &xFormat);
  EXPECT_EQ(CQvImageFormat(4, 2, EPixelType::BayerGR, EDataType::UShort), xFormat);
  const std::vector<uint16_t> x12 =
      Convert(CCustomImage(4, 2, EPixelType::Lum, EDataType::Custom_12in16_LSB, Words(xWords)));
  for (size_t i = 0; i < xWords.size(); ++i) {
    const float r = xWords[i] / 65535.0f;
    EXPECT_EQ(Store((r * 65535.0f) / 1023.0f, 65535.0f), x10[i]) << i;
    EXPECT_EQ(Store((r * 65535.0f) / 4095.0f, 65535.0f), x12[i]) << i;
  }
  EXPECT_EQ(64, x10[1]) << "a 10-bit word of 1";
  EXPECT_EQ(65535, x10[3]) << "a 10-bit word of 1023 is the top";
  EXPECT_EQ(65535, x10[4]) << "above 1023 saturates";
  EXPECT_EQ(16, x12[1]);
  EXPECT_EQ(65535, x12[5]);
}

uint16_t Packed12(uint32_t v) {
  return static_cast<uint16_t>(Store(static_cast<float>(v) / 4095.0f, 65535.0f));
}

TEST(CustomDataType, PackedTwelveBitPairsShareThreeBytes) {
  // 0xAB 0xCD 0xEF hold 0xABC and 0xEFD.
  const std::vector<uint16_t> x =
      Convert(CCustomImage(2, 1, EPixelType::Lum, EDataType::Custom_12Packed, {0xAB, 0xCD, 0xEF}));
  EXPECT_EQ((std::vector<uint16_t>{Packed12(0xABC), Packed12(0xEFD)}), x);
}

TEST(CustomDataType, PackedOddPixelCountsReadOnlyTheBytesTheyOwn) {
  // Three pixels own five bytes; the last pixel is 0x123 from 0x12 and the high half of 0x34.
  // The source holds exactly those bytes, so a read past them would be caught.
  EXPECT_EQ((std::vector<uint16_t>{Packed12(0xABC), Packed12(0xEFD), Packed12(0x123)}),
            Convert(CCustomImage(3, 1, EPixelType::Lum, EDataType::Custom_12Packed,
                                 {0xAB, 0xCD, 0xEF, 0x12, 0x34})));
  // Pixels count on across rows: 3 x 3 is nine pixels in fourteen bytes.
  std::vector<uint8_t> xBytes(14);
  for (size_t i = 0; i < xBytes.size(); ++i) xBytes[i] = static_cast<uint8_t>(0x11 * i + 7);
  const std::vector<uint16_t> x =
      Convert(CCustomImage(3, 3, EPixelType::BayerGR, EDataType::Custom_12Packed, xBytes));
  ASSERT_EQ(9u, x.size());
  for (size_t n = 0; n < 9; ++n) {
    const size_t k = 3 * (n / 2);
    const uint32_t v = n % 2 == 0 ? (xBytes[k] << 4) | (xBytes[k + 1] >> 4)
                                  : (xBytes[k + 1] & 15u) | (xBytes[k + 2] << 4);
    EXPECT_EQ(Packed12(v), x[n]) << n;
  }
  EXPECT_EQ(5u, CQvCudaCompNormalize::GetPackedByteCount(
                    CQvImageFormat(3, 1, EPixelType::Lum, EDataType::Custom_12Packed)));
  EXPECT_EQ(14u, CQvCudaCompNormalize::GetPackedByteCount(
                     CQvImageFormat(3, 3, EPixelType::Lum, EDataType::Custom_12Packed)));
}

TEST(CustomDataType, OtherDataTypesAndSeveralChannelsAreRefused) {
  struct SCase {
    EPixelType::ID ePixel;
    EDataType::ID eData;
    const char* szInner;
  } aCases[] = {
      {EPixelType::Lum, EDataType::Custom_10in16_MSB,
       "The given image is not of a known custom data type"},
      {EPixelType::Lum, EDataType::UShort, "The given image is not of a known custom data type"},
      {EPixelType::RGBA, EDataType::Custom_12in16_LSB,
       "Custom data type images must have one channel, not 'RGBA'"},
  };
  for (const SCase& c : aCases) {
    CQvDeviceImage2D xTarget;
    CQvCudaCompNormalize xComp;
    try {
      xComp.ConvertCustomDataType(xTarget,
                                  CCustomImage(2, 2, c.ePixel, c.eData, std::vector<uint8_t>(32)));
      ADD_FAILURE() << "no exception: " << c.szInner;
    } catch (const CQvException& e) {
      EXPECT_STREQ("Error converting custom data type", e.GetMessageText());
      EXPECT_EQ(c.szInner, InnerMessage(e));
    }
    EXPECT_FALSE(xTarget.IsValid());
  }
}

}  // namespace
