// The download element: both paths into pinned host frames, its pool, and its failures.
#include <gst/check/gstharness.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "GstTestUtil.h"
#include "QvDeviceImage2D.h"
#include "gstqvHostElements.h"
#include "plugin.h"

using namespace Qv;

namespace {

CQvImage Seeded(int w, int h, EPixelType::ID ePixel, EDataType::ID eData, uint32_t uSeed) {
  CQvImage x(CQvImageFormat(w, h, ePixel, eData));
  const std::vector<uint8_t> xBytes = QvTest::RandomBytes(x.GetImageBytes(), uSeed);
  std::memcpy(x.GetDataPtr(), xBytes.data(), xBytes.size());
  return x;
}

std::string Caps(const char* szFormat, int w, int h) {
  return std::string("video/x-raw,format=") + szFormat + ",width=" + std::to_string(w) +
         ",height=" + std::to_string(h) + ",framerate=30/1";
}

class DownloadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(qv_register_host_elements());
    m_pxHarness = gst_harness_new("qvcudadownload");
  }
  void TearDown() override { gst_harness_teardown(m_pxHarness); }

  std::vector<uint8_t> PullBytes(GstBuffer* pxIn, std::string* psOut = nullptr) {
    testing::internal::CaptureStdout();
    GstBuffer* pxOut = gst_harness_push_and_pull(m_pxHarness, pxIn);
    const std::string sOut = testing::internal::GetCapturedStdout();
    if (psOut) *psOut = sOut;
    std::vector<uint8_t> x;
    EXPECT_NE(nullptr, pxOut);
    if (!pxOut) return x;
    EXPECT_TRUE(gst_memory_is_type(gst_buffer_peek_memory(pxOut, 0), "MySysMem"));
    x.resize(gst_buffer_get_size(pxOut));
    gst_buffer_extract(pxOut, 0, x.data(), x.size());
    gst_buffer_unref(pxOut);
    return x;
  }

  std::string PushFailing(GstBuffer* pxIn) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(GST_FLOW_ERROR, gst_harness_push(m_pxHarness, pxIn));
    return testing::internal::GetCapturedStdout();
  }

  GstHarness* m_pxHarness = nullptr;
};

// First in this process: nothing has registered the pinned allocator yet.
TEST_F(DownloadTest, RegistersThePinnedAllocatorWhenNoOneDidBefore) {
  GstAllocator* pxBefore = gst_allocator_find("MySysMem");
  if (pxBefore) gst_object_unref(pxBefore);
  EXPECT_EQ(nullptr, pxBefore) << "another test registered MySysMem first";
  gst_harness_set_src_caps_str(m_pxHarness, Caps("RGBA", 3, 2).c_str());
  const CQvImage xImage = Seeded(3, 2, EPixelType::RGBA, EDataType::UByte, 1);
  const std::vector<uint8_t> x = PullBytes(QvTest::DeviceImageBuffer(xImage));
  ASSERT_EQ(24u, x.size());
  EXPECT_EQ(0, std::memcmp(xImage.GetDataPtr(), x.data(), 24));
}

TEST_F(DownloadTest, RgbaFullHdImageBecomesTheSameRgbaFrame) {
  gst_harness_set_src_caps_str(m_pxHarness, Caps("RGBA", 1920, 1080).c_str());
  const CQvImage xImage = Seeded(1920, 1080, EPixelType::RGBA, EDataType::UByte, 2);
  std::string sOut;
  const std::vector<uint8_t> x = PullBytes(QvTest::DeviceImageBuffer(xImage), &sOut);
  ASSERT_EQ(1920u * 1080u * 4u, x.size());
  EXPECT_EQ(0, std::memcmp(xImage.GetDataPtr(), x.data(), x.size()));
  EXPECT_EQ("download format: 1920x1080, RGBA, UByte\n", sOut);
}

TEST_F(DownloadTest, StackedI420ImageIsTakenApartPlaneByPlane) {
  gst_harness_set_src_caps_str(m_pxHarness, Caps("I420", 1920, 1080).c_str());
  const CQvImage xImage = Seeded(1920, 1620, EPixelType::Lum, EDataType::UByte, 3);
  std::string sOut;
  const std::vector<uint8_t> x = PullBytes(QvTest::DeviceImageBuffer(xImage), &sOut);
  ASSERT_EQ(2073600u + 2 * 518400u, x.size());
  // Luma rows 0 to 1079, U from row 1080, V from row 1350, each image row 1920 bytes.
  const auto* p = static_cast<const uint8_t*>(xImage.GetDataPtr());
  EXPECT_EQ(0, std::memcmp(p, x.data(), 2073600));
  EXPECT_EQ(0, std::memcmp(p + 1080 * 1920, x.data() + 2073600, 518400));
  EXPECT_EQ(0, std::memcmp(p + 1350 * 1920, x.data() + 2073600 + 518400, 518400));
  EXPECT_EQ("", sOut);
}

