#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "QvException.h"
#include "QvImageFormat.h"

using Qv::CQvException;
using Qv::CQvImageFormat;
using Qv::EDataType;
using Qv::EPixelType;

namespace {

struct SPixelCase {
  int32_t iId;
  const char* pName;
  int iComponents;
};

struct SDataCase {
  int32_t iId;
  const char* pName;
  int iBytes;
};

// Every named id with its size, written out as plain numbers.
const SPixelCase kPixelCases[] = {
    {0, "None", 0},         {0x1907, "RGB", 3},     {0x1908, "RGBA", 4},    {0x1909, "Lum", 1},
    {0x190A, "LumA", 2},    {0x2001, "BayerRG", 1}, {0x2002, "BayerBG", 1}, {0x2003, "BayerGR", 1},
    {0x2004, "BayerGB", 1}, {0x80E0, "BGR", 3},     {0x80E1, "BGRA", 4},    {0x8757, "Unknown", 2},
};

const SDataCase kDataCases[] = {
    {0, "Void", 0},
    {10, "Custom_10in16_LSB", 2},
    {11, "Custom_10in16_MSB", 2},
    {12, "Custom_12in16_LSB", 2},
    {13, "Custom_12in16_MSB", 2},
    {0x1400, "Byte", 1},
    {0x1401, "UByte", 1},
    {0x1402, "Short", 2},
    {0x1403, "UShort", 2},
    {0x1404, "Int", 4},
    {0x1405, "UInt", 4},
    {0x1406, "Float", 4},
    {0x140A, "Double", 8},
};

// Ids without a size. The packed and integral ones have enum names but no text and no size.
const int32_t kUnknownPixelIds[] = {-1,     1,      0x1906, 0x190B, 0x2000,    0x2005,
                                    0x80DF, 0x80E2, 0x8756, 0x8758, 0x7FFFFFFF};
const int32_t kUnknownDataIds[] = {-1,     1,      9,      14,     15,
                                   16,     0x13FF, 0x1407, 0x1408, 0x1409,
                                   0x140B, 0x1410, 0x1411, 0x1412, 0x7FFFFFFF};

CQvImageFormat MakeFormat(int32_t iWidth, int32_t iHeight, int32_t iPixel, int32_t iData) {
  return CQvImageFormat(iWidth, iHeight, static_cast<EPixelType::ID>(iPixel),
                        static_cast<EDataType::ID>(iData));
}

// Runs the call and gives the message and function of the thrown CQvException ("" if none).
template <typename TCall>
std::string ThrownMessage(TCall xCall, std::string* pFunction = nullptr) {
  try {
    xCall();
  } catch (const CQvException& xException) {
    if (pFunction != nullptr) *pFunction = xException.GetFunction();
    return xException.GetMessageText();
  }
  return "";
}

}  // namespace

TEST(ImageFormat, LayoutIsFourInt32InOrder) {
  static_assert(sizeof(CQvImageFormat) == 16, "size");
  EXPECT_EQ(offsetof(CQvImageFormat, iWidth), 0u);
  EXPECT_EQ(offsetof(CQvImageFormat, iHeight), 4u);
  EXPECT_EQ(offsetof(CQvImageFormat, eDataType), 8u);
  EXPECT_EQ(offsetof(CQvImageFormat, ePixelType), 12u);
  const CQvImageFormat xFormat(640, 480, EPixelType::BGRA, EDataType::UShort);
  int32_t aiRaw[4];
  std::memcpy(aiRaw, &xFormat, sizeof(aiRaw));
  EXPECT_EQ(aiRaw[0], 640);
  EXPECT_EQ(aiRaw[1], 480);
  EXPECT_EQ(aiRaw[2], 0x1403);
  EXPECT_EQ(aiRaw[3], 0x80E1);
}

TEST(ImageFormat, DefaultIsEmpty) {
  const CQvImageFormat xFormat;
  EXPECT_EQ(xFormat.iWidth, 0);
  EXPECT_EQ(xFormat.iHeight, 0);
  EXPECT_EQ(static_cast<int32_t>(xFormat.eDataType), 0);
  EXPECT_EQ(static_cast<int32_t>(xFormat.ePixelType), 0);
  EXPECT_TRUE(xFormat.IsEmpty());
  EXPECT_EQ(xFormat.GetBytesPerPixel(), 0);
  EXPECT_EQ(xFormat.GetImageBytes(), 0u);
}

