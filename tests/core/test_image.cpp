// Image formats, host images and their conversions.

#include "QvImage.h"
#include "QvTestUtil.h"

using namespace Qv;
using QvTest::MakeImage;
using QvTest::Samples;
using QvTest::Thrown;
using V = std::vector<double>;

namespace {

CQvImageFormat MakeFormat(int32_t iWidth, int32_t iHeight, int32_t iPixel, int32_t iData) {
  return CQvImageFormat(iWidth, iHeight, static_cast<EPixelType::ID>(iPixel),
                        static_cast<EDataType::ID>(iData));
}

const EPixelType::ID Lum = EPixelType::Lum, LumA = EPixelType::LumA, RGB = EPixelType::RGB,
                     RGBA = EPixelType::RGBA, BGR = EPixelType::BGR, BGRA = EPixelType::BGRA;
const EDataType::ID UB = EDataType::UByte, US = EDataType::UShort, F = EDataType::Float;

}  // namespace

TEST(ImageFormat, NamesAndSizesOfEveryKnownIdWrittenOutAsPlainNumbers) {
  // clang-format off
  const struct { int32_t iId; const char* pName; int iSize; } kPixels[] = {
      {0, "None", 0}, {0x1907, "RGB", 3}, {0x1908, "RGBA", 4}, {0x1909, "Lum", 1},
      {0x190A, "LumA", 2}, {0x2001, "BayerRG", 1}, {0x2002, "BayerBG", 1}, {0x2003, "BayerGR", 1},
      {0x2004, "BayerGB", 1}, {0x80E0, "BGR", 3}, {0x80E1, "BGRA", 4}, {0x8757, "Unknown", 2},
  }, kData[] = {
      {0, "Void", 0},               {10, "Custom_10in16_LSB", 2}, {11, "Custom_10in16_MSB", 2},
      {12, "Custom_12in16_LSB", 2}, {13, "Custom_12in16_MSB", 2}, {0x1400, "Byte", 1},
      {0x1401, "UByte", 1},         {0x1402, "Short", 2},         {0x1403, "UShort", 2},
      {0x1404, "Int", 4},           {0x1405, "UInt", 4},          {0x1406, "Float", 4},
      {0x140A, "Double", 8},
  };
  // clang-format on
  for (const auto& p : kPixels) {
    EXPECT_STREQ(CQvImageFormat::PixelType2String(p.iId), p.pName) << p.iId;
    for (const auto& d : kData) {
      const CQvImageFormat x = MakeFormat(3, 2, p.iId, d.iId);
      EXPECT_STREQ(CQvImageFormat::DataType2String(d.iId), d.pName) << d.iId;
      EXPECT_EQ(x.GetComponentCount(), p.iSize) << p.pName;
      EXPECT_EQ(x.GetBytesPerChannel(), d.iSize) << d.pName;
      EXPECT_EQ(x.GetBytesPerPixel(), p.iSize * d.iSize) << p.pName << " " << d.pName;
      EXPECT_EQ(x.GetRowBytes(), 3u * p.iSize * d.iSize) << p.pName << " " << d.pName;
      EXPECT_EQ(x.GetImageBytes(), 6u * p.iSize * d.iSize) << p.pName << " " << d.pName;
    }
  }
}

