// The height rules of the relabelling filters. Each class keeps one process-wide maximum that
// only moves one way, so each test below walks one class through its sequence from the start
// (this executable runs nothing else that asks these classes).
#include <gst/base/gstbasetransform.h>
#include <gtest/gtest.h>

#include <string>

#include "GstTestUtil.h"
#include "gstqvHostElements.h"

namespace {

class CapsHeightTest : public ::testing::Test {
 protected:
  void Make(const char* szName) {
    ASSERT_TRUE(qv_register_host_elements());
    m_pxElement = gst_element_factory_make(szName, NULL);
    ASSERT_NE(nullptr, m_pxElement);
  }
  void TearDown() override {
    if (m_pxElement) gst_object_unref(m_pxElement);
  }
  GstCaps* Transform(GstPadDirection eDirection, GstCaps* pxCaps, GstCaps* pxFilter = NULL) {
    return GST_BASE_TRANSFORM_GET_CLASS(m_pxElement)
        ->transform_caps(GST_BASE_TRANSFORM(m_pxElement), eDirection, pxCaps, pxFilter);
  }
  // The height that the sink side's bayer caps of this height turn into.
  int HeightFor(GstPadDirection eDirection, const char* szName, int iHeight) {
    GstCaps* pxCaps = gst_caps_new_simple(szName, "width", G_TYPE_INT, 640, "height", G_TYPE_INT,
                                          iHeight, "framerate", GST_TYPE_FRACTION, 30, 1, NULL);
    GstCaps* pxOut = Transform(eDirection, pxCaps);
    int iOut = -1;
    gst_structure_get_int(gst_caps_get_structure(pxOut, 0), "height", &iOut);
    gst_caps_unref(pxOut);
    gst_caps_unref(pxCaps);
    return iOut;
  }
  GstElement* m_pxElement = nullptr;
};

TEST_F(CapsHeightTest, Bayer2RgbDividesHeightsAtOrAboveTheLargestSeen) {
  Make("qvbayer2rgb");
  // A height not divisible by three truncates: 1000 gives 333.
  EXPECT_EQ(333, HeightFor(GST_PAD_SINK, "video/x-bayer", 1000));
  // 3000 gives 1000, and the given caps now say 1000, so asking again gives 1000 again.
  GstCaps* pxCaps =
      gst_caps_from_string("video/x-bayer,format=grbg,width=1920,height=3000,framerate=30/1");
  GstCaps* pxOut = Transform(GST_PAD_SINK, pxCaps);
  EXPECT_TRUE(QvTest::CapsEqualString(pxOut, "video/x-raw,width=1920,height=1000,framerate=30/1"));
  gst_caps_unref(pxOut);
  int iHeight = 0;
  gst_structure_get_int(gst_caps_get_structure(pxCaps, 0), "height", &iHeight);
  EXPECT_EQ(1000, iHeight);
  pxOut = Transform(GST_PAD_SINK, pxCaps);
  EXPECT_TRUE(QvTest::CapsEqualString(pxOut, "video/x-raw,width=1920,height=1000,framerate=30/1"));
  gst_caps_unref(pxOut);
  gst_caps_unref(pxCaps);
  // Below the largest height seen the height stays, whichever side asks.
  EXPECT_EQ(1000, HeightFor(GST_PAD_SINK, "video/x-bayer", 1000));
  EXPECT_EQ(2999, HeightFor(GST_PAD_SRC, "video/x-raw", 2999));
  // Caps held elsewhere are not changed.
  pxCaps = gst_caps_from_string("video/x-bayer,width=8,height=6000");
  gst_caps_ref(pxCaps);
  pxOut = Transform(GST_PAD_SINK, pxCaps);
  EXPECT_TRUE(QvTest::CapsEqualString(pxOut, "video/x-raw,width=8,height=2000"));
  gst_structure_get_int(gst_caps_get_structure(pxCaps, 0), "height", &iHeight);
  EXPECT_EQ(6000, iHeight);
  gst_caps_unref(pxOut);
  gst_caps_unref(pxCaps);
  gst_caps_unref(pxCaps);
}

TEST_F(CapsHeightTest, Bayer2RgbMakesBayerCapsFromTheSourceSideAndRawCapsFromTheSink) {
  Make("qvbayer2rgb");
  GstCaps* pxCaps = gst_caps_from_string("video/x-raw,format=RGB,width=[1,100],height=[1,MAX]");
  GstCaps* pxOut = Transform(GST_PAD_SRC, pxCaps);
  // A height range goes across as it is.
  EXPECT_TRUE(QvTest::CapsEqualString(
      pxOut, "video/x-bayer,format={bggr,grbg,gbrg,rggb},width=[1,100],height=[1,MAX]"));
  gst_caps_unref(pxOut);
  gst_caps_unref(pxCaps);
  pxCaps = gst_caps_from_string("video/x-bayer,format=rggb,width=64,height={480,960}");
  pxOut = Transform(GST_PAD_SINK, pxCaps);
  EXPECT_TRUE(QvTest::CapsEqualString(pxOut, "video/x-raw,width=64,height={480,960}"));
  gst_caps_unref(pxOut);
  // The filter is intersected first.
  GstCaps* pxFilter = gst_caps_from_string("video/x-raw,format=RGB;video/x-raw,format=BGR");
  pxOut = Transform(GST_PAD_SINK, pxCaps, pxFilter);
  EXPECT_TRUE(QvTest::CapsEqualString(pxOut,
                                      "video/x-raw,format=RGB,width=64,height={480,960};"
                                      "video/x-raw,format=BGR,width=64,height={480,960}"));
  gst_caps_unref(pxOut);
  gst_caps_unref(pxFilter);
  gst_caps_unref(pxCaps);
  // Empty and ANY caps give the other side's caps with nothing fixed.
  pxCaps = gst_caps_new_any();
  pxOut = Transform(GST_PAD_SINK, pxCaps);
  EXPECT_TRUE(QvTest::CapsEqualString(pxOut, "video/x-raw"));
  gst_caps_unref(pxOut);
  gst_caps_unref(pxCaps);
}

TEST_F(CapsHeightTest, Rgb2BayerMultipliesPositiveHeightsAtOrBelowTheSmallestSeen) {
  Make("qvrgb2bayer");
  testing::internal::CaptureStdout();
  EXPECT_EQ(3000, HeightFor(GST_PAD_SINK, "video/x-raw", 1000));
  // A later stream of 1200 lies above 1000 and stays.
  EXPECT_EQ(1200, HeightFor(GST_PAD_SINK, "video/x-raw", 1200));
  EXPECT_EQ(1500, HeightFor(GST_PAD_SRC, "video/x-bayer", 500));
  EXPECT_EQ(0, HeightFor(GST_PAD_SINK, "video/x-raw", 0));
  const std::string sOut = testing::internal::GetCapturedStdout();
  EXPECT_EQ(
      "Height before transform 1000\nHeight before transform 1200\n"
      "Height before transform 500\nHeight before transform 0\n",
      sOut);
  // The given caps take the new height, so the same caps give the same answer again.
  GstCaps* pxCaps = gst_caps_from_string("video/x-raw,format=RGB,width=4,height=400");
  testing::internal::CaptureStdout();
  GstCaps* pxOut = Transform(GST_PAD_SINK, pxCaps);
  EXPECT_TRUE(QvTest::CapsEqualString(
      pxOut, "video/x-bayer,format={bggr,grbg,gbrg,rggb},width=4,height=1200"));
  gst_caps_unref(pxOut);
  pxOut = Transform(GST_PAD_SINK, pxCaps);
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(QvTest::CapsEqualString(
      pxOut, "video/x-bayer,format={bggr,grbg,gbrg,rggb},width=4,height=1200"));
  gst_caps_unref(pxOut);
  gst_caps_unref(pxCaps);
  // The source side's caps become bare raw caps.
  pxCaps = gst_caps_from_string("video/x-bayer,format=grbg,width=4,height=[2,10]");
  pxOut = Transform(GST_PAD_SRC, pxCaps);
  EXPECT_TRUE(QvTest::CapsEqualString(pxOut, "video/x-raw,width=4,height=[2,10]"));
  gst_caps_unref(pxOut);
  gst_caps_unref(pxCaps);
}

TEST_F(CapsHeightTest, Bayer2LumKeepsTheSize) {
  Make("qvbayer2lum");
  GstCaps* pxCaps =
      gst_caps_from_string("video/x-bayer,format=gbrg,width=640,height=480,framerate=30/1");
  GstCaps* pxOut = Transform(GST_PAD_SINK, pxCaps);
  EXPECT_TRUE(QvTest::CapsEqualString(
      pxOut, "video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1"));
  gst_caps_unref(pxOut);
  gst_caps_unref(pxCaps);
  pxCaps = gst_caps_from_string("video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1");
  pxOut = Transform(GST_PAD_SRC, pxCaps);
  EXPECT_TRUE(QvTest::CapsEqualString(
      pxOut, "video/x-bayer,format={bggr,grbg,gbrg,rggb},width=640,height=480,framerate=30/1"));
  gst_caps_unref(pxOut);
  gst_caps_unref(pxCaps);
}

}  // namespace
