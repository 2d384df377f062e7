// The demo. With an X display: six synthetic cameras, six scenes, go through qvcudaupload,
// qvcudadebayer and qvcudascale into qvcudamix and on to qvcudasink's window, whose keys pick
// the camera. Without one (or with --png): synthetic GRBG frames from a pinned pool go through
// upload, debayer, scale and qvcudadownload, and the last downloaded picture is written as a
// PNG.
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "FileIO.h"
#include "QvDevice.h"
#include "QvDeviceImage2D.h"
#include "QvDeviceMMU.h"
#include "QvException.h"
#include "QvSynthetic.h"
#include "gstqvHostElements.h"
#include "transform/gstqvCudaScale.h"

// clang-format off
// After the image code: X11 defines None as a macro.
#include <X11/Xlib.h>
// clang-format on

namespace {

constexpr int kCameras = 6;

struct SOptions {
  int iWidth = 1920;
  int iHeight = 1080;
  int iFrames = 30;
  bool bSizeGiven = false;
  bool bFramesGiven = false;
  bool bPng = false;
  std::string sOut = "demo-out";
};

// GLib's option parser: --help lists the options, and an unknown option or a stray argument is
// an error rather than a run with defaults.
bool ParseArgs(int argc, char** argv, SOptions& x) {
  gchar* szOut = NULL;
  // G_MININT stands for an option not given.
  gint iWidth = G_MININT, iHeight = G_MININT, iFrames = G_MININT;
  gboolean bPng = FALSE;
  GOptionEntry aEntries[] = {
      {"width", 0, 0, G_OPTION_ARG_INT, &iWidth, "Camera frame width (default 1920)", "W"},
      {"height", 0, 0, G_OPTION_ARG_INT, &iHeight, "Camera frame height (default 1080)", "H"},
      {"frames", 0, 0, G_OPTION_ARG_INT, &iFrames,
       "Frames to run (default 30; the window runs until closed)", "N"},
      {"out", 0, 0, G_OPTION_ARG_FILENAME, &szOut, "Folder for demo.png (default demo-out)", "DIR"},
      {"png", 0, 0, G_OPTION_ARG_NONE, &bPng, "Write a PNG even where there is a display", NULL},
      {NULL, 0, 0, G_OPTION_ARG_NONE, NULL, NULL, NULL}};
  GOptionContext* pxContext = g_option_context_new(NULL);
  g_option_context_set_summary(
      pxContext,
      "Six synthetic cameras through the mixer into a window; without a display, frames\n"
      "through upload, debayer, scale and download into a PNG.");
  g_option_context_add_main_entries(pxContext, aEntries, NULL);
  g_option_context_add_group(pxContext, gst_init_get_option_group());
  GError* pxError = NULL;
  bool bOk = g_option_context_parse(pxContext, &argc, &argv, &pxError);
  if (!bOk) {
    std::fprintf(stderr, "qvproc-demo: %s\n", pxError ? pxError->message : "bad options");
  } else if (argc > 1) {
    std::fprintf(stderr, "qvproc-demo: unexpected argument '%s'\n", argv[1]);
    bOk = false;
  }
  g_clear_error(&pxError);
  g_option_context_free(pxContext);
  x.bSizeGiven = iWidth != G_MININT || iHeight != G_MININT;
  x.bFramesGiven = iFrames != G_MININT;
  if (iWidth != G_MININT) x.iWidth = iWidth;
  if (iHeight != G_MININT) x.iHeight = iHeight;
  if (x.bFramesGiven) x.iFrames = iFrames;
  x.bPng = bPng;
  if (szOut) x.sOut = szOut;
  g_free(szOut);
  return bOk;
}

// The sink's window needs an X server; without one the pipeline would only end in an error.
bool HaveDisplay() {
  Display* pxDisplay = XOpenDisplay(nullptr);
  if (!pxDisplay) return false;
  XCloseDisplay(pxDisplay);
  return true;
}

// Six cameras into the mixer's selector and the window. Runs until the window is closed, or
// for --frames frames.
int RunWindow(SOptions xOpt) {
  if (!xOpt.bSizeGiven && !Qv::Device::IsCuda()) {
    // Six cameras debayered on the CPU: small frames keep the window fluid.
    xOpt.iWidth = 640;
    xOpt.iHeight = 360;
  }
  if (!Qv::Device::IsCuda()) {
    iScaledWidth = xOpt.iWidth;
    iScaledHeight = xOpt.iHeight;
  }
  char szCaps[160];
  std::snprintf(szCaps, sizeof(szCaps),
                "video/x-bayer,format=grbg,width=%d,height=%d,framerate=30/1", xOpt.iWidth,
                xOpt.iHeight);
  std::string sPipeline = "qvcudamix name=mix ! qvcudasink";
  for (int c = 0; c < kCameras; ++c)
    sPipeline += " appsrc name=src" + std::to_string(c) +
                 " format=time block=true max-buffers=2 caps=\"" + szCaps +
                 "\" ! qvcudaupload ! qvcudadebayer ! qvcudascale ! mix.sink_" + std::to_string(c);
  GError* pxError = NULL;
  GstElement* pxPipeline = gst_parse_launch(sPipeline.c_str(), &pxError);
  if (!pxPipeline || pxError) {
    std::fprintf(stderr, "qvproc-demo: %s\n", pxError ? pxError->message : "no pipeline");
    return 1;
  }
  GstElement* apxSrc[kCameras];
  for (int c = 0; c < kCameras; ++c)
    apxSrc[c] = gst_bin_get_by_name(GST_BIN(pxPipeline), ("src" + std::to_string(c)).c_str());
  std::printf(
      "qvproc-demo: six cameras of %dx%d in a window. Keys: 1-6 camera, 7-9 tours, q/a t/g focus,"
      "\n  w/s gain, e/d z/h exposure, m mipmap, r reset the view; left button pans, right "
      "zooms.\n  Close the window to end.\n",
      xOpt.iWidth, xOpt.iHeight);
  gst_element_set_state(pxPipeline, GST_STATE_PLAYING);

  // Pushes on a thread of its own: a push blocks while the pipeline is full, and the bus is
  // watched here.
  std::atomic<bool> bStop{false};
  std::thread xFeeder([&] {
    for (int i = 0; !bStop && (!xOpt.bFramesGiven || i < xOpt.iFrames); ++i) {
      for (int c = 0; c < kCameras; ++c) {
        const std::vector<uint8_t> xBytes =
            QvTools::MakeGrbgScene(xOpt.iWidth, xOpt.iHeight, i * 4, c);
        GstBuffer* pxBuffer = gst_buffer_new_allocate(NULL, xBytes.size(), NULL);
        gst_buffer_fill(pxBuffer, 0, xBytes.data(), xBytes.size());
        GST_BUFFER_PTS(pxBuffer) = gst_util_uint64_scale(i, GST_SECOND, 30);
        GST_BUFFER_DURATION(pxBuffer) = gst_util_uint64_scale(1, GST_SECOND, 30);
        if (gst_app_src_push_buffer(GST_APP_SRC(apxSrc[c]), pxBuffer) != GST_FLOW_OK) return;
      }
    }
    for (int c = 0; c < kCameras; ++c) gst_app_src_end_of_stream(GST_APP_SRC(apxSrc[c]));
  });
  GstBus* pxBus = gst_element_get_bus(pxPipeline);
  GstMessage* pxMessage = gst_bus_timed_pop_filtered(
      pxBus, GST_CLOCK_TIME_NONE, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  int iResult = 0;
  if (GST_MESSAGE_TYPE(pxMessage) == GST_MESSAGE_ERROR) {
    GError* pxErr = NULL;
    gst_message_parse_error(pxMessage, &pxErr, NULL);
    std::printf("qvproc-demo: %s\n", pxErr->message);
    // Closing the window is the way to end the demo.
    iResult = g_str_equal(pxErr->message, "Output window was closed") ? 0 : 1;
    g_error_free(pxErr);
  }
  gst_message_unref(pxMessage);
  gst_object_unref(pxBus);
  bStop = true;
  // Unblocks a push that waits for room.
  gst_element_set_state(pxPipeline, GST_STATE_NULL);
  xFeeder.join();
  for (GstElement* pxSrc : apxSrc) gst_object_unref(pxSrc);
  gst_object_unref(pxPipeline);
  return iResult;
}

}  // namespace

int main(int argc, char** argv) {
  SOptions xOpt;
  if (!ParseArgs(argc, argv, xOpt)) return 2;
  if (xOpt.iWidth < 2 || xOpt.iHeight < 2 || xOpt.iFrames < 1) {
    std::fprintf(stderr, "qvproc-demo: sizes must be 2 or more and frames 1 or more\n");
    return 2;
  }
  // The plugin this demo runs with, also when GST_PLUGIN_PATH does not name it.
  qv_scan_plugin_dir();
  qv_register_host_elements();
  try {
    std::printf("qvproc-demo: backend %s\n", Qv::Device::GetBackendName());
  } catch (const Qv::IException& e) {
    std::fprintf(stderr, "qvproc-demo: %s\n", e.GetMessageText());
    return 1;
  }
  if (!xOpt.bPng) {
    if (HaveDisplay()) return RunWindow(xOpt);
    std::printf("qvproc-demo: no X display: writing a PNG instead of opening the window\n");
  }

  char szCaps[160];
  std::snprintf(szCaps, sizeof(szCaps),
                "video/x-bayer,format=grbg,width=%d,height=%d,framerate=30/1", xOpt.iWidth,
                xOpt.iHeight);
  const std::string sPipeline =
      std::string("appsrc name=src format=time caps=\"") + szCaps +
      "\" ! qvcudaupload name=upload ! qvcudadebayer ! qvcudascale ! qvcudadownload ! "
      "video/x-raw,format=RGBA ! appsink name=sink sync=false";
  GError* pxError = NULL;
  GstElement* pxPipeline = gst_parse_launch(sPipeline.c_str(), &pxError);
  if (!pxPipeline || pxError) {
    std::fprintf(stderr, "qvproc-demo: %s\n", pxError ? pxError->message : "no pipeline");
    return 1;
  }
  GstElement* pxSrc = gst_bin_get_by_name(GST_BIN(pxPipeline), "src");
  GstElement* pxUpload = gst_bin_get_by_name(GST_BIN(pxPipeline), "upload");
  GstElement* pxSink = gst_bin_get_by_name(GST_BIN(pxPipeline), "sink");
  gst_element_set_state(pxPipeline, GST_STATE_PLAYING);

  GstCaps* pxCaps = gst_caps_from_string(szCaps);
  GstBufferPool* pxPool = NULL;

  int iOk = 0;
  uint64_t uAllocsAtFrame2 = 0;
  Qv::CQvImage xLastImage;
  const auto tStart = std::chrono::steady_clock::now();
  for (int i = 0; i < xOpt.iFrames; ++i) {
    // The scene scrolls and comes to rest at the last frame, whose bars then read in order.
    const std::vector<uint8_t> xLast =
        QvTools::MakeGrbgScene(xOpt.iWidth, xOpt.iHeight, (xOpt.iFrames - 1 - i) * 8);
    GstBuffer* pxBuffer = NULL;
    if (!pxPool || gst_buffer_pool_acquire_buffer(pxPool, &pxBuffer, NULL) != GST_FLOW_OK)
      pxBuffer = gst_buffer_new_allocate(NULL, xLast.size(), NULL);
    gst_buffer_fill(pxBuffer, 0, xLast.data(), xLast.size());
    GST_BUFFER_PTS(pxBuffer) = gst_util_uint64_scale(i, GST_SECOND, 30);
    GST_BUFFER_DURATION(pxBuffer) = gst_util_uint64_scale(1, GST_SECOND, 30);
    if (gst_app_src_push_buffer(GST_APP_SRC(pxSrc), pxBuffer) != GST_FLOW_OK) break;
    GstSample* pxSample = gst_app_sink_pull_sample(GST_APP_SINK(pxSink));
    if (!pxSample) break;
    ++iOk;
    if (i == 0) {
      // Negotiated now: ask the upload element for the pinned pool that the source fills.
      pxPool = QvTools::ProposedPool(pxUpload, pxCaps);
      std::printf("qvproc-demo: source pool from the upload element: %s\n",
                  pxPool ? "pinned \"MySysMem\"" : "none (plain memory)");
    }
    if (i == 1) uAllocsAtFrame2 = Qv::CQvDeviceMMU::GetAllocationCount();
    if (i == xOpt.iFrames - 1) {
      // The download element hands a host RGBA frame in pinned memory.
      GstVideoInfo xInfo;
      GstVideoFrame xFrame;
      if (gst_video_info_from_caps(&xInfo, gst_sample_get_caps(pxSample)) &&
          gst_video_frame_map(&xFrame, &xInfo, gst_sample_get_buffer(pxSample), GST_MAP_READ)) {
        xLastImage.Create(Qv::CQvImageFormat(xInfo.width, xInfo.height, Qv::EPixelType::RGBA,
                                             Qv::EDataType::UByte));
        Qv::Device::Copy2D(xLastImage.GetDataPtr(), xLastImage.GetFormat().GetRowBytes(),
                           GST_VIDEO_FRAME_PLANE_DATA(&xFrame, 0),
                           GST_VIDEO_FRAME_PLANE_STRIDE(&xFrame, 0),
                           xLastImage.GetFormat().GetRowBytes(), xInfo.height,
                           Qv::Device::ECopyKind::HostToHost, nullptr, false);
        gst_video_frame_unmap(&xFrame);
      }
    }
    gst_sample_unref(pxSample);
  }
  const double dSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - tStart).count();
  gst_app_src_end_of_stream(GST_APP_SRC(pxSrc));
  gst_element_set_state(pxPipeline, GST_STATE_NULL);

