// The display path on the default backend: the hand-over of one frame into the window's
// texture with the window idle, the sink's frame rate when frames come back to back, and six
// 30 fps cameras through the mixer's selector into the window. Needs an X display (make bench
// starts Xvfb where there is none).
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "QvBenchStats.h"
#include "QvDevice.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "QvGraphicsInterop.h"
#include "common/gstUtil.h"
#include "display/gstqvCudaSink.h"
#include "nativewindow_glx.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kWidth = 3840, kHeight = 1784;

double MsSince(Clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

// A device-image buffer as an element's output step makes it: a gray ramp, RGBA.
GstBuffer* DeviceFrame(GstClockTime uPts) {
  GstBuffer* pxBuffer = NULL;
  PrepareOutputBufferCuda(NULL, NULL, &pxBuffer);
  GstMapInfo xMap;
  gst_buffer_map(pxBuffer, &xMap, GST_MAP_WRITE);
  std::vector<uint8_t> xBytes(static_cast<size_t>(kWidth) * kHeight * 4);
  for (size_t i = 0; i < xBytes.size(); ++i) xBytes[i] = static_cast<uint8_t>(i / 4 % kWidth / 15);
  reinterpret_cast<Qv::CQvDeviceImage2D*>(xMap.data)->Create(
      Qv::CQvImageFormat(kWidth, kHeight, Qv::EPixelType::RGBA, Qv::EDataType::UByte),
      xBytes.data(), false);
  gst_buffer_unmap(pxBuffer, &xMap);
  GST_BUFFER_PTS(pxBuffer) = uPts;
  GST_BUFFER_DURATION(pxBuffer) = GST_SECOND / 30;
  return pxBuffer;
}

// The window alone: each frame handed over while the window is idle, as a 30 fps camera
// would, next to a bare device copy of the same bytes.
void HandOver(bool bCuda) {
  GstBuffer* pxFrame = DeviceFrame(0);
  GstMapInfo xMap;
  gst_buffer_map(pxFrame, &xMap, GST_MAP_READ);
  auto* pxImage = reinterpret_cast<Qv::CQvDeviceImage2D*>(xMap.data);
  Qv::CQvDeviceImage2D xCopy(pxImage->GetFormat());
  std::vector<double> xBare, xHandOver;
  for (int i = 0; i < 50; ++i) {
    const auto t0 = Clock::now();
    pxImage->CopyTo(xCopy);
    xBare.push_back(MsSince(t0));
  }
  CNativeWindowX11GLX xWindow;
  xWindow.CreateNativeThreaded(0, 0, 800, 600);
  while (!xWindow.xReady.IsSignaled() && !xWindow.IsClosed())
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  xWindow.UpdateTextureThreaded(pxImage);  // builds the storage
  const uint64_t uRegistrations = Qv::Device::GetGraphicsRegistrationCount();
  for (int i = 0; i < 60; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(33));
    const auto t0 = Clock::now();
    xWindow.UpdateTextureThreaded(pxImage);
    xHandOver.push_back(MsSince(t0));
  }
  std::printf("display: bare device copy of one %dx%d RGBA8 frame   %8.3f ms\n", kWidth, kHeight,
              QvBench::Median(xBare));
  std::printf("display: hand-over into the texture, window idle      %8.3f ms (%s, %llu skipped)\n",
              QvBench::Median(xHandOver),
              bCuda ? "device copy into the mapped texture, one draw"
                    : "glTexSubImage2D of host pixels, one draw",
              static_cast<unsigned long long>(xWindow.GetSkippedCount()));
  if (bCuda)
    std::printf("display: registrations during 60 frames               %8llu\n",
                static_cast<unsigned long long>(Qv::Device::GetGraphicsRegistrationCount() -
                                                uRegistrations));
  xWindow.CloseWindow();
  gst_buffer_unmap(pxFrame, &xMap);
  gst_buffer_unref(pxFrame);
}