TEST(ImageFormat, ConstructorTakesPixelTypeFirst) {
  const CQvImageFormat xFormat(3, 5, EPixelType::RGB, EDataType::Float);
  EXPECT_EQ(xFormat.iWidth, 3);
  EXPECT_EQ(xFormat.iHeight, 5);
  EXPECT_EQ(static_cast<int32_t>(xFormat.ePixelType), 0x1907);
  EXPECT_EQ(static_cast<int32_t>(xFormat.eDataType), 0x1406);
}

TEST(ImageFormat, EnumValues) {
  EXPECT_EQ(static_cast<int32_t>(EPixelType::Unknown), 34647);
  EXPECT_EQ(static_cast<int32_t>(EDataType::Custom_10Packed), 14);
  EXPECT_EQ(static_cast<int32_t>(EDataType::Custom_12Packed), 15);
  EXPECT_EQ(static_cast<int32_t>(EDataType::Integral_10), 5136);
  EXPECT_EQ(static_cast<int32_t>(EDataType::Integral_12), 5137);
  EXPECT_EQ(static_cast<int32_t>(EDataType::Double), 5130);
}

TEST(ImageFormat, PixelNamesAndComponents) {
  for (const SPixelCase& xCase : kPixelCases) {
    EXPECT_STREQ(CQvImageFormat::PixelType2String(xCase.iId), xCase.pName) << xCase.iId;
    EXPECT_EQ(MakeFormat(1, 1, xCase.iId, 0x1401).GetComponentCount(), xCase.iComponents)
        << xCase.iId;
  }
}

TEST(ImageFormat, DataNamesAndBytes) {
  for (const SDataCase& xCase : kDataCases) {
    EXPECT_STREQ(CQvImageFormat::DataType2String(xCase.iId), xCase.pName) << xCase.iId;
    EXPECT_EQ(MakeFormat(1, 1, 0x1909, xCase.iId).GetBytesPerChannel(), xCase.iBytes) << xCase.iId;
  }
}

TEST(ImageFormat, BytesPerPixelForEveryKnownPair) {
  for (const SPixelCase& xPixel : kPixelCases) {
    for (const SDataCase& xData : kDataCases) {
      EXPECT_EQ(MakeFormat(2, 2, xPixel.iId, xData.iId).GetBytesPerPixel(),
                xPixel.iComponents * xData.iBytes)
          << xPixel.pName << " " << xData.pName;
    }
  }
}

TEST(ImageFormat, SelectedBytesPerPixel) {
  EXPECT_EQ(MakeFormat(4, 4, 0, 0x1401).GetBytesPerPixel(), 0);        // None + UByte
  EXPECT_EQ(MakeFormat(4, 4, 0x1907, 0).GetBytesPerPixel(), 0);        // RGB + Void
  EXPECT_EQ(MakeFormat(4, 4, 0x2003, 0x1401).GetBytesPerPixel(), 1);   // BayerGR UByte
  EXPECT_EQ(MakeFormat(4, 4, 0x2003, 0x1403).GetBytesPerPixel(), 2);   // BayerGR UShort
  EXPECT_EQ(MakeFormat(4, 4, 34647, 0x1401).GetBytesPerPixel(), 2);    // Unknown UByte
  EXPECT_EQ(MakeFormat(4, 4, 0x1909, 13).GetBytesPerPixel(), 2);       // Custom_12in16_MSB
  EXPECT_EQ(MakeFormat(4, 4, 0x1908, 0x140A).GetBytesPerPixel(), 32);  // RGBA Double
  EXPECT_EQ(MakeFormat(4, 4, 0x80E0, 0x1406).GetBytesPerPixel(), 12);  // BGR Float
  EXPECT_EQ(MakeFormat(4, 4, 0x190A, 0x1403).GetBytesPerPixel(), 4);   // LumA UShort
  EXPECT_STREQ(CQvImageFormat::PixelType2String(34647), "Unknown");
}