  std::printf(
      "qvproc-demo: %d of %d frames of %dx%d through upload, debayer, scale and download in %.3f s "
      "(%.1f fps)\n",
      iOk, xOpt.iFrames, xOpt.iWidth, xOpt.iHeight, dSeconds, iOk / (dSeconds > 0 ? dSeconds : 1));
  const bool bPicture =
      xLastImage.IsValid() && xLastImage.GetFormat().ePixelType == Qv::EPixelType::RGBA;
  if (xLastImage.IsValid())
    std::printf("qvproc-demo: last downloaded frame %s\n",
                xLastImage.GetFormat().ToString().ToCString());
  if (xOpt.iFrames > 2)
    std::printf(
        "qvproc-demo: device allocations after the second frame: %llu\n",
        static_cast<unsigned long long>(Qv::CQvDeviceMMU::GetAllocationCount() - uAllocsAtFrame2));

  int iResult = (iOk == xOpt.iFrames && bPicture) ? 0 : 1;
  if (bPicture) {
    mkdir(xOpt.sOut.c_str(), 0755);
    const std::string sPath = xOpt.sOut + "/demo.png";
    try {
      Qv::FileIO::CImage::WritePNG(xLastImage, sPath.c_str());
      std::printf("qvproc-demo: wrote %s\n", sPath.c_str());
    } catch (const Qv::IException& e) {
      std::fprintf(stderr, "qvproc-demo: %s\n", e.GetMessageText());
      iResult = 1;
    }
  }
  if (pxPool) {
    gst_buffer_pool_set_active(pxPool, FALSE);
    gst_object_unref(pxPool);
  }
  gst_caps_unref(pxCaps);
  gst_object_unref(pxSrc);
  gst_object_unref(pxUpload);
  gst_object_unref(pxSink);
  gst_object_unref(pxPipeline);
  return iResult;
}
