#include <unistd.h>
#include <zlib.h>

#include "FileIO.h"
#include "QvImage.h"
#include "QvTestUtil.h"

using namespace Qv;
using FileIO::CImage;
using QvTest::Samples;
using QvTest::Thrown;
using Bytes = std::vector<uint8_t>;
using V = std::vector<double>;

namespace {

const EPixelType::ID Lum = EPixelType::Lum, LumA = EPixelType::LumA, RGB = EPixelType::RGB,
                     RGBA = EPixelType::RGBA;
const EDataType::ID UB = EDataType::UByte, US = EDataType::UShort;

void AppendBigEndian32(Bytes& x, uint32_t u) {
  x.insert(x.end(), {uint8_t(u >> 24), uint8_t(u >> 16), uint8_t(u >> 8), uint8_t(u)});
}

void AppendChunk(Bytes& xFile, const char* szType, const Bytes& xData) {
  AppendBigEndian32(xFile, static_cast<uint32_t>(xData.size()));
  Bytes xTyped(szType, szType + 4);
  xTyped.insert(xTyped.end(), xData.begin(), xData.end());
  xFile.insert(xFile.end(), xTyped.begin(), xTyped.end());
  AppendBigEndian32(xFile, static_cast<uint32_t>(crc32(0, xTyped.data(), xTyped.size())));
}

// A PNG file written here with zlib alone. xRows holds every row as filter byte 0 and the raw
// samples (big-endian); xChunks go between the header and the data.
Bytes BuildPng(uint32_t uWidth, uint32_t uHeight, uint8_t uDepth, uint8_t uColorType,
               const Bytes& xRows, const std::vector<std::pair<const char*, Bytes>>& xChunks = {}) {
  Bytes xFile = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A}, xHeader;
  AppendBigEndian32(xHeader, uWidth);
  AppendBigEndian32(xHeader, uHeight);
  xHeader.insert(xHeader.end(), {uDepth, uColorType, 0, 0, 0});
  AppendChunk(xFile, "IHDR", xHeader);
  for (const auto& x : xChunks) AppendChunk(xFile, x.first, x.second);
  uLongf uPacked = compressBound(xRows.size());
  Bytes xPacked(uPacked);
  EXPECT_EQ(compress(xPacked.data(), &uPacked, xRows.data(), xRows.size()), Z_OK);
  xPacked.resize(uPacked);
  AppendChunk(xFile, "IDAT", xPacked);
  AppendChunk(xFile, "IEND", {});
  return xFile;
}

// The file of every test: hand-made, written and read back.
const std::string g_sPath = ::testing::TempDir() + "qv_core_png_" + std::to_string(getpid());

void WriteFile(const Bytes& x) {
  std::ofstream(g_sPath, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(x.data()), static_cast<long>(x.size()));
}

CQvImage ReadPng() {
  CQvImage xImage;
  CImage::Read(xImage, g_sPath.c_str());
  return xImage;
}

}  // namespace

TEST(Png, HandMadeFilesReadInHostOrderAndWriteBackTheSame) {
  // clang-format off
  const struct { const char* szRow; uint32_t w, h; uint8_t uDepth, uColorType; Bytes xRows;
                 EPixelType::ID ePixel; EDataType::ID eData; V xExpected;
                 std::vector<std::pair<const char*, Bytes>> xChunks = {}; } aCases[] = {
      {"gray 16 is big-endian", 3, 1, 16, 0, {0, 1, 2, 255, 0, 0, 255}, Lum, US, {258, 65280, 255}},
      {"rgba 16", 1, 1, 16, 6, {0, 1, 2, 3, 4, 5, 6, 255, 254}, RGBA, US,
       {0x0102, 0x0304, 0x0506, 0xFFFE}},
      {"rgb 8", 2, 1, 8, 2, {0, 1, 2, 3, 250, 251, 252}, RGB, UB, {1, 2, 3, 250, 251, 252}},
      {"gray+alpha 8", 2, 2, 8, 4, {0, 10, 11, 12, 13, 0, 14, 15, 16, 17}, LumA, UB,
       {10, 11, 12, 13, 14, 15, 16, 17}},
      {"1-bit gray", 10, 1, 1, 0, {0, 0xB0, 0xC0}, Lum, UB,
       {255, 0, 255, 255, 0, 0, 0, 0, 255, 255}},
      {"2-bit gray", 4, 1, 2, 0, {0, 0x1B}, Lum, UB, {0, 85, 170, 255}},
      {"4-bit palette", 2, 1, 4, 3, {0, 0x10}, RGB, UB, {4, 5, 6, 1, 2, 3},
       {{"PLTE", {1, 2, 3, 4, 5, 6}}}},
      // Entry 0 red with alpha 0x80, 1 green with alpha 0, 2 blue (opaque).
      {"palette with transparency", 3, 1, 8, 3, {0, 2, 0, 1}, RGBA, UB,
       {0, 0, 255, 255, 255, 0, 0, 0x80, 0, 255, 0, 0},
       {{"PLTE", {255, 0, 0, 0, 255, 0, 0, 0, 255}}, {"tRNS", {0x80, 0x00}}}},
      {"gray transparency key", 3, 1, 8, 0, {0, 50, 51, 0}, LumA, UB, {50, 0, 51, 255, 0, 255},
       {{"tRNS", {0, 50}}}},
  };
  // clang-format on
  for (const auto& c : aCases) {
    WriteFile(BuildPng(c.w, c.h, c.uDepth, c.uColorType, c.xRows, c.xChunks));
    const CQvImage xImage = ReadPng();
    EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(c.w, c.h, c.ePixel, c.eData)) << c.szRow;
    EXPECT_EQ(Samples(xImage), c.xExpected) << c.szRow;
    // Written back, it reads the same.
    CImage::WritePNG(xImage, g_sPath.c_str());
    EXPECT_EQ(Samples(ReadPng()), c.xExpected) << c.szRow << ", written";
  }
  uint8_t auBgr[6] = {1, 2, 3, 4, 5, 6};
  CImage::WritePNG(CQvImageMoniker(2, 1, EPixelType::BGR, UB, auBgr), g_sPath.c_str());
  EXPECT_EQ(Samples(ReadPng()), (V{3, 2, 1, 6, 5, 4}));  // written in RGB order
}

