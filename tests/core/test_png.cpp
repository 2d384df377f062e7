#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FileIO.h"
#include "QvException.h"
#include "QvImage.h"

using Qv::CQvException;
using Qv::CQvImage;
using Qv::CQvImageFormat;
using Qv::CQvImageMoniker;
using Qv::EDataType;
using Qv::EPixelType;
using Qv::FileIO::CImage;

namespace {

using ByteVector = std::vector<uint8_t>;

// ---- a minimal PNG encoder, independent of libpng: stored (uncompressed) deflate blocks ----

uint32_t Crc32(const uint8_t* pData, size_t uSize) {
  uint32_t uCrc = 0xFFFFFFFFu;
  for (size_t i = 0; i < uSize; ++i) {
    uCrc ^= pData[i];
    for (int iBit = 0; iBit < 8; ++iBit) uCrc = (uCrc >> 1) ^ (0xEDB88320u & (0u - (uCrc & 1u)));
  }
  return ~uCrc;
}

uint32_t Adler32(const ByteVector& vData) {
  uint32_t uA = 1;
  uint32_t uB = 0;
  for (uint8_t uByte : vData) {
    uA = (uA + uByte) % 65521u;
    uB = (uB + uA) % 65521u;
  }
  return (uB << 16) | uA;
}

void AppendBigEndian32(ByteVector& vOut, uint32_t uValue) {
  vOut.push_back(static_cast<uint8_t>(uValue >> 24));
  vOut.push_back(static_cast<uint8_t>(uValue >> 16));
  vOut.push_back(static_cast<uint8_t>(uValue >> 8));
  vOut.push_back(static_cast<uint8_t>(uValue));
}

void AppendChunk(ByteVector& vOut, const char* pType, const ByteVector& vData) {
  AppendBigEndian32(vOut, static_cast<uint32_t>(vData.size()));
  ByteVector vTyped(pType, pType + 4);
  vTyped.insert(vTyped.end(), vData.begin(), vData.end());
  vOut.insert(vOut.end(), vTyped.begin(), vTyped.end());
  AppendBigEndian32(vOut, Crc32(vTyped.data(), vTyped.size()));
}

ByteVector ZlibStored(const ByteVector& vRaw) {
  ByteVector vOut = {0x78, 0x01};
  size_t uPos = 0;
  do {
    const size_t uBlock = std::min<size_t>(65535, vRaw.size() - uPos);
    const bool bLast = uPos + uBlock == vRaw.size();
    vOut.push_back(bLast ? 1 : 0);
    vOut.push_back(static_cast<uint8_t>(uBlock));
    vOut.push_back(static_cast<uint8_t>(uBlock >> 8));
    vOut.push_back(static_cast<uint8_t>(~uBlock));
    vOut.push_back(static_cast<uint8_t>(~uBlock >> 8));
    vOut.insert(vOut.end(), vRaw.begin() + static_cast<long>(uPos),
                vRaw.begin() + static_cast<long>(uPos + uBlock));
    uPos += uBlock;
  } while (uPos < vRaw.size());
  AppendBigEndian32(vOut, Adler32(vRaw));
  return vOut;
}

struct SChunk {
  const char* pType;
  ByteVector vData;
};

// vScanlines holds every row as filter byte 0 followed by the raw samples (big-endian).
ByteVector BuildPng(uint32_t uWidth, uint32_t uHeight, uint8_t uBitDepth, uint8_t uColorType,
                    const ByteVector& vScanlines, const std::vector<SChunk>& vExtra = {}) {
  ByteVector vFile = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  ByteVector vHeader;
  AppendBigEndian32(vHeader, uWidth);
  AppendBigEndian32(vHeader, uHeight);
  vHeader.insert(vHeader.end(), {uBitDepth, uColorType, 0, 0, 0});
  AppendChunk(vFile, "IHDR", vHeader);
  for (const SChunk& xChunk : vExtra) AppendChunk(vFile, xChunk.pType, xChunk.vData);
  AppendChunk(vFile, "IDAT", ZlibStored(vScanlines));
  AppendChunk(vFile, "IEND", {});
  return vFile;
}

// ---- files ----

std::string TempPath(const char* pName) {
  return ::testing::TempDir() + "qv_core_png_" + std::to_string(getpid()) + "_" + pName;
}

void WriteFile(const std::string& sPath, const ByteVector& vBytes) {
  std::ofstream xFile(sPath, std::ios::binary | std::ios::trunc);
  xFile.write(reinterpret_cast<const char*>(vBytes.data()), static_cast<long>(vBytes.size()));
  ASSERT_TRUE(xFile.good()) << sPath;
}

ByteVector ReadFile(const std::string& sPath) {
  std::ifstream xFile(sPath, std::ios::binary);
  return ByteVector(std::istreambuf_iterator<char>(xFile), std::istreambuf_iterator<char>());
}

uint32_t BigEndian32At(const ByteVector& vBytes, size_t uPos) {
  return (uint32_t{vBytes[uPos]} << 24) | (uint32_t{vBytes[uPos + 1]} << 16) |
         (uint32_t{vBytes[uPos + 2]} << 8) | uint32_t{vBytes[uPos + 3]};
}

// Checks signature and IHDR of a written file byte by byte.
void ExpectHeader(const std::string& sPath, uint32_t uWidth, uint32_t uHeight, int iBitDepth,
                  int iColorType) {
  const ByteVector vBytes = ReadFile(sPath);
  ASSERT_GE(vBytes.size(), 33u);
  const ByteVector vSignature = {0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A};
  EXPECT_TRUE(std::equal(vSignature.begin(), vSignature.end(), vBytes.begin()));
  EXPECT_EQ(BigEndian32At(vBytes, 8), 13u);
  EXPECT_EQ(std::string(vBytes.begin() + 12, vBytes.begin() + 16), "IHDR");
  EXPECT_EQ(BigEndian32At(vBytes, 16), uWidth);
  EXPECT_EQ(BigEndian32At(vBytes, 20), uHeight);
  EXPECT_EQ(vBytes[24], iBitDepth);
  EXPECT_EQ(vBytes[25], iColorType);
  EXPECT_EQ(vBytes[28], 0);  // not interlaced
}

template <typename T>
std::vector<T> Values(const CQvImage& xImage) {
  const size_t uCount = static_cast<size_t>(xImage.GetFormat().GetImageBytes() / sizeof(T));
  std::vector<T> vValues(uCount);
  if (uCount != 0) std::memcpy(vValues.data(), xImage.GetDataPtr(), uCount * sizeof(T));
  return vValues;
}

template <typename TCall>
std::string ThrownMessage(TCall xCall) {
  try {
    xCall();
  } catch (const CQvException& xException) {
    return xException.GetMessageText();
  }
  return "";
}

CQvImage ReadPng(const std::string& sPath) {
  CQvImage xImage;
  CImage::Read(xImage, sPath.c_str());
  return xImage;
}

}  // namespace

