// The relabelling filters hand on the very buffer, untouched, under the relabelled caps.
#include "GstTestUtil.h"

TEST(CapsFilter, TheVeryBufferGoesOnWithItsMemoryMetaAndTimes) {
  ASSERT_TRUE(qv_register_host_elements());
  // Sizes chosen so that each filter's height rule takes the frame's own size at the first ask.
  for (auto [szName, szIn, szOut] :
       {std::tuple{"qvbayer2rgb", "video/x-bayer,format=grbg,width=4,height=6,framerate=30/1",
                   "video/x-raw,format=RGB,width=4,height=2,framerate=30/1"},
        {"qvrgb2bayer", "video/x-raw,format=RGB,width=4,height=2,framerate=30/1",
         "video/x-bayer,format=bggr,width=4,height=6,framerate=30/1"},
        {"qvbayer2lum", "video/x-bayer,format=rggb,width=6,height=4,framerate=30/1",
         "video/x-raw,format=GRAY8,width=6,height=4,framerate=30/1"}}) {
    Qv::CMessageCapture xMessages;
    auto h = QvTest::Harness(szName, szIn);
    // A buffer held elsewhere too is not writable; it still goes on as it is.
    for (bool bShared : {false, true}) {
      SCOPED_TRACE(std::string(szName) + (bShared ? " shared" : ""));
      GstBuffer* pxIn = QvTest::WithMeta(QvTest::BufferFromBytes(QvTest::FrameBytes(24, 3)),
                                         5 * GST_MSECOND, 0.01f, 1.5f);
      GstMemory* pxMemory = gst_buffer_peek_memory(pxIn, 0);
      GstMeta* pxMeta = gst_buffer_get_meta(pxIn, MY_META_INFO_API_TYPE);
      if (bShared) gst_buffer_ref(pxIn);
      g_autoptr(GstBuffer) pxOut = gst_harness_push_and_pull(h.get(), pxIn);
      ASSERT_EQ(pxIn, pxOut);
      EXPECT_EQ(pxMemory, gst_buffer_peek_memory(pxOut, 0));
      QvTest::ExpectMeta(pxOut, 5 * GST_MSECOND, 0.01f, 1.5f);
      EXPECT_EQ(pxMeta, gst_buffer_get_meta(pxOut, MY_META_INFO_API_TYPE));
      std::vector<uint8_t> xBytes(24);
      gst_buffer_extract(pxOut, 0, xBytes.data(), 24);
      EXPECT_EQ(QvTest::FrameBytes(24, 3), xBytes);
      if (bShared) gst_buffer_unref(pxIn);
    }
    EXPECT_TRUE(QvTest::CapsAre(gst_pad_get_current_caps(h->sinkpad), szOut)) << szName;
  }
}