TEST(ImageFormat, UnknownPixelTypes) {
  for (int32_t iId : kUnknownPixelIds) {
    EXPECT_STREQ(CQvImageFormat::PixelType2String(iId), "Unknown") << iId;
    std::string sFunction;
    EXPECT_EQ(ThrownMessage([&] { MakeFormat(1, 1, iId, 0x1401).GetComponentCount(); }, &sFunction),
              "Unknown pixel type")
        << iId;
    EXPECT_EQ(sFunction, "GetComponentCount");
    EXPECT_EQ(ThrownMessage([&] { MakeFormat(1, 1, iId, 0x1401).GetBytesPerPixel(); }),
              "Unknown pixel type")
        << iId;
  }
}

TEST(ImageFormat, UnknownDataTypes) {
  for (int32_t iId : kUnknownDataIds) {
    EXPECT_STREQ(CQvImageFormat::DataType2String(iId), "Unknown") << iId;
    std::string sFunction;
    EXPECT_EQ(
        ThrownMessage([&] { MakeFormat(1, 1, 0x1909, iId).GetBytesPerChannel(); }, &sFunction),
        "Unknown data type 'Unknown'")
        << iId;
    EXPECT_EQ(sFunction, "GetBytesPerChannel");
  }
  EXPECT_EQ(ThrownMessage([] { MakeFormat(8, 8, 0x1908, 5127).GetBytesPerPixel(); }),
            "Unknown data type 'Unknown'");
  EXPECT_EQ(ThrownMessage([] { MakeFormat(8, 8, 0x1908, 14).GetBytesPerPixel(); }),
            "Unknown data type 'Unknown'");
  EXPECT_EQ(ThrownMessage([] { MakeFormat(8, 8, 0x1908, 15).GetBytesPerPixel(); }),
            "Unknown data type 'Unknown'");
}

TEST(ImageFormat, IntegralDataTypesHaveNoPixelSize) {
  const char* pText = "Unable to determine bytes per pixel from integral data formats";
  const int32_t aiPixels[] = {0,      0x1907, 0x1908, 0x1909, 0x190A, 0x2001, 0x2002,
                              0x2003, 0x2004, 0x80E0, 0x80E1, 0x8757, 1,      -5};
  for (int32_t iPixel : aiPixels) {
    for (int32_t iData : {5136, 5137}) {
      std::string sFunction;
      EXPECT_EQ(
          ThrownMessage([&] { MakeFormat(2, 2, iPixel, iData).GetBytesPerPixel(); }, &sFunction),
          pText)
          << iPixel << " " << iData;
      EXPECT_EQ(sFunction, "GetBytesPerPixel");
      EXPECT_EQ(ThrownMessage([&] { MakeFormat(2, 2, iPixel, iData).GetBytesPerChannel(); }),
                "Unknown data type 'Unknown'");
    }
  }
}

TEST(ImageFormat, DataTypeIsCheckedBeforePixelType) {
  EXPECT_EQ(ThrownMessage([] { MakeFormat(2, 2, 0x1234, 5127).GetBytesPerPixel(); }),
            "Unknown data type 'Unknown'");
  EXPECT_EQ(ThrownMessage([] { MakeFormat(2, 2, 0x1234, 14).GetBytesPerPixel(); }),
            "Unknown data type 'Unknown'");
  EXPECT_EQ(ThrownMessage([] { MakeFormat(2, 2, 0, 5127).GetBytesPerPixel(); }),
            "Unknown data type 'Unknown'");
  EXPECT_EQ(ThrownMessage([] { MakeFormat(2, 2, 0x1234, 0x1401).GetBytesPerPixel(); }),
            "Unknown pixel type");
}

