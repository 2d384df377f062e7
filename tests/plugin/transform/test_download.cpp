// The download element: pinned frames of exactly one frame, its pool, and its failures.
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "GstTestUtil.h"

using namespace Qv;
using QvTest::DeviceImageBuffer;
using QvTest::SeededImage;
const auto RGBA = EPixelType::RGBA, Lum = EPixelType::Lum;
const auto U8 = EDataType::UByte, U16 = EDataType::UShort;

std::string Caps(const char* szFormat, int w, int h) {
  return std::string("video/x-raw,format=") + szFormat + ",width=" + std::to_string(w) +
         ",height=" + std::to_string(h) + ",framerate=30/1";
}

class DownloadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(qv_register_host_elements());
    h = gst_harness_new("qvcudadownload");
  }
  void TearDown() override { gst_harness_teardown(h); }
  // The frame's bytes, with what the element printed. Times and camera settings go across.
  std::vector<uint8_t> Pull(GstBuffer* pxIn, std::string* psOut = nullptr) {
    const std::string sOut =
        QvTest::PushCaptured(h, QvTest::WithMeta(pxIn, 3 * GST_SECOND, 0.5f, 4.0f), GST_FLOW_OK);
    if (psOut) *psOut = sOut;
    g_autoptr(GstBuffer) pxOut = gst_harness_pull(h);
    std::vector<uint8_t> x(pxOut ? gst_buffer_get_size(pxOut) : 0);
    if (!pxOut) return x;
    QvTest::ExpectMeta(pxOut, 3 * GST_SECOND, 0.5f, 4.0f);
    EXPECT_TRUE(gst_memory_is_type(gst_buffer_peek_memory(pxOut, 0), "MySysMem"));
    gst_buffer_extract(pxOut, 0, x.data(), x.size());
    return x;
  }
  GstHarness* h = nullptr;
};

// In a process of its own, where nothing has registered the allocators yet: the output step
// of a transform registers the device image one, the download the pinned one.
TEST(DownloadAlone, RegistersTheAllocatorsTheFramesComeFrom) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const bool bNone = !gst_allocator_find("MySysMem") && !gst_allocator_find("QvCudaDevImage");
        GstBuffer* pxIn = DeviceImageBuffer(SeededImage(2, 2, RGBA, 1));
        qv_register_host_elements();
        auto h = QvTest::Harness("qvcudadownload", Caps("RGBA", 2, 2).c_str());
        const bool bDevice = gst_memory_is_type(gst_buffer_peek_memory(pxIn, 0), "QvCudaDevImage");
        GstBuffer* pxOut = gst_harness_push_and_pull(h.get(), pxIn);
        const bool bPinned =
            pxOut && gst_memory_is_type(gst_buffer_peek_memory(pxOut, 0), "MySysMem");
        _exit(bNone && bDevice && bPinned ? 0 : 1);  // no exit handlers, no leak report
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(DownloadTest, ImagesBecomeFramesOfExactlyOneFrameSize) {
  // The pool's buffers hold two frames, the output one. A stacked I420 image (luma rows, then U
  // and V of a quarter each, rows of W) is the I420 frame in its own strides (width 20: chroma
  // rows of 10 lie 12 apart); 16 bits keep the high byte; a mosaic passes the colour path and
  // fills plane Y.
  for (auto [szCaps, w, h, iImageH, ePixel, eData, uCompared, szOut] :
       {std::tuple{"RGBA", 1920, 1080, 1080, RGBA, U8, 1920 * 1080 * 4,
                   "download format: 1920x1080, RGBA, UByte\n"},
        {"I420", 1920, 1080, 1620, Lum, U8, 1920 * 1620, ""},
        {"I420", 20, 8, 12, Lum, U8, 20 * 12, ""},
        {"I420", 20, 8, 12, Lum, U16, 20 * 12, ""},
        {"I420", 32, 8, 8, EPixelType::BayerGR, U8, 32 * 8,
         "download format: 32x8, BayerGR, UByte\n"}}) {
    SCOPED_TRACE(Caps(szCaps, w, h));
    gst_harness_set_src_caps_str(this->h, Caps(szCaps, w, h).c_str());
    const CQvImage xImage = SeededImage(w, iImageH, ePixel, w, eData);
    std::string sOut;
    const std::vector<uint8_t> x = Pull(DeviceImageBuffer(xImage), &sOut);
    EXPECT_EQ(szOut, sOut);
    GstVideoInfo xInfo;
    gst_video_info_set_format(&xInfo, gst_video_format_from_string(szCaps), w, h);
    ASSERT_EQ(GST_VIDEO_INFO_SIZE(&xInfo), x.size());
    const auto* p8 = static_cast<const uint8_t*>(xImage.GetDataPtr());
    const auto* p16 = static_cast<const uint16_t*>(xImage.GetDataPtr());
    // The image's samples in order, plane by plane and row by row, at the frame's offsets.
    int iWrong = 0, i = 0;
    for (guint c = 0; c < GST_VIDEO_INFO_N_PLANES(&xInfo); ++c) {
      const int iRow =
          GST_VIDEO_INFO_COMP_WIDTH(&xInfo, c) * GST_VIDEO_INFO_COMP_PSTRIDE(&xInfo, c);
      for (int b = 0; b < iRow * GST_VIDEO_INFO_COMP_HEIGHT(&xInfo, c) && i < uCompared; ++b, ++i)
        iWrong += x[xInfo.offset[c] + b / iRow * xInfo.stride[c] + b % iRow] !=
                  (eData == U16 ? p16[i] >> 8 : p8[i]);
    }
    EXPECT_EQ(0, iWrong);
  }
}

