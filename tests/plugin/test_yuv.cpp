// The YUV element through GstHarness: its caps, its output image and its failures.
#include <gst/base/gstbasetransform.h>
#include <gst/check/gstharness.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "GstTestUtil.h"
#include "QvDeviceImage2D.h"
#include "gstqvHostElements.h"
#include "plugin.h"

using namespace Qv;

namespace {

#define RGBA_CAPS "video/x-raw,format=RGBA,width=6,height=4,framerate=25/1"

class YuvElementTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(qv_register_host_elements());
    m_pxHarness = gst_harness_new("qvcudayuv");
    gst_harness_set_src_caps_str(m_pxHarness, RGBA_CAPS);
  }
  void TearDown() override { gst_harness_teardown(m_pxHarness); }
  GstHarness* m_pxHarness = nullptr;
};

CQvImage Filled(int w, int h, uint8_t uValue) {
  CQvImage x(CQvImageFormat(w, h, EPixelType::RGBA, EDataType::UByte));
  std::memset(x.GetDataPtr(), uValue, x.GetImageBytes());
  return x;
}

TEST_F(YuvElementTest, OutputCapsKeepTheSizeAndSayI420) {
  GstBuffer* pxOut =
      gst_harness_push_and_pull(m_pxHarness, QvTest::DeviceImageBuffer(Filled(6, 4, 255)));
  ASSERT_NE(nullptr, pxOut);
  gst_buffer_unref(pxOut);
  GstCaps* pxCaps = gst_pad_get_current_caps(m_pxHarness->sinkpad);
  EXPECT_TRUE(QvTest::CapsEqualString(
      pxCaps, "video/x-raw,format=I420,colorimetry=1:4:0:0,width=6,height=4,framerate=25/1"));
  gst_caps_unref(pxCaps);
}

TEST_F(YuvElementTest, WhiteFrameBecomesAStackedLumImage) {
  GstBuffer* pxIn = QvTest::DeviceImageBuffer(Filled(6, 4, 255));
  GST_BUFFER_PTS(pxIn) = 7 * GST_MSECOND;
  auto* pxMeta = reinterpret_cast<MyMetaInfo*>(gst_buffer_add_meta(pxIn, my_meta_get_info(), NULL));
  pxMeta->exposure = 0.02f;
  pxMeta->gain = 2.0f;
  GstBuffer* pxOut = gst_harness_push_and_pull(m_pxHarness, pxIn);
  ASSERT_NE(nullptr, pxOut);
  // One and a half times the caps' height: luma 255, both chroma areas 127.
  const CQvImage xImage = QvTest::DownloadBufferImage(pxOut);
  ASSERT_EQ(CQvImageFormat(6, 6, EPixelType::Lum, EDataType::UByte), xImage.GetFormat());
  const auto* p = static_cast<const uint8_t*>(xImage.GetDataPtr());
  for (int i = 0; i < 24; ++i) EXPECT_EQ(255, p[i]) << i;
  for (int i = 24; i < 36; ++i) EXPECT_EQ(127, p[i]) << i;
  EXPECT_EQ(7 * GST_MSECOND, GST_BUFFER_PTS(pxOut));
  auto* pxOutMeta =
      reinterpret_cast<MyMetaInfo*>(gst_buffer_get_meta(pxOut, MY_META_INFO_API_TYPE));
  ASSERT_NE(nullptr, pxOutMeta);
  EXPECT_EQ(0.02f, pxOutMeta->exposure);
  EXPECT_EQ(2.0f, pxOutMeta->gain);
  gst_buffer_unref(pxOut);
}

std::string PushFailing(GstHarness* pxHarness, GstBuffer* pxIn) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(GST_FLOW_ERROR, gst_harness_push(pxHarness, pxIn));
  return testing::internal::GetCapturedStdout();
}

TEST_F(YuvElementTest, FailedFramesReportAndTheNextFramePasses) {
  // A buffer that maps to nothing, a mosaic, and host memory instead of a device image.
  std::string sOut = PushFailing(m_pxHarness, gst_buffer_new());
  EXPECT_NE(std::string::npos, sOut.find("exception catched: \n"));
  EXPECT_NE(std::string::npos, sOut.find("  :   no image data available\n"));

  CQvImage xMosaic(CQvImageFormat(6, 4, EPixelType::BayerGR, EDataType::UByte));
  std::memset(xMosaic.GetDataPtr(), 1, xMosaic.GetImageBytes());
  sOut = PushFailing(m_pxHarness, QvTest::DeviceImageBuffer(xMosaic));
  EXPECT_NE(std::string::npos, sOut.find("  :   Error on YUV Conversion\n"));
  EXPECT_NE(std::string::npos, sOut.find("Source image has wrong format '6x4, BayerGR, UByte'"));

  sOut = PushFailing(m_pxHarness, QvTest::BufferFromBytes(std::vector<uint8_t>(96, 1)));
  EXPECT_NE(std::string::npos, sOut.find("buffer holds no device image but memory of type"));

  GstBuffer* pxOut =
      gst_harness_push_and_pull(m_pxHarness, QvTest::DeviceImageBuffer(Filled(6, 4, 0)));
  ASSERT_NE(nullptr, pxOut);
  gst_buffer_unref(pxOut);
}

TEST(YuvElementCaps, SinkSideGivesI420OfTheSameSizeAndRate) {
  ASSERT_TRUE(qv_register_host_elements());
  GstElement* pxElement = gst_element_factory_make("qvcudayuv", NULL);
  ASSERT_NE(nullptr, pxElement);
  GstCaps* pxIn =
      gst_caps_from_string("video/x-raw,format=RGBA,width=[16,64],height=480,framerate=30/1");
  GstCaps* pxOut = GST_BASE_TRANSFORM_GET_CLASS(pxElement)->transform_caps(
      GST_BASE_TRANSFORM(pxElement), GST_PAD_SINK, pxIn, NULL);
  EXPECT_TRUE(QvTest::CapsEqualString(
      pxOut,
      "video/x-raw,format=I420,colorimetry=1:4:0:0,width=[16,64],height=480,framerate=30/1"));
  gst_caps_unref(pxOut);
  gst_caps_unref(pxIn);
  gst_object_unref(pxElement);
}

}  // namespace
