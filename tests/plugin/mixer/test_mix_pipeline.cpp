// The mixer in real pipelines of ordinary sources, one buffer per interval on each branch, as
// cameras deliver them: the bytes of every wall tile, the selector's choice, and flushing seeks
// that must never stall.
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "GstTestUtil.h"
#include "QvMessage.h"

namespace {

// iCameras appsrc branches of GRAY8 1280x1338 at 25/1 through the upload into the mixer.
std::string RigLaunch(const char* szType, int iCameras) {
  std::string s = std::string("qvcudamix name=m type=") + szType + " ! appsink name=out sync=false";
  for (int i = 0; i < iCameras; ++i)
    s += " appsrc name=cam" + std::to_string(i) +
         " format=time caps=video/x-raw,format=GRAY8,width=1280,height=1338,framerate=25/1 ! "
         "qvcudaupload ! m.sink_" +
         std::to_string(i);
  return s;
}

const uint8_t kValues[] = {20, 60, 100, 140, 180, 220, 250};

// Counts output pixels unlike the value of their camera: in every wall tile, or in the whole
// frame of camera 2, the selector's choice.
size_t WrongPixels(GstSample* pxSample, bool bWall, int iCameras) {
  const Qv::CQvImage xOut = QvTest::DownloadBufferImage(gst_sample_get_buffer(pxSample));
  const size_t uW = bWall ? 3840 : 1280, uH = bWall ? 2676 : 1338;
  if (xOut.GetFormat().GetImageBytes() != uW * uH) return SIZE_MAX;
  const auto* p = static_cast<const uint8_t*>(xOut.GetDataPtr());
  size_t uWrong = 0;
  for (size_t y = 0; y < uH; ++y)
    for (size_t x = 0; x < uW; ++x) {
      const size_t t = bWall ? y / 1338 * 3 + x / 1280 : 2;
      uWrong += t < size_t(iCameras) && p[y * uW + x] != kValues[t];
    }
  return uWrong;
}

TEST(MixPipeline, WallHoldsEveryCamerasTileAndTheSelectorItsCameraInEveryFrame) {
  for (auto [szType, iCameras] : {std::pair{"videowall", 6}, {"videowall", 7}, {"selector", 3}}) {
    SCOPED_TRACE(std::string(szType) + ", " + std::to_string(iCameras) + " cameras");
    const bool bWall = szType[0] == 'v';
    Qv::CMessageCapture xMessages;
    QvTest::CPipeline x(RigLaunch(szType, iCameras));
    gst_element_send_event(
        x.Element("m"),
        gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM,
                             gst_structure_new("eventStruct", "camID", G_TYPE_INT, 2, NULL)));
    for (int i = 0; i < iCameras; ++i) {
      GstAppSrc* pxSrc = GST_APP_SRC(x.Element(("cam" + std::to_string(i)).c_str()));
      for (int f = 0; f < 3; ++f) {
        GstBuffer* px = QvTest::BufferFromBytes(std::vector<uint8_t>(1280 * 1338, kValues[i]));
        GST_BUFFER_PTS(px) = f * 40 * GST_MSECOND;
        GST_BUFFER_DURATION(px) = 40 * GST_MSECOND;
        gst_app_src_push_buffer(pxSrc, px);
      }
      gst_app_src_end_of_stream(pxSrc);
    }
    GstAppSink* pxSink = GST_APP_SINK(x.Element("out"));
    for (int f = 0; f < 3; ++f) {
      GstSample* pxSample = gst_app_sink_try_pull_sample(pxSink, 10 * GST_SECOND);
      ASSERT_NE(nullptr, pxSample) << "frame " << f;
      EXPECT_EQ(0u, WrongPixels(pxSample, bWall, iCameras)) << "frame " << f;
      gst_sample_unref(pxSample);
    }
    const std::vector<std::string> xSeventh = {
        "warning: The video wall has six tiles; the images of sink_6 and later pads are left out."};
    EXPECT_EQ(iCameras == 7 ? xSeventh : std::vector<std::string>{}, x.RunToEnd());
  }
}