TEST(PngEncoderCheck, KnownCrc) {
  const uint8_t auIend[4] = {'I', 'E', 'N', 'D'};
  EXPECT_EQ(Crc32(auIend, 4), 0xAE426082u);
}

// ---- reading files made by the encoder above ----

TEST(PngRead, Gray16IsBigEndianInFileAndHostOrderInMemory) {
  // 5x3, samples written as big-endian pairs.
  const ByteVector vScanlines = {0, 0x00, 0x00, 0x01, 0x02, 0xFF, 0x00, 0x00, 0xFF, 0xFF, 0xFF,  //
                                 0, 0x12, 0x34, 0xAB, 0xCD, 0x80, 0x00, 0x00, 0x80, 0x7F, 0xFF,  //
                                 0, 0x00, 0x01, 0x10, 0x00, 0x00, 0x10, 0xFE, 0xDC, 0x55, 0xAA};
  const std::string sPath = TempPath("gray16_handmade.png");
  WriteFile(sPath, BuildPng(5, 3, 16, 0, vScanlines));
  const CQvImage xImage = ReadPng(sPath);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(5, 3, EPixelType::Lum, EDataType::UShort));
  EXPECT_EQ(Values<uint16_t>(xImage),
            (std::vector<uint16_t>{0x0000, 0x0102, 0xFF00, 0x00FF, 0xFFFF,  //
                                   0x1234, 0xABCD, 0x8000, 0x0080, 0x7FFF,  //
                                   0x0001, 0x1000, 0x0010, 0xFEDC, 0x55AA}));
  std::remove(sPath.c_str());
}

