#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "QvException.h"
#include "QvImage.h"

using Qv::CQvException;
using Qv::CQvImage;
using Qv::CQvImageFormat;
using Qv::CQvImageMoniker;
using Qv::EDataType;
using Qv::EPixelType;

namespace {

template <typename TCall>
std::string ThrownMessage(TCall xCall) {
  try {
    xCall();
  } catch (const CQvException& xException) {
    return xException.GetMessageText();
  }
  return "";
}

// Fills a new image of the format with the given values (in memory order).
template <typename T>
CQvImage MakeImage(int iWidth, int iHeight, EPixelType::ID ePixel, EDataType::ID eData,
                   const std::vector<T>& vValues) {
  CQvImage xImage(CQvImageFormat(iWidth, iHeight, ePixel, eData));
  EXPECT_EQ(xImage.GetFormat().GetImageBytes(), vValues.size() * sizeof(T));
  std::memcpy(xImage.GetDataPtr(), vValues.data(), vValues.size() * sizeof(T));
  return xImage;
}

template <typename T>
std::vector<T> Values(const CQvImage& xImage) {
  const size_t uCount = static_cast<size_t>(xImage.GetFormat().GetImageBytes() / sizeof(T));
  std::vector<T> vValues(uCount);
  if (uCount != 0) std::memcpy(vValues.data(), xImage.GetDataPtr(), uCount * sizeof(T));
  return vValues;
}

}  // namespace

TEST(Image, DefaultIsEmpty) {
  const CQvImage xImage;
  EXPECT_FALSE(xImage.IsValid());
  EXPECT_EQ(xImage.GetDataPtr(), nullptr);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat());
  EXPECT_EQ(xImage.GetBytesPerPixel(), 0);
  int iWidth = -1;
  int iHeight = -1;
  xImage.GetSize(iWidth, iHeight);
  EXPECT_EQ(iWidth, 0);
  EXPECT_EQ(iHeight, 0);
}

TEST(Image, CreateAllocates) {
  CQvImage xImage(CQvImageFormat(5, 3, EPixelType::BGRA, EDataType::UShort));
  EXPECT_TRUE(xImage.IsValid());
  ASSERT_NE(xImage.GetDataPtr(), nullptr);
  EXPECT_EQ(xImage.GetBytesPerPixel(), 8);
  EXPECT_EQ(xImage.GetImageBytes(), 120u);
  int iWidth = 0;
  int iHeight = 0;
  xImage.GetSize(iWidth, iHeight);
  EXPECT_EQ(iWidth, 5);
  EXPECT_EQ(iHeight, 3);
  EPixelType::ID ePixel = EPixelType::None;
  EDataType::ID eData = EDataType::Void;
  xImage.GetType(ePixel, eData);
  EXPECT_EQ(ePixel, EPixelType::BGRA);
  EXPECT_EQ(eData, EDataType::UShort);
  // The whole block is writable.
  std::memset(xImage.GetDataPtr(), 0xAB, 120);
  EXPECT_EQ(static_cast<const uint8_t*>(xImage.GetDataPtr())[119], 0xAB);
}

TEST(Image, CreateKeepsMemoryOfSameSize) {
  CQvImage xImage(CQvImageFormat(4, 2, EPixelType::RGB, EDataType::UByte));  // 24 bytes
  const void* pBefore = xImage.GetDataPtr();
  xImage.Create(CQvImageFormat(6, 2, EPixelType::Lum, EDataType::UShort));  // 24 bytes
  EXPECT_EQ(xImage.GetDataPtr(), pBefore);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(6, 2, EPixelType::Lum, EDataType::UShort));
  xImage.Create(CQvImageFormat(100, 100, EPixelType::Lum, EDataType::UShort));
  EXPECT_EQ(xImage.GetImageBytes(), 20000u);
  EXPECT_EQ(xImage.GetFormat().iWidth, 100);
}

