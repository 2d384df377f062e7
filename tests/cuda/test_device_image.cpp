// Device images: the copies in every direction with every row kept in bounds, what Create
// keeps, what is refused; the allocator beneath them.

#include "QvDeviceImage2D.h"
#include "QvDeviceMMU.h"
#include "TestImages.h"

using namespace Qv;
using QvTest::Thrown;

namespace {

bool SameBytes(const IImage& a, const void* p) {
  return std::memcmp(a.GetDataPtr(), p, CQvImageFormat(a).GetImageBytes()) == 0;
}

TEST(DeviceImage2D, CopiesInEveryDirectionKeepEveryByteForOddSizesAndClasses) {
  const CQvImageFormat aFormats[] = {
      {1, 1, EPixelType::Lum, EDataType::UByte},    {3, 5, EPixelType::BayerGR, EDataType::UByte},
      {113, 13, EPixelType::Lum, EDataType::UByte}, {7, 3, EPixelType::Lum, EDataType::UShort},
      {13, 7, EPixelType::RGBA, EDataType::UByte},  {5, 9, EPixelType::RGBA, EDataType::UShort},
      {17, 4, EPixelType::RGBA, EDataType::Float},  {11, 2, EPixelType::RGB, EDataType::UByte},
      {1, 64, EPixelType::Lum, EDataType::Float},   {64, 1, EPixelType::LumA, EDataType::UByte}};
  uint32_t uSeed = 0;
  for (const CQvImageFormat& f : aFormats) {
    SCOPED_TRACE(f.ToString().ToCString());
    const CQvImage xSource = QvTest::RandomImage(f, ++uSeed);
    CQvDeviceImage2D xDevice(xSource), xSecond, xThird;
    ASSERT_EQ(xDevice.GetFormat(), f);
    EXPECT_GE(xDevice.GetDevicePitch(), f.GetRowBytes());
    CQvImage xBack;
    xDevice.CopyTo(xSecond);  // device to device
    xSecond.CopyTo(xBack);
    EXPECT_TRUE(SameBytes(xSource, xBack.GetDataPtr()));
    // Rows into a padded host buffer land at the padded positions; the padding stays.
    const size_t uRow = f.GetRowBytes(), uPitch = uRow + 7;
    std::vector<uint8_t> xPadded(uPitch * f.iHeight, 0xEE);
    xDevice.Download(xPadded.data(), uPitch);
    for (int y = 0; y < f.iHeight; ++y) {
      ASSERT_EQ(0, std::memcmp(xPadded.data() + y * uPitch,
                               static_cast<const uint8_t*>(xSource.GetDataPtr()) + y * uRow, uRow));
      ASSERT_EQ(0xEE, xPadded[y * uPitch + uRow]);
    }
    // And back from it; then from packed rows already on the device.
    xThird.Create(f);
    xThird.Upload(xPadded.data(), uPitch, nullptr, false);
    xThird.CopyTo(xBack);
    EXPECT_TRUE(SameBytes(xSource, xBack.GetDataPtr()));
    CQvDeviceImage1D xPacked;
    xPacked.Create(xSource);
    ASSERT_EQ(xPacked.GetByteCount(), f.GetImageBytes());
    xThird.Create(f, xPacked.GetDevicePointer(), true);
    xThird.CopyTo(xBack);
    EXPECT_TRUE(SameBytes(xSource, xBack.GetDataPtr()));
  }
}

TEST(DeviceImage2D, RefusesWhatWouldReadOrWriteOutOfBounds) {
  CQvDeviceImage2D xEmpty, xImage(CQvImageFormat(9, 4, EPixelType::RGBA, EDataType::UByte));
  CQvImage xHost;
  std::vector<uint8_t> xBuffer(36 * 4);
  // clang-format off
  const struct { const char* szRow; std::function<void()> fnRun; const char* szMessage; }
  aCases[] = {
      {"copy of empty", [&] { xEmpty.CopyTo(xHost); }, "Image is invalid"},
      {"device copy of empty", [&] { xEmpty.CopyTo(xImage); }, "Image is invalid"},
      {"zero of empty", [&] { xEmpty.SetZero(); }, "Image is invalid"},
      {"upload to empty", [&] { xEmpty.Upload(xBuffer.data(), 36, nullptr, false); },
       "Image is invalid"},
      {"download of empty", [&] { xEmpty.Download(xBuffer.data(), 36); }, "Image is invalid"},
      {"short source rows", [&] { xImage.Upload(xBuffer.data(), 35, nullptr, false); },
       "Source rows are shorter than the image rows"},
      {"short target rows", [&] { xImage.Download(xBuffer.data(), 35); },
       "Target rows are shorter than the image rows"},
      {"no source", [&] { xEmpty.Create(xImage.GetFormat(), nullptr, false); },
       "No source data for device image"},
      {"zero width",
       [&] { xEmpty.Create(CQvImageFormat(0, 5, EPixelType::Lum, EDataType::UByte)); },
       "Invalid device image size 0x5"},
      {"no pixel type",
       [&] { xEmpty.Create(CQvImageFormat(4, 4, EPixelType::None, EDataType::UByte)); },
       "Device image format has no pixel size: 4x4, None, UByte"},
  };
  // clang-format on
  for (const auto& c : aCases) EXPECT_EQ(Thrown(c.fnRun), c.szMessage) << c.szRow;
  xEmpty.Release();
  EXPECT_FALSE(xEmpty.IsValid());
}

TEST(DeviceImage2D, CreateWithTheSameFormatKeepsThePixelsAndSetZeroClearsThem) {
  const CQvImageFormat xFormat(6, 3, EPixelType::RGBA, EDataType::UShort);
  const CQvImage xSource = QvTest::RandomImage(xFormat, 3);
  CQvDeviceImage2D xImage(xSource);
  void* pBefore = xImage.GetDevicePointer();
  xImage.Create(xFormat);
  EXPECT_EQ(pBefore, xImage.GetDevicePointer());
  CQvImage xBack;
  xImage.CopyTo(xBack);
  EXPECT_TRUE(SameBytes(xSource, xBack.GetDataPtr()));
  xImage.SetZero();
  EXPECT_EQ(QvTest::Download(xImage), std::vector<double>(6 * 3 * 4, 0.0));
}

// The caching allocator: a block is reused only for a request of the same shape, and the
// allocation count shows when the device was asked for memory.
uint64_t Count() {
  return CQvDeviceMMU::GetAllocationCount();
}

TEST(DeviceMMU, OtherShapesAllocateAndReusedBlocksKeepTheirPitch) {
  CQvDeviceMMU::Trim();
  EXPECT_EQ(0u, CQvDeviceMMU::GetCachedBytes());
  const uint64_t uBefore = Count();
  size_t uPitch = 0;
  void* p = nullptr;
  {
    CQvDeviceImage2D x(CQvImageFormat(1001, 3, EPixelType::Lum, EDataType::UByte));
    p = x.GetDevicePointer();
    uPitch = x.GetDevicePitch();
    EXPECT_GE(uPitch, 1001u);
  }
  EXPECT_EQ(uBefore + 1, Count());
  EXPECT_EQ(uPitch * 3, CQvDeviceMMU::GetCachedBytes());
  // Fewer rows, fewer bytes a row, the same bytes in another shape: none may take the block.
  for (const CQvImageFormat& f : {CQvImageFormat(1001, 2, EPixelType::Lum, EDataType::UByte),
                                  CQvImageFormat(1000, 3, EPixelType::Lum, EDataType::UByte),
                                  CQvImageFormat(3, 1001, EPixelType::Lum, EDataType::UByte)}) {
    CQvDeviceImage2D y(f);
    EXPECT_NE(p, y.GetDevicePointer()) << f.ToString().ToCString();
  }
  EXPECT_EQ(uBefore + 4, Count());
  CQvDeviceImage2D z(CQvImageFormat(1001, 3, EPixelType::Lum, EDataType::UByte));
  EXPECT_EQ(p, z.GetDevicePointer());
  EXPECT_EQ(uPitch, z.GetDevicePitch());
  EXPECT_EQ(uBefore + 4, Count());
}

TEST(DeviceMMU, LinearBlocksAreCachedLikeImagesAndOverflowIsRefused) {
  CQvDeviceMMU::QvCudaFree(CQvDeviceMMU::QvCudaMalloc(2, sizeof(float)));
  const uint64_t uBefore = Count();
  void* p = CQvDeviceMMU::QvCudaMalloc(2, sizeof(float));
  EXPECT_EQ(uBefore, Count());
  void* q = CQvDeviceMMU::QvCudaMalloc(3, sizeof(float));
  EXPECT_EQ(uBefore + 1, Count());
  CQvDeviceMMU::QvCudaFree(p);
  CQvDeviceMMU::QvCudaFree(q);
  CQvDeviceMMU::QvCudaFree(nullptr);
  EXPECT_EQ(QvTest::Thrown([] { CQvDeviceMMU::QvCudaMalloc(SIZE_MAX / 2, 4); }),
            "Device allocation size overflows");
}

}  // namespace