TEST(PngRead, Rgba16) {
  const ByteVector vScanlines = {0, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0xFF, 0xFE};
  const std::string sPath = TempPath("rgba16_handmade.png");
  WriteFile(sPath, BuildPng(1, 1, 16, 6, vScanlines));
  const CQvImage xImage = ReadPng(sPath);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(1, 1, EPixelType::RGBA, EDataType::UShort));
  EXPECT_EQ(Values<uint16_t>(xImage), (std::vector<uint16_t>{0x0102, 0x0304, 0x0506, 0xFFFE}));
  std::remove(sPath.c_str());
}

TEST(PngRead, Rgb8AndGrayAlpha8) {
  const std::string sPath = TempPath("rgb8_handmade.png");
  WriteFile(sPath, BuildPng(2, 1, 8, 2, {0, 1, 2, 3, 250, 251, 252}));
  CQvImage xImage = ReadPng(sPath);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(2, 1, EPixelType::RGB, EDataType::UByte));
  EXPECT_EQ(Values<uint8_t>(xImage), (ByteVector{1, 2, 3, 250, 251, 252}));

  WriteFile(sPath, BuildPng(2, 2, 8, 4, {0, 10, 11, 12, 13, 0, 14, 15, 16, 17}));
  xImage = ReadPng(sPath);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(2, 2, EPixelType::LumA, EDataType::UByte));
  EXPECT_EQ(Values<uint8_t>(xImage), (ByteVector{10, 11, 12, 13, 14, 15, 16, 17}));
  std::remove(sPath.c_str());
}

TEST(PngRead, PaletteWithTransparencyBecomesRgba) {
  // Entries: 0 red with alpha 0x80, 1 green with alpha 0, 2 blue (no tRNS entry: opaque).
  const std::vector<SChunk> vChunks = {{"PLTE", {255, 0, 0, 0, 255, 0, 0, 0, 255}},
                                       {"tRNS", {0x80, 0x00}}};
  const std::string sPath = TempPath("palette_trns.png");
  WriteFile(sPath, BuildPng(3, 1, 8, 3, {0, 2, 0, 1}, vChunks));
  const CQvImage xImage = ReadPng(sPath);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(3, 1, EPixelType::RGBA, EDataType::UByte));
  EXPECT_EQ(Values<uint8_t>(xImage), (ByteVector{0, 0, 255, 255, 255, 0, 0, 0x80, 0, 255, 0, 0}));
  std::remove(sPath.c_str());
}

TEST(PngRead, PaletteBecomesRgb) {
  const std::string sPath = TempPath("palette.png");
  // 4-bit indices 1, 0 packed into one byte.
  WriteFile(sPath, BuildPng(2, 1, 4, 3, {0, 0x10}, {{"PLTE", {1, 2, 3, 4, 5, 6}}}));
  const CQvImage xImage = ReadPng(sPath);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(2, 1, EPixelType::RGB, EDataType::UByte));
  EXPECT_EQ(Values<uint8_t>(xImage), (ByteVector{4, 5, 6, 1, 2, 3}));
  std::remove(sPath.c_str());
}

TEST(PngRead, LowBitGrayIsExpanded) {
  const std::string sPath = TempPath("gray_lowbit.png");
  // 1 bit: 10 pixels 1011000011 packed as 0xB0 0xC0.
  WriteFile(sPath, BuildPng(10, 1, 1, 0, {0, 0xB0, 0xC0}));
  CQvImage xImage = ReadPng(sPath);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(10, 1, EPixelType::Lum, EDataType::UByte));
  EXPECT_EQ(Values<uint8_t>(xImage), (ByteVector{255, 0, 255, 255, 0, 0, 0, 0, 255, 255}));
  // 2 bit: 0, 1, 2, 3 scale to 0, 85, 170, 255.
  WriteFile(sPath, BuildPng(4, 1, 2, 0, {0, 0x1B}));
  xImage = ReadPng(sPath);
  EXPECT_EQ(Values<uint8_t>(xImage), (ByteVector{0, 85, 170, 255}));
  std::remove(sPath.c_str());
}