TEST(Image, CreateRefusesBadFormats) {
  CQvImage xImage(CQvImageFormat(2, 2, EPixelType::Lum, EDataType::UByte));
  const void* pBefore = xImage.GetDataPtr();
  EXPECT_EQ(ThrownMessage(
                [&] { xImage.Create(CQvImageFormat(-1, 2, EPixelType::Lum, EDataType::UByte)); }),
            "Invalid image size");
  EXPECT_EQ(ThrownMessage(
                [&] { xImage.Create(CQvImageFormat(2, -7, EPixelType::Lum, EDataType::UByte)); }),
            "Invalid image size");
  EXPECT_EQ(
      ThrownMessage([&] {
        xImage.Create(CQvImageFormat(2, 2, EPixelType::Lum, static_cast<EDataType::ID>(5127)));
      }),
      "Unknown data type 'Unknown'");
  EXPECT_EQ(ThrownMessage([&] {
              xImage.Create(CQvImageFormat(2, 2, static_cast<EPixelType::ID>(3), EDataType::UByte));
            }),
            "Unknown pixel type");
  // A failed Create leaves the image as it was.
  EXPECT_EQ(xImage.GetDataPtr(), pBefore);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(2, 2, EPixelType::Lum, EDataType::UByte));
}

TEST(Image, ZeroSizedFormatHoldsNoMemory) {
  CQvImage xImage(CQvImageFormat(0, 10, EPixelType::RGB, EDataType::UByte));
  EXPECT_FALSE(xImage.IsValid());
  EXPECT_EQ(xImage.GetDataPtr(), nullptr);
  EXPECT_EQ(xImage.GetFormat().iHeight, 10);
}

TEST(Image, ReleaseResets) {
  CQvImage xImage(CQvImageFormat(2, 2, EPixelType::Lum, EDataType::UByte));
  xImage.Release();
  EXPECT_FALSE(xImage.IsValid());
  EXPECT_EQ(xImage.GetDataPtr(), nullptr);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat());
}

