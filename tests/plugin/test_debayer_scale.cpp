// The debayer and scale elements: caps, frames through upload, the empty-image and failure
// paths, and the scale element's own negotiation.
#include <gst/base/gstbasetransform.h>
#include <gst/check/gstharness.h>
#include <gtest/gtest.h>

#include <cstring>

#include "GstTestUtil.h"
#include "QvDeviceImage2D.h"
#include "gstUtil.h"
#include "gstqvCudaScale.h"
#include "plugin.h"

using namespace Qv;

namespace {

GstCaps* TransformCaps(GstElement* pxElement, GstPadDirection eDirection, const char* szCaps,
                       const char* szFilter = NULL) {
  GstCaps* pxCaps = gst_caps_from_string(szCaps);
  GstCaps* pxFilter = szFilter ? gst_caps_from_string(szFilter) : NULL;
  GstCaps* pxResult = GST_BASE_TRANSFORM_GET_CLASS(pxElement)->transform_caps(
      GST_BASE_TRANSFORM(pxElement), eDirection, pxCaps, pxFilter);
  gst_caps_unref(pxCaps);
  if (pxFilter) gst_caps_unref(pxFilter);
  return pxResult;
}

// A buffer of the device-image allocator holding a black image of the format.
GstBuffer* DeviceBuffer(const CQvImageFormat& xFormat) {
  CQvImage xImage(xFormat);
  std::memset(xImage.GetDataPtr(), 0, xFormat.GetImageBytes());
  return QvTest::DeviceImageBuffer(xImage);
}

TEST(Debayer, MosaicBecomesRgbaOfTheSameSize) {
  GstHarness* h = gst_harness_new_parse("qvcudaupload ! qvcudadebayer");
  gst_harness_set_src_caps_str(h, "video/x-bayer,format=grbg,width=6,height=4,framerate=30/1");
  GstBuffer* pxIn = QvTest::BufferFromBytes(std::vector<uint8_t>(24, 90));
  GST_BUFFER_PTS(pxIn) = 7 * GST_SECOND;
  auto* pxMeta = reinterpret_cast<MyMetaInfo*>(gst_buffer_add_meta(pxIn, my_meta_get_info(), NULL));
  pxMeta->exposure = 0.02f;
  pxMeta->gain = 2.0f;
  GstBuffer* pxOut = gst_harness_push_and_pull(h, pxIn);
  ASSERT_NE(nullptr, pxOut);
  const CQvImage xImage = QvTest::DownloadBufferImage(pxOut);
  EXPECT_EQ(CQvImageFormat(6, 4, EPixelType::RGBA, EDataType::UByte), xImage.GetFormat());
  // A flat mosaic with the fixed white balance: red 90 / 0.7 = 128.57, blue 90 / 0.88 = 102.27.
  const auto* p = static_cast<const uint8_t*>(xImage.GetDataPtr());
  EXPECT_NEAR(128, p[2 * 4 + 0], 1);
  EXPECT_NEAR(90, p[2 * 4 + 1], 1);
  EXPECT_NEAR(102, p[2 * 4 + 2], 1);
  EXPECT_EQ(255, p[2 * 4 + 3]);
  EXPECT_EQ(7 * GST_SECOND, GST_BUFFER_PTS(pxOut));
  auto* pxOutMeta =
      reinterpret_cast<MyMetaInfo*>(gst_buffer_get_meta(pxOut, MY_META_INFO_API_TYPE));
  ASSERT_NE(nullptr, pxOutMeta);
  EXPECT_EQ(2.0f, pxOutMeta->gain);
  GstCaps* pxCaps = gst_pad_get_current_caps(h->sinkpad);
  EXPECT_TRUE(
      QvTest::CapsEqualString(pxCaps, "video/x-raw,format=RGBA,width=6,height=4,framerate=30/1"));
  gst_caps_unref(pxCaps);
  gst_buffer_unref(pxOut);
  gst_harness_teardown(h);
}

TEST(Debayer, ImageThatIsNoMosaicGivesAnEmptyImageAndFlowOk) {
  GstHarness* h = gst_harness_new("qvcudadebayer");
  gst_harness_set_src_caps_str(h, "video/x-raw,format=GRAY8,width=4,height=4,framerate=30/1");
  GstBuffer* pxOut = gst_harness_push_and_pull(
      h, DeviceBuffer(CQvImageFormat(4, 4, EPixelType::RGBA, EDataType::UByte)));
  ASSERT_NE(nullptr, pxOut);
  GstMapInfo xMap;
  ASSERT_TRUE(gst_buffer_map(pxOut, &xMap, GST_MAP_READ));
  EXPECT_FALSE(reinterpret_cast<CQvDeviceImage2D*>(xMap.data)->IsValid());
  gst_buffer_unmap(pxOut, &xMap);
  gst_buffer_unref(pxOut);
  gst_harness_teardown(h);
}

TEST(Debayer, BufferWithoutImageFailsTheFrameAndTheNextPasses) {
  GstHarness* h = gst_harness_new("qvcudadebayer");
  gst_harness_set_src_caps_str(h, "video/x-raw,format=GRAY8,width=4,height=4,framerate=30/1");
  testing::internal::CaptureStdout();
  EXPECT_EQ(GST_FLOW_ERROR, gst_harness_push(h, gst_buffer_new()));
  const std::string sOut = testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos, sOut.find("no image data found")) << sOut;
  GstBuffer* pxOut = gst_harness_push_and_pull(
      h, DeviceBuffer(CQvImageFormat(4, 4, EPixelType::BayerGR, EDataType::UByte)));
  ASSERT_NE(nullptr, pxOut);
  gst_buffer_unref(pxOut);
  gst_harness_teardown(h);
}

