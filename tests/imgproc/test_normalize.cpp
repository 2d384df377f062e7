// Flat-field normalization and the custom data types: expected values are worked out here
// from the division and the storing rule (scale, clamp, truncate; NaN stores full scale).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "QvCudaCompNormalize.h"
#include "TestImages.h"

using namespace Qv;
using V = std::vector<double>;

namespace {

const EPixelType::ID Lum = EPixelType::Lum, RGBA = EPixelType::RGBA;
const EDataType::ID UB = EDataType::UByte, US = EDataType::UShort;

float ScaleOf(EDataType::ID eData) {
  return eData == UB ? 255.0f : 65535.0f;
}

// Channel i of pixel (x, y) as a fetch of four channels gives it: one-channel images read as
// (v, 0, 0, 1); the edge repeats outside the image.
float Read4(const CQvImage& xImage, int x, int y, int i) {
  const CQvImageFormat& f = xImage.GetFormat();
  const int n = f.GetComponentCount();
  if (n == 1 && i > 0) return i == 3 ? 1.0f : 0.0f;
  const size_t k =
      (std::clamp(y, 0, f.iHeight - 1) * f.iWidth + std::clamp(x, 0, f.iWidth - 1)) * n;
  return static_cast<float>(QvTest::GetSample(xImage.GetDataPtr(), f.eDataType, k + i)) /
         ScaleOf(f.eDataType);
}

TEST(Normalize, EveryChannelIsDividedByTheGrayImageAndStored) {
  const CQvImage xRandom = QvTest::RandomImage(CQvImageFormat(4, 3, Lum, UB), 5);
  V xRamp(12);
  for (size_t i = 0; i < xRamp.size(); ++i) xRamp[i] = 40 + 17 * i;
  const struct {
    const char* szRow;
    CQvImage xRaw, xGray;  // no gray: the bit depth changes alone
  } aCases[] = {
      {"gray, equal and brighter pixels",
       QvTest::MakeImage(3, 2, Lum, UB, {200, 10, 0, 255, 255, 77}),
       QvTest::MakeImage(3, 2, Lum, UB, {250, 20, 9, 255, 128, 200})},
      {"dead reference pixels: 5 / 0 and 0 / 0", QvTest::MakeImage(2, 1, Lum, UB, {5, 0}),
       QvTest::MakeImage(2, 1, Lum, UB, {0, 0})},
      {"16 bit", QvTest::MakeImage(2, 1, Lum, US, {1000, 65535}),
       QvTest::MakeImage(2, 1, Lum, US, {3000, 40000})},
      {"rgba, alpha divided too",
       QvTest::MakeImage(2, 1, RGBA, UB, {100, 50, 25, 100, 0, 255, 10, 255}),
       QvTest::MakeImage(2, 1, RGBA, UB, {200, 100, 50, 200, 1, 255, 0, 255})},
      {"lum gray under rgba reads (v, 0, 0, 1)",
       QvTest::MakeImage(1, 1, RGBA, UB, {100, 50, 0, 128}),
       QvTest::MakeImage(1, 1, Lum, UB, {200})},
      {"gray of another shape, same pixel count", xRandom, QvTest::MakeImage(6, 2, Lum, UB, xRamp)},
      {"no gray, 16 to 8 bit", QvTest::MakeImage(3, 2, Lum, US, {65535, 256, 257, 0, 32768, 1000}),
       CQvImage()},
      {"no gray, 8 to 16 bit", QvTest::MakeImage(1, 1, RGBA, UB, {255, 1, 0, 128}), CQvImage()},
  };
  for (const auto& c : aCases) {
    for (const EDataType::ID eData : {UB, US}) {
      CQvDeviceImage2D xRaw(c.xRaw), xTarget;
      if (c.xGray.IsValid()) {
        CQvDeviceImage2D xGray(c.xGray);
        CQvCudaCompNormalize().Normalize(xTarget, xRaw, xGray, eData);
      } else {
        CQvCudaCompNormalize().Normalize(xTarget, xRaw, eData);
      }
      const CQvImageFormat& f = c.xRaw.GetFormat();
      ASSERT_EQ(CQvImageFormat(f.iWidth, f.iHeight, f.ePixelType, eData), xTarget.GetFormat());
      const V xOut = QvTest::Download(xTarget);
      const int n = f.GetComponentCount();
      for (size_t k = 0; k < xOut.size(); ++k) {
        const int x = static_cast<int>(k / n) % f.iWidth, y = static_cast<int>(k / n) / f.iWidth;
        const int i = static_cast<int>(k % n);
        const float q = Read4(c.xRaw, x, y, i) / (c.xGray.IsValid() ? Read4(c.xGray, x, y, i) : 1);
        EXPECT_EQ(QvTest::StoreRule(q, ScaleOf(eData)), xOut[k])
            << c.szRow << " to " << CQvImageFormat::DataType2String(eData) << " [" << k << "]";
      }
    }
  }
}

TEST(NormalizeErrors, RefusalsNameBothFormats) {
  CQvDeviceImage2D xLum(CQvImageFormat(4, 3, Lum, UB)), xRgba(CQvImageFormat(5, 3, RGBA, UB));
  CQvDeviceImage2D xBayer(CQvImageFormat(3, 2, EPixelType::BayerGR, UB)),
      xLum32(CQvImageFormat(3, 2, Lum, UB));
  const std::string sWithGray = "Error normalizing raw image with gray image > ";
  const struct {
    std::function<void(CQvDeviceImage2D&)> fnRun;
    std::string sThrown;
    CQvImageFormat xTarget = CQvImageFormat();  // what the target is left as
  } aCases[] = {
      {[&](auto& t) { CQvCudaCompNormalize().Normalize(t, xLum, xRgba, UB); },
       sWithGray + "Source and gray image are of different sizes. Source image is '4x3, Lum, "
                   "UByte'. Gray image is '5x3, RGBA, UByte'"},
      {[&](auto& t) { CQvCudaCompNormalize().Normalize(t, xLum, xLum, EDataType::Float); },
       sWithGray + "The given target data type must be UByte or UShort"},
      {[&](auto& t) { CQvCudaCompNormalize().Normalize(t, xLum, EDataType::Float); },
       "Error normalizing raw image > The given target data type must be UByte or UShort"},
      {[&](auto& t) { CQvCudaCompNormalize().Normalize(t, xBayer, xLum32, US); },
       sWithGray + "Unsupported Pixel type", CQvImageFormat(3, 2, EPixelType::BayerGR, US)},
  };
  for (const auto& c : aCases) {
    CQvDeviceImage2D xTarget;
    EXPECT_EQ(QvTest::Thrown([&] { c.fnRun(xTarget); }), c.sThrown);
    EXPECT_EQ(c.xTarget, xTarget.GetFormat()) << c.sThrown;
  }
}

// A host image of packed or 16-bit custom data: no image class of the core library holds
// packed pixels, so the test brings its own.
class CCustomImage : public IImage {
 public:
  CCustomImage(int w, int h, EPixelType::ID ePixel, EDataType::ID eData, std::vector<uint8_t> x)
      : m_xFormat(w, h, ePixel, eData), m_xBytes(std::move(x)) {}
  int GetBytesPerPixel() const override { return 0; }
  void GetSize(int& w, int& h) const override { w = m_xFormat.iWidth, h = m_xFormat.iHeight; }
  void GetType(EPixelType::ID& p, EDataType::ID& d) const override {
    p = m_xFormat.ePixelType, d = m_xFormat.eDataType;
  }
  void* GetDataPtr() override { return m_xBytes.data(); }
  const void* GetDataPtr() const override { return m_xBytes.data(); }

