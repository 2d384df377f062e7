// Flat-field normalization and the custom data types, worked out here from the division, the
// layouts and the storing rule.

#include "QvCudaCompNormalize.h"
#include "TestImages.h"

using namespace Qv;
using V = std::vector<double>;

namespace {

const EPixelType::ID Lum = EPixelType::Lum, RGBA = EPixelType::RGBA;
const EDataType::ID UB = EDataType::UByte, US = EDataType::UShort;

// Channel i of pixel (x, y) as a fetch of four channels gives it: one-channel images read as
// (v, 0, 0, 1); the edge repeats outside the image.
float Read4(const CQvImage& xImage, int x, int y, int i) {
  const CQvImageFormat& f = xImage.GetFormat();
  const int n = f.GetComponentCount();
  if (n == 1 && i > 0) return i == 3 ? 1.0f : 0.0f;
  const size_t k =
      (std::clamp(y, 0, f.iHeight - 1) * f.iWidth + std::clamp(x, 0, f.iWidth - 1)) * n;
  return static_cast<float>(QvTest::GetSample(xImage.GetDataPtr(), f.eDataType, k + i)) /
         (f.eDataType == UB ? 255.0f : 65535.0f);
}

TEST(Normalize, EveryChannelIsDividedByTheGrayImageAndStored) {
  const CQvImage xRandom = QvTest::RandomImage(CQvImageFormat(4, 3, Lum, UB), 5);
  const V xRamp = {40, 57, 74, 91, 108, 125, 142, 159, 176, 193, 210, 227};
  const auto M = QvTest::MakeImage;
  // Without a gray image only the bit depth changes.
  // clang-format off
  const struct { const char* szRow; CQvImage xRaw, xGray; } aCases[] = {
      {"gray, equal and brighter pixels", M(3, 2, Lum, UB, {200, 10, 0, 255, 255, 77}),
       M(3, 2, Lum, UB, {250, 20, 9, 255, 128, 200})},
      {"dead reference pixels: 5 / 0, 0 / 0", M(2, 1, Lum, UB, {5, 0}), M(2, 1, Lum, UB, {0, 0})},
      {"16 bit", M(2, 1, Lum, US, {1000, 65535}), M(2, 1, Lum, US, {3000, 40000})},
      {"rgba, alpha divided too", M(2, 1, RGBA, UB, {100, 50, 25, 100, 0, 255, 10, 255}),
       M(2, 1, RGBA, UB, {200, 100, 50, 200, 1, 255, 0, 255})},
      {"lum gray under rgba reads (v, 0, 0, 1)", M(1, 1, RGBA, UB, {100, 50, 0, 128}),
       M(1, 1, Lum, UB, {200})},
      {"gray of another shape, same pixel count", xRandom, M(6, 2, Lum, UB, xRamp)},
      {"no gray, 16 to 8 bit", M(3, 2, Lum, US, {65535, 256, 257, 0, 32768, 1000}), CQvImage()},
      {"no gray, 8 to 16 bit", M(1, 1, RGBA, UB, {255, 1, 0, 128}), CQvImage()},
  };
  // clang-format on
  for (const auto& c : aCases) {
    for (const EDataType::ID eData : {UB, US}) {
      CQvDeviceImage2D xRaw(c.xRaw), xTarget;
      const bool bGray = c.xGray.IsValid();
      bGray ? CQvCudaCompNormalize().Normalize(xTarget, xRaw, CQvDeviceImage2D(c.xGray), eData)
            : CQvCudaCompNormalize().Normalize(xTarget, xRaw, eData);
      const CQvImageFormat& f = c.xRaw.GetFormat();
      QV_EXPECT_FORMAT_OR_NEXT(CQvImageFormat(f.iWidth, f.iHeight, f.ePixelType, eData),
                               xTarget.GetFormat());
      const V xOut = QvTest::Download(xTarget);
      const int n = f.GetComponentCount();
      for (size_t k = 0; k < xOut.size(); ++k) {
        const int x = static_cast<int>(k / n) % f.iWidth, y = static_cast<int>(k / n) / f.iWidth;
        const int i = static_cast<int>(k % n);
        const float q = Read4(c.xRaw, x, y, i) / (bGray ? Read4(c.xGray, x, y, i) : 1);
        EXPECT_EQ(QvTest::StoreRule(q, eData == UB ? 255.0f : 65535.0f), xOut[k])
            << c.szRow << " to " << CQvImageFormat::DataType2String(eData) << " [" << k << "]";
      }
    }
  }
}

// Sample n over full scale as the layout of the custom type holds it: 10 or 12 significant bits
// in 16, or 12 bits two pixels in three bytes, the first in the high bits.
float CustomValue(EDataType::ID eData, const std::vector<uint8_t>& b, size_t n) {
  if (eData == EDataType::Custom_12Packed) {
    const uint8_t* p = &b[3 * (n / 2)];
    return static_cast<float>(n % 2 == 0 ? (p[0] << 4) | (p[1] >> 4) : (p[1] & 15) | (p[2] << 4)) /
           4095.0f;
  }
  const float r = static_cast<float>(b[2 * n] | (b[2 * n + 1] << 8)) / 65535.0f;
  return (r * 65535.0f) / (eData == EDataType::Custom_10in16_LSB ? 1023.0f : 4095.0f);
}

TEST(CustomDataType, SamplesSpreadOverSixteenBits) {
  // Words 0, 1, 512, 1023, 1024, 4095, 65535, 300, little-endian.
  const std::vector<uint8_t> xWords = {0, 0, 1, 0, 0, 2, 255, 3, 0, 4, 255, 15, 255, 255, 44, 1};
  const EDataType::ID P12 = EDataType::Custom_12Packed;
  // clang-format off
  const struct { CQvImageFormat f; std::vector<uint8_t> xBytes; } aCases[] = {
      {{4, 2, EPixelType::BayerGR, EDataType::Custom_10in16_LSB}, xWords},
      {{2, 4, Lum, EDataType::Custom_12in16_LSB}, xWords},
      // 0xAB 0xCD 0xEF hold 0xABC and 0xEFD; an odd last pixel owns one and a half bytes, and
      // the source holds exactly the bytes its pixels own, so a read past them would be caught.
      {{2, 1, Lum, P12}, {0xAB, 0xCD, 0xEF}},
      {{3, 1, Lum, P12}, {0xAB, 0xCD, 0xEF, 0x12, 0x34}},
      {{3, 3, EPixelType::BayerGR, P12},
       {7, 24, 41, 58, 75, 92, 109, 126, 143, 160, 177, 194, 211, 228}},
  };
  // clang-format on
  for (const auto& c : aCases) {
    SCOPED_TRACE(c.f.ToString().ToCString());
    if (c.f.eDataType == P12) {
      EXPECT_EQ(c.xBytes.size(), CQvCudaCompNormalize::GetPackedByteCount(c.f));
    }
    CQvDeviceImage2D xTarget;
    CQvCudaCompNormalize().ConvertCustomDataType(xTarget, QvTest::SRawImage(c.f, c.xBytes));
    QV_EXPECT_FORMAT_OR_NEXT(CQvImageFormat(c.f.iWidth, c.f.iHeight, c.f.ePixelType, US),
                             xTarget.GetFormat());
    const V x = QvTest::Download(xTarget);
    for (size_t n = 0; n < x.size(); ++n)
      EXPECT_EQ(QvTest::StoreRule(CustomValue(c.f.eDataType, c.xBytes, n), 65535.0f), x[n]) << n;
    if (c.f.eDataType == EDataType::Custom_10in16_LSB) {  // 1 is 64.06; 1023 and above the top
      EXPECT_EQ((V{64, 65535, 65535}), (V{x[1], x[3], x[4]}));
    }
  }
}

}  // namespace