TEST(Debayer, CapsKeepSizeAndRateAndChangeTheFormat) {
  GstElement* e = gst_element_factory_make("qvcudadebayer", NULL);
  GstCaps* x = TransformCaps(e, GST_PAD_SINK,
                             "video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1");
  EXPECT_TRUE(
      QvTest::CapsEqualString(x, "video/x-raw,format=RGBA,width=640,height=480,framerate=30/1"));
  gst_caps_unref(x);
  x = TransformCaps(e, GST_PAD_SRC, "video/x-raw,format=RGBA,width=64,height=48,framerate=5/1");
  EXPECT_TRUE(
      QvTest::CapsEqualString(x, "video/x-raw,format=GRAY8,width=64,height=48,framerate=5/1"));
  gst_caps_unref(x);
  gst_object_unref(e);
}

class ScaleTest : public ::testing::Test {
 protected:
  void SetUp() override { m_pxElement = gst_element_factory_make("qvcudascale", NULL); }
  void TearDown() override {
    gst_object_unref(m_pxElement);
    iScaledWidth = 3840;
    iScaledHeight = 1784;
  }
  GstElement* m_pxElement = nullptr;
};

TEST_F(ScaleTest, FixedSizeBecomesTheTargetSizeInBothDirections) {
  GstCaps* x = TransformCaps(m_pxElement, GST_PAD_SINK,
                             "video/x-raw,format=RGBA,width=7680,height=3568,framerate=30/1");
  EXPECT_TRUE(
      QvTest::CapsEqualString(x, "video/x-raw,format=RGBA,width=3840,height=1784,framerate=30/1"));
  gst_caps_unref(x);
  x = TransformCaps(m_pxElement, GST_PAD_SRC, "video/x-raw,format=RGBA,width=100,height=[1,50]");
  EXPECT_TRUE(QvTest::CapsEqualString(
      x, "video/x-raw,format=RGBA,width=3840,height=[1,50],framerate=(fraction)[0/1,MAX]"));
  gst_caps_unref(x);
}

TEST_F(ScaleTest, RangesStayAndColorimetryGoes) {
  GstCaps* x = TransformCaps(m_pxElement, GST_PAD_SINK,
                             "video/x-raw,format=RGBA,width=[16,4096],height={480,720},"
                             "colorimetry=bt709,chroma-site=mpeg2");
  EXPECT_TRUE(QvTest::CapsEqualString(x,
                                      "video/x-raw,format=RGBA,width=[16,4096],height={480,720},"
                                      "framerate=(fraction)[0/1,MAX]"));
  gst_caps_unref(x);
}

TEST_F(ScaleTest, FilterWithoutRgbaLeavesNothing) {
  GstCaps* x =
      TransformCaps(m_pxElement, GST_PAD_SINK, "video/x-raw,format=RGBA,width=64,height=64",
                    "video/x-raw,format=GRAY8");
  EXPECT_TRUE(gst_caps_is_empty(x));
  gst_caps_unref(x);
}

TEST_F(ScaleTest, FramesComeOutAtTheTargetSize) {
  iScaledWidth = 8;
  iScaledHeight = 3;
  GstHarness* h = gst_harness_new_parse("qvcudaupload ! qvcudadebayer ! qvcudascale");
  gst_harness_set_src_caps_str(h, "video/x-bayer,format=grbg,width=16,height=6,framerate=30/1");
  GstBuffer* pxOut =
      gst_harness_push_and_pull(h, QvTest::BufferFromBytes(QvTest::FrameBytes(96, 2)));
  ASSERT_NE(nullptr, pxOut);
  EXPECT_EQ(CQvImageFormat(8, 3, EPixelType::RGBA, EDataType::UByte),
            QvTest::DownloadBufferImage(pxOut).GetFormat());
  GstCaps* pxCaps = gst_pad_get_current_caps(h->sinkpad);
  EXPECT_TRUE(
      QvTest::CapsEqualString(pxCaps, "video/x-raw,format=RGBA,width=8,height=3,framerate=30/1"));
  gst_caps_unref(pxCaps);
  gst_buffer_unref(pxOut);
  gst_harness_teardown(h);
}

TEST(Plugin, RegistersExactlyItsFactories) {
  // The host element types have their factories in the companion plugin.
  const char* aszExpected[][2] = {
      {"qvcudaupload", "qvvideoproc"},  {"qvcudadebayer", "qvvideoproc"},
      {"qvcudascale", "qvvideoproc"},   {"qvcudanormalize", "qvvideoprochost"},
      {"qvcudayuv", "qvvideoprochost"}, {"qvcudadownload", "qvvideoprochost"}};
  for (const auto& x : aszExpected) {
    GstElementFactory* pxFactory = gst_element_factory_find(x[0]);
    ASSERT_NE(nullptr, pxFactory) << x[0];
    EXPECT_STREQ(x[1], gst_plugin_feature_get_plugin_name(GST_PLUGIN_FEATURE(pxFactory)));
    gst_object_unref(pxFactory);
  }
}

}  // namespace