TEST(ImageFormat, UnknownIdsAreRefusedWithTheirMessages) {
  const std::string sPixel = "Unknown pixel type", sData = "Unknown data type 'Unknown'";
  const std::string sIntegral = "Unable to determine bytes per pixel from integral data formats";
  // clang-format off
  const struct { int32_t iPixel, iData; std::string sComponents, sChannel, sBytes; } aCases[] = {
      {-1, 0x1401, sPixel, "", sPixel},
      {0x2005, 0x1401, sPixel, "", sPixel},
      {0x1909, 9, "", sData, sData},
      {0x1909, 14, "", sData, sData},  // packed types have no size
      {0x1909, 0x140B, "", sData, sData},
      {0x1234, 5127, sPixel, sData, sData},  // the data type is checked first
      {0x1909, 5136, "", sData, sIntegral},
      {0x1234, 5137, sPixel, sData, sIntegral},
  };
  // clang-format on
  for (const auto& c : aCases) {
    const CQvImageFormat x = MakeFormat(2, 2, c.iPixel, c.iData);
    EXPECT_EQ(Thrown([&] { x.GetComponentCount(); }), c.sComponents) << c.iPixel;
    EXPECT_EQ(Thrown([&] { x.GetBytesPerChannel(); }), c.sChannel) << c.iData;
    EXPECT_EQ(Thrown([&] { x.GetBytesPerPixel(); }), c.sBytes) << c.iPixel << " " << c.iData;
    EXPECT_EQ(Thrown([&] { x.GetImageBytes(); }), c.sBytes) << c.iPixel << " " << c.iData;
  }
}

TEST(ImageFormat, RowAndImageBytesBeyond32BitAndForEmptySizes) {
  // clang-format off
  const struct { CQvImageFormat x; uint64_t uRow, uImage; } aCases[] = {
      {{50000, 50000, EPixelType::RGBA, EDataType::Float}, 800000u, 40000000000ull},
      {{2000000000, 2, EPixelType::RGBA, EDataType::Double}, 64000000000ull, 128000000000ull},
      {{-4, 3, EPixelType::Lum, EDataType::UByte}, 0, 0},
      {{4, -3, EPixelType::Lum, EDataType::UByte}, 4, 0},
      {{4, 0, EPixelType::Lum, EDataType::UShort}, 8, 0},
  };
  // clang-format on
  for (const auto& c : aCases) {
    EXPECT_EQ(c.x.GetRowBytes(), c.uRow) << c.x.ToString().ToCString();
    EXPECT_EQ(c.x.GetImageBytes(), c.uImage) << c.x.ToString().ToCString();
  }
}

TEST(ImageFormat, LayoutTextEqualityAndEmptiness) {
  // Kernels and other modules read the record as int32 width, height, data type, pixel type.
  const int32_t aiRaw[4] = {640, 480, 0x1403, 0x80E1};
  CQvImageFormat xFormat;
  std::memcpy(&xFormat, aiRaw, sizeof(aiRaw));
  EXPECT_EQ(xFormat, CQvImageFormat(640, 480, EPixelType::BGRA, EDataType::UShort));
  EXPECT_STREQ(xFormat.ToString().ToCString(), "640x480, BGRA, UShort");
  EXPECT_STREQ(MakeFormat(7, 3, 0x4444, 0x5555).ToString().ToCString(), "7x3, Unknown, Unknown");
  EXPECT_STREQ(CQvImageFormat().ToString().ToCString(), "0x0, None, Void");
  for (const CQvImageFormat& x :
       {MakeFormat(641, 480, 0x80E1, 0x1403), MakeFormat(640, 481, 0x80E1, 0x1403),
        MakeFormat(640, 480, 0x1908, 0x1403), MakeFormat(640, 480, 0x80E1, 0x1401)})
    EXPECT_TRUE(x != xFormat && !(x == xFormat)) << x.ToString().ToCString();
  EXPECT_FALSE(MakeFormat(1, 1, 0x1909, 0x1401).IsEmpty());
  for (const CQvImageFormat& x : {MakeFormat(0, 1, 0x1909, 0x1401),
                                  MakeFormat(1, -1, 0x1909, 0x1401), MakeFormat(5, 5, 0, 0x1401)})
    EXPECT_TRUE(x.IsEmpty()) << x.ToString().ToCString();
}