TEST(MixPipeline, ACameraThatChangesSizeAfterAGapSendsEachFrameUnderItsOwnCaps) {
  // 64x48, 32x24 at 33 ms, 64x48 at 100 ms: the small frame, repeated over the gap, must not go
  // out under the caps of the large one that follows it.
  Qv::CMessageCapture xMessages;
  QvTest::CPipeline x(
      "appsrc name=cam format=time ! qvcudaupload ! qvcudamix ! qvcudadebayer ! qvcudadownload ! "
      "appsink name=out sync=false");
  GstAppSrc* pxSrc = GST_APP_SRC(x.Element("cam"));
  for (auto [w, h, iMs] : {std::tuple{64, 48, 0}, {32, 24, 33}, {64, 48, 100}}) {
    GstCaps* pxCaps = gst_caps_new_simple("video/x-bayer", "format", G_TYPE_STRING, "grbg", "width",
                                          G_TYPE_INT, w, "height", G_TYPE_INT, h, "framerate",
                                          GST_TYPE_FRACTION, 30, 1, NULL);
    gst_app_src_set_caps(pxSrc, pxCaps);
    gst_caps_unref(pxCaps);
    GstBuffer* px = QvTest::BufferFromBytes(std::vector<uint8_t>(w * h, 100));
    GST_BUFFER_PTS(px) = iMs * GST_MSECOND;
    GST_BUFFER_DURATION(px) = 33 * GST_MSECOND;
    gst_app_src_push_buffer(pxSrc, px);
  }
  gst_app_src_end_of_stream(pxSrc);
  std::string sSizes;
  for (int i = 0; i < 4; ++i) {
    GstSample* pxSample = gst_app_sink_try_pull_sample(GST_APP_SINK(x.Element("out")), GST_SECOND);
    if (!pxSample) break;
    GstVideoInfo xInfo;
    gst_video_info_from_caps(&xInfo, gst_sample_get_caps(pxSample));
    sSizes += std::to_string(gst_buffer_get_size(gst_sample_get_buffer(pxSample)) * 100 /
                             GST_VIDEO_INFO_SIZE(&xInfo)) +
              " ";
    gst_sample_unref(pxSample);
  }
  EXPECT_EQ("100 100 100 100 ", sSizes);  // percent of the caps' frame size
}

TEST(MixPipeline, FlushingSeeksUnderLoadKeepFramesComingAndEndCleanly) {
  // Two threads keep both cores busy while the application seeks, as on a loaded machine: after
  // each seek frames come again, and EOS ends the stream without an error.
  std::string s = "qvcudamix name=m ! fakesink name=sink sync=false signal-handoffs=true";
  for (int i = 0; i < 2; ++i)
    s += " videotestsrc ! video/x-raw,format=GRAY8,width=320,height=240,framerate=30/1 ! "
         "qvcudaupload ! m.sink_" +
         std::to_string(i);
  QvTest::CPipeline x(s);
  const QvTest::CBusyCores xLoad;
  std::atomic<int> iFrames{0};
  g_signal_connect(x.Element("sink"), "handoff",
                   G_CALLBACK(+[](GstElement*, GstBuffer*, GstPad*, std::atomic<int>* p) { ++*p; }),
                   &iFrames);
  // A call that doesn't come back within 5 s leaves threads stuck for good: the process ends.
  auto Call = [](auto fnCall, const std::string& sWhat) {
    auto xCall = std::async(std::launch::async, fnCall);
    if (xCall.wait_for(std::chrono::seconds(5)) == std::future_status::ready) return;
    ADD_FAILURE() << sWhat << " hangs";
    std::_Exit(1);
  };
  auto FrameAfter = [&](int iBefore) {
    for (int t = 0; t < 500 && iFrames == iBefore; ++t) g_usleep(10000);
    return iFrames > iBefore;
  };
  bool bFrames = FrameAfter(0);
  EXPECT_TRUE(bFrames) << "no first frame";
  for (int i = 0; i < 30 && bFrames; ++i) {
    g_usleep(500000);
    Call([&] { gst_element_seek_simple(x.Get(), GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, 0); },
         "seek " + std::to_string(i));
    EXPECT_TRUE(bFrames = FrameAfter(iFrames)) << "no frame for 5 s after seek " << i;
  }
  Call([&] { gst_element_send_event(x.Get(), gst_event_new_eos()); }, "EOS");
  EXPECT_EQ(std::vector<std::string>{}, x.RunToEnd(5 * GST_SECOND));
  if (HasFailure()) std::_Exit(1);  // stuck threads would hang the teardown too
}

}  // namespace
