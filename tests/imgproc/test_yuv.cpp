// RGBA to planar YUV: every expected sample is worked out here from the colour formulas and
// the plane layout, independently of the kernel.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "QvCudaCompYUV.h"
#include "QvDevice.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "TestImages.h"

using namespace Qv;

namespace {

// The formulas in single precision: G term first, then R, then B, each a fused multiply-add.
float RefY(float r, float g, float b) {
  return std::fmaf(0.114f, b, std::fmaf(0.299f, r, 0.587f * g));
}
float RefU(float r, float g, float b) {
  return std::fmaf(0.436f, b, std::fmaf(-0.147f, r, -0.289f * g)) + 0.5f;
}
float RefV(float r, float g, float b) {
  return std::fmaf(-0.1f, b, std::fmaf(0.615f, r, -0.515f * g)) + 0.5f;
}

// Scale, clamp to [0, M], truncate.
uint32_t Store(float v, float fM) {
  float s = v * fM;
  if (s > fM) s = fM;
  if (!(s > 0.0f)) s = s != s ? fM : 0.0f;
  return static_cast<uint32_t>(s);
}

// A host RGBA image with its samples read back as the texture unit normalizes them.
struct SRgba {
  int iWidth, iHeight;
  bool b16;
  CQvImage xImage;

  SRgba(int w, int h, bool bSixteen, uint32_t uSeed)
      : iWidth(w),
        iHeight(h),
        b16(bSixteen),
        xImage(QvTest::RandomImage(
            CQvImageFormat(w, h, EPixelType::RGBA, bSixteen ? EDataType::UShort : EDataType::UByte),
            uSeed)) {}

  float M() const { return b16 ? 65535.0f : 255.0f; }
  // Channel c of pixel (x, y), with the edge repeated outside the image.
  float At(int x, int y, int c) const {
    x = x < 0 ? 0 : (x >= iWidth ? iWidth - 1 : x);
    y = y < 0 ? 0 : (y >= iHeight ? iHeight - 1 : y);
    const size_t i = (static_cast<size_t>(y) * iWidth + x) * 4 + c;
    const uint32_t v = b16 ? static_cast<const uint16_t*>(xImage.GetDataPtr())[i]
                           : static_cast<const uint8_t*>(xImage.GetDataPtr())[i];
    return static_cast<float>(v) / M();
  }
  uint32_t Y(int x, int y) const { return Store(RefY(At(x, y, 0), At(x, y, 1), At(x, y, 2)), M()); }
  uint32_t U(int x, int y) const { return Store(RefU(At(x, y, 0), At(x, y, 1), At(x, y, 2)), M()); }
  uint32_t V(int x, int y) const { return Store(RefV(At(x, y, 0), At(x, y, 1), At(x, y, 2)), M()); }
};

uint32_t Sample(const CQvImage& xImage, int x, int y) {
  const CQvImageFormat& f = xImage.GetFormat();
  const size_t i = static_cast<size_t>(y) * f.iWidth + x;
  return f.eDataType == EDataType::UShort ? static_cast<const uint16_t*>(xImage.GetDataPtr())[i]
                                          : static_cast<const uint8_t*>(xImage.GetDataPtr())[i];
}

CQvImage ConvertStacked(const CQvImage& xSource) {
  CQvDeviceImage2D xDevSource(xSource), xTarget;
  CQvCudaCompYUV xComp;
  xComp.Convert(xTarget, xDevSource);
  CQvImage xBack;
  xTarget.CopyTo(xBack);
  return xBack;
}

// Expected stacked image: luma rows, then each chroma plane as a flat run of samples at even
// columns of even rows, n = 2 (row offset * W + x), column n mod W, row 2 (n div W).
void ExpectStacked(const SRgba& xSrc, const CQvImage& xOut) {
  const int W = xSrc.iWidth, H = xSrc.iHeight;
  const int iTotal = static_cast<int>(H * 1.5), iVStart = static_cast<int>(H * 1.25);
  ASSERT_EQ(
      CQvImageFormat(W, iTotal, EPixelType::Lum, xSrc.b16 ? EDataType::UShort : EDataType::UByte),
      xOut.GetFormat());
  for (int y = 0; y < iTotal; ++y) {
    for (int x = 0; x < W; ++x) {
      uint32_t uExpected;
      if (y < H) {
        uExpected = xSrc.Y(x, y);
      } else {
        const bool bU = y < iVStart;
        const int n = 2 * ((y - (bU ? H : iVStart)) * W + x);
        const int iCol = n % W, iRow = 2 * (n / W);
        uExpected = bU ? xSrc.U(iCol, iRow) : xSrc.V(iCol, iRow);
      }
      ASSERT_EQ(uExpected, Sample(xOut, x, y)) << W << "x" << H << " at " << x << "," << y;
    }
  }
}

TEST(YuvStacked, FourByFourGivesLumaRowsThenUThenV) {
  const SRgba xSrc(4, 4, false, 11);
  const CQvImage xOut = ConvertStacked(xSrc.xImage);
  ASSERT_EQ(CQvImageFormat(4, 6, EPixelType::Lum, EDataType::UByte), xOut.GetFormat());
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 4; ++x) EXPECT_EQ(xSrc.Y(x, y), Sample(xOut, x, y)) << x << "," << y;
  // Row 4: U of the top left pixels of the four 2 x 2 blocks; row 5: their V.
  const int aBlocks[4][2] = {{0, 0}, {2, 0}, {0, 2}, {2, 2}};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(xSrc.U(aBlocks[i][0], aBlocks[i][1]), Sample(xOut, i, 4)) << i;
    EXPECT_EQ(xSrc.V(aBlocks[i][0], aBlocks[i][1]), Sample(xOut, i, 5)) << i;
  }
}