TEST(Image, CreateKeepsMemoryOfTheSameSizeCopiesAreDeepMovesTransfer) {
  CQvImage xImage = MakeImage(3, 1, RGB, UB, {1, 2, 3, 4, 5, 6, 7, 8, 9});
  const void* pData = xImage.GetDataPtr();
  xImage.Create(CQvImageFormat(9, 1, Lum, UB));  // 9 bytes again
  EXPECT_EQ(xImage.GetDataPtr(), pData);
  EXPECT_EQ(CQvImageFormat(static_cast<const IImage&>(xImage)), CQvImageFormat(9, 1, Lum, UB));
  CQvImage xCopy(xImage), xAssigned(CQvImageFormat(50, 50, Lum, F));
  xAssigned = xImage;
  for (CQvImage* p : {&xCopy, &xAssigned}) {
    EXPECT_NE(p->GetDataPtr(), pData);
    EXPECT_EQ(Samples(*p), (V{1, 2, 3, 4, 5, 6, 7, 8, 9}));
  }
  xCopy = std::move(xImage);
  EXPECT_EQ(xCopy.GetDataPtr(), pData);
  EXPECT_FALSE(xImage.IsValid());  // NOLINT: a moved-from image is empty by contract
  // From a view of its own memory, of the same size shifted by one byte.
  xCopy.Create(CQvImageMoniker(8, 1, Lum, UB, static_cast<uint8_t*>(xCopy.GetDataPtr()) + 1));
  EXPECT_EQ(Samples(xCopy), (V{2, 3, 4, 5, 6, 7, 8, 9}));
  xCopy.Create(CQvImageFormat(0, 10, RGB, UB));
  EXPECT_EQ(xCopy.GetDataPtr(), nullptr);
}

TEST(Image, RefusedFormatsLeaveTheImageAsItWas) {
  uint8_t auPixels[4] = {};
  CQvImage xImage(CQvImageFormat(2, 2, Lum, UB));
  const void* pBefore = xImage.GetDataPtr();
  CQvImageMoniker xView;
  // clang-format off
  const struct { CQvImageFormat xFormat; void* pData; const char* szMessage; } aCases[] = {
      {{-1, 2, Lum, UB}, auPixels, "Invalid image size"},
      {{2, 2, Lum, static_cast<EDataType::ID>(5127)}, auPixels, "Unknown data type 'Unknown'"},
      {{2, 2, static_cast<EPixelType::ID>(3), UB}, auPixels, "Unknown pixel type"},
      {{2, 2, Lum, EDataType::Integral_10}, auPixels,
       "Unable to determine bytes per pixel from integral data formats"},
      {{2, 2, Lum, UB}, nullptr, "Invalid image data pointer"},
  };
  // clang-format on
  for (const auto& c : aCases) {
    const CQvImageFormat& f = c.xFormat;
    if (c.pData) {
      EXPECT_EQ(Thrown([&] { xImage.Create(f); }), c.szMessage);
    }
    EXPECT_EQ(
        Thrown([&] { xView.Create(f.iWidth, f.iHeight, f.ePixelType, f.eDataType, c.pData); }),
        c.szMessage);
  }
  EXPECT_EQ(xImage.GetDataPtr(), pBefore);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(2, 2, Lum, UB));
  EXPECT_FALSE(xView.IsValid());
}

