// The height rules of the relabelling filters. Each class keeps one process-wide bound that only
// moves one way, so the rows run in order in a process of their own.
#include "GstTestUtil.h"

#define BAYER "video/x-bayer,format={bggr,grbg,gbrg,rggb},"

TEST(CapsHeight, EachFilterDividesOrMultipliesByItsBoundAndLeavesTheRest) {
  ASSERT_TRUE(qv_register_host_elements());
  std::map<std::string, GstElement*> xElements;
  for (const char* szName : {"qvbayer2rgb", "qvrgb2bayer", "qvbayer2lum"})
    xElements[szName] = gst_element_factory_make(szName, NULL);
  const GstPadDirection SINK = GST_PAD_SINK, SRC = GST_PAD_SRC;
  const struct {
    const char* szElement;
    GstPadDirection e;
    const char *szIn, *szOut, *szFilter = NULL;
  } aRows[] = {
      // qvbayer2rgb divides a height at or above the largest seen (truncating), else keeps it.
      {"qvbayer2rgb", SINK, "video/x-bayer,width=640,height=1000,framerate=30/1",
       "video/x-raw,width=640,height=333,framerate=30/1"},
      {"qvbayer2rgb", SINK, "video/x-bayer,width=1920,height=3000",
       "video/x-raw,width=1920,height=1000"},
      {"qvbayer2rgb", SINK, "video/x-bayer,width=640,height=1000",
       "video/x-raw,width=640,height=1000"},
      {"qvbayer2rgb", SRC, "video/x-raw,width=640,height=2999", BAYER "width=640,height=2999"},
      {"qvbayer2rgb", SRC, "video/x-raw,format=RGB,width=[1,100],height=[1,MAX]",
       BAYER "width=[1,100],height=[1,MAX]"},
      {"qvbayer2rgb", SINK, "video/x-bayer,format=rggb,width=64,height={480,960}",
       "video/x-raw,format=RGB,width=64,height={480,960};video/x-raw,format=BGR,width=64,height={"
       "480,960}",
       "video/x-raw,format=RGB;video/x-raw,format=BGR"},
      {"qvbayer2rgb", SINK, "ANY", "video/x-raw"},
      // qvrgb2bayer multiplies a positive height at or below the smallest seen, else keeps it.
      {"qvrgb2bayer", SINK, "video/x-raw,width=640,height=1000,framerate=30/1",
       BAYER "width=640,height=3000,framerate=30/1"},
      {"qvrgb2bayer", SINK, "video/x-raw,width=640,height=1200", BAYER "width=640,height=1200"},
      {"qvrgb2bayer", SRC, "video/x-bayer,width=640,height=500",
       "video/x-raw,width=640,height=1500"},
      {"qvrgb2bayer", SINK, "video/x-raw,width=640,height=0", BAYER "width=640,height=0"},
      {"qvrgb2bayer", SRC, "video/x-bayer,format=grbg,width=4,height=[2,10]",
       "video/x-raw,width=4,height=[2,10]"},
      {"qvbayer2lum", SINK, "video/x-bayer,format=gbrg,width=640,height=480,framerate=30/1",
       "video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1"},
      {"qvbayer2lum", SRC, "video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1",
       BAYER "width=640,height=480,framerate=30/1"}};
  Qv::CMessageCapture xMessages;
  for (const auto& r : aRows)
    EXPECT_TRUE(QvTest::CapsAre(
        QvTest::TransformCaps(xElements[r.szElement], r.e, r.szIn, r.szFilter), r.szOut))
        << r.szElement << " " << r.szIn;
  EXPECT_EQ(
      "Height before transform 1000\nHeight before transform 1200\n"
      "Height before transform 500\nHeight before transform 0\n",
      xMessages.Text());

  // Writable caps take the new height, so asking again gives the same; held ones stay.
  for (auto [szElement, szIn, iOut, iGiven, bShared] :
       {std::tuple{"qvbayer2rgb", "video/x-bayer,width=8,height=6000", 2000, 2000, false},
        {"qvbayer2rgb", "video/x-bayer,width=8,height=9000", 3000, 9000, true},
        {"qvrgb2bayer", "video/x-raw,width=4,height=400", 1200, 1200, false}}) {
    g_autoptr(GstCaps) pxCaps = gst_caps_from_string(szIn);
    g_autoptr(GstCaps) pxHeld = bShared ? gst_caps_ref(pxCaps) : NULL;
    GstBaseTransform* pxElement = GST_BASE_TRANSFORM(xElements[szElement]);
    for (int i = 0; i < 2; ++i) {
      g_autoptr(GstCaps) pxOut = GST_BASE_TRANSFORM_GET_CLASS(pxElement)->transform_caps(
          pxElement, GST_PAD_SINK, pxCaps, NULL);
      int aHeights[2] = {0, 0};
      gst_structure_get_int(gst_caps_get_structure(pxOut, 0), "height", &aHeights[0]);
      gst_structure_get_int(gst_caps_get_structure(pxCaps, 0), "height", &aHeights[1]);
      EXPECT_EQ(std::pair(iOut, iGiven), std::pair(aHeights[0], aHeights[1])) << szIn << " " << i;
    }
  }
  for (auto& x : xElements) gst_object_unref(x.second);
}