TEST(YuvStacked, WhiteIsFullLumaAndMidChroma) {
  for (bool b16 : {false, true}) {
    CQvImage xWhite(
        CQvImageFormat(6, 4, EPixelType::RGBA, b16 ? EDataType::UShort : EDataType::UByte));
    std::memset(xWhite.GetDataPtr(), 0xFF, xWhite.GetImageBytes());
    const CQvImage xOut = ConvertStacked(xWhite);
    const uint32_t uFull = b16 ? 65535u : 255u, uMid = b16 ? 32767u : 127u;
    for (int x = 0; x < 6; ++x) {
      EXPECT_EQ(uFull, Sample(xOut, x, 0));
      EXPECT_EQ(uMid, Sample(xOut, x, 4)) << "U";
      EXPECT_EQ(uMid, Sample(xOut, x, 5)) << "V";
    }
  }
}

TEST(YuvStacked, BlackIsZeroLumaAndTheSameMidChroma) {
  for (bool b16 : {false, true}) {
    CQvImage xBlack(
        CQvImageFormat(4, 4, EPixelType::RGBA, b16 ? EDataType::UShort : EDataType::UByte));
    std::memset(xBlack.GetDataPtr(), 0, xBlack.GetImageBytes());
    // Alpha plays no part.
    for (int i = 0; i < 16; ++i) {
      if (b16)
        static_cast<uint16_t*>(xBlack.GetDataPtr())[i * 4 + 3] = 65535;
      else
        static_cast<uint8_t*>(xBlack.GetDataPtr())[i * 4 + 3] = 255;
    }
    const CQvImage xOut = ConvertStacked(xBlack);
    const uint32_t uMid = b16 ? 32767u : 127u;
    EXPECT_EQ(0u, Sample(xOut, 3, 3));
    EXPECT_EQ(uMid, Sample(xOut, 1, 4));
    EXPECT_EQ(uMid, Sample(xOut, 2, 5));
  }
}