TEST(PngRead, GrayTransparencyKeyBecomesAlpha) {
  const std::string sPath = TempPath("gray_trns.png");
  WriteFile(sPath, BuildPng(3, 1, 8, 0, {0, 50, 51, 0}, {{"tRNS", {0, 50}}}));
  const CQvImage xImage = ReadPng(sPath);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(3, 1, EPixelType::LumA, EDataType::UByte));
  EXPECT_EQ(Values<uint8_t>(xImage), (ByteVector{50, 0, 51, 255, 0, 255}));
  std::remove(sPath.c_str());
}

TEST(PngRead, GrayToRgbaUByte) {
  const std::string sPath = TempPath("gray_to_rgba.png");
  WriteFile(sPath, BuildPng(2, 1, 8, 0, {0, 0, 200}));
  const CQvImage xGray = ReadPng(sPath);
  CQvImage xRgba;
  xGray.ConvertType(xRgba, EPixelType::RGBA, EDataType::UByte);
  EXPECT_EQ(xRgba.GetFormat(), CQvImageFormat(2, 1, EPixelType::RGBA, EDataType::UByte));
  EXPECT_EQ(Values<uint8_t>(xRgba), (ByteVector{0, 0, 0, 255, 200, 200, 200, 255}));
  std::remove(sPath.c_str());
}

// ---- writing ----

TEST(PngWrite, Rgb3x2) {
  const ByteVector vPixels = {1,  2,  3,  4,  5,  6,  7,  8,  9,  //
                              10, 20, 30, 40, 50, 60, 70, 80, 255};
  CQvImage xImage(CQvImageFormat(3, 2, EPixelType::RGB, EDataType::UByte));
  std::memcpy(xImage.GetDataPtr(), vPixels.data(), vPixels.size());
  const std::string sPath = TempPath("rgb3x2.png");
  CImage::WritePNG(xImage, sPath.c_str());
  ExpectHeader(sPath, 3, 2, 8, 2);
  const CQvImage xRead = ReadPng(sPath);
  EXPECT_EQ(xRead.GetFormat(), CQvImageFormat(3, 2, EPixelType::RGB, EDataType::UByte));
  EXPECT_EQ(Values<uint8_t>(xRead), vPixels);
  std::remove(sPath.c_str());
}

TEST(PngWrite, Gray16_5x3) {
  const std::vector<uint16_t> vPixels = {0,      1,      255,    256,    65535,   //
                                         0x1234, 0xFF00, 0x00FF, 0x8001, 0x7FFE,  //
                                         9,      99,     999,    9999,   59999};
  CQvImage xImage(CQvImageFormat(5, 3, EPixelType::Lum, EDataType::UShort));
  std::memcpy(xImage.GetDataPtr(), vPixels.data(), vPixels.size() * 2);
  const std::string sPath = TempPath("gray16_5x3.png");
  CImage::WritePNG(xImage, sPath.c_str());
  ExpectHeader(sPath, 5, 3, 16, 0);
  const CQvImage xRead = ReadPng(sPath);
  EXPECT_EQ(xRead.GetFormat(), CQvImageFormat(5, 3, EPixelType::Lum, EDataType::UShort));
  EXPECT_EQ(Values<uint16_t>(xRead), vPixels);
  std::remove(sPath.c_str());
}