TEST(Image, CopyIsDeep) {
  CQvImage xOriginal =
      MakeImage<uint8_t>(3, 1, EPixelType::RGB, EDataType::UByte, {1, 2, 3, 4, 5, 6, 7, 8, 9});
  CQvImage xCopy(xOriginal);
  EXPECT_NE(xCopy.GetDataPtr(), xOriginal.GetDataPtr());
  EXPECT_EQ(xCopy.GetFormat(), xOriginal.GetFormat());
  EXPECT_EQ(Values<uint8_t>(xCopy), (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
  static_cast<uint8_t*>(xCopy.GetDataPtr())[0] = 99;
  EXPECT_EQ(static_cast<const uint8_t*>(xOriginal.GetDataPtr())[0], 1);

  CQvImage xAssigned(CQvImageFormat(50, 50, EPixelType::Lum, EDataType::Float));
  xAssigned = xOriginal;
  EXPECT_EQ(xAssigned.GetFormat(), xOriginal.GetFormat());
  EXPECT_EQ(Values<uint8_t>(xAssigned), (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
  EXPECT_NE(xAssigned.GetDataPtr(), xOriginal.GetDataPtr());

  CQvImage& xAlias = xAssigned;
  xAssigned = xAlias;
  EXPECT_EQ(Values<uint8_t>(xAssigned), (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8, 9}));

  const CQvImage xEmpty;
  xAssigned = xEmpty;
  EXPECT_FALSE(xAssigned.IsValid());
  EXPECT_EQ(xAssigned.GetFormat(), CQvImageFormat());
}

TEST(Image, MoveTransfersMemory) {
  CQvImage xSource = MakeImage<uint16_t>(2, 1, EPixelType::Lum, EDataType::UShort, {7, 65535});
  const void* pData = xSource.GetDataPtr();
  CQvImage xMoved(std::move(xSource));
  EXPECT_EQ(xMoved.GetDataPtr(), pData);
  EXPECT_EQ(Values<uint16_t>(xMoved), (std::vector<uint16_t>{7, 65535}));
  EXPECT_FALSE(xSource.IsValid());  // NOLINT: a moved-from image is empty by contract

  CQvImage xTarget(CQvImageFormat(9, 9, EPixelType::RGB, EDataType::UByte));
  xTarget = std::move(xMoved);
  EXPECT_EQ(xTarget.GetDataPtr(), pData);
  EXPECT_EQ(xTarget.GetFormat(), CQvImageFormat(2, 1, EPixelType::Lum, EDataType::UShort));
  EXPECT_FALSE(xMoved.IsValid());  // NOLINT
}

TEST(Image, CreateFromAnyImage) {
  uint8_t auPixels[6] = {10, 20, 30, 40, 50, 60};
  const CQvImageMoniker xView(3, 1, EPixelType::LumA, EDataType::UByte, auPixels);
  CQvImage xImage;
  xImage.Create(xView);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(3, 1, EPixelType::LumA, EDataType::UByte));
  EXPECT_NE(xImage.GetDataPtr(), static_cast<void*>(auPixels));
  EXPECT_EQ(Values<uint8_t>(xImage), (std::vector<uint8_t>{10, 20, 30, 40, 50, 60}));
}

TEST(Image, CreateFromViewOfItself) {
  CQvImage xImage = MakeImage<uint8_t>(4, 1, EPixelType::Lum, EDataType::UByte, {1, 2, 3, 4});
  // A smaller view over the image's own memory: the result must hold the viewed bytes.
  CQvImageMoniker xView(2, 1, EPixelType::Lum, EDataType::UByte,
                        static_cast<uint8_t*>(xImage.GetDataPtr()) + 2);
  xImage.Create(xView);
  EXPECT_EQ(Values<uint8_t>(xImage), (std::vector<uint8_t>{3, 4}));
  // Same size, shifted by one byte.
  CQvImage xSecond = MakeImage<uint8_t>(2, 2, EPixelType::Lum, EDataType::UByte, {5, 6, 7, 8});
  CQvImageMoniker xShifted(3, 1, EPixelType::Lum, EDataType::UByte,
                           static_cast<uint8_t*>(xSecond.GetDataPtr()) + 1);
  xSecond.Create(xShifted);
  EXPECT_EQ(Values<uint8_t>(xSecond), (std::vector<uint8_t>{6, 7, 8}));
}

TEST(Moniker, ViewsCallerMemory) {
  uint16_t auPixels[6] = {1, 2, 3, 4, 5, 6};
  CQvImageMoniker xView;
  EXPECT_FALSE(xView.IsValid());
  xView.Create(3, 2, EPixelType::Lum, EDataType::UShort, auPixels);
  EXPECT_TRUE(xView.IsValid());
  EXPECT_EQ(xView.GetDataPtr(), static_cast<void*>(auPixels));
  EXPECT_EQ(xView.GetBytesPerPixel(), 2);
  EXPECT_EQ(xView.GetFormat(), CQvImageFormat(3, 2, EPixelType::Lum, EDataType::UShort));
  int iWidth = 0;
  int iHeight = 0;
  xView.GetSize(iWidth, iHeight);
  EXPECT_EQ(iWidth, 3);
  EXPECT_EQ(iHeight, 2);
  EPixelType::ID ePixel = EPixelType::None;
  EDataType::ID eData = EDataType::Void;
  xView.GetType(ePixel, eData);
  EXPECT_EQ(ePixel, EPixelType::Lum);
  EXPECT_EQ(eData, EDataType::UShort);

  auPixels[4] = 500;  // visible through the view
  EXPECT_EQ(static_cast<const uint16_t*>(static_cast<const Qv::IImage&>(xView).GetDataPtr())[4],
            500);
  static_cast<uint16_t*>(xView.GetDataPtr())[0] = 77;  // and written through to the caller
  EXPECT_EQ(auPixels[0], 77);
}

TEST(Moniker, RefusesBadInput) {
  uint8_t auPixels[4] = {};
  CQvImageMoniker xView;
  EXPECT_EQ(
      ThrownMessage([&] { xView.Create(-2, 2, EPixelType::Lum, EDataType::UByte, auPixels); }),
      "Invalid image size");
  EXPECT_EQ(ThrownMessage([&] { xView.Create(2, 2, EPixelType::Lum, EDataType::UByte, nullptr); }),
            "Invalid image data pointer");
  EXPECT_EQ(ThrownMessage([&] {
              xView.Create(2, 2, EPixelType::Lum, static_cast<EDataType::ID>(5136), auPixels);
            }),
            "Unable to determine bytes per pixel from integral data formats");
  EXPECT_FALSE(xView.IsValid());
}

// ---- ConvertType ---------------------------------------------------------------------------

TEST(Convert, UShortToUByteTruncates) {
  const CQvImage xSource = MakeImage<uint16_t>(6, 1, EPixelType::Lum, EDataType::UShort,
                                               {0, 255, 256, 65535, 511, 65280});
  CQvImage xTarget;
  xSource.ConvertType(xTarget, EPixelType::Lum, EDataType::UByte);
  EXPECT_EQ(xTarget.GetFormat(), CQvImageFormat(6, 1, EPixelType::Lum, EDataType::UByte));
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{0, 0, 1, 255, 1, 255}));
}