TEST_F(DownloadTest, BadInputFailsTheFrameWithItsCauseAndTheNextOnePasses) {
  const auto Image = [](int w, int h, EPixelType::ID ePixel, EDataType::ID eData) {
    return [=] { return DeviceImageBuffer(SeededImage(w, h, ePixel, 7, eData)); };
  };
  for (const auto& [sCaps, fnMake, szText] :
       std::vector<std::tuple<std::string, std::function<GstBuffer*()>, const char*>>{
           {Caps("RGBA", 4, 2), [] { return gst_buffer_new(); },
            "  :   No device image in meta found\n"},
           {Caps("RGBA", 4, 2), Image(4, 2, EPixelType::BayerGR, U8),
            "  :   cannot copy QvImage to gstframe\n"},
           {Caps("RGBA", 4, 2), [] { return QvTest::BufferFromBytes(std::vector<uint8_t>(32, 1)); },
            "buffer holds no device image but memory of type"},
           {Caps("RGBA", 4, 2), Image(2, 2, RGBA, U8), "the image is smaller than the frame"},
           {Caps("I420", 16, 8), Image(16, 6, Lum, U8),
            "the planar image holds a frame of 16x4, the caps say 16x8"},
           {Caps("I420", 16, 8), Image(16, 12, Lum, EDataType::Float),
            "a planar image of data type 'Float' cannot go into an 8-bit frame"},
           // Twice this frame is past what a pool buffer holds; nothing that large is allocated.
           {Caps("RGBA", 16384, 32769), Image(4, 2, RGBA, U8),
            "a frame over 2 GiB does not fit the output pool"},
           {Caps("RGBA", 16, 8), Image(16, 12, Lum, U8),
            "a planar image cannot go into a RGBA frame"}}) {
    gst_harness_set_src_caps_str(h, sCaps.c_str());
    const std::string sOut = QvTest::PushCaptured(h, fnMake(), GST_FLOW_ERROR);
    EXPECT_NE(std::string::npos, sOut.find(szText)) << szText << "\n" << sOut;
  }
  const CQvImage xGood = SeededImage(16, 8, RGBA, 9);
  EXPECT_EQ(QvTest::Bytes(xGood), Pull(DeviceImageBuffer(xGood)));
}

TEST_F(DownloadTest, PoolFollowsTheFrameSizeAndAFourthFrameWaitsForOneOfThree) {
  Qv::CMessageCapture xMessages;
  gst_harness_set_src_caps_str(h, Caps("RGBA", 2, 2).c_str());
  g_autoptr(GstBuffer) pxSmall =
      gst_harness_push_and_pull(h, DeviceImageBuffer(SeededImage(2, 2, RGBA, 1)));
  gst_harness_set_src_caps_str(h, Caps("RGBA", 4, 4).c_str());
  const CQvImage xImage = SeededImage(4, 4, RGBA, 15);
  std::vector<GstBuffer*> xHeld;
  for (int i = 0; i < 3; ++i)
    xHeld.push_back(gst_harness_push_and_pull(h, DeviceImageBuffer(xImage)));
  ASSERT_TRUE(pxSmall && xHeld[2]);
  EXPECT_NE(pxSmall->pool, xHeld[0]->pool);
  // With three frames downstream the pool has none left, so a fourth waits for one to return.
  GstBufferPoolAcquireParams xDontWait = {
      GST_FORMAT_UNDEFINED, 0, 0, GST_BUFFER_POOL_ACQUIRE_FLAG_DONTWAIT, {}};
  GstBuffer* pxSpare = NULL;
  EXPECT_EQ(GST_FLOW_EOS, gst_buffer_pool_acquire_buffer(xHeld[0]->pool, &pxSpare, &xDontWait));
  std::atomic<GstFlowReturn> eFourth{GST_FLOW_CUSTOM_ERROR};
  std::thread xPusher([&] { eFourth = gst_harness_push(h, DeviceImageBuffer(xImage)); });
  gst_buffer_unref(xHeld.back());
  xHeld.pop_back();
  const gint64 iDeadline = g_get_monotonic_time() + 20 * G_TIME_SPAN_SECOND;
  while (eFourth == GST_FLOW_CUSTOM_ERROR && g_get_monotonic_time() < iDeadline) g_usleep(1000);
  for (GstBuffer* p : xHeld) gst_buffer_unref(p);  // frees the pusher in any case
  xPusher.join();
  EXPECT_EQ(GST_FLOW_OK, eFourth.load());
}