TEST(Convert, ChannelsAndDataTypesFollowTheScalingRulesOrAreRefused) {
  // clang-format off
  const struct { EPixelType::ID eFrom; EDataType::ID eFromData; V xFrom; EPixelType::ID eTo;
                 EDataType::ID eToData; bool bScale; V xExpected; const char* szRefused = nullptr;
  } aCases[] = {
      // Scaled: UShort to UByte drops the low byte, UByte to UShort times 257, floats by M
      // and truncated, NaN to 0. Unscaled: only clamped to the target's range.
      {Lum, US, {0, 255, 256, 65535, 511, 65280}, Lum, UB, true, {0, 0, 1, 255, 1, 255}},
      {Lum, UB, {0, 1, 128, 255}, Lum, US, true, {0, 257, 32896, 65535}},
      {Lum, F, {-0.5, 0, 0.5, 1, 2, NAN, 0.25}, Lum, UB, true, {0, 0, 127, 255, 255, 0, 63}},
      {Lum, UB, {0, 51, 255}, Lum, F, true, {0, 0.2, 1}},
      {Lum, US, {200, 255, 300}, Lum, UB, false, {200, 255, 255}},
      {Lum, F, {-3, 12.9, 300.7, NAN, 70000}, Lum, US, false, {0, 12, 300, 0, 65535}},
      // Channel orders and gray spread to every colour; a new alpha is opaque.
      {RGB, UB, {10, 20, 30, 40, 50, 60}, RGBA, UB, true, {10, 20, 30, 255, 40, 50, 60, 255}},
      {RGBA, US, {256, 512, 65535, 1000}, RGBA, UB, true, {1, 2, 255, 3}},
      {RGB, UB, {10, 20, 30}, BGRA, US, true, {7710, 5140, 2570, 65535}},
      {BGR, UB, {1, 2, 3}, RGB, UB, true, {3, 2, 1}},
      {Lum, UB, {0, 200}, RGBA, UB, true, {0, 0, 0, 255, 200, 200, 200, 255}},
      {LumA, UB, {10, 20}, RGBA, US, true, {2570, 2570, 2570, 5140}},
      {EPixelType::BayerGB, US, {512, 1024}, RGB, UB, true, {2, 2, 2, 4, 4, 4}},
      // Luma (R*299 + G*587 + B*114 + 500) / 1000 by hand: red gives 76745 / 1000, (10, 20, 30)
      // 18650 / 1000; UShort becomes UByte first: (255*299 + 1*587 + 500) / 1000 = 77.
      {RGBA, UB, {255, 0, 0, 1, 10, 20, 30, 4}, LumA, UB, true, {76, 1, 18, 4}},
      {RGB, US, {65535, 256, 0, 0, 65535, 0}, Lum, UB, true, {77, 150}},
      {RGB, US, {1000, 2000, 3000}, Lum, US, true, {1815}},
      // The same format is a copy, of any type; what no rule covers is refused.
      {Lum, EDataType::Short, {-5, 1234}, Lum, EDataType::Short, true, {-5, 1234}},
      {Lum, EDataType::Short, {1}, Lum, UB, true, {}, "1x1, Lum, Short to 1x1, Lum, UByte"},
      {Lum, UB, {1}, EPixelType::BayerRG, UB, true, {}, "1x1, Lum, UByte to 1x1, BayerRG, UByte"},
      {Lum, UB, {1}, RGB, EDataType::Double, true, {}, "1x1, Lum, UByte to 1x1, RGB, Double"},
  };
  // clang-format on
  for (const auto& c : aCases) {
    const int w = static_cast<int>(c.xFrom.size()) /
                  CQvImageFormat(1, 1, c.eFrom, c.eFromData).GetComponentCount();
    const CQvImage xSource = MakeImage(w, 1, c.eFrom, c.eFromData, c.xFrom);
    SCOPED_TRACE(std::string(xSource.GetFormat().ToString().ToCString()) + " to " +
                 CQvImageFormat::PixelType2String(c.eTo) + ", " +
                 CQvImageFormat::DataType2String(c.eToData));
    CQvImage xTarget;
    const std::string sThrown =
        Thrown([&] { CQvImage::ConvertType(xTarget, xSource, c.eTo, c.eToData, c.bScale); });
    if (c.szRefused) {
      EXPECT_EQ(sThrown, std::string("Unsupported image type conversion: ") + c.szRefused);
      EXPECT_FALSE(xTarget.IsValid());
      continue;
    }
    EXPECT_EQ(sThrown, "");
    QV_EXPECT_FORMAT_OR_NEXT(CQvImageFormat(w, 1, c.eTo, c.eToData), xTarget.GetFormat());
    const V xOut = Samples(xTarget);
    EXPECT_EQ(xOut.size(), c.xExpected.size());
    for (size_t i = 0; i < std::min(xOut.size(), c.xExpected.size()); ++i)
      EXPECT_NEAR(xOut[i], c.xExpected[i], c.eToData == F ? 1e-7 : 0) << i;
  }
}
