// The YUV element through GstHarness: its caps, its output image and its failures.

#include <algorithm>

#include "GstTestUtil.h"
#include "gstqvHostElements.h"

using namespace Qv;

CQvImage Filled(EPixelType::ID ePixel, uint8_t uValue) {
  CQvImage x(CQvImageFormat(6, 4, ePixel, EDataType::UByte));
  std::memset(x.GetDataPtr(), uValue, x.GetImageBytes());
  return x;
}

TEST(YuvElement, WhiteFrameBecomesAStackedLumImageUnderI420CapsAndFailuresSayWhy) {
  ASSERT_TRUE(qv_register_host_elements());
  GstHarness* h = gst_harness_new("qvcudayuv");
  gst_harness_set_src_caps_str(h, "video/x-raw,format=RGBA,width=6,height=4,framerate=25/1");
  // A buffer that maps to nothing, a mosaic, and host memory instead of a device image.
  for (auto [pxIn, szText] : {std::pair{gst_buffer_new(), "  :   no image data available\n"},
                              {QvTest::DeviceImageBuffer(Filled(EPixelType::BayerGR, 1)),
                               "Source image has wrong format '6x4, BayerGR, UByte'"},
                              {QvTest::BufferFromBytes(std::vector<uint8_t>(96, 1)),
                               "buffer holds no device image but memory of type"}}) {
    const std::string sOut = QvTest::PushCaptured(h, pxIn, GST_FLOW_ERROR);
    EXPECT_NE(std::string::npos, sOut.find(szText)) << sOut;
    EXPECT_NE(std::string::npos, sOut.find("exception catched: \n"));
  }
  GstBuffer* pxIn = QvTest::DeviceImageBuffer(Filled(EPixelType::RGBA, 255));
  GstBuffer* pxOut = gst_harness_push_and_pull(h, QvTest::WithMeta(pxIn, 7, 0.02f, 2.0f));
  ASSERT_NE(nullptr, pxOut);
  QvTest::ExpectMeta(pxOut, 7, 0.02f, 2.0f);
  // One and a half times the height: luma 255, both chroma areas 127.
  const CQvImage xImage = QvTest::DownloadBufferImage(pxOut);
  ASSERT_EQ(CQvImageFormat(6, 6, EPixelType::Lum, EDataType::UByte), xImage.GetFormat());
  const auto* p = static_cast<const uint8_t*>(xImage.GetDataPtr());
  std::vector<uint8_t> xWant(36, 127);
  std::fill(xWant.begin(), xWant.begin() + 24, 255);
  EXPECT_EQ(xWant, std::vector<uint8_t>(p, p + 36));
  gst_buffer_unref(pxOut);
  EXPECT_TRUE(QvTest::CapsAre(gst_pad_get_current_caps(h->sinkpad),
                              "video/x-raw,format=I420,width=6,height=4,framerate=25/1"));
  gst_harness_teardown(h);
}