TEST(YuvStacked, AwkwardSizesFollowTheFlatChromaRun) {
  // Odd widths wrap the run across source rows; heights not divisible by 4 truncate 1.25 H
  // and 1.5 H, and chroma rows past the image repeat its last row.
  const int aSizes[][2] = {{5, 4}, {7, 6}, {4, 6}, {3, 5}, {113, 13}, {1, 1}, {2, 7}};
  uint32_t uSeed = 20;
  for (const auto& a : aSizes) {
    for (bool b16 : {false, true}) {
      const SRgba xSrc(a[0], a[1], b16, ++uSeed);
      ExpectStacked(xSrc, ConvertStacked(xSrc.xImage));
    }
  }
}

TEST(YuvStacked, OddWidthChromaColumnParityAlternates) {
  // W = 5: U samples n = 0, 2, 4, 6, 8 lie at columns 0, 2, 4, 1, 3 of rows 0, 0, 0, 2, 2.
  const SRgba xSrc(5, 4, false, 3);
  const CQvImage xOut = ConvertStacked(xSrc.xImage);
  const int aPick[5][2] = {{0, 0}, {2, 0}, {4, 0}, {1, 2}, {3, 2}};
  for (int x = 0; x < 5; ++x) EXPECT_EQ(xSrc.U(aPick[x][0], aPick[x][1]), Sample(xOut, x, 4)) << x;
}

void ExpectWrongSourceRefused(const CQvImageFormat& xFormat) {
  CQvDeviceImage2D xSource(xFormat), xTarget, xY, xU, xV;
  CQvCudaCompYUV xComp;
  const std::string sInner = std::string("Source image has wrong format '") +
                             xFormat.ToString().ToCString() +
                             "'. It has to be unsigned 8/16 bit rgba";
  for (int iOverload = 0; iOverload < 2; ++iOverload) {
    try {
      if (iOverload == 0)
        xComp.Convert(xTarget, xSource);
      else
        xComp.Convert(xY, xU, xV, xSource);
      ADD_FAILURE() << "no exception for " << xFormat.ToString().ToCString();
    } catch (const CQvException& e) {
      EXPECT_STREQ("Error on YUV Conversion", e.GetMessageText());
      ASSERT_NE(nullptr, e.GetInnerException());
      EXPECT_EQ(sInner, e.GetInnerException()->GetMessageText());
    }
  }
  EXPECT_FALSE(xTarget.IsValid());
}

TEST(YuvErrors, OnlyUnsignedRgbaIsAccepted) {
  ExpectWrongSourceRefused(CQvImageFormat(4, 4, EPixelType::Lum, EDataType::UByte));
  ExpectWrongSourceRefused(CQvImageFormat(4, 4, EPixelType::BGRA, EDataType::UByte));
  ExpectWrongSourceRefused(CQvImageFormat(4, 4, EPixelType::RGBA, EDataType::Float));
  ExpectWrongSourceRefused(CQvImageFormat(4, 4, EPixelType::BayerGR, EDataType::UByte));
}

// Whole pitched rows of a device image, padding included.
std::vector<uint8_t> PitchedBytes(const CQvDeviceImage2D& xImage) {
  const size_t uPitch = xImage.GetDevicePitch(), uRows = xImage.GetFormat().iHeight;
  std::vector<uint8_t> x(uPitch * uRows);
  Device::Copy2D(x.data(), uPitch, xImage.GetDevicePointer(), uPitch, uPitch, uRows,
                 Device::ECopyKind::DeviceToHost, nullptr, false);
  return x;
}

CQvDeviceImage2D* Sentinel(int w, int h, EDataType::ID eData) {
  auto* p = new CQvDeviceImage2D(CQvImageFormat(w, h, EPixelType::Lum, eData));
  Device::Memset2D(p->GetDevicePointer(), p->GetDevicePitch(), 0xA5, p->GetDevicePitch(), h,
                   nullptr);
  return p;
}