TEST(Convert, UByteToUShortScales) {
  const CQvImage xSource =
      MakeImage<uint8_t>(4, 1, EPixelType::Lum, EDataType::UByte, {0, 1, 128, 255});
  CQvImage xTarget;
  xSource.ConvertType(xTarget, EPixelType::Lum, EDataType::UShort);
  EXPECT_EQ(Values<uint16_t>(xTarget), (std::vector<uint16_t>{0, 257, 32896, 65535}));
}

TEST(Convert, FloatToIntegers) {
  const float fNan = std::numeric_limits<float>::quiet_NaN();
  const CQvImage xSource = MakeImage<float>(7, 1, EPixelType::Lum, EDataType::Float,
                                            {-0.5f, 0.0f, 0.5f, 1.0f, 2.0f, fNan, 0.25f});
  CQvImage xBytes;
  xSource.ConvertType(xBytes, EPixelType::Lum, EDataType::UByte);
  // 0.5 * 255 = 127.5 and 0.25 * 255 = 63.75 are truncated.
  EXPECT_EQ(Values<uint8_t>(xBytes), (std::vector<uint8_t>{0, 0, 127, 255, 255, 0, 63}));
  CQvImage xShorts;
  xSource.ConvertType(xShorts, EPixelType::Lum, EDataType::UShort);
  EXPECT_EQ(Values<uint16_t>(xShorts),
            (std::vector<uint16_t>{0, 0, 32767, 65535, 65535, 0, 16383}));
}

TEST(Convert, IntegersToFloat) {
  const CQvImage xBytes = MakeImage<uint8_t>(3, 1, EPixelType::Lum, EDataType::UByte, {0, 51, 255});
  CQvImage xTarget;
  xBytes.ConvertType(xTarget, EPixelType::Lum, EDataType::Float);
  std::vector<float> vValues = Values<float>(xTarget);
  ASSERT_EQ(vValues.size(), 3u);
  EXPECT_EQ(vValues[0], 0.0f);
  EXPECT_FLOAT_EQ(vValues[1], 0.2f);
  EXPECT_EQ(vValues[2], 1.0f);

  const CQvImage xShorts =
      MakeImage<uint16_t>(3, 1, EPixelType::Lum, EDataType::UShort, {0, 13107, 65535});
  xShorts.ConvertType(xTarget, EPixelType::Lum, EDataType::Float);
  vValues = Values<float>(xTarget);
  EXPECT_EQ(vValues[0], 0.0f);
  EXPECT_FLOAT_EQ(vValues[1], 0.2f);
  EXPECT_EQ(vValues[2], 1.0f);
}