TEST(PngWrite, GrayAlpha2x2) {
  ByteVector vPixels = {0, 255, 128, 0, 17, 34, 255, 1};
  const CQvImageMoniker xView(2, 2, EPixelType::LumA, EDataType::UByte, vPixels.data());
  const std::string sPath = TempPath("grayalpha2x2.png");
  CImage::WritePNG(xView, sPath.c_str());
  ExpectHeader(sPath, 2, 2, 8, 4);
  const CQvImage xRead = ReadPng(sPath);
  EXPECT_EQ(xRead.GetFormat(), CQvImageFormat(2, 2, EPixelType::LumA, EDataType::UByte));
  EXPECT_EQ(Values<uint8_t>(xRead), vPixels);
  std::remove(sPath.c_str());
}

TEST(PngWrite, Rgba2x2) {
  ByteVector vPixels = {255, 0, 0, 255, 0, 255, 0, 128, 0, 0, 255, 0, 12, 34, 56, 78};
  const CQvImageMoniker xView(2, 2, EPixelType::RGBA, EDataType::UByte, vPixels.data());
  const std::string sPath = TempPath("rgba2x2.png");
  CImage::WritePNG(xView, sPath.c_str());
  ExpectHeader(sPath, 2, 2, 8, 6);
  const CQvImage xRead = ReadPng(sPath);
  EXPECT_EQ(xRead.GetFormat(), CQvImageFormat(2, 2, EPixelType::RGBA, EDataType::UByte));
  EXPECT_EQ(Values<uint8_t>(xRead), vPixels);
  std::remove(sPath.c_str());
}

TEST(PngWrite, Rgba16AndBgrOrders) {
  std::vector<uint16_t> vPixels = {1, 2, 3, 4, 65535, 256, 255, 0};
  const CQvImageMoniker xView(2, 1, EPixelType::RGBA, EDataType::UShort, vPixels.data());
  const std::string sPath = TempPath("rgba16.png");
  CImage::WritePNG(xView, sPath.c_str());
  ExpectHeader(sPath, 2, 1, 16, 6);
  EXPECT_EQ(Values<uint16_t>(ReadPng(sPath)), vPixels);

  ByteVector vBgr = {1, 2, 3, 4, 5, 6};  // B G R
  CImage::WritePNG(CQvImageMoniker(2, 1, EPixelType::BGR, EDataType::UByte, vBgr.data()),
                   sPath.c_str());
  ExpectHeader(sPath, 2, 1, 8, 2);
  EXPECT_EQ(Values<uint8_t>(ReadPng(sPath)), (ByteVector{3, 2, 1, 6, 5, 4}));

  ByteVector vBgra = {1, 2, 3, 4};
  CImage::WritePNG(CQvImageMoniker(1, 1, EPixelType::BGRA, EDataType::UByte, vBgra.data()),
                   sPath.c_str());
  ExpectHeader(sPath, 1, 1, 8, 6);
  EXPECT_EQ(Values<uint8_t>(ReadPng(sPath)), (ByteVector{3, 2, 1, 4}));
  std::remove(sPath.c_str());
}

TEST(PngWrite, Refusals) {
  const std::string sPath = TempPath("refused.png");
  float afPixels[4] = {};
  const CQvImageMoniker xFloat(2, 2, EPixelType::Lum, EDataType::Float, afPixels);
  EXPECT_EQ(ThrownMessage([&] { CImage::WritePNG(xFloat, sPath.c_str()); }),
            "Unsupported image for PNG file '" + sPath + "': 2x2, Lum, Float");
  uint8_t auPixels[4] = {};
  const CQvImageMoniker xBayer(2, 2, EPixelType::BayerRG, EDataType::UByte, auPixels);
  EXPECT_EQ(ThrownMessage([&] { CImage::WritePNG(xBayer, sPath.c_str()); }),
            "Unsupported image for PNG file '" + sPath + "': 2x2, BayerRG, UByte");
  const CQvImage xEmpty;
  EXPECT_EQ(ThrownMessage([&] { CImage::WritePNG(xEmpty, sPath.c_str()); }),
            "Unsupported image for PNG file '" + sPath + "': 0x0, None, Void");
  EXPECT_TRUE(ReadFile(sPath).empty());  // nothing was created

  const CQvImageMoniker xGood(2, 2, EPixelType::Lum, EDataType::UByte, auPixels);
  const std::string sBadPath = TempPath("no_such_dir/out.png");
  EXPECT_EQ(ThrownMessage([&] { CImage::WritePNG(xGood, sBadPath.c_str()); }),
            "Cannot create image file '" + sBadPath + "'");
}