TEST_F(DownloadTest, SixteenBitStackedImageIsNarrowedToEightBits) {
  gst_harness_set_src_caps_str(m_pxHarness, Caps("I420", 16, 8).c_str());
  const CQvImage xImage = Seeded(16, 12, EPixelType::Lum, EDataType::UShort, 4);
  const std::vector<uint8_t> x = PullBytes(QvTest::DeviceImageBuffer(xImage));
  ASSERT_EQ(128u + 2 * 32u, x.size());
  const auto* p = static_cast<const uint16_t*>(xImage.GetDataPtr());
  for (size_t i = 0; i < x.size(); ++i) EXPECT_EQ(p[i] >> 8, x[i]) << i;
}

TEST_F(DownloadTest, UploadedMosaicComesBackIntoPlaneYOfAnI420Frame) {
  // The raw mosaic straight from qvcudaupload: I420 maps to Lum, so a mosaic passes the
  // colour path and fills plane Y with its own bytes.
  GstHarness* pxUpload = gst_harness_new("qvcudaupload");
  gst_harness_set_src_caps_str(pxUpload,
                               "video/x-bayer,format=grbg,width=32,height=8,framerate=30/1");
  const std::vector<uint8_t> xMosaic = QvTest::FrameBytes(256, 16);
  GstBuffer* pxDevice = gst_harness_push_and_pull(pxUpload, QvTest::BufferFromBytes(xMosaic));
  ASSERT_NE(nullptr, pxDevice);
  gst_harness_set_src_caps_str(m_pxHarness, Caps("I420", 32, 8).c_str());
  std::string sOut;
  const std::vector<uint8_t> x = PullBytes(pxDevice, &sOut);
  ASSERT_EQ(256u + 2 * 64u, x.size());
  EXPECT_EQ(xMosaic, std::vector<uint8_t>(x.begin(), x.begin() + 256));
  EXPECT_EQ("download format: 32x8, BayerGR, UByte\n", sOut);
  gst_harness_teardown(pxUpload);
}

TEST_F(DownloadTest, TimestampsAndCameraMetaGoAcross) {
  gst_harness_set_src_caps_str(m_pxHarness, Caps("RGBA", 2, 2).c_str());
  GstBuffer* pxIn = QvTest::DeviceImageBuffer(Seeded(2, 2, EPixelType::RGBA, EDataType::UByte, 5));
  GST_BUFFER_PTS(pxIn) = 3 * GST_SECOND;
  GST_BUFFER_DURATION(pxIn) = GST_SECOND / 30;
  auto* pxMeta = reinterpret_cast<MyMetaInfo*>(gst_buffer_add_meta(pxIn, my_meta_get_info(), NULL));
  pxMeta->exposure = 0.5f;
  pxMeta->gain = 4.0f;
  testing::internal::CaptureStdout();
  GstBuffer* pxOut = gst_harness_push_and_pull(m_pxHarness, pxIn);
  testing::internal::GetCapturedStdout();
  ASSERT_NE(nullptr, pxOut);
  EXPECT_EQ(3 * GST_SECOND, GST_BUFFER_PTS(pxOut));
  EXPECT_EQ(GST_SECOND / 30, GST_BUFFER_DURATION(pxOut));
  auto* pxOutMeta =
      reinterpret_cast<MyMetaInfo*>(gst_buffer_get_meta(pxOut, MY_META_INFO_API_TYPE));
  ASSERT_NE(nullptr, pxOutMeta);
  EXPECT_EQ(0.5f, pxOutMeta->exposure);
  EXPECT_EQ(4.0f, pxOutMeta->gain);
  gst_buffer_unref(pxOut);
}

TEST_F(DownloadTest, BadInputFailsTheFrameAndTheNextOnePasses) {
  gst_harness_set_src_caps_str(m_pxHarness, Caps("RGBA", 4, 2).c_str());
  // A buffer that maps to nothing.
  EXPECT_NE(std::string::npos,
            PushFailing(gst_buffer_new()).find("  :   No device image in meta found\n"));
  // A mosaic under RGBA caps.
  EXPECT_NE(
      std::string::npos,
      PushFailing(QvTest::DeviceImageBuffer(Seeded(4, 2, EPixelType::BayerGR, EDataType::UByte, 7)))
          .find("  :   cannot copy QvImage to gstframe\n"));
  // Host bytes instead of a device image.
  EXPECT_NE(std::string::npos, PushFailing(QvTest::BufferFromBytes(std::vector<uint8_t>(32, 1)))
                                   .find("buffer holds no device image but memory of type"));
  // An image smaller than the caps.
  EXPECT_NE(
      std::string::npos,
      PushFailing(QvTest::DeviceImageBuffer(Seeded(2, 2, EPixelType::RGBA, EDataType::UByte, 8)))
          .find("the image is smaller than the frame"));
  const CQvImage xGood = Seeded(4, 2, EPixelType::RGBA, EDataType::UByte, 9);
  const std::vector<uint8_t> x = PullBytes(QvTest::DeviceImageBuffer(xGood));
  ASSERT_EQ(32u, x.size());
  EXPECT_EQ(0, std::memcmp(xGood.GetDataPtr(), x.data(), 32));
}