TEST(Convert, WithoutScalingOnlyClamps) {
  CQvImage xTarget;
  const CQvImage xShorts =
      MakeImage<uint16_t>(3, 1, EPixelType::Lum, EDataType::UShort, {200, 255, 300});
  CQvImage::ConvertType(xTarget, xShorts, EPixelType::Lum, EDataType::UByte, false);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{200, 255, 255}));

  const CQvImage xBytes = MakeImage<uint8_t>(2, 1, EPixelType::Lum, EDataType::UByte, {7, 200});
  CQvImage::ConvertType(xTarget, xBytes, EPixelType::Lum, EDataType::UShort, false);
  EXPECT_EQ(Values<uint16_t>(xTarget), (std::vector<uint16_t>{7, 200}));
  CQvImage::ConvertType(xTarget, xBytes, EPixelType::Lum, EDataType::Float, false);
  EXPECT_EQ(Values<float>(xTarget), (std::vector<float>{7.0f, 200.0f}));

  const float fNan = std::numeric_limits<float>::quiet_NaN();
  const CQvImage xFloats = MakeImage<float>(5, 1, EPixelType::Lum, EDataType::Float,
                                            {-3.0f, 12.9f, 300.7f, fNan, 70000.0f});
  CQvImage::ConvertType(xTarget, xFloats, EPixelType::Lum, EDataType::UByte, false);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{0, 12, 255, 0, 255}));
  CQvImage::ConvertType(xTarget, xFloats, EPixelType::Lum, EDataType::UShort, false);
  EXPECT_EQ(Values<uint16_t>(xTarget), (std::vector<uint16_t>{0, 12, 300, 0, 65535}));
}

TEST(Convert, RgbToRgbaAddsOpaqueAlpha) {
  const CQvImage xSource =
      MakeImage<uint8_t>(2, 1, EPixelType::RGB, EDataType::UByte, {10, 20, 30, 40, 50, 60});
  CQvImage xTarget;
  xSource.ConvertType(xTarget, EPixelType::RGBA, EDataType::UByte);
  EXPECT_EQ(xTarget.GetFormat(), CQvImageFormat(2, 1, EPixelType::RGBA, EDataType::UByte));
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{10, 20, 30, 255, 40, 50, 60, 255}));

  xSource.ConvertType(xTarget, EPixelType::BGRA, EDataType::UShort);
  EXPECT_EQ(Values<uint16_t>(xTarget),
            (std::vector<uint16_t>{7710, 5140, 2570, 65535, 15420, 12850, 10280, 65535}));

  xSource.ConvertType(xTarget, EPixelType::RGBA, EDataType::Float);
  const std::vector<float> vValues = Values<float>(xTarget);
  EXPECT_EQ(vValues[3], 1.0f);
  EXPECT_EQ(vValues[7], 1.0f);
}

TEST(Convert, ChannelOrders) {
  const CQvImage xBgr =
      MakeImage<uint8_t>(1, 1, EPixelType::BGR, EDataType::UByte, {1, 2, 3});  // B=1 G=2 R=3
  CQvImage xTarget;
  xBgr.ConvertType(xTarget, EPixelType::RGB, EDataType::UByte);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{3, 2, 1}));
  xBgr.ConvertType(xTarget, EPixelType::RGBA, EDataType::UByte);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{3, 2, 1, 255}));

  const CQvImage xRgba = MakeImage<uint8_t>(1, 1, EPixelType::RGBA, EDataType::UByte, {1, 2, 3, 4});
  xRgba.ConvertType(xTarget, EPixelType::BGRA, EDataType::UByte);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{3, 2, 1, 4}));
  xRgba.ConvertType(xTarget, EPixelType::BGR, EDataType::UByte);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{3, 2, 1}));
  xRgba.ConvertType(xTarget, EPixelType::RGB, EDataType::UByte);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{1, 2, 3}));
}

TEST(Convert, GrayToColour) {
  const CQvImage xLum = MakeImage<uint8_t>(2, 1, EPixelType::Lum, EDataType::UByte, {0, 200});
  CQvImage xTarget;
  xLum.ConvertType(xTarget, EPixelType::RGBA, EDataType::UByte);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{0, 0, 0, 255, 200, 200, 200, 255}));
  xLum.ConvertType(xTarget, EPixelType::LumA, EDataType::UByte);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{0, 255, 200, 255}));

  const CQvImage xLumA = MakeImage<uint8_t>(1, 1, EPixelType::LumA, EDataType::UByte, {10, 20});
  xLumA.ConvertType(xTarget, EPixelType::RGBA, EDataType::UShort);
  EXPECT_EQ(Values<uint16_t>(xTarget), (std::vector<uint16_t>{2570, 2570, 2570, 5140}));
  xLumA.ConvertType(xTarget, EPixelType::BGR, EDataType::UByte);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{10, 10, 10}));
  xLumA.ConvertType(xTarget, EPixelType::Lum, EDataType::UByte);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{10}));
}