TEST(PngErrors, FailuresNameTheFileAndLeaveTheTargetAsItWas) {
  const std::string sQuoted = "'" + g_sPath + "'";
  const Bytes xGood = BuildPng(4, 4, 8, 0, Bytes(20, 0));
  Bytes xBadCrc = xGood;
  xBadCrc[29] ^= 0xFF;
  const std::string sNot = "Not a PNG file " + sQuoted, sBad = "Error reading PNG file " + sQuoted;
  // For a read error only the beginning of the message: the rest is libpng's.
  // clang-format off
  const struct { const char* szRow; Bytes xFile; std::string sMessage; } aCases[] = {
      {"text", {'h', 'e', 'l', 'l', 'o'}, sNot},
      {"empty", {}, sNot},
      {"short signature", {0x89, 'P', 'N', 'G'}, sNot},
      {"cut in the data", Bytes(xGood.begin(), xGood.begin() + 50), sBad + ": "},
      {"cut after the signature", Bytes(xGood.begin(), xGood.begin() + 8), sBad + ": "},
      {"header checksum", xBadCrc, sBad + ": "},
      {"zero width", BuildPng(0, 4, 8, 0, Bytes(4, 0)), sBad + ": "},
      // More than the file (deflate expands 1032-fold at most) or 1 GiB holds.
      {"64 MiB", BuildPng(4096, 4096, 8, 6, Bytes(256, 0)), sBad + ": header asks for 4096x4096 "},
      {"1 GiB from 1-bit palette", BuildPng(16384, 16385, 1, 3, Bytes(16385 * 2049, 0),
       {{"PLTE", {0, 0, 0}}, {"tRNS", {0}}}), sBad + ": header asks for 16384x16385 "},
  };
  // clang-format on
  CQvImage xImage = QvTest::MakeImage(1, 1, Lum, UB, {42});
  for (const auto& c : aCases) {
    WriteFile(c.xFile);
    const std::string sMessage = Thrown([&] { CImage::Read(xImage, g_sPath.c_str()); });
    EXPECT_EQ(sMessage.substr(0, c.sMessage.size()), c.sMessage) << c.szRow;
    // libpng's reason follows the colon.
    EXPECT_EQ(c.sMessage.back() == ' ', sMessage.size() > c.sMessage.size()) << c.szRow;
    EXPECT_EQ(xImage.GetFormat(), CQvImageFormat(1, 1, Lum, UB));
    EXPECT_EQ(Samples(xImage), V{42});
  }
  std::remove(g_sPath.c_str());
  EXPECT_EQ(Thrown([&] { ReadPng(); }), "Cannot open image file " + sQuoted);

  uint8_t auPixels[16] = {};
  for (const CQvImageFormat& f :
       {CQvImageFormat(2, 2, Lum, EDataType::Float), CQvImageFormat(2, 2, EPixelType::BayerRG, UB),
        CQvImageFormat()}) {
    const CQvImageMoniker xView(f.iWidth, f.iHeight, f.ePixelType, f.eDataType, auPixels);
    EXPECT_EQ(Thrown([&] { CImage::WritePNG(xView, g_sPath.c_str()); }),
              "Unsupported image for PNG file " + sQuoted + ": " + f.ToString().ToCString());
  }
  EXPECT_FALSE(std::ifstream(g_sPath).good());  // nothing was created
  const std::string sNoDir = g_sPath + "_no_such_dir/out.png";
  EXPECT_EQ(
      Thrown([&] { CImage::WritePNG(CQvImageMoniker(2, 2, Lum, UB, auPixels), sNoDir.c_str()); }),
      "Cannot create image file '" + sNoDir + "'");
}