TEST(ImageFormat, RowAndImageBytes) {
  const CQvImageFormat xHd(1920, 1080, EPixelType::RGBA, EDataType::UByte);
  EXPECT_EQ(xHd.GetRowBytes(), 7680u);
  EXPECT_EQ(xHd.GetImageBytes(), 8294400u);
  // Needs more than 32 bit: 50000 * 50000 * 16.
  const CQvImageFormat xHuge(50000, 50000, EPixelType::RGBA, EDataType::Float);
  EXPECT_EQ(xHuge.GetRowBytes(), 800000u);
  EXPECT_EQ(xHuge.GetImageBytes(), 40000000000ull);
  const CQvImageFormat xWide(2000000000, 2, EPixelType::RGBA, EDataType::Double);
  EXPECT_EQ(xWide.GetRowBytes(), 64000000000ull);
  EXPECT_EQ(xWide.GetImageBytes(), 128000000000ull);
  EXPECT_EQ(CQvImageFormat(-4, 3, EPixelType::Lum, EDataType::UByte).GetImageBytes(), 0u);
  EXPECT_EQ(CQvImageFormat(4, -3, EPixelType::Lum, EDataType::UByte).GetImageBytes(), 0u);
  EXPECT_EQ(CQvImageFormat(4, 0, EPixelType::Lum, EDataType::UByte).GetImageBytes(), 0u);
  EXPECT_EQ(CQvImageFormat(4, 0, EPixelType::Lum, EDataType::UShort).GetRowBytes(), 8u);
  EXPECT_EQ(ThrownMessage([] { MakeFormat(2, 2, 0x1909, 5136).GetImageBytes(); }),
            "Unable to determine bytes per pixel from integral data formats");
}

TEST(ImageFormat, IsEmpty) {
  EXPECT_FALSE(CQvImageFormat(1, 1, EPixelType::Lum, EDataType::UByte).IsEmpty());
  EXPECT_TRUE(CQvImageFormat(0, 1, EPixelType::Lum, EDataType::UByte).IsEmpty());
  EXPECT_TRUE(CQvImageFormat(1, 0, EPixelType::Lum, EDataType::UByte).IsEmpty());
  EXPECT_TRUE(CQvImageFormat(-1, 5, EPixelType::Lum, EDataType::UByte).IsEmpty());
  EXPECT_TRUE(CQvImageFormat(5, 5, EPixelType::None, EDataType::UByte).IsEmpty());
}

TEST(ImageFormat, ToStringAndEquality) {
  const CQvImageFormat xFormat(1920, 1080, EPixelType::RGBA, EDataType::UByte);
  EXPECT_STREQ(xFormat.ToString().ToCString(), "1920x1080, RGBA, UByte");
  EXPECT_STREQ(MakeFormat(7, 3, 0x4444, 0x5555).ToString().ToCString(), "7x3, Unknown, Unknown");
  EXPECT_STREQ(CQvImageFormat().ToString().ToCString(), "0x0, None, Void");

  CQvImageFormat xOther = xFormat;
  EXPECT_TRUE(xOther == xFormat);
  EXPECT_FALSE(xOther != xFormat);
  xOther.iWidth = 1921;
  EXPECT_TRUE(xOther != xFormat);
  xOther = xFormat;
  xOther.iHeight = 1;
  EXPECT_FALSE(xOther == xFormat);
  xOther = xFormat;
  xOther.eDataType = EDataType::Byte;
  EXPECT_FALSE(xOther == xFormat);
  xOther = xFormat;
  xOther.ePixelType = EPixelType::BGRA;
  EXPECT_FALSE(xOther == xFormat);
}

namespace {

// Reports fixed values and counts the questions asked.
class CFakeImage : public Qv::IImage {
 public:
  int GetBytesPerPixel() const override { return 6; }
  void GetSize(int& iWidth, int& iHeight) const override {
    ++m_iSizeCalls;
    iWidth = 33;
    iHeight = 21;
  }
  void GetType(EPixelType::ID& ePixelType, EDataType::ID& eDataType) const override {
    ++m_iTypeCalls;
    ePixelType = EPixelType::BGR;
    eDataType = EDataType::UShort;
  }
  void* GetDataPtr() override { return nullptr; }
  const void* GetDataPtr() const override { return nullptr; }

  mutable int m_iSizeCalls = 0;
  mutable int m_iTypeCalls = 0;
};

}  // namespace

TEST(ImageFormat, FromImage) {
  const CFakeImage xImage;
  const CQvImageFormat xFormat(xImage);
  EXPECT_EQ(xImage.m_iSizeCalls, 1);
  EXPECT_EQ(xImage.m_iTypeCalls, 1);
  EXPECT_EQ(xFormat, CQvImageFormat(33, 21, EPixelType::BGR, EDataType::UShort));
}