TEST(Convert, BayerReadsAsGray) {
  const CQvImage xBayer =
      MakeImage<uint16_t>(2, 1, EPixelType::BayerGB, EDataType::UShort, {512, 1024});
  CQvImage xTarget;
  xBayer.ConvertType(xTarget, EPixelType::RGB, EDataType::UByte);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{2, 2, 2, 4, 4, 4}));
  xBayer.ConvertType(xTarget, EPixelType::Lum, EDataType::UShort);
  EXPECT_EQ(xTarget.GetFormat(), CQvImageFormat(2, 1, EPixelType::Lum, EDataType::UShort));
  EXPECT_EQ(Values<uint16_t>(xTarget), (std::vector<uint16_t>{512, 1024}));
}

TEST(Convert, ColourToGrayLuma) {
  // Y = (R*299 + G*587 + B*114 + 500) / 1000, worked by hand:
  // red 255: 76745 / 1000 = 76; green 255: 150185 / 1000 = 150; blue 255: 29570 / 1000 = 29;
  // (10, 20, 30): (2990 + 11740 + 3420 + 500) / 1000 = 18; white stays 255.
  const CQvImage xRgba = MakeImage<uint8_t>(
      5, 1, EPixelType::RGBA, EDataType::UByte,
      {255, 0, 0, 1, 0, 255, 0, 2, 0, 0, 255, 3, 10, 20, 30, 4, 255, 255, 255, 5});
  CQvImage xTarget;
  xRgba.ConvertType(xTarget, EPixelType::Lum, EDataType::UByte);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{76, 150, 29, 18, 255}));
  xRgba.ConvertType(xTarget, EPixelType::LumA, EDataType::UByte);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{76, 1, 150, 2, 29, 3, 18, 4, 255, 5}));

  // BGR order: bytes (30, 20, 10) are B=30 G=20 R=10: (2990 + 11740 + 3420 + 500) / 1000 = 18.
  const CQvImage xBgr = MakeImage<uint8_t>(1, 1, EPixelType::BGR, EDataType::UByte, {30, 20, 10});
  xBgr.ConvertType(xTarget, EPixelType::Lum, EDataType::UByte);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{18}));

  // 16 bit: values first become 8 bit (65535 -> 255, 256 -> 1, 0 -> 0), then
  // (255*299 + 1*587 + 0 + 500) / 1000 = 77332 / 1000 = 77.
  const CQvImage xShorts =
      MakeImage<uint16_t>(1, 1, EPixelType::RGB, EDataType::UShort, {65535, 256, 0});
  xShorts.ConvertType(xTarget, EPixelType::Lum, EDataType::UByte);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{77}));
  // In 16 bit: (1000*299 + 2000*587 + 3000*114 + 500) / 1000 = 1815500 / 1000 = 1815.
  const CQvImage xWide =
      MakeImage<uint16_t>(1, 1, EPixelType::RGB, EDataType::UShort, {1000, 2000, 3000});
  xWide.ConvertType(xTarget, EPixelType::Lum, EDataType::UShort);
  EXPECT_EQ(Values<uint16_t>(xTarget), (std::vector<uint16_t>{1815}));

  const CQvImage xFloat =
      MakeImage<float>(1, 1, EPixelType::RGB, EDataType::Float, {1.0f, 0.0f, 0.0f});
  xFloat.ConvertType(xTarget, EPixelType::Lum, EDataType::Float);
  EXPECT_FLOAT_EQ(Values<float>(xTarget)[0], 0.299f);
}

