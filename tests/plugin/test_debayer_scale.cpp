// The debayer and scale elements: bytes of every bayer order against a reference worked out
// here, the empty-image and failure paths, and the scale element's own negotiation.
#include <tuple>

#include "GstTestUtil.h"
#include "gstqvCudaScale.h"

using namespace Qv;
using QvTest::CapsAre;
using QvTest::TransformCaps;

const char* kGray = "video/x-raw,format=GRAY8,width=9,height=6,framerate=30/1";

TEST(Debayer, EveryBayerOrderGivesTheReferenceBytesWithTimesAndMeta) {
  // Odd width: the last column repeats the edge in a phase of its own.
  const int W = 9, H = 6;
  GstHarness* h = gst_harness_new("qvcudadebayer");
  gst_harness_set_src_caps_str(h, kGray);
  // Each order with the place of red in its 2 x 2 block.
  for (auto [ePixel, iRedX, iRedY] : {std::tuple{EPixelType::BayerGR, 1, 0},
                                      {EPixelType::BayerRG, 0, 0},
                                      {EPixelType::BayerGB, 0, 1},
                                      {EPixelType::BayerBG, 1, 1}}) {
    const CQvImage xMosaic = QvTest::SeededImage(W, H, ePixel, ePixel);
    GstBuffer* pxOut = gst_harness_push_and_pull(
        h, QvTest::WithMeta(QvTest::DeviceImageBuffer(xMosaic), 7 * GST_SECOND, 0.02f, 2.0f));
    ASSERT_NE(nullptr, pxOut);
    QvTest::ExpectMeta(pxOut, 7 * GST_SECOND, 0.02f, 2.0f);
    const CQvImage xImage = QvTest::DownloadBufferImage(pxOut);
    gst_buffer_unref(pxOut);
    ASSERT_EQ(CQvImageFormat(W, H, EPixelType::RGBA, EDataType::UByte), xImage.GetFormat());
    EXPECT_EQ(QvTest::DemosaicReference(QvTest::Bytes(xMosaic), W, H, iRedX, iRedY),
              QvTest::Bytes(xImage))
        << "bayer order " << ePixel;
  }
  EXPECT_TRUE(CapsAre(gst_pad_get_current_caps(h->sinkpad),
                      "video/x-raw,format=RGBA,width=9,height=6,framerate=30/1"));
  gst_harness_teardown(h);
}

TEST(Debayer, NoMosaicGivesAnEmptyImageAndNoImageFailsTheFrameOnly) {
  GstHarness* h = gst_harness_new("qvcudadebayer");
  gst_harness_set_src_caps_str(h, kGray);
  const std::string sOut = QvTest::PushCaptured(h, gst_buffer_new(), GST_FLOW_ERROR);
  EXPECT_NE(std::string::npos, sOut.find("no image data found")) << sOut;
  GstBuffer* pxOut = gst_harness_push_and_pull(
      h, QvTest::DeviceImageBuffer(QvTest::SeededImage(4, 4, EPixelType::RGBA, 1)));
  ASSERT_NE(nullptr, pxOut);
  GstMapInfo xMap;
  ASSERT_TRUE(gst_buffer_map(pxOut, &xMap, GST_MAP_READ));
  EXPECT_FALSE(reinterpret_cast<CQvDeviceImage2D*>(xMap.data)->IsValid());
  gst_buffer_unmap(pxOut, &xMap);
  gst_buffer_unref(pxOut);
  gst_harness_teardown(h);
}

TEST(Negotiation, DebayerChangesTheFormatAndScaleTheSize) {
  GstElement* pxDebayer = gst_element_factory_make("qvcudadebayer", NULL);
  GstElement* pxScale = gst_element_factory_make("qvcudascale", NULL);
  const struct {
    GstElement* pxElement;
    GstPadDirection e;
    const char *szIn, *szFilter, *szOut;
  } aCases[] = {
      {pxDebayer, GST_PAD_SINK, "video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1",
       NULL, "video/x-raw,format=RGBA,width=640,height=480,framerate=30/1"},
      {pxDebayer, GST_PAD_SRC, "video/x-raw,format=RGBA,width=64,height=48,framerate=5/1", NULL,
       "video/x-raw,format=GRAY8,width=64,height=48,framerate=5/1"},
      // A fixed size becomes the target size either way; ranges stay, colorimetry goes.
      {pxScale, GST_PAD_SINK, "video/x-raw,format=RGBA,width=7680,height=3568,framerate=30/1", NULL,
       "video/x-raw,format=RGBA,width=3840,height=1784,framerate=30/1"},
      {pxScale, GST_PAD_SRC, "video/x-raw,format=RGBA,width=100,height=[1,50]", NULL,
       "video/x-raw,format=RGBA,width=3840,height=[1,50],framerate=(fraction)[0/1,MAX]"},
      {pxScale, GST_PAD_SINK,
       "video/x-raw,format=RGBA,width=[16,4096],height={480,720},colorimetry=bt709", NULL,
       "video/x-raw,format=RGBA,width=[16,4096],height={480,720},framerate=(fraction)[0/1,MAX]"},
      {pxScale, GST_PAD_SINK, "video/x-raw,format=RGBA,width=64,height=64",
       "video/x-raw,format=GRAY8", "EMPTY"}};
  for (const auto& c : aCases)
    EXPECT_TRUE(CapsAre(TransformCaps(c.pxElement, c.e, c.szIn, c.szFilter), c.szOut)) << c.szIn;
  gst_object_unref(pxDebayer);
  gst_object_unref(pxScale);
}

TEST(Scale, FramesComeOutAtTheTargetSize) {
  iScaledWidth = 8;
  iScaledHeight = 3;
  GstHarness* h = gst_harness_new_parse("qvcudaupload ! qvcudadebayer ! qvcudascale");
  gst_harness_set_src_caps_str(h, "video/x-bayer,format=grbg,width=16,height=6,framerate=30/1");
  GstBuffer* pxOut =
      gst_harness_push_and_pull(h, QvTest::BufferFromBytes(QvTest::FrameBytes(96, 2)));
  ASSERT_NE(nullptr, pxOut);
  EXPECT_EQ(CQvImageFormat(8, 3, EPixelType::RGBA, EDataType::UByte),
            QvTest::DownloadBufferImage(pxOut).GetFormat());
  EXPECT_TRUE(CapsAre(gst_pad_get_current_caps(h->sinkpad),
                      "video/x-raw,format=RGBA,width=8,height=3,framerate=30/1"));
  gst_buffer_unref(pxOut);
  gst_harness_teardown(h);
  iScaledWidth = 3840;
  iScaledHeight = 1784;
}

TEST(Plugin, RegistersExactlyItsFactories) {
  for (const char* szName : {"qvcudaupload", "qvcudadebayer", "qvcudascale"}) {
    GstElementFactory* pxFactory = gst_element_factory_find(szName);
    EXPECT_NE(nullptr, pxFactory) << szName;
    if (pxFactory) gst_object_unref(pxFactory);
  }
  for (const char* szName : {"qvcudanormalize", "qvcudayuv", "qvcudadownload"})
    EXPECT_EQ(nullptr, gst_element_factory_find(szName)) << szName;
}