TEST_F(DownloadTest, PlanarFramesWhosePlanesDoNotMatchAreRefused) {
  // Width 20: plane Y rows are 20 bytes, but chroma rows of 10 lie 12 apart.
  gst_harness_set_src_caps_str(m_pxHarness, Caps("I420", 20, 8).c_str());
  EXPECT_NE(
      std::string::npos,
      PushFailing(QvTest::DeviceImageBuffer(Seeded(20, 12, EPixelType::Lum, EDataType::UByte, 10)))
          .find("  :   Error: linestride missmatch\n"));
  EXPECT_NE(
      std::string::npos,
      PushFailing(QvTest::DeviceImageBuffer(Seeded(20, 12, EPixelType::Lum, EDataType::UShort, 10)))
          .find("  :   Error: linestride missmatch\n"));
}

TEST_F(DownloadTest, PlanarImagesNeedAnI420FrameOfTheirSize) {
  gst_harness_set_src_caps_str(m_pxHarness, Caps("I420", 16, 8).c_str());
  EXPECT_NE(
      std::string::npos,
      PushFailing(QvTest::DeviceImageBuffer(Seeded(16, 6, EPixelType::Lum, EDataType::UByte, 11)))
          .find("the planar image holds a frame of 16x4, the caps say 16x8"));
  EXPECT_NE(
      std::string::npos,
      PushFailing(QvTest::DeviceImageBuffer(Seeded(16, 12, EPixelType::Lum, EDataType::Float, 11)))
          .find("a planar image of data type 'Float' cannot go into an 8-bit frame"));
  gst_harness_set_src_caps_str(m_pxHarness, Caps("RGBA", 16, 8).c_str());
  EXPECT_NE(
      std::string::npos,
      PushFailing(QvTest::DeviceImageBuffer(Seeded(16, 12, EPixelType::Lum, EDataType::UByte, 12)))
          .find("a planar image cannot go into a RGBA frame"));
}

TEST_F(DownloadTest, PoolFollowsTheFrameSize) {
  gst_harness_set_src_caps_str(m_pxHarness, Caps("RGBA", 4, 4).c_str());
  testing::internal::CaptureStdout();
  GstBuffer* pxA = gst_harness_push_and_pull(
      m_pxHarness, QvTest::DeviceImageBuffer(Seeded(4, 4, EPixelType::RGBA, EDataType::UByte, 13)));
  gst_harness_set_src_caps_str(m_pxHarness, Caps("RGBA", 8, 8).c_str());
  const CQvImage xLarge = Seeded(8, 8, EPixelType::RGBA, EDataType::UByte, 14);
  GstBuffer* pxB = gst_harness_push_and_pull(m_pxHarness, QvTest::DeviceImageBuffer(xLarge));
  testing::internal::GetCapturedStdout();
  ASSERT_NE(nullptr, pxA);
  ASSERT_NE(nullptr, pxB);
  EXPECT_NE(pxA->pool, pxB->pool);
  ASSERT_EQ(256u, gst_buffer_get_size(pxB));
  GstMapInfo xMap;
  ASSERT_TRUE(gst_buffer_map(pxB, &xMap, GST_MAP_READ));
  EXPECT_EQ(0, std::memcmp(xLarge.GetDataPtr(), xMap.data, 256));
  gst_buffer_unmap(pxB, &xMap);
  gst_buffer_unref(pxA);
  gst_buffer_unref(pxB);
}

TEST_F(DownloadTest, AFourthFrameWaitsWhileThreeAreHeldDownstream) {
  gst_harness_set_src_caps_str(m_pxHarness, Caps("RGBA", 4, 4).c_str());
  const CQvImage xImage = Seeded(4, 4, EPixelType::RGBA, EDataType::UByte, 15);
  testing::internal::CaptureStdout();
  std::vector<GstBuffer*> xHeld;
  for (int i = 0; i < 3; ++i)
    xHeld.push_back(gst_harness_push_and_pull(m_pxHarness, QvTest::DeviceImageBuffer(xImage)));
  std::atomic<bool> bDone{false};
  std::thread xPusher([&] {
    gst_harness_push(m_pxHarness, QvTest::DeviceImageBuffer(xImage));
    bDone = true;
  });
  g_usleep(100000);
  EXPECT_FALSE(bDone.load());
  gst_buffer_unref(xHeld.back());
  xHeld.pop_back();
  xPusher.join();
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(bDone.load());
  GstBuffer* pxFourth = gst_harness_pull(m_pxHarness);
  ASSERT_NE(nullptr, pxFourth);
  gst_buffer_unref(pxFourth);
  for (GstBuffer* p : xHeld) gst_buffer_unref(p);
}

}  // namespace
