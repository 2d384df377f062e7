// Device images: creation, the copies in every direction, and what Create keeps.
#include <gtest/gtest.h>

#include <cstring>

#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "TestImages.h"

using namespace Qv;

namespace {

struct SCase {
  int iWidth, iHeight;
  EPixelType::ID ePixel;
  EDataType::ID eData;
};

class DeviceImage2DTest : public ::testing::TestWithParam<SCase> {};

TEST_P(DeviceImage2DTest, UploadDownloadRoundTripKeepsEveryByte) {
  const SCase& c = GetParam();
  const CQvImageFormat xFormat(c.iWidth, c.iHeight, c.ePixel, c.eData);
  const CQvImage xSource =
      QvTest::RandomImage(xFormat, static_cast<uint32_t>(c.iWidth * 31 + c.iHeight));

  CQvDeviceImage2D xDevice(xSource);
  ASSERT_TRUE(xDevice.IsValid());
  EXPECT_EQ(xDevice.GetFormat(), xFormat);
  EXPECT_GE(xDevice.GetDevicePitch(), xFormat.GetRowBytes());

  CQvImage xBack;
  xDevice.CopyTo(xBack);
  EXPECT_TRUE(QvTest::BytesEqual(xSource, xBack))
      << xFormat.ToString().ToCString() << " on " << QvTest::BackendName();

  // Device to device, then back again.
  CQvDeviceImage2D xSecond;
  xDevice.CopyTo(xSecond);
  CQvImage xBack2;
  xSecond.CopyTo(xBack2);
  EXPECT_TRUE(QvTest::BytesEqual(xSource, xBack2));

  // Rows into a padded host buffer land at the padded positions.
  const size_t uRow = xFormat.GetRowBytes(), uPitch = uRow + 7;
  std::vector<uint8_t> xPadded(uPitch * c.iHeight, 0xEE);
  xDevice.Download(xPadded.data(), uPitch);
  for (int y = 0; y < c.iHeight; ++y) {
    ASSERT_EQ(0, std::memcmp(xPadded.data() + y * uPitch,
                             static_cast<const uint8_t*>(xSource.GetDataPtr()) + y * uRow, uRow));
    EXPECT_EQ(0xEE, xPadded[y * uPitch + uRow]);
  }
}

TEST_P(DeviceImage2DTest, CreateFromDeviceDataCopiesPackedRows) {
  const SCase& c = GetParam();
  const CQvImageFormat xFormat(c.iWidth, c.iHeight, c.ePixel, c.eData);
  const CQvImage xSource = QvTest::RandomImage(xFormat, 7);
  CQvDeviceImage1D xPacked;
  xPacked.Create(xSource);
  ASSERT_EQ(xPacked.GetByteCount(), xFormat.GetImageBytes());

  CQvDeviceImage2D xImage;
  xImage.Create(xFormat, xPacked.GetDevicePointer(), true);
  CQvImage xBack;
  xImage.CopyTo(xBack);
  EXPECT_TRUE(QvTest::BytesEqual(xSource, xBack));
}

INSTANTIATE_TEST_SUITE_P(OddSizesAndClasses, DeviceImage2DTest,
                         ::testing::Values(SCase{1, 1, EPixelType::Lum, EDataType::UByte},
                                           SCase{3, 5, EPixelType::BayerGR, EDataType::UByte},
                                           SCase{113, 13, EPixelType::Lum, EDataType::UByte},
                                           SCase{7, 3, EPixelType::Lum, EDataType::UShort},
                                           SCase{13, 7, EPixelType::RGBA, EDataType::UByte},
                                           SCase{5, 9, EPixelType::RGBA, EDataType::UShort},
                                           SCase{17, 4, EPixelType::RGBA, EDataType::Float},
                                           SCase{11, 2, EPixelType::RGB, EDataType::UByte},
                                           SCase{1, 64, EPixelType::Lum, EDataType::Float}));

TEST(DeviceImage2D, CreateWithSameFormatLeavesImageUntouched) {
  const CQvImageFormat xFormat(9, 4, EPixelType::Lum, EDataType::UByte);
  const CQvImage xSource = QvTest::RandomImage(xFormat, 3);
  CQvDeviceImage2D xImage(xSource);
  void* pBefore = xImage.GetDevicePointer();

  xImage.Create(xFormat);
  EXPECT_EQ(pBefore, xImage.GetDevicePointer());
  CQvImage xBack;
  xImage.CopyTo(xBack);
  EXPECT_TRUE(QvTest::BytesEqual(xSource, xBack));

  xImage.Create(CQvImageFormat(9, 5, EPixelType::Lum, EDataType::UByte));
  EXPECT_EQ(5, xImage.GetFormat().iHeight);
}

TEST(DeviceImage2D, EmptyImageIsInvalidAndRefusesCopies) {
  CQvDeviceImage2D xImage;
  EXPECT_FALSE(xImage.IsValid());
  EXPECT_EQ(nullptr, xImage.GetDevicePointer());
  CQvImage xHost;
  EXPECT_THROW(xImage.CopyTo(xHost), CQvException);
  EXPECT_THROW(xImage.SetZero(), CQvException);
}

TEST(DeviceImage2D, RefusesFormatsWithoutSize) {
  CQvDeviceImage2D xImage;
  try {
    xImage.Create(CQvImageFormat(0, 5, EPixelType::Lum, EDataType::UByte));
    FAIL() << "a zero width was accepted";
  } catch (const CQvException& e) {
    EXPECT_STREQ("Invalid device image size 0x5", e.GetMessageText());
  }
  EXPECT_THROW(xImage.Create(CQvImageFormat(4, 4, EPixelType::Lum, EDataType::Integral_10)),
               CQvException);
  EXPECT_THROW(xImage.Create(CQvImageFormat(4, 4, EPixelType::None, EDataType::UByte)),
               CQvException);
  EXPECT_FALSE(xImage.IsValid());
}

TEST(DeviceImage2D, SetZeroClearsEveryPixel) {
  const CQvImageFormat xFormat(6, 3, EPixelType::RGBA, EDataType::UShort);
  CQvDeviceImage2D xImage(QvTest::RandomImage(xFormat, 11));
  xImage.SetZero();
  CQvImage xBack;
  xImage.CopyTo(xBack);
  const auto* p = static_cast<const uint8_t*>(xBack.GetDataPtr());
  for (size_t i = 0; i < xFormat.GetImageBytes(); ++i) ASSERT_EQ(0, p[i]) << "byte " << i;
}

TEST(DeviceImage2D, DescriptorAndChannelDescriptionFollowTheFormat) {
  CQvDeviceImage2D xImage(CQvImageFormat(10, 2, EPixelType::RGBA, EDataType::UShort));
  const SDeviceImageDesc2D xDesc = xImage.GetDesc();
  EXPECT_EQ(xImage.GetDevicePointer(), xDesc.pData);
  EXPECT_EQ(xImage.GetDevicePitch(), xDesc.uPitch);
  EXPECT_EQ(10, xDesc.xFormat.iWidth);
  const cudaChannelFormatDesc xChannels = xImage.GetCudaChannelFormatDesc();
  EXPECT_EQ(16, xChannels.x);
  EXPECT_EQ(16, xChannels.w);
  EXPECT_EQ(cudaChannelFormatKindUnsigned, xChannels.f);
  static_assert(sizeof(SDeviceImageDesc2D) == 32, "descriptor layout is shared with kernels");
}

TEST(DeviceImage2D, IsOfTypeTreatsBayerAsLumOnlyWhenAsked) {
  CQvDeviceImage2D xBayer8(CQvImageFormat(4, 4, EPixelType::BayerRG, EDataType::UByte));
  EXPECT_FALSE(xBayer8.IsOfType<L_uc>(false));
  EXPECT_TRUE(xBayer8.IsOfType<L_uc>(true));
  CQvDeviceImage2D xBayer16(CQvImageFormat(4, 4, EPixelType::BayerRG, EDataType::UShort));
  EXPECT_FALSE(xBayer16.IsOfType<L_uc>(false));
  EXPECT_FALSE(xBayer16.IsOfType<L_uc>(true));
  EXPECT_TRUE(xBayer16.IsOfType<L_us>(true));
  CQvDeviceImage2D xBgra(CQvImageFormat(4, 4, EPixelType::BGRA, EDataType::UByte));
  EXPECT_FALSE(xBgra.IsOfType<RGBA_uc>(false));
  EXPECT_FALSE(xBgra.IsOfType<RGBA_uc>(true));
  CQvDeviceImage2D xRgba(CQvImageFormat(4, 4, EPixelType::RGBA, EDataType::Float));
  EXPECT_TRUE(xRgba.IsOfType<RGBA_f>(true));
  EXPECT_FALSE(xRgba.IsOfType<L_f>(true));
}

}  // namespace