// ---- read failures ----

TEST(PngReadErrors, MissingFile) {
  const std::string sPath = TempPath("does_not_exist.png");
  std::string sFunction;
  try {
    ReadPng(sPath);
    FAIL() << "no exception";
  } catch (const CQvException& xException) {
    EXPECT_STREQ(xException.GetMessageText(), ("Cannot open image file '" + sPath + "'").c_str());
    sFunction = xException.GetFunction();
  }
  EXPECT_EQ(sFunction, "Read");
}

TEST(PngReadErrors, NotAPng) {
  const std::string sPath = TempPath("not_a_png.png");
  WriteFile(sPath, ByteVector{'h', 'e', 'l', 'l', 'o', ' ', 'w', 'o', 'r', 'l', 'd', '\n'});
  EXPECT_EQ(ThrownMessage([&] { ReadPng(sPath); }), "Not a PNG file '" + sPath + "'");
  WriteFile(sPath, ByteVector{});
  EXPECT_EQ(ThrownMessage([&] { ReadPng(sPath); }), "Not a PNG file '" + sPath + "'");
  WriteFile(sPath, ByteVector{0x89, 'P', 'N', 'G'});
  EXPECT_EQ(ThrownMessage([&] { ReadPng(sPath); }), "Not a PNG file '" + sPath + "'");
  std::remove(sPath.c_str());
}

TEST(PngReadErrors, CorruptData) {
  const std::string sPath = TempPath("corrupt.png");
  const std::string sPrefix = "Error reading PNG file '" + sPath + "': ";
  ByteVector vGood(BuildPng(4, 4, 8, 0, ByteVector(20, 0)));
  const ByteVector vOriginal = vGood;

  // Cut inside the image data.
  WriteFile(sPath, ByteVector(vGood.begin(), vGood.begin() + 50));
  std::string sMessage = ThrownMessage([&] { ReadPng(sPath); });
  EXPECT_EQ(sMessage.compare(0, sPrefix.size(), sPrefix), 0) << sMessage;
  EXPECT_GT(sMessage.size(), sPrefix.size());

  // Cut right after the signature.
  WriteFile(sPath, ByteVector(vGood.begin(), vGood.begin() + 8));
  sMessage = ThrownMessage([&] { ReadPng(sPath); });
  EXPECT_EQ(sMessage.compare(0, sPrefix.size(), sPrefix), 0) << sMessage;

  // Damaged header checksum.
  vGood[29] ^= 0xFF;
  WriteFile(sPath, vGood);
  sMessage = ThrownMessage([&] { ReadPng(sPath); });
  EXPECT_EQ(sMessage.compare(0, sPrefix.size(), sPrefix), 0) << sMessage;

  // A zero width header (with a valid checksum) is refused as well.
  WriteFile(sPath, BuildPng(0, 4, 8, 0, ByteVector(4, 0)));
  sMessage = ThrownMessage([&] { ReadPng(sPath); });
  EXPECT_EQ(sMessage.compare(0, sPrefix.size(), sPrefix), 0) << sMessage;

  // A failed read leaves the target as it was.
  CQvImage xImage(CQvImageFormat(1, 1, EPixelType::Lum, EDataType::UByte));
  static_cast<uint8_t*>(xImage.GetDataPtr())[0] = 42;
  EXPECT_THROW(CImage::Read(xImage, sPath.c_str()), CQvException);
  EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(1, 1, EPixelType::Lum, EDataType::UByte));
  EXPECT_EQ(static_cast<const uint8_t*>(xImage.GetDataPtr())[0], 42);

  // The intact file reads.
  WriteFile(sPath, vOriginal);
  EXPECT_EQ(Values<uint8_t>(ReadPng(sPath)), ByteVector(16, 0));
  std::remove(sPath.c_str());
}
