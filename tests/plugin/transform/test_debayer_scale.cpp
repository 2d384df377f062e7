// The debayer element against a reference worked out here, and the scale element.
#include "GstTestUtil.h"
#include "transform/gstqvCudaScale.h"

using namespace Qv;
using QvTest::CapsAre;

TEST(Debayer, EveryBayerOrderGivesTheReferenceBytesWithTimesAndMeta) {
  // Odd width: the last column repeats the edge in a phase of its own.
  const int W = 9, H = 6;
  auto h =
      QvTest::Harness("qvcudadebayer", "video/x-raw,format=GRAY8,width=9,height=6,framerate=30/1");
  // Each order with the place of red in its 2 x 2 block.
  for (auto [ePixel, iRedX, iRedY] : {std::tuple{EPixelType::BayerGR, 1, 0},
                                      {EPixelType::BayerRG, 0, 0},
                                      {EPixelType::BayerGB, 0, 1},
                                      {EPixelType::BayerBG, 1, 1}}) {
    const CQvImage xMosaic = QvTest::SeededImage(W, H, ePixel, ePixel);
    g_autoptr(GstBuffer) pxOut = gst_harness_push_and_pull(
        h.get(), QvTest::WithMeta(QvTest::DeviceImageBuffer(xMosaic), 7 * GST_SECOND, 0.02f, 2.0f));
    ASSERT_NE(nullptr, pxOut);
    QvTest::ExpectMeta(pxOut, 7 * GST_SECOND, 0.02f, 2.0f);
    const CQvImage xImage = QvTest::DownloadBufferImage(pxOut);
    EXPECT_EQ(CQvImageFormat(W, H, EPixelType::RGBA, EDataType::UByte), xImage.GetFormat());
    EXPECT_EQ(QvTest::DemosaicReference(QvTest::Bytes(xMosaic), W, H, iRedX, iRedY),
              QvTest::Bytes(xImage))
        << "bayer order " << ePixel;
  }
  EXPECT_TRUE(CapsAre(gst_pad_get_current_caps(h->sinkpad),
                      "video/x-raw,format=RGBA,width=9,height=6,framerate=30/1"));
}

TEST(Debayer, NoMosaicGivesAnEmptyImageAndNoImageFailsTheFrameOnly) {
  auto h =
      QvTest::Harness("qvcudadebayer", "video/x-raw,format=GRAY8,width=4,height=4,framerate=30/1");
  const std::string sOut = QvTest::PushCaptured(h.get(), gst_buffer_new(), GST_FLOW_ERROR);
  EXPECT_NE(std::string::npos, sOut.find("no image data found")) << sOut;
  g_autoptr(GstBuffer) pxOut = gst_harness_push_and_pull(
      h.get(), QvTest::DeviceImageBuffer(QvTest::SeededImage(4, 4, EPixelType::RGBA, 1)));
  GstMapInfo xMap;
  ASSERT_TRUE(pxOut && gst_buffer_map(pxOut, &xMap, GST_MAP_READ));
  EXPECT_FALSE(reinterpret_cast<CQvDeviceImage2D*>(xMap.data)->IsValid());
  gst_buffer_unmap(pxOut, &xMap);
}

TEST(Scale, FixedSizesBecomeTheTargetRangesStayAndColorimetryGoes) {
  g_autoptr(GstElement) pxScale = gst_element_factory_make("qvcudascale", NULL);
  for (auto [e, szIn, szFilter, szOut] :
       {std::tuple{GST_PAD_SINK, "video/x-raw,format=RGBA,width=7680,height=3568,framerate=30/1",
                   (const char*)NULL,
                   "video/x-raw,format=RGBA,width=3840,height=1784,framerate=30/1"},
        {GST_PAD_SRC, "video/x-raw,format=RGBA,width=100,height=[1,50]", NULL,
         "video/x-raw,format=RGBA,width=3840,height=[1,50],framerate=(fraction)[0/1,MAX]"},
        {GST_PAD_SINK, "video/x-raw,format=RGBA,width=[16,4096],height={480,720},colorimetry=bt709",
         NULL,
         "video/x-raw,format=RGBA,width=[16,4096],height={480,720},framerate=(fraction)[0/1,MAX]"},
        {GST_PAD_SINK, "video/x-raw,format=RGBA,width=64,height=64", "video/x-raw,format=GRAY8",
         "EMPTY"}})
    EXPECT_TRUE(CapsAre(QvTest::TransformCaps(pxScale, e, szIn, szFilter), szOut)) << szIn;
}

TEST(Scale, FramesComeOutAtTheTargetSize) {
  iScaledWidth = 8;
  iScaledHeight = 3;
  auto h = QvTest::Harness("qvcudaupload ! qvcudadebayer ! qvcudascale",
                           "video/x-bayer,format=grbg,width=16,height=6,framerate=30/1");
  g_autoptr(GstBuffer) pxOut =
      gst_harness_push_and_pull(h.get(), QvTest::BufferFromBytes(QvTest::FrameBytes(96, 2)));
  ASSERT_NE(nullptr, pxOut);
  EXPECT_EQ(CQvImageFormat(8, 3, EPixelType::RGBA, EDataType::UByte),
            QvTest::DownloadBufferImage(pxOut).GetFormat());
  EXPECT_TRUE(CapsAre(gst_pad_get_current_caps(h->sinkpad),
                      "video/x-raw,format=RGBA,width=8,height=3,framerate=30/1"));
  iScaledWidth = 3840;
  iScaledHeight = 1784;
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
