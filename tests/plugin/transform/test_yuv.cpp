// The YUV element through GstHarness: its caps, its output image and its failures.
#include "GstTestUtil.h"

using namespace Qv;

TEST(YuvElement, WhiteFrameBecomesAStackedLumImageUnderI420CapsAndFailuresSayWhy) {
  ASSERT_TRUE(qv_register_host_elements());
  auto h = QvTest::Harness("qvcudayuv", "video/x-raw,format=RGBA,width=6,height=4,framerate=25/1");
  CQvImage xMosaic(CQvImageFormat(6, 4, EPixelType::BayerGR, EDataType::UByte)),
      xWhite(CQvImageFormat(6, 4, EPixelType::RGBA, EDataType::UByte));
  std::memset(xWhite.GetDataPtr(), 255, xWhite.GetImageBytes());
  // A buffer that maps to nothing, a mosaic, and host memory instead of a device image.
  for (auto [pxIn, szText] :
       {std::pair{gst_buffer_new(), "  :   no image data available\n"},
        {QvTest::DeviceImageBuffer(xMosaic), "Source image has wrong format '6x4, BayerGR, UByte'"},
        {QvTest::BufferFromBytes(std::vector<uint8_t>(96, 1)),
         "buffer holds no device image but memory of type"}}) {
    const std::string sOut = QvTest::PushCaptured(h.get(), pxIn, GST_FLOW_ERROR);
    EXPECT_NE(std::string::npos, sOut.find(szText)) << sOut;
    EXPECT_NE(std::string::npos, sOut.find("exception catched: \n")) << sOut;
  }
  g_autoptr(GstBuffer) pxOut = gst_harness_push_and_pull(
      h.get(), QvTest::WithMeta(QvTest::DeviceImageBuffer(xWhite), 7, 0.02f, 2.0f));
  ASSERT_NE(nullptr, pxOut);
  QvTest::ExpectMeta(pxOut, 7, 0.02f, 2.0f);
  // One and a half times the height: luma 255, both chroma areas 127.
  const CQvImage xImage = QvTest::DownloadBufferImage(pxOut);
  EXPECT_EQ(CQvImageFormat(6, 6, EPixelType::Lum, EDataType::UByte), xImage.GetFormat());
  std::vector<uint8_t> xWant(36, 127);
  std::fill(xWant.begin(), xWant.begin() + 24, 255);
  EXPECT_EQ(xWant, QvTest::Bytes(xImage));
  EXPECT_TRUE(QvTest::CapsAre(
      gst_pad_get_current_caps(h->sinkpad),
      "video/x-raw,format=I420,colorimetry=1:4:0:0,width=6,height=4,framerate=25/1"));
}

// Sizes whose chroma planes the stacked image cannot hold are refused before the first frame.
TEST(YuvElement, I420SizesTheStackedImageCannotHoldAreRefusedAtNegotiation) {
  ASSERT_TRUE(qv_register_host_elements());
  // The last one is I420 into the download alone.
  const int aSizes[][2] = {{64, 47}, {63, 48}, {64, 46}, {62, 46}};
  for (const auto& a : aSizes) {
    const std::string sSize = std::to_string(a[0]) + "x" + std::to_string(a[1]);
    const bool bAlone = &a == &aSizes[3];
    auto h = QvTest::Harness(bAlone ? "qvcudadownload" : "qvcudayuv", nullptr);
    g_autoptr(GstBus) pxBus = gst_bus_new();
    gst_element_set_bus(h->element, pxBus);
    gst_harness_set_src_caps(
        h.get(),
        gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, bAlone ? "I420" : "RGBA",
                            "width", G_TYPE_INT, a[0], "height", G_TYPE_INT, a[1], NULL));
    EXPECT_EQ(GST_FLOW_NOT_NEGOTIATED, gst_harness_push(h.get(), gst_buffer_new()));
    g_autoptr(GstMessage) pxError = gst_bus_pop_filtered(pxBus, GST_MESSAGE_ERROR);
    gst_bus_set_flushing(pxBus, TRUE);
    EXPECT_TRUE(pxError && QvTest::MessageText(pxError).find("I420 frame of " + sSize +
                                                             " is not") != std::string::npos)
        << sSize;
  }
}
