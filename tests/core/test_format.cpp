

#include "QvImageFormat.h"
#include "QvTestUtil.h"

using namespace Qv;
using QvTest::Thrown;

namespace {

CQvImageFormat MakeFormat(int32_t iWidth, int32_t iHeight, int32_t iPixel, int32_t iData) {
  return CQvImageFormat(iWidth, iHeight, static_cast<EPixelType::ID>(iPixel),
                        static_cast<EDataType::ID>(iData));
}

}  // namespace

TEST(ImageFormat, NamesAndSizesOfEveryKnownIdWrittenOutAsPlainNumbers) {
  // clang-format off
  const struct { int32_t iId; const char* pName; int iSize; } kPixels[] = {
      {0, "None", 0},         {0x1907, "RGB", 3},     {0x1908, "RGBA", 4},    {0x1909, "Lum", 1},
      {0x190A, "LumA", 2},    {0x2001, "BayerRG", 1}, {0x2002, "BayerBG", 1}, {0x2003, "BayerGR", 1},
      {0x2004, "BayerGB", 1}, {0x80E0, "BGR", 3},     {0x80E1, "BGRA", 4},    {0x8757, "Unknown", 2},
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
  for (int i = 0; i < 4; ++i) {
    int32_t aiOther[4] = {640, 480, 0x1403, 0x80E1};
    aiOther[i] += 1;
    const CQvImageFormat x = MakeFormat(aiOther[0], aiOther[1], aiOther[3], aiOther[2]);
    EXPECT_TRUE(x != xFormat && !(x == xFormat)) << "field " << i;
  }
  EXPECT_FALSE(MakeFormat(1, 1, 0x1909, 0x1401).IsEmpty());
  EXPECT_TRUE(MakeFormat(0, 1, 0x1909, 0x1401).IsEmpty() &&
              MakeFormat(1, -1, 0x1909, 0x1401).IsEmpty());
  EXPECT_TRUE(MakeFormat(5, 5, 0, 0x1401).IsEmpty());
}