// iCameras appsrc branches (through the mixer's selector when more than one) into the sink;
// frames pushed as fast as the pipeline takes them for two seconds, or iFrames paced by the
// clock at 30 fps.
void SinkRun(int iCameras, bool bPaced, int iFrames) {
  const std::string sCaps = "video/x-raw,format=RGBA,width=" + std::to_string(kWidth) +
                            ",height=" + std::to_string(kHeight) + ",framerate=30/1";
  std::string sPipeline = iCameras > 1 ? "qvcudamix name=mix ! " : "";
  sPipeline += std::string("qvcudasink name=sink sync=") + (bPaced ? "true" : "false");
  for (int c = 0; c < iCameras; ++c)
    sPipeline += " appsrc name=src" + std::to_string(c) +
                 " format=time block=true max-buffers=2 caps=\"" + sCaps + "\"" +
                 (iCameras > 1 ? " ! mix.sink_" + std::to_string(c) : " ! sink.");
  GstElement* pxPipeline = gst_parse_launch(sPipeline.c_str(), NULL);
  GstElement* pxSink = gst_bin_get_by_name(GST_BIN(pxPipeline), "sink");
  std::vector<GstElement*> xSources;
  for (int c = 0; c < iCameras; ++c)
    xSources.push_back(
        gst_bin_get_by_name(GST_BIN(pxPipeline), ("src" + std::to_string(c)).c_str()));
  std::vector<GstBuffer*> xFrames;
  for (int c = 0; c < iCameras; ++c) xFrames.push_back(DeviceFrame(0));
  gst_element_set_state(pxPipeline, GST_STATE_PLAYING);
  // Until the window is up, frames are dropped: warm up until it has shown one.
  int i = 0;
  auto fnPush = [&] {
    for (int c = 0; c < iCameras; ++c) {
      GstBuffer* pxBuffer = gst_buffer_copy(xFrames[c]);
      GST_BUFFER_PTS(pxBuffer) = gst_util_uint64_scale(i, GST_SECOND, 30);
      gst_app_src_push_buffer(GST_APP_SRC(xSources[c]), pxBuffer);
    }
    ++i;
  };
  auto fnWindow = [&] { return GST_CUDA_SINK(pxSink)->pxWindow; };
  for (int iTry = 0; iTry < 300 && !(fnWindow() && fnWindow()->GetShownCount() > 0); ++iTry) {
    fnPush();
    std::this_thread::sleep_for(std::chrono::milliseconds(33));
  }
  const uint64_t uShown0 = fnWindow() ? fnWindow()->GetShownCount() : 0;
  const uint64_t uSkipped0 = fnWindow() ? fnWindow()->GetSkippedCount() : 0;
  const Clock::time_point t0 = Clock::now();
  // Back to back for two seconds, so that the frames shown a second mean something.
  if (!bPaced)
    for (iFrames = 0; MsSince(t0) < 2000.0; ++iFrames) fnPush();
  else
    for (int iFrame = 0; iFrame < iFrames; ++iFrame) fnPush();
  for (GstElement* pxSrc : xSources) gst_app_src_end_of_stream(GST_APP_SRC(pxSrc));
  GstBus* pxBus = gst_element_get_bus(pxPipeline);
  GstMessage* pxMsg = gst_bus_timed_pop_filtered(
      pxBus, GST_CLOCK_TIME_NONE, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  const double dSeconds = MsSince(t0) / 1000.0;
  if (pxMsg) gst_message_unref(pxMsg);
  CNativeWindowX11GLX* pxWindow = GST_CUDA_SINK(pxSink)->pxWindow;
  const uint64_t uShown = pxWindow ? pxWindow->GetShownCount() - uShown0 : 0;
  const uint64_t uSkipped = pxWindow ? pxWindow->GetSkippedCount() - uSkipped0 : 0;
  std::printf(
      "display: %d camera%s %s into qvcudasink: %5.1f frames/s rendered, %5.1f shown, "
      "%llu of %d skipped\n",
      iCameras, iCameras > 1 ? "s via qvcudamix," : ",", bPaced ? "30 fps" : "back to back",
      iFrames / dSeconds, uShown / dSeconds, static_cast<unsigned long long>(uSkipped), iFrames);
  gst_element_set_state(pxPipeline, GST_STATE_NULL);
  for (GstBuffer* pxBuffer : xFrames) gst_buffer_unref(pxBuffer);
  for (GstElement* pxSrc : xSources) gst_object_unref(pxSrc);
  gst_object_unref(pxBus);
  gst_object_unref(pxSink);
  gst_object_unref(pxPipeline);
}

}  // namespace

int main(int argc, char** argv) {
  gst_init(&argc, &argv);
  gst_registry_scan_path(gst_registry_get(), QV_PLUGIN_DIR);
  if (!g_getenv("DISPLAY")) {
    std::printf("display: no X display; run under xvfb-run (make bench does)\n");
    return 0;
  }
  try {
    const bool bCuda = Qv::Device::IsCuda();
    std::printf("display: backend %s, frames of %dx%d RGBA8, window 800x600\n",
                Qv::Device::GetBackendName(), kWidth, kHeight);
    HandOver(bCuda);
    SinkRun(1, false, 0);
    SinkRun(6, true, 90);
  } catch (const Qv::IException& e) {
    std::fprintf(stderr, "display: %s\n", e.GetMessageText());
    return 1;
  }
  return 0;
}