TEST(YuvPlanes, ThreePlanesGetLumaAndTopLeftChroma) {
  for (bool b16 : {false, true}) {
    const SRgba xSrc(7, 5, b16, 40);
    const EDataType::ID eData = b16 ? EDataType::UShort : EDataType::UByte;
    const size_t uBpp = b16 ? 2 : 1;
    std::unique_ptr<CQvDeviceImage2D> xY(Sentinel(7, 5, eData)), xU(Sentinel(5, 4, eData)),
        xV(Sentinel(3, 2, eData));
    CQvDeviceImage2D xDevSource(xSrc.xImage);
    CQvCudaCompYUV xComp;
    xComp.Convert(*xY, *xU, *xV, xDevSource);

    CQvImage xOutY, xOutU, xOutV;
    xY->CopyTo(xOutY);
    xU->CopyTo(xOutU);
    xV->CopyTo(xOutV);
    for (int y = 0; y < 5; ++y)
      for (int x = 0; x < 7; ++x) ASSERT_EQ(xSrc.Y(x, y), Sample(xOutY, x, y));
    // Wy / 2 x Hy / 2 = 3 x 2 chroma samples, from the even pixels; the rest of the larger
    // U plane stays as it was, and so does every padding byte.
    const uint32_t uSentinel = b16 ? 0xA5A5u : 0xA5u;
    for (int y = 0; y < 4; ++y) {
      for (int x = 0; x < 5; ++x) {
        if (x < 3 && y < 2)
          EXPECT_EQ(xSrc.U(2 * x, 2 * y), Sample(xOutU, x, y)) << x << "," << y;
        else
          EXPECT_EQ(uSentinel, Sample(xOutU, x, y)) << x << "," << y;
      }
    }
    for (int y = 0; y < 2; ++y)
      for (int x = 0; x < 3; ++x) EXPECT_EQ(xSrc.V(2 * x, 2 * y), Sample(xOutV, x, y));
    for (const CQvDeviceImage2D* p : {xY.get(), xU.get(), xV.get()}) {
      const std::vector<uint8_t> xBytes = PitchedBytes(*p);
      const size_t uRow = p->GetFormat().iWidth * uBpp;
      for (int y = 0; y < p->GetFormat().iHeight; ++y)
        for (size_t i = uRow; i < p->GetDevicePitch(); ++i)
          ASSERT_EQ(0xA5, xBytes[y * p->GetDevicePitch() + i]) << "padding of row " << y;
    }
  }
}

TEST(YuvPlanes, PlanesThatCannotHoldTheResultAreRefused) {
  const SRgba xSrc(8, 6, false, 41);
  CQvDeviceImage2D xDevSource(xSrc.xImage);
  CQvCudaCompYUV xComp;
  CQvDeviceImage2D xY(CQvImageFormat(8, 6, EPixelType::Lum, EDataType::UByte));
  CQvDeviceImage2D xSmallU(CQvImageFormat(4, 2, EPixelType::Lum, EDataType::UByte));
  CQvDeviceImage2D xV(CQvImageFormat(4, 3, EPixelType::Lum, EDataType::UByte));
  CQvDeviceImage2D xWideV(CQvImageFormat(4, 3, EPixelType::Lum, EDataType::UShort));
  CQvDeviceImage2D xEmpty;
  struct SCase {
    CQvDeviceImage2D* pY;
    CQvDeviceImage2D* pU;
    CQvDeviceImage2D* pV;
    const char* szInner;
  } aCases[] = {
      {&xY, &xSmallU, &xV, "Plane U of 4x2 is smaller than 4x3"},
      {&xY, &xV, &xWideV,
       "Plane V has format '4x3, Lum, UShort'. It has to be Lum, UByte like the source"},
      {&xEmpty, &xV, &xV,
       "Plane Y has format '0x0, None, Void'. It has to be Lum, UByte like the source"},
  };
  for (const SCase& c : aCases) {
    try {
      xComp.Convert(*c.pY, *c.pU, *c.pV, xDevSource);
      ADD_FAILURE() << "no exception: " << c.szInner;
    } catch (const CQvException& e) {
      EXPECT_STREQ("Error on YUV Conversion", e.GetMessageText());
      ASSERT_NE(nullptr, e.GetInnerException());
      EXPECT_STREQ(c.szInner, e.GetInnerException()->GetMessageText());
    }
  }
}

}  // namespace