 private:
  CQvImageFormat m_xFormat;
  std::vector<uint8_t> m_xBytes;
};

V Convert(const CCustomImage& xSource) {
  CQvDeviceImage2D xTarget;
  CQvCudaCompNormalize().ConvertCustomDataType(xTarget, xSource);
  int w, h;
  EPixelType::ID ePixel;
  EDataType::ID eData;
  xSource.GetSize(w, h);
  xSource.GetType(ePixel, eData);
  EXPECT_EQ(CQvImageFormat(w, h, ePixel, US), xTarget.GetFormat());
  return QvTest::Download(xTarget);
}

TEST(CustomDataType, TenAndTwelveBitWordsSpreadOverSixteenBits) {
  const std::vector<uint16_t> xWords = {0, 1, 512, 1023, 1024, 4095, 65535, 300};
  std::vector<uint8_t> xBytes(xWords.size() * 2);
  std::memcpy(xBytes.data(), xWords.data(), xBytes.size());
  const V x10 =
      Convert(CCustomImage(4, 2, EPixelType::BayerGR, EDataType::Custom_10in16_LSB, xBytes));
  const V x12 = Convert(CCustomImage(2, 4, Lum, EDataType::Custom_12in16_LSB, xBytes));
  for (size_t i = 0; i < xWords.size(); ++i) {
    const float r = xWords[i] / 65535.0f;
    EXPECT_EQ(QvTest::StoreRule((r * 65535.0f) / 1023.0f, 65535.0f), x10[i]) << xWords[i];
    EXPECT_EQ(QvTest::StoreRule((r * 65535.0f) / 4095.0f, 65535.0f), x12[i]) << xWords[i];
  }
  // By hand: 1 becomes 65535 / 1023 = 64.06 and 65535 / 4095 = 16.004; 1023 and above the top.
  EXPECT_EQ((V{64, 65535, 65535, 16}), (V{x10[1], x10[3], x10[4], x12[1]}));
}

TEST(CustomDataType, PackedTwelveBitPairsShareThreeBytesAcrossRows) {
  // 0xAB 0xCD 0xEF hold 0xABC and 0xEFD; an odd last pixel owns one and a half bytes, and the
  // source holds exactly the bytes its pixels own, so a read past them would be caught.
  const struct {
    int w, h;
    std::vector<uint8_t> xBytes;
  } aCases[] = {
      {2, 1, {0xAB, 0xCD, 0xEF}},
      {3, 1, {0xAB, 0xCD, 0xEF, 0x12, 0x34}},
      {3, 3, {7, 24, 41, 58, 75, 92, 109, 126, 143, 160, 177, 194, 211, 228}},
  };
  for (const auto& c : aCases) {
    const CQvImageFormat f(c.w, c.h, EPixelType::BayerGR, EDataType::Custom_12Packed);
    EXPECT_EQ(c.xBytes.size(), CQvCudaCompNormalize::GetPackedByteCount(f));
    const V x = Convert(CCustomImage(c.w, c.h, f.ePixelType, f.eDataType, c.xBytes));
    ASSERT_EQ(static_cast<size_t>(c.w * c.h), x.size());
    for (size_t n = 0; n < x.size(); ++n) {
      const uint8_t* p = &c.xBytes[3 * (n / 2)];
      const uint32_t v = n % 2 == 0 ? (p[0] << 4) | (p[1] >> 4) : (p[1] & 15u) | (p[2] << 4);
      EXPECT_EQ(QvTest::StoreRule(static_cast<float>(v) / 4095.0f, 65535.0f), x[n])
          << c.w << "x" << c.h << " pixel " << n;
    }
  }
}

TEST(CustomDataType, OtherDataTypesAndSeveralChannelsAreRefused) {
  const struct {
    EPixelType::ID ePixel;
    EDataType::ID eData;
    const char* szInner;
  } aCases[] = {
      {Lum, EDataType::Custom_10in16_MSB, "The given image is not of a known custom data type"},
      {Lum, US, "The given image is not of a known custom data type"},
      {RGBA, EDataType::Custom_12in16_LSB,
       "Custom data type images must have one channel, not 'RGBA'"},
  };
  for (const auto& c : aCases) {
    CQvDeviceImage2D xTarget;
    EXPECT_EQ(QvTest::Thrown([&] {
                CQvCudaCompNormalize().ConvertCustomDataType(
                    xTarget, CCustomImage(2, 2, c.ePixel, c.eData, std::vector<uint8_t>(32)));
              }),
              std::string("Error converting custom data type > ") + c.szInner);
    EXPECT_FALSE(xTarget.IsValid());
  }
}

}  // namespace