TEST(Convert, SameFormatCopies) {
  const CQvImage xShort = MakeImage<int16_t>(2, 1, EPixelType::Lum, EDataType::Short, {-5, 1234});
  CQvImage xTarget;
  xShort.ConvertType(xTarget, EPixelType::Lum, EDataType::Short);
  EXPECT_EQ(xTarget.GetFormat(), xShort.GetFormat());
  EXPECT_NE(xTarget.GetDataPtr(), xShort.GetDataPtr());
  EXPECT_EQ(Values<int16_t>(xTarget), (std::vector<int16_t>{-5, 1234}));

  const CQvImage xBayer = MakeImage<uint8_t>(2, 1, EPixelType::BayerRG, EDataType::UByte, {9, 8});
  xBayer.ConvertType(xTarget, EPixelType::BayerRG, EDataType::UByte);
  EXPECT_EQ(xTarget.GetFormat(), xBayer.GetFormat());
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{9, 8}));
}

TEST(Convert, IntoItself) {
  CQvImage xImage =
      MakeImage<uint8_t>(2, 1, EPixelType::RGB, EDataType::UByte, {10, 20, 30, 40, 50, 60});
  xImage.ConvertType(xImage, EPixelType::BGRA, EDataType::UShort);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(2, 1, EPixelType::BGRA, EDataType::UShort));
  EXPECT_EQ(Values<uint16_t>(xImage),
            (std::vector<uint16_t>{7710, 5140, 2570, 65535, 15420, 12850, 10280, 65535}));
  xImage.ConvertType(xImage, EPixelType::BGRA, EDataType::UShort);  // same format
  EXPECT_EQ(Values<uint16_t>(xImage)[0], 7710);

  // A view over the target's memory as the source.
  CQvImage xTarget = MakeImage<uint8_t>(2, 1, EPixelType::Lum, EDataType::UByte, {1, 255});
  CQvImageMoniker xView(2, 1, EPixelType::Lum, EDataType::UByte, xTarget.GetDataPtr());
  CQvImage::ConvertType(xTarget, xView, EPixelType::RGB, EDataType::UByte, true);
  EXPECT_EQ(Values<uint8_t>(xTarget), (std::vector<uint8_t>{1, 1, 1, 255, 255, 255}));
}

TEST(Convert, EmptySource) {
  const CQvImage xEmpty(CQvImageFormat(0, 0, EPixelType::Lum, EDataType::UByte));
  CQvImage xTarget;
  xEmpty.ConvertType(xTarget, EPixelType::RGBA, EDataType::Float);
  EXPECT_EQ(xTarget.GetFormat(), CQvImageFormat(0, 0, EPixelType::RGBA, EDataType::Float));
  EXPECT_FALSE(xTarget.IsValid());
}

TEST(Convert, UnsupportedCombinations) {
  const CQvImage xShort = MakeImage<int16_t>(2, 1, EPixelType::Lum, EDataType::Short, {1, 2});
  CQvImage xTarget;
  EXPECT_EQ(ThrownMessage([&] { xShort.ConvertType(xTarget, EPixelType::Lum, EDataType::UByte); }),
            "Unsupported image type conversion: 2x1, Lum, Short to 2x1, Lum, UByte");

  const CQvImage xLum = MakeImage<uint8_t>(2, 1, EPixelType::Lum, EDataType::UByte, {1, 2});
  EXPECT_EQ(
      ThrownMessage([&] { xLum.ConvertType(xTarget, EPixelType::BayerRG, EDataType::UByte); }),
      "Unsupported image type conversion: 2x1, Lum, UByte to 2x1, BayerRG, UByte");
  EXPECT_EQ(ThrownMessage([&] { xLum.ConvertType(xTarget, EPixelType::RGB, EDataType::Double); }),
            "Unsupported image type conversion: 2x1, Lum, UByte to 2x1, RGB, Double");
  EXPECT_EQ(
      ThrownMessage([&] { xLum.ConvertType(xTarget, EPixelType::Unknown, EDataType::UByte); }),
      "Unsupported image type conversion: 2x1, Lum, UByte to 2x1, Unknown, UByte");
  EXPECT_EQ(ThrownMessage([&] { xLum.ConvertType(xTarget, EPixelType::None, EDataType::UByte); }),
            "Unsupported image type conversion: 2x1, Lum, UByte to 2x1, None, UByte");
  // The target is untouched after a refused conversion.
  EXPECT_FALSE(xTarget.IsValid());
}
