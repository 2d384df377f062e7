// Pipeline benchmarks of the plugin on the default backend: wall time per frame of the elements
// in GStreamer pipelines, beside bare copies of the same bytes and CPU peers. The kernels alone
// are measured by qvbench-kernels.
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <linux/videodev2.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "AutoAdapt.h"
#include "H5Camera.h"
#include "QvBenchStats.h"
#include "QvCudaCompDemosaic.h"
#include "QvCudaCompYUV.h"
#include "QvDevice.h"
#include "QvDeviceImage2D.h"
#include "QvDeviceMMU.h"
#include "QvException.h"
#include "QvJpegEncoder.h"
#include "QvNvBuffer.h"
#include "QvSynthetic.h"
#include "adapt/gstqvAutoAdapt.h"
#include "common/gstUtil.h"
#include "jpeg/gstqvCudaJpegSink.h"
#include "transform/gstqvCudaDownload.h"

namespace {

using QvBench::Median;

using Clock = std::chrono::steady_clock;

// The bare copy: the same bytes from pinned host memory into a device image, waited for. With
// iCopies > 1, that many copies into as many images back to back on one stream, waited for once:
// what the bus allows for a set of frames of several cameras.
double BareUploadMs(int iWidth, int iHeight, int iRuns, int iCopies = 1) {
  const size_t uBytes = static_cast<size_t>(iWidth) * iHeight;
  void* pHost = Qv::Device::AllocPinnedHost(uBytes);
  std::memset(pHost, 1, uBytes);
  std::vector<Qv::CQvDeviceImage2D> xImages(iCopies);
  for (auto& xImage : xImages)
    xImage.Create(
        Qv::CQvImageFormat(iWidth, iHeight, Qv::EPixelType::BayerGR, Qv::EDataType::UByte));
  cudaStream_t hStream = Qv::Device::CreateStream();
  std::vector<double> xTimes;
  for (int i = 0; i < iRuns + 3; ++i) {
    const auto t0 = Clock::now();
    for (auto& xImage : xImages) xImage.Upload(pHost, static_cast<size_t>(iWidth), hStream, true);
    Qv::Device::SynchronizeStream(hStream);
    if (i >= 3)
      xTimes.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
  }
  Qv::Device::DestroyStream(hStream);
  Qv::Device::FreePinnedHost(pHost);
  return Median(xTimes);
}

// The figures also go to a CSV file (--csv), one row per figure with its floor or peer where
// one exists, for bench/qvbench.gp to plot.
struct SCsvRow {
  std::string sSection, sName, sUnit;
  double dValue, dReference;
};
std::vector<SCsvRow> g_xCsv;

void Csv(const char* szSection, const char* szName, double dValue, const char* szUnit,
         double dReference = NAN) {
  g_xCsv.push_back({szSection, szName, szUnit, dValue, dReference});
}

bool WriteCsv(const char* szPath) {
  std::FILE* pxFile = std::fopen(szPath, "w");
  if (!pxFile) return false;
  std::fprintf(pxFile, "section,name,value,unit,floor_or_peer\n");
  for (const SCsvRow& x : g_xCsv) {
    std::fprintf(pxFile, "%s,%s,%.6g,%s,", x.sSection.c_str(), x.sName.c_str(), x.dValue,
                 x.sUnit.c_str());
    if (!std::isnan(x.dReference)) std::fprintf(pxFile, "%.6g", x.dReference);
    std::fprintf(pxFile, "\n");
  }
  return std::fclose(pxFile) == 0;
}

struct SPipelineResult {
  double dMsPerFrame = 0;
  double dCpuMsPerFrame = 0;  // the whole process's CPU time, every thread
  double dAllocationsPerFrame = 0;
  bool bPinned = false;
  size_t uFirstBytes = 0;  // the size of the first output buffer
};

// The mixer. Six branches of appsrc feed qvcudamix; every buffer is queued before the pipeline
// plays, so that the figure is the mixer's own cost per output frame, counted at the sink from
// the first frame to the last.
struct SMixResult {
  double dMsPerFrame = 0;
  int iFrames = 0;
  std::vector<Clock::time_point> xTimes;
  GstBuffer* pxFirst = NULL;  // the first output frame, for the check of what was timed
};

void CountFrame(GstElement* /*sink*/, GstBuffer* pxBuffer, GstPad* /*pad*/, gpointer pxData) {
  auto* pxResult = static_cast<SMixResult*>(pxData);
  if (pxResult->xTimes.empty()) pxResult->pxFirst = gst_buffer_ref(pxBuffer);
  pxResult->xTimes.push_back(Clock::now());
}

// A figure that did not time what its line names ends the benchmark.
void Require(bool bOk, const char* szLine, const char* szWhat) {
  if (bOk) return;
  std::fprintf(stderr, "qvbench: %s: %s; its figure would be wrong\n", szLine, szWhat);
  std::exit(1);
}

// Pushes pxFrame iFrames times, ends the stream and waits for its end (or an error), which it
// hands back with the milliseconds from the first push.
GstMessage* PushAndDrain(GstElement* pxPipeline, GstElement* pxSrc, GstBuffer* pxFrame, int iFrames,
                         double& dMs) {
  const auto t0 = Clock::now();
  for (int i = 0; i < iFrames; ++i)
    gst_app_src_push_buffer(GST_APP_SRC(pxSrc), gst_buffer_ref(pxFrame));
  gst_app_src_end_of_stream(GST_APP_SRC(pxSrc));
  GstBus* pxBus = gst_element_get_bus(pxPipeline);
  GstMessage* pxMsg = gst_bus_timed_pop_filtered(
      pxBus, GST_CLOCK_TIME_NONE, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  dMs = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
  gst_object_unref(pxBus);
  return pxMsg;
}

// appsrc ! <chain> ! fakesink with one frame pushed again and again (from the upload
// element's pinned pool where the chain starts with it), so that the source costs nothing and
// the figure is the chain's own.
double CpuMs() {
  rusage xUsage = {};
  getrusage(RUSAGE_SELF, &xUsage);
  auto Ms = [](const timeval& t) { return t.tv_sec * 1e3 + t.tv_usec / 1e3; };
  return Ms(xUsage.ru_utime) + Ms(xUsage.ru_stime);
}

// A chain that ends in a sink of its own (bOwnSink) gets no fakesink and is not counted at
// the sink: only its end of stream is checked.
SPipelineResult RunPipeline(const char* szChain, int iWidth, int iHeight, int iFrames,
                            const char* szFormat = "grbg", bool bOwnSink = false) {
  SPipelineResult xResult;
  char szCaps[160];
  std::snprintf(szCaps, sizeof(szCaps), "video/x-bayer,format=%s,width=%d,height=%d,framerate=30/1",
                szFormat, iWidth, iHeight);
  const std::string sPipeline =
      std::string("appsrc name=src format=time block=true max-buffers=4 caps=\"") + szCaps +
      "\" ! " + szChain + (bOwnSink ? "" : " ! fakesink name=sink sync=false signal-handoffs=true");
  GError* pxError = NULL;
  GstElement* pxPipeline = gst_parse_launch(sPipeline.c_str(), &pxError);
  if (!pxPipeline || pxError) {
    std::fprintf(stderr, "qvbench: %s\n", pxError ? pxError->message : "no pipeline");
    return xResult;
  }
  GstElement* pxSrc = gst_bin_get_by_name(GST_BIN(pxPipeline), "src");
  GstElement* pxFirstElement = NULL;
  {
    GstPad* pxSrcPad = gst_element_get_static_pad(pxSrc, "src");
    GstPad* pxPeer = gst_pad_get_peer(pxSrcPad);
    pxFirstElement = gst_pad_get_parent_element(pxPeer);
    gst_object_unref(pxPeer);
    gst_object_unref(pxSrcPad);
  }
  SMixResult xOut;
  if (!bOwnSink) {
    GstElement* pxSink = gst_bin_get_by_name(GST_BIN(pxPipeline), "sink");
    g_signal_connect(pxSink, "handoff", G_CALLBACK(CountFrame), &xOut);
    gst_object_unref(pxSink);
  }
  gst_element_set_state(pxPipeline, GST_STATE_PLAYING);

  std::vector<uint8_t> xScene = QvTools::MakeGrbgScene(iWidth, iHeight, 0);
  if (g_str_has_suffix(szFormat, "le")) {
    // The same scene in the high bytes of little-endian 16-bit words.
    std::vector<uint8_t> xWords(2 * xScene.size(), 0);
    for (size_t i = 0; i < xScene.size(); ++i) xWords[2 * i + 1] = xScene[i];
    xScene.swap(xWords);
  }
  GstBuffer* pxFirst = gst_buffer_new_allocate(NULL, xScene.size(), NULL);
  gst_buffer_fill(pxFirst, 0, xScene.data(), xScene.size());
  gst_app_src_push_buffer(GST_APP_SRC(pxSrc), pxFirst);

  GstCaps* pxCaps = gst_caps_from_string(szCaps);
  GstBuffer* pxFrame = g_str_has_prefix(szChain, "qvcudaupload")
                           ? QvTools::BufferOfProposedPool(pxFirstElement, pxCaps, 100)
                           : NULL;
  xResult.bPinned = pxFrame != NULL;
  if (!pxFrame) pxFrame = gst_buffer_new_allocate(NULL, xScene.size(), NULL);
  gst_buffer_fill(pxFrame, 0, xScene.data(), xScene.size());

  // Warm-up, then the timed run up to end of stream.
  for (int i = 0; i < 5; ++i) gst_app_src_push_buffer(GST_APP_SRC(pxSrc), gst_buffer_ref(pxFrame));
  g_usleep(200000);
  const uint64_t uAllocs = Qv::CQvDeviceMMU::GetAllocationCount();
  double dMs = 0.0;
  const double dCpu0 = CpuMs();
  GstMessage* pxMsg = PushAndDrain(pxPipeline, pxSrc, pxFrame, iFrames, dMs);
  xResult.dCpuMsPerFrame = (CpuMs() - dCpu0) / iFrames;
  // Every frame pushed (the first, five of warm-up, the timed ones) must have come out.
  Require(pxMsg && GST_MESSAGE_TYPE(pxMsg) == GST_MESSAGE_EOS &&
              (bOwnSink || xOut.xTimes.size() == static_cast<size_t>(iFrames) + 6),
          szChain, "not every frame came out");
  if (xOut.pxFirst) {
    xResult.uFirstBytes = gst_buffer_get_size(xOut.pxFirst);
    gst_buffer_unref(xOut.pxFirst);
  }
  if (pxMsg) gst_message_unref(pxMsg);
  xResult.dMsPerFrame = dMs / (iFrames + 0.0);
  xResult.dAllocationsPerFrame =
      static_cast<double>(Qv::CQvDeviceMMU::GetAllocationCount() - uAllocs) / iFrames;

  gst_element_set_state(pxPipeline, GST_STATE_NULL);
  gst_buffer_unref(pxFrame);
  gst_caps_unref(pxCaps);
  gst_object_unref(pxSrc);
  gst_object_unref(pxFirstElement);
  gst_object_unref(pxPipeline);
  return xResult;
}

bool HasFactories(std::initializer_list<const char*> xNames) {
  for (const char* szName : xNames) {
    GstElementFactory* pxFactory = gst_element_factory_find(szName);
    if (!pxFactory) return false;
    gst_object_unref(pxFactory);
  }
  return true;
}

double MsSince(Clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

// Wall time per frame of a pipeline whose appsrc "src" gets the same frame again and again:
// iWarm frames first (and a pause for them to pass), then iFrames timed up to end of stream.
double PushedFrameMs(const std::string& sPipeline, GstBuffer* pxFrame, int iWarm, int iFrames) {
  GError* pxError = NULL;
  GstElement* pxPipeline = gst_parse_launch(sPipeline.c_str(), &pxError);
  if (!pxPipeline || pxError) {
    std::fprintf(stderr, "qvbench: %s\n", pxError ? pxError->message : "no pipeline");
    return 0.0;
  }
  GstElement* pxSrc = gst_bin_get_by_name(GST_BIN(pxPipeline), "src");
  gst_element_set_state(pxPipeline, GST_STATE_PLAYING);
  for (int i = 0; i < iWarm; ++i)
    gst_app_src_push_buffer(GST_APP_SRC(pxSrc), gst_buffer_ref(pxFrame));
  if (iWarm > 0) g_usleep(200000);
  double dMs = 0.0;
  GstMessage* pxMsg = PushAndDrain(pxPipeline, pxSrc, pxFrame, iFrames, dMs);
  dMs /= iFrames;
  if (pxMsg) gst_message_unref(pxMsg);
  gst_element_set_state(pxPipeline, GST_STATE_NULL);
  gst_object_unref(pxSrc);
  gst_object_unref(pxPipeline);
  return dMs;
}

// appsrc ! qvcudadownload ! fakesink with one stacked I420 device image pushed again and again.
double DownloadPipelineMs(GstBuffer* pxDeviceFrame, int iWidth, int iHeight, int iFrames) {
  char szCaps[160];
  std::snprintf(szCaps, sizeof(szCaps), "video/x-raw,format=I420,width=%d,height=%d,framerate=30/1",
                iWidth, iHeight);
  const std::string sPipeline =
      std::string("appsrc name=src format=time block=true max-buffers=4 caps=\"") + szCaps +
      "\" ! qvcudadownload ! fakesink sync=false";
  return PushedFrameMs(sPipeline, pxDeviceFrame, 5, iFrames);
}

// The download of a stacked I420 frame (made on the device by Convert) against a bare
// device-to-host copy of the same bytes into pinned memory.
void DownloadBench(int iWidth, int iHeight, bool bCuda) {
  const int iRuns = bCuda ? 100 : 5;
  cudaStream_t hStream = Qv::Device::CreateStream();
  Qv::CQvImage xHost(
      Qv::CQvImageFormat(iWidth, iHeight, Qv::EPixelType::RGBA, Qv::EDataType::UByte));
  std::memset(xHost.GetDataPtr(), 0x5A, xHost.GetImageBytes());
  Qv::CQvDeviceImage2D xRgba(xHost);

  GstBuffer* pxFrame = NULL;
  PrepareOutputBufferCuda(NULL, NULL, &pxFrame);
  GstMapInfo xMap;
  gst_buffer_map(pxFrame, &xMap, GST_MAP_WRITE);
  Qv::CQvDeviceImage2D& xI420 = *reinterpret_cast<Qv::CQvDeviceImage2D*>(xMap.data);
  Qv::CQvCudaCompYUV xComp;
  xComp.SetStream(hStream);
  xComp.Convert(xI420, xRgba);

  std::vector<double> xBare;
  const size_t uI420Bytes = static_cast<size_t>(iWidth) * iHeight * 3 / 2;
  void* pPinned = Qv::Device::AllocPinnedHost(uI420Bytes);
  for (int i = 0; i < iRuns + 2; ++i) {
    const auto t0 = Clock::now();
    Qv::Device::Copy2D(pPinned, static_cast<size_t>(iWidth), xI420.GetDevicePointer(),
                       xI420.GetDevicePitch(), static_cast<size_t>(iWidth),
                       static_cast<size_t>(xI420.GetFormat().iHeight),
                       Qv::Device::ECopyKind::DeviceToHost, hStream, true);
    Qv::Device::SynchronizeStream(hStream);
    if (i >= 2) xBare.push_back(MsSince(t0));
  }
  Qv::Device::FreePinnedHost(pPinned);
  gst_buffer_unmap(pxFrame, &xMap);

  const double dBare = Median(xBare);
  const double dDownload = DownloadPipelineMs(pxFrame, iWidth, iHeight, bCuda ? 300 : 20);
  gst_buffer_unref(pxFrame);
  Qv::Device::DestroyStream(hStream);
  std::printf("download: bare device-to-host copy (pinned) %8.3f ms\n", dBare);
  std::printf("download: appsrc ! qvcudadownload ! fakesink%8.3f ms/frame (%.2f x the bare copy)\n",
              dDownload, dBare > 0 ? dDownload / dBare : 0.0);
  Csv("download", "qvcudadownload", dDownload, "ms/frame", dBare);
}

// xBranches[i] is the list of buffers for branch i (taken). szMixer is the element line between
// the branches and the sink, with the name "mix".
SMixResult MixPipeline(const char* szMixer, const char* szCaps,
                       std::vector<std::vector<GstBuffer*>>& xBranches) {
  std::string sPipeline =
      std::string(szMixer) + " ! fakesink name=sink sync=false signal-handoffs=true";
  for (size_t i = 0; i < xBranches.size(); ++i)
    sPipeline += " appsrc name=src" + std::to_string(i) +
                 " format=time max-bytes=0 max-buffers=0 block=false caps=\"" + szCaps +
                 "\" ! mix.";
  SMixResult xResult;
  GError* pxError = NULL;
  GstElement* pxPipeline = gst_parse_launch(sPipeline.c_str(), &pxError);
  if (!pxPipeline || pxError) {
    std::fprintf(stderr, "qvbench: %s\n", pxError ? pxError->message : "no pipeline");
    if (pxError) g_error_free(pxError);
    for (auto& x : xBranches)
      for (GstBuffer* b : x) gst_buffer_unref(b);
    return xResult;
  }
  for (size_t i = 0; i < xBranches.size(); ++i) {
    GstElement* pxSrc =
        gst_bin_get_by_name(GST_BIN(pxPipeline), ("src" + std::to_string(i)).c_str());
    for (GstBuffer* pxBuffer : xBranches[i]) gst_app_src_push_buffer(GST_APP_SRC(pxSrc), pxBuffer);
    gst_app_src_end_of_stream(GST_APP_SRC(pxSrc));
    gst_object_unref(pxSrc);
  }
  std::vector<Clock::time_point>& xTimes = xResult.xTimes;
  xTimes.reserve(4096);
  GstElement* pxSink = gst_bin_get_by_name(GST_BIN(pxPipeline), "sink");
  g_signal_connect(pxSink, "handoff", G_CALLBACK(CountFrame), &xResult);
  gst_element_set_state(pxPipeline, GST_STATE_PLAYING);
  GstBus* pxBus = gst_element_get_bus(pxPipeline);
  GstMessage* pxMsg = gst_bus_timed_pop_filtered(
      pxBus, GST_CLOCK_TIME_NONE, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  if (pxMsg && GST_MESSAGE_TYPE(pxMsg) == GST_MESSAGE_ERROR)
    std::fprintf(stderr, "qvbench: the mixer pipeline failed\n");
  if (pxMsg) gst_message_unref(pxMsg);
  gst_element_set_state(pxPipeline, GST_STATE_NULL);
  xResult.iFrames = static_cast<int>(xTimes.size());
  if (xTimes.size() > 1)
    xResult.dMsPerFrame =
        std::chrono::duration<double, std::milli>(xTimes.back() - xTimes.front()).count() /
        (xTimes.size() - 1);
  gst_object_unref(pxSink);
  gst_object_unref(pxBus);
  gst_object_unref(pxPipeline);
  return xResult;
}

// The byte floor of a wall frame: one device-to-device copy of 6 x 1280 x 1338 contiguous
// bytes, waited for; and the same tiles as six 2D copies out of 3840x2160 images.
void BareWallMs(const std::vector<Qv::CQvDeviceImage2D*>& xImages, int iRuns, double& dFloor,
                double& dTiles) {
  const size_t uTile = 1280u * 1338u;
  Qv::CQvDeviceImage2D xWall(
      Qv::CQvImageFormat(3840, 2676, Qv::EPixelType::BayerGR, Qv::EDataType::UByte));
  Qv::CQvDeviceImage2D xSrc(Qv::CQvImageFormat(static_cast<int>(uTile), 6, Qv::EPixelType::BayerGR,
                                               Qv::EDataType::UByte));
  Qv::CQvDeviceImage2D xDst(Qv::CQvImageFormat(static_cast<int>(uTile), 6, Qv::EPixelType::BayerGR,
                                               Qv::EDataType::UByte));
  cudaStream_t hStream = Qv::Device::CreateStream();
  std::vector<double> xFloor, xTiles;
  for (int i = 0; i < iRuns + 3; ++i) {
    auto t0 = Clock::now();
    Qv::Device::Copy2D(xDst.GetDevicePointer(), xDst.GetDevicePitch(), xSrc.GetDevicePointer(),
                       xSrc.GetDevicePitch(), uTile, 6, Qv::Device::ECopyKind::DeviceToDevice,
                       hStream, true);
    Qv::Device::SynchronizeStream(hStream);
    auto t1 = Clock::now();
    auto* pWall = static_cast<uint8_t*>(xWall.GetDevicePointer());
    for (int t = 0; t < 6; ++t)
      Qv::Device::Copy2D(pWall + (t / 3) * 1338 * xWall.GetDevicePitch() + (t % 3) * 1280,
                         xWall.GetDevicePitch(), xImages[t]->GetDevicePointer(),
                         xImages[t]->GetDevicePitch(), 1280, 1338,
                         Qv::Device::ECopyKind::DeviceToDevice, hStream, true);
    Qv::Device::SynchronizeStream(hStream);
    auto t2 = Clock::now();
    if (i >= 3) {
      xFloor.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
      xTiles.push_back(std::chrono::duration<double, std::milli>(t2 - t1).count());
    }
  }
  Qv::Device::DestroyStream(hStream);
  dFloor = Median(xFloor);
  dTiles = Median(xTiles);
}

void MixBenchmarks(bool bCuda) {
  const int iFrames = bCuda ? 2000 : 150;
  const char* szRaw4k = "video/x-raw,format=GRAY8,width=3840,height=2160,framerate=25/1";

  // Six camera images on the device, each pushed again and again as frames of 40 ms one after
  // the other (copies of one buffer sharing its image), so each output frame takes one per
  // camera and copies six tiles.
  std::vector<GstBuffer*> xCameras;
  std::vector<Qv::CQvDeviceImage2D*> xImages;
  const std::vector<uint8_t> xScene = QvTools::MakeGrbgScene(3840, 2160, 0);
  for (int i = 0; i < 6; ++i) {
    GstBuffer* pxBuffer = NULL;
    PrepareOutputBufferCuda(NULL, NULL, &pxBuffer);
    GstMapInfo xMap;
    gst_buffer_map(pxBuffer, &xMap, GST_MAP_WRITE);
    auto* pxImage = reinterpret_cast<Qv::CQvDeviceImage2D*>(xMap.data);
    pxImage->Create(Qv::CQvImageFormat(3840, 2160, Qv::EPixelType::BayerGR, Qv::EDataType::UByte),
                    xScene.data(), false);
    gst_buffer_unmap(pxBuffer, &xMap);
    xCameras.push_back(pxBuffer);
    xImages.push_back(pxImage);
  }

  double dFloor = 0, dTiles = 0;
  BareWallMs(xImages, bCuda ? 200 : 20, dFloor, dTiles);

  std::vector<std::vector<GstBuffer*>> xBranches(6);
  for (int i = 0; i < 6; ++i)
    for (int k = 0; k < iFrames; ++k) {
      GstBuffer* pxFrame = gst_buffer_copy(xCameras[i]);
      GST_BUFFER_PTS(pxFrame) = k * 40 * GST_MSECOND;
      GST_BUFFER_DURATION(pxFrame) = 40 * GST_MSECOND;
      xBranches[i].push_back(pxFrame);
    }
  SMixResult xWall = MixPipeline("qvcudamix name=mix type=videowall", szRaw4k, xBranches);
  // Checked once before the figure counts: a frame for every input frame, each tile holding the
  // top left 1280x1338 of its camera's image.
  Require(xWall.iFrames == iFrames && xWall.pxFirst, "videowall", "frames missing");
  {
    GstMapInfo xMap;
    Require(gst_buffer_map(xWall.pxFirst, &xMap, GST_MAP_READ), "videowall", "no device image");
    const auto& xOut = *reinterpret_cast<const Qv::CQvDeviceImage2D*>(xMap.data);
    Require(xOut.GetFormat().iWidth == 3840 && xOut.GetFormat().iHeight == 2676, "videowall",
            "the frame is not a 3840x2676 wall");
    std::vector<uint8_t> xWallBytes(3840u * 2676u);
    xOut.Download(xWallBytes.data(), 3840);
    gst_buffer_unmap(xWall.pxFirst, &xMap);
    for (int t = 0; t < 6; ++t)
      for (int y = 0; y < 1338; y += 223)
        Require(std::memcmp(&xWallBytes[(t / 3 * 1338 + y) * 3840u + t % 3 * 1280],
                            &xScene[y * 3840u], 1280) == 0,
                "videowall", "a tile does not hold its camera's image");
    gst_buffer_unref(xWall.pxFirst);
  }
  for (GstBuffer* pxBuffer : xCameras) gst_buffer_unref(pxBuffer);

  // The selector against input-selector: the same six branches of small timestamped buffers.
  auto SelectorBranches = [&] {
    std::vector<std::vector<GstBuffer*>> x(6);
    for (auto& xBranch : x)
      for (int k = 0; k < iFrames; ++k) {
        GstBuffer* pxBuffer = gst_buffer_new_allocate(NULL, 16, NULL);
        GST_BUFFER_PTS(pxBuffer) = k * 40 * GST_MSECOND;
        GST_BUFFER_DURATION(pxBuffer) = 40 * GST_MSECOND;
        xBranch.push_back(pxBuffer);
      }
    return x;
  };
  auto xSelBranches = SelectorBranches();
  const SMixResult xSel = MixPipeline("qvcudamix name=mix", szRaw4k, xSelBranches);
  auto xInBranches = SelectorBranches();
  const SMixResult xIn = MixPipeline("input-selector name=mix", szRaw4k, xInBranches);
  for (const SMixResult* px : {&xSel, &xIn})
    if (px->pxFirst) gst_buffer_unref(px->pxFirst);

  const double dBytes = 2.0 * 6 * 1280 * 1338;
  std::printf("mix: byte floor, one copy of 6x1280x1338 bytes   %8.3f ms (%.1f GB/s read+write)\n",
              dFloor, dFloor > 0 ? dBytes / dFloor / 1e6 : 0.0);
  std::printf("mix: six tile copies and a sync, bare            %8.3f ms (%.2f x floor)\n", dTiles,
              dFloor > 0 ? dTiles / dFloor : 0.0);
  std::printf(
      "mix: 6 x 3840x2160 ! qvcudamix videowall         %8.3f ms/frame (%.2f x floor, %d frames)\n",
      xWall.dMsPerFrame, dFloor > 0 ? xWall.dMsPerFrame / dFloor : 0.0, xWall.iFrames);
  std::printf("mix: 6 branches ! qvcudamix selector             %8.3f ms/frame (%d frames)\n",
              xSel.dMsPerFrame, xSel.iFrames);
  std::printf("mix: 6 branches ! input-selector                 %8.3f ms/frame (%d frames)\n",
              xIn.dMsPerFrame, xIn.iFrames);
  Csv("mix", "videowall", xWall.dMsPerFrame, "ms/frame", dFloor);
  Csv("mix", "selector", xSel.dMsPerFrame, "ms/frame", xIn.dMsPerFrame);
}

// The rig: six cameras, each from an appsrc filling its upload element's pinned pool, into the
// mixer and a fakesink. Each camera's frame of a set carries the set's PTS; the push time of
// camera 0's frame is stamped per PTS and read back at the sink, so the latency is from a
// frame's push to the arrival of its set's output.
struct SRigArrivals {
  std::mutex xMutex;
  std::map<GstClockTime, Clock::time_point> xPushed;
  std::vector<double> xLatencyMs;
  std::atomic<int> iArrived{0};
};

void RigArrival(GstElement* /*sink*/, GstBuffer* pxBuffer, GstPad* /*pad*/, gpointer pxData) {
  auto* px = static_cast<SRigArrivals*>(pxData);
  const auto tNow = Clock::now();
  {
    std::lock_guard<std::mutex> xGuard(px->xMutex);
    // The wall stamps its own time line; there each output is the oldest set still pending.
    auto it = px->xPushed.find(GST_BUFFER_PTS(pxBuffer));
    if (it == px->xPushed.end()) it = px->xPushed.begin();
    if (it != px->xPushed.end()) {
      px->xLatencyMs.push_back(
          std::chrono::duration<double, std::milli>(tNow - it->second).count());
      px->xPushed.erase(it);
    }
  }
  px->iArrived++;
}

struct SRigResult {
  double dSetsPerSecond = 0, dLatencyMedianMs = 0, dLatencyP99Ms = 0, dAllocationsPerSet = 0;
  bool bPinned = false, bOk = false;
};

const int kRigCameras = 6;

SRigResult RunRig(bool bWall, int iWidth, int iHeight, int iSets) {
  SRigResult xResult;
  // Enough warm-up sets to fill every queue and the device image caches behind them.
  const int iWarm = 5;
  const GstClockTime uFrame = GST_SECOND / 30;
  char szCaps[160];
  std::snprintf(szCaps, sizeof(szCaps),
                "video/x-bayer,format=grbg,width=%d,height=%d,framerate=30/1", iWidth, iHeight);
  // The queue lets a camera's upload of frame N+1 overlap the demosaic and scale of frame N.
  const char* szBranch =
      bWall ? "qvcudaupload"
            : "qvcudaupload ! qvcudadebayer ! qvcudascale ! queue max-size-buffers=2";
  std::string sPipeline = std::string("qvcudamix name=mix") + (bWall ? " type=videowall" : "") +
                          " ! fakesink name=sink sync=false signal-handoffs=true";
  for (int i = 0; i < kRigCameras; ++i)
    sPipeline += " appsrc name=src" + std::to_string(i) +
                 " format=time block=true max-buffers=2 caps=\"" + szCaps + "\" ! " + szBranch +
                 " ! mix.sink_" + std::to_string(i);
  GError* pxError = NULL;
  GstElement* pxPipeline = gst_parse_launch(sPipeline.c_str(), &pxError);
  if (!pxPipeline || pxError) {
    std::fprintf(stderr, "qvbench: %s\n", pxError ? pxError->message : "no pipeline");
    if (pxError) g_error_free(pxError);
    return xResult;
  }
  SRigArrivals xArrivals;
  GstElement* pxSink = gst_bin_get_by_name(GST_BIN(pxPipeline), "sink");
  g_signal_connect(pxSink, "handoff", G_CALLBACK(RigArrival), &xArrivals);
  std::vector<GstElement*> xSrcs, xUploads;
  for (int i = 0; i < kRigCameras; ++i) {
    xSrcs.push_back(gst_bin_get_by_name(GST_BIN(pxPipeline), ("src" + std::to_string(i)).c_str()));
    GstPad* pxSrcPad = gst_element_get_static_pad(xSrcs.back(), "src");
    GstPad* pxPeer = gst_pad_get_peer(pxSrcPad);
    xUploads.push_back(gst_pad_get_parent_element(pxPeer));
    gst_object_unref(pxPeer);
    gst_object_unref(pxSrcPad);
  }
  gst_element_set_state(pxPipeline, GST_STATE_PLAYING);

  std::vector<GstBuffer*> xFrames;
  auto PushSet = [&](int iSet) {
    for (int i = 0; i < kRigCameras; ++i) {
      GstBuffer* pxBuffer = gst_buffer_copy(xFrames[i]);  // shares the pinned memory
      GST_BUFFER_PTS(pxBuffer) = iSet * uFrame;
      GST_BUFFER_DURATION(pxBuffer) = uFrame;
      if (i == 0) {
        std::lock_guard<std::mutex> xGuard(xArrivals.xMutex);
        xArrivals.xPushed[iSet * uFrame] = Clock::now();
      }
      gst_app_src_push_buffer(GST_APP_SRC(xSrcs[i]), pxBuffer);
    }
  };
  // The first set from ordinary memory negotiates; then each camera's frame comes from the pool
  // its upload element proposes.
  for (int i = 0; i < kRigCameras; ++i) {
    const std::vector<uint8_t> xScene = QvTools::MakeGrbgScene(iWidth, iHeight, i);
    GstBuffer* pxBuffer = gst_buffer_new_allocate(NULL, xScene.size(), NULL);
    gst_buffer_fill(pxBuffer, 0, xScene.data(), xScene.size());
    xFrames.push_back(pxBuffer);
  }
  PushSet(0);
  GstCaps* pxCaps = gst_caps_from_string(szCaps);
  int iPinned = 0;
  for (int i = 0; i < kRigCameras; ++i) {
    GstBuffer* pxFrame = QvTools::BufferOfProposedPool(xUploads[i], pxCaps, 500);
    if (!pxFrame) continue;
    const std::vector<uint8_t> xScene = QvTools::MakeGrbgScene(iWidth, iHeight, i);
    gst_buffer_fill(pxFrame, 0, xScene.data(), xScene.size());
    gst_buffer_unref(xFrames[i]);
    xFrames[i] = pxFrame;
    ++iPinned;
  }
  gst_caps_unref(pxCaps);
  xResult.bPinned = iPinned == kRigCameras;

  // Warm-up sets, waited for at the sink; then the timed sets up to end of stream.
  for (int k = 1; k < iWarm; ++k) PushSet(k);
  for (int iWait = 0; iWait < 120000 && xArrivals.iArrived < iWarm; ++iWait) g_usleep(1000);
  {
    std::lock_guard<std::mutex> xGuard(xArrivals.xMutex);
    xArrivals.xLatencyMs.clear();
  }
  const uint64_t uAllocs = Qv::CQvDeviceMMU::GetAllocationCount();
  const auto t0 = Clock::now();
  for (int k = iWarm; k < iWarm + iSets; ++k) PushSet(k);
  for (GstElement* pxSrc : xSrcs) gst_app_src_end_of_stream(GST_APP_SRC(pxSrc));
  GstBus* pxBus = gst_element_get_bus(pxPipeline);
  GstMessage* pxMsg = gst_bus_timed_pop_filtered(
      pxBus, GST_CLOCK_TIME_NONE, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  const double dMs = MsSince(t0);
  xResult.bOk = pxMsg && GST_MESSAGE_TYPE(pxMsg) == GST_MESSAGE_EOS;
  if (!xResult.bOk) std::fprintf(stderr, "qvbench: the rig pipeline failed\n");
  if (pxMsg) gst_message_unref(pxMsg);
  xResult.dAllocationsPerSet =
      static_cast<double>(Qv::CQvDeviceMMU::GetAllocationCount() - uAllocs) / iSets;
  gst_element_set_state(pxPipeline, GST_STATE_NULL);
  xResult.dSetsPerSecond = dMs > 0 ? 1000.0 * iSets / dMs : 0.0;
  std::vector<double> xLatency = xArrivals.xLatencyMs;
  std::sort(xLatency.begin(), xLatency.end());
  if (!xLatency.empty()) {
    xResult.dLatencyMedianMs = xLatency[xLatency.size() / 2];
    xResult.dLatencyP99Ms = xLatency[std::min(xLatency.size() - 1, xLatency.size() * 99 / 100)];
  }
  for (GstBuffer* pxBuffer : xFrames) gst_buffer_unref(pxBuffer);
  for (GstElement* px : xSrcs) gst_object_unref(px);
  for (GstElement* px : xUploads) gst_object_unref(px);
  gst_object_unref(pxBus);
  gst_object_unref(pxSink);
  gst_object_unref(pxPipeline);
  return xResult;
}

// Both rig lines next to the bus's ceiling for the same bytes: six bare pinned copies back to
// back. The wall needs raw images of at least one tile (1280x1338).
void RigBench(int iWidth, int iHeight, int iSets, bool bCuda) {
  for (bool bWall : {false, true}) {
    const int iW = bWall ? std::max(iWidth, 1280) : iWidth;
    const int iH = bWall ? std::max(iHeight, 1338) : iHeight;
    const double dCeilingMs = BareUploadMs(iW, iH, bCuda ? 100 : 5, kRigCameras);
    const double dCeiling = dCeilingMs > 0 ? 1000.0 / dCeilingMs : 0.0;
    const SRigResult x = RunRig(bWall, iW, iH, iSets);
    const char* szLine = bWall ? "6 x upload ! qvcudamix videowall"
                               : "6 x upload ! debayer ! scale ! queue ! qvcudamix";
    std::printf("rig:    PCIe ceiling, 6 bare pinned copies of %dx%d %8.1f sets/s (%.3f ms)\n", iW,
                iH, dCeiling, dCeilingMs);
    std::printf("rig:    %-43s %8.1f sets/s (%.2f x ceiling, %d sets, %s sources)\n", szLine,
                x.dSetsPerSecond, dCeiling > 0 ? x.dSetsPerSecond / dCeiling : 0.0, iSets,
                x.bPinned ? "pinned" : "unpinned");
    std::printf(
        "rig:    push to sink, median %.3f ms, 99th percentile %.3f ms; %.3f device "
        "allocations per set\n",
        x.dLatencyMedianMs, x.dLatencyP99Ms, x.dAllocationsPerSet);
    const char* szName = bWall ? "videowall sets" : "selector sets";
    Csv("rig", szName, x.dSetsPerSecond, "sets/s", dCeiling);
    Csv("rig", bWall ? "videowall latency median" : "selector latency median", x.dLatencyMedianMs,
        "ms");
    Csv("rig", bWall ? "videowall latency p99" : "selector latency p99", x.dLatencyP99Ms, "ms");
    Csv("rig", bWall ? "videowall allocations" : "selector allocations", x.dAllocationsPerSet,
        "per set");
  }
}

// A driver that answers at once: what is left is the element's own cost.
int FakeOpen(const char*, int) {
  return 3;
}
int FakeClose(int) {
  return 0;
}
int FakeIoctl(int, unsigned long uRequest, void* pArg) {
  if (uRequest == VIDIOC_QUERYCTRL) static_cast<v4l2_queryctrl*>(pArg)->maximum = 1470;
  if (uRequest == VIDIOC_G_CTRL) static_cast<v4l2_control*>(pArg)->value = 104;
  return 0;
}

// One measure at the defaults, over eight 4K frames in turn so that each comes cold from
// memory as a camera's would; then the element on frames it does not measure.
void AutoAdaptBench() {
  const int iWidth = 3840, iHeight = 2160;
  std::vector<std::vector<uint8_t>> xFrames(8);
  for (size_t i = 0; i < xFrames.size(); ++i)
    xFrames[i] = QvTools::MakeGrbgScene(iWidth, iHeight, i);
  std::vector<double> xMeasure, xElement;
  CAutoAdapt xAdapt(0.01f, 0.0001f, 0.02f, 1, 1, 16, SAutoAdaptSettings());
  for (int i = 0; i < 400; ++i) {
    Qv::CQvImageMoniker xFrame(iWidth, iHeight, Qv::EPixelType::BayerGR, Qv::EDataType::UByte,
                               xFrames[i % xFrames.size()].data());
    const auto t0 = Clock::now();
    volatile float fBrightness = xAdapt.GetAverageBrightness(&xFrame);
    (void)fBrightness;
    xMeasure.push_back(MsSince(t0));
  }
  static const SH5CameraSystem xFake = {FakeOpen, FakeClose, FakeIoctl};
  CH5Camera::SetSystem(&xFake);
  GstElement* pxElement =
      GST_ELEMENT(g_object_new(gst_auto_adapt_get_type(), "update", 1000, NULL));
  GstBaseTransformClass* pxClass = GST_BASE_TRANSFORM_GET_CLASS(pxElement);
  GstCaps* pxCaps = gst_caps_from_string("video/x-bayer,format=grbg,width=3840,height=2160");
  pxClass->set_caps(GST_BASE_TRANSFORM(pxElement), pxCaps, pxCaps);
  for (int i = 1; i < 1000; ++i) {
    GstBuffer* pxBuffer =
        gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, xFrames[0].data(), xFrames[0].size(),
                                    0, xFrames[0].size(), NULL, NULL);
    const auto t0 = Clock::now();
    pxClass->transform_ip(GST_BASE_TRANSFORM(pxElement), pxBuffer);
    xElement.push_back(MsSince(t0));
    gst_buffer_unref(pxBuffer);
  }
  CH5Camera::SetSystem(nullptr);
  gst_caps_unref(pxCaps);
  gst_object_unref(pxElement);
  std::printf("adapt:  measure of 4 x 50^2 pixels, cold 4K frame %8.4f ms (median of 400)\n",
              Median(xMeasure));
  std::printf("adapt:  qvautoadapt on a frame it does not measure %7.4f ms (four control reads)\n",
              Median(xElement));
  Csv("adapt", "measure", Median(xMeasure), "ms");
  Csv("adapt", "unmeasured frame", Median(xElement), "ms");
}

// JPEG output of one 4K colour frame (the demosaiced test scene): the conversion into the
// platform buffer, the encoding and the file write on tmpfs timed apart for each encoder, then
// the sink in a pipeline. TurboJPEG runs on one core.
void JpegBench(int iWidth, int iHeight, bool bCuda) {
  const int iRuns = bCuda ? 100 : 5;
  const std::vector<uint8_t> xScene = QvTools::MakeGrbgScene(iWidth, iHeight, 0);
  Qv::CQvDeviceImage2D xMosaic;
  xMosaic.Create(Qv::CQvImageFormat(iWidth, iHeight, Qv::EPixelType::BayerGR, Qv::EDataType::UByte),
                 xScene.data(), false);
  GstBuffer* pxFrame = NULL;
  PrepareOutputBufferCuda(NULL, NULL, &pxFrame);
  GstMapInfo xMap;
  gst_buffer_map(pxFrame, &xMap, GST_MAP_WRITE);
  Qv::CQvDeviceImage2D& xRgba = *reinterpret_cast<Qv::CQvDeviceImage2D*>(xMap.data);
  Qv::CQvCudaCompDemosaic().Debayer(xRgba, xMosaic, 1.0f, 1.0f, 1.0f);
  gst_buffer_unmap(pxFrame, &xMap);
  cudaStream_t hStream = Qv::Device::CreateStream();
  const char* szFile = "/dev/shm/qvbench-jpeg.jpg";
  double dTurbo = 0;
  for (EJpegEncoder eKind : {EJpegEncoder::Turbo, EJpegEncoder::NvJpeg}) {
    std::unique_ptr<NvJpegEncoder> pxEncoder = NvJpegEncoder::Create(eKind, hStream);
    if (!pxEncoder) {
      std::printf("jpeg:   nvJPEG not measured (no libnvjpeg, or no GPU)\n");
      continue;
    }
    TegraBufferShim xShim;
    xShim.Initialize();
    NvMemory xBuffer = xShim.CreateNvBuffer(NvBufferColorFormat_YUV420, iWidth, iHeight,
                                            pxEncoder->GetPlaneMemory());
    NvMappedMemory xMapped = xShim.MapNvBuffer(xBuffer);
    Qv::CQvDeviceImage2D xY, xU, xV;
    xShim.GetMoniker(xMapped, xY, xU, xV);
    Qv::CQvCudaCompYUV xComp;
    xComp.SetStream(hStream);
    std::vector<unsigned char> xOut(pxEncoder->GetMaxStreamSize(iWidth, iHeight));
    std::vector<double> xConvert, xEncode, xWrite;
    unsigned long uSize = 0;
    for (int i = 0; i < iRuns + 2; ++i) {
      const auto t0 = Clock::now();
      xComp.Convert(xY, xU, xV, xRgba);
      Qv::Device::SynchronizeStream(hStream);
      const auto t1 = Clock::now();
      unsigned char* pOut = xOut.data();
      uSize = xOut.size();
      pxEncoder->Encode(xBuffer, 85, &pOut, uSize);
      const auto t2 = Clock::now();
      std::FILE* pxFile = std::fopen(szFile, "wb");
      if (pxFile) std::fwrite(pOut, 1, uSize, pxFile), std::fclose(pxFile);
      if (i < 2) continue;
      xConvert.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
      xEncode.push_back(std::chrono::duration<double, std::milli>(t2 - t1).count());
      xWrite.push_back(MsSince(t2));
    }
    const double dBoth = Median(xConvert) + Median(xEncode);
    if (eKind == EJpegEncoder::Turbo) dTurbo = dBoth;
    std::printf(
        "jpeg:   %-9s convert %7.3f ms, encode %7.3f ms, write %6.3f ms (%lu bytes); "
        "convert+encode "
        "%7.3f ms (%.1f x TurboJPEG)\n",
        pxEncoder->GetName(), Median(xConvert), Median(xEncode), Median(xWrite), uSize, dBoth,
        dBoth > 0 ? dTurbo / dBoth : 0.0);
    Csv("jpeg", eKind == EJpegEncoder::Turbo ? "convert+encode TurboJPEG" : "convert+encode nvJPEG",
        dBoth, "ms", eKind == EJpegEncoder::Turbo ? NAN : dTurbo);
    xShim.UnmapNvBuffer(xMapped);
    xShim.DestroyNvBuffer(xBuffer);
  }
  std::remove(szFile);
  Qv::Device::DestroyStream(hStream);

  // The sink pushed the same device frame again and again, files on tmpfs.
  char szCaps[128];
  std::snprintf(szCaps, sizeof(szCaps), "video/x-raw,format=RGBA,width=%d,height=%d,framerate=30/1",
                iWidth, iHeight);
  const std::string sPipeline = std::string("appsrc name=src block=true max-buffers=4 caps=\"") +
                                szCaps +
                                "\" ! qvcudajpegsink sync=false location=/dev/shm/qvbench%05d.jpg";
  const int iFrames = bCuda ? 200 : 10;
  const double dMs = PushedFrameMs(sPipeline, pxFrame, 0, iFrames);
  gst_buffer_unref(pxFrame);
  for (int i = 1; i <= iFrames; ++i) {
    char szName[64];
    std::snprintf(szName, sizeof(szName), "/dev/shm/qvbench%05d.jpg", i);
    std::remove(szName);
  }
  std::printf(
      "jpeg:   appsrc ! qvcudajpegsink to tmpfs  %8.3f ms/frame (%.1f fps, with FPS lines)\n", dMs,
      1000.0 / dMs);
  Csv("jpeg", "qvcudajpegsink", dMs, "ms/frame");
}

}  // namespace

// Camera lines beside their CPU peers from GStreamer, each in one run on the same frames:
// CPU time of the whole process per frame (what a busy machine pays) and wall time per frame.
// On the host backend these say how our fallback compares with the CPU elements.
void HostLines(bool bCuda) {
  if (!HasFactories({"bayer2rgb", "videoscale", "videoconvert", "jpegenc"})) {
    std::printf("lines:  not run (bayer2rgb, videoconvert, videoscale or jpegenc is missing)\n");
    return;
  }
  const int iFrames = bCuda ? 200 : 30;
  const char* szJpegPattern = "/dev/shm/qvbench-line-%05d.jpg";
  const struct {
    const char* szName;
    int iWidth, iHeight;
    const char* szOurs;
    const char* szPeer;
    size_t uPeerBytes;  // the least the peer's first frame holds, to tell that it ran
  } aLines[] = {
      {"debayer 1080p", 1920, 1080, "qvcudaupload ! qvcudadebayer ! qvcudadownload", "bayer2rgb",
       1920u * 1080 * 4},
      {"debayer scale 3840x1784", 1920, 1080,
       "qvcudaupload ! qvcudadebayer ! qvcudascale ! qvcudadownload",
       "bayer2rgb ! videoconvert ! videoscale ! video/x-raw,width=3840,height=1784",
       3840u * 1784 * 3},
      {"debayer yuv 1080p", 1920, 1080, "qvcudaupload ! qvcudadebayer ! qvcudayuv ! qvcudadownload",
       "bayer2rgb ! videoconvert ! video/x-raw,format=I420", 1920u * 1080 * 3 / 2},
      {"jpeg 4K", 3840, 2160,
       "qvcudaupload ! qvcudadebayer ! qvcudajpegsink location=/dev/shm/qvbench-line-%05d.jpg",
       "bayer2rgb ! videoconvert ! jpegenc", 1},
  };
  std::printf("lines:  %-24s %12s %12s %7s %12s %12s %7s\n", "(CPU ms and wall ms a frame)",
              "ours CPU", "peer CPU", "ratio", "ours wall", "peer wall", "ratio");
  for (const auto& l : aLines) {
    const bool bJpeg = std::strstr(l.szOurs, "jpegsink") != NULL;
    // Ours and the peer by turns, five times each; the medians. Which ran first and what the
    // allocator holds then moves single runs by a factor of two or more.
    std::vector<double> xOursCpu, xOursWall, xPeerCpu, xPeerWall;
    for (int iRun = 0; iRun < 5; ++iRun) {
      const SPipelineResult xOurs =
          RunPipeline(l.szOurs, l.iWidth, l.iHeight, iFrames, "grbg", bJpeg);
      if (bJpeg) {
        // Every frame went to its own file: the first, five of warm-up and the timed ones.
        char szFile[80];
        std::snprintf(szFile, sizeof(szFile), szJpegPattern, iFrames + 5);
        Require(g_file_test(szFile, G_FILE_TEST_EXISTS), l.szName, "not every JPEG was written");
        for (int i = 0; i <= iFrames + 5; ++i) {
          std::snprintf(szFile, sizeof(szFile), szJpegPattern, i);
          std::remove(szFile);
        }
      }
      const SPipelineResult xPeer = RunPipeline(l.szPeer, l.iWidth, l.iHeight, iFrames);
      Require(xPeer.uFirstBytes >= l.uPeerBytes, l.szName, "the peer gave no frame of its size");
      xOursCpu.push_back(xOurs.dCpuMsPerFrame), xOursWall.push_back(xOurs.dMsPerFrame);
      xPeerCpu.push_back(xPeer.dCpuMsPerFrame), xPeerWall.push_back(xPeer.dMsPerFrame);
    }
    const SPipelineResult xOurs{Median(xOursWall), Median(xOursCpu)};
    const SPipelineResult xPeer{Median(xPeerWall), Median(xPeerCpu)};
    std::printf("lines:  %-24s %12.2f %12.2f %7.2f %12.2f %12.2f %7.2f\n", l.szName,
                xOurs.dCpuMsPerFrame, xPeer.dCpuMsPerFrame,
                xOurs.dCpuMsPerFrame / xPeer.dCpuMsPerFrame, xOurs.dMsPerFrame, xPeer.dMsPerFrame,
                xOurs.dMsPerFrame / xPeer.dMsPerFrame);
    Csv("lines", (std::string(l.szName) + " CPU").c_str(), xOurs.dCpuMsPerFrame, "CPU ms/frame",
        xPeer.dCpuMsPerFrame);
    Csv("lines", (std::string(l.szName) + " wall").c_str(), xOurs.dMsPerFrame, "ms/frame",
        xPeer.dMsPerFrame);
  }
}

// qvbench [rig|jpeg|lines] [--csv FILE] [--rig-size WxH] [--rig-sets N]
// "rig" runs the six-camera lines alone, "jpeg" the JPEG output alone.
int main(int argc, char** argv) {
  gst_init(&argc, &argv);
  gst_registry_scan_path(gst_registry_get(), QV_PLUGIN_DIR);
  // The host elements that the lines use, registered as a host application does.
  gst_element_register(NULL, "qvcudadownload", GST_RANK_NONE, gst_cuda_download_get_type());
  gst_element_register(NULL, "qvcudajpegsink", GST_RANK_NONE, gst_cuda_jpeg_sink_get_type());
  const int iWidth = 3840, iHeight = 2160;
  std::string sOnly;
  const char* szCsv = NULL;
  int iRigWidth = 0, iRigHeight = 0, iRigSets = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--csv") == 0 && i + 1 < argc) {
      szCsv = argv[++i];
    } else if (std::strcmp(argv[i], "--rig-size") == 0 && i + 1 < argc) {
      if (std::sscanf(argv[++i], "%dx%d", &iRigWidth, &iRigHeight) != 2 || iRigWidth < 2 ||
          iRigHeight < 2 || iRigWidth % 2 || iRigHeight % 2) {
        std::fprintf(stderr, "qvbench: --rig-size wants an even WxH, such as 640x360\n");
        return 2;
      }
    } else if (std::strcmp(argv[i], "--rig-sets") == 0 && i + 1 < argc) {
      iRigSets = std::atoi(argv[++i]);
      if (iRigSets < 1) {
        std::fprintf(stderr, "qvbench: --rig-sets wants a count of at least 1\n");
        return 2;
      }
    } else if (std::strcmp(argv[i], "rig") == 0 || std::strcmp(argv[i], "jpeg") == 0 ||
               std::strcmp(argv[i], "lines") == 0) {
      sOnly = argv[i];
    } else {
      std::fprintf(
          stderr, "usage: qvbench [rig|jpeg|lines] [--csv FILE] [--rig-size WxH] [--rig-sets N]\n");
      return 2;
    }
  }
  try {
    const bool bCuda = Qv::Device::IsCuda();
    const int iFrames = bCuda ? 500 : 40;
    // The host backend runs device code on the CPU: small cameras and few sets keep it short.
    if (!iRigWidth) iRigWidth = bCuda ? 3840 : 640, iRigHeight = bCuda ? 2160 : 360;
    if (!iRigSets) iRigSets = bCuda ? 600 : 3;
    std::printf("qvbench: backend %s, frames of %dx%d 8-bit\n", Qv::Device::GetBackendName(),
                iWidth, iHeight);
    if (sOnly == "rig") {
      RigBench(iRigWidth, iRigHeight, iRigSets, bCuda);
      if (szCsv && !WriteCsv(szCsv)) std::fprintf(stderr, "qvbench: cannot write %s\n", szCsv);
      return 0;
    }
    if (sOnly == "lines") {
      HostLines(bCuda);
      if (szCsv && !WriteCsv(szCsv)) std::fprintf(stderr, "qvbench: cannot write %s\n", szCsv);
      return 0;
    }
    AutoAdaptBench();
    if (sOnly == "jpeg") {
      JpegBench(iWidth, iHeight, bCuda);
      if (szCsv && !WriteCsv(szCsv)) std::fprintf(stderr, "qvbench: cannot write %s\n", szCsv);
      return 0;
    }
    const double dBare = BareUploadMs(iWidth, iHeight, bCuda ? 200 : 20);
    const SPipelineResult x = RunPipeline("qvcudaupload", iWidth, iHeight, iFrames);
    std::printf("upload: bare pinned host-to-device copy      %8.3f ms\n", dBare);
    std::printf(
        "upload: appsrc ! qvcudaupload ! fakesink     %8.3f ms/frame (%.0f fps, %s source)\n",
        x.dMsPerFrame, x.dMsPerFrame > 0 ? 1000.0 / x.dMsPerFrame : 0.0,
        x.bPinned ? "pinned" : "unpinned");
    std::printf("upload: ratio to the bare copy               %8.2f\n",
                dBare > 0 ? x.dMsPerFrame / dBare : 0.0);
    std::printf("upload: device allocations per frame         %8.3f\n", x.dAllocationsPerFrame);
    Csv("upload", "qvcudaupload", x.dMsPerFrame, "ms/frame", dBare);

    const int iChainFrames = bCuda ? 300 : 5;
    const SPipelineResult xChain =
        RunPipeline("qvcudaupload ! qvcudadebayer ! qvcudascale", iWidth, iHeight, iChainFrames);
    std::printf(
        "chain:  upload ! debayer ! scale             %8.3f ms/frame (%.1f fps), %.3f "
        "device allocations per frame\n",
        xChain.dMsPerFrame, 1000.0 / xChain.dMsPerFrame, xChain.dAllocationsPerFrame);
    double dCpuMs = NAN;
    if (HasFactories({"bayer2rgb", "videoscale", "videoconvert"})) {
      GstElement* pxPeer = gst_element_factory_make("bayer2rgb", NULL);
      Require(pxPeer && std::strcmp(G_OBJECT_TYPE_NAME(pxPeer), "GstBayer2RGB") == 0, "CPU chain",
              "bayer2rgb is not GStreamer's demosaic");
      gst_object_unref(pxPeer);
      char szCpu[160];
      std::snprintf(szCpu, sizeof(szCpu),
                    "bayer2rgb ! videoconvert ! videoscale ! video/x-raw,width=3840,height=1784");
      const SPipelineResult xCpu = RunPipeline(szCpu, iWidth, iHeight, 5);
      Require(xCpu.uFirstBytes >= 3840u * 1784u * 3, "CPU chain", "no scaled RGB frame came out");
      std::printf(
          "chain:  bayer2rgb ! videoscale on the CPU    %8.3f ms/frame (%.1f fps); ratio %.3f\n",
          xCpu.dMsPerFrame, 1000.0 / xCpu.dMsPerFrame, xCpu.dMsPerFrame / xChain.dMsPerFrame);
      dCpuMs = xCpu.dMsPerFrame;
    } else {
      std::printf(
          "chain:  CPU peer not run (bayer2rgb from gstreamer1.0-plugins-bad is missing)\n");
    }

    Csv("chain", "upload debayer scale", xChain.dMsPerFrame, "ms/frame", dCpuMs);
    const SPipelineResult xChain16 = RunPipeline("qvcudaupload ! qvcudadebayer ! qvcudascale",
                                                 iWidth, iHeight, iChainFrames, "grbg16le");
    Require(xChain16.dMsPerFrame > 0, "16-bit chain", "no frame came out");
    std::printf("chain:  the same with 16-bit samples (grbg16le) %8.3f ms/frame (%.2f x 8-bit)\n",
                xChain16.dMsPerFrame, xChain16.dMsPerFrame / xChain.dMsPerFrame);
    Csv("chain", "upload debayer scale 16-bit", xChain16.dMsPerFrame, "ms/frame",
        xChain.dMsPerFrame);
    HostLines(bCuda);
    DownloadBench(iWidth, iHeight, bCuda);
    MixBenchmarks(bCuda);
    JpegBench(iWidth, iHeight, bCuda);
    RigBench(iRigWidth, iRigHeight, iRigSets, bCuda);
    if (szCsv && !WriteCsv(szCsv)) std::fprintf(stderr, "qvbench: cannot write %s\n", szCsv);
  } catch (const Qv::IException& e) {
    std::fprintf(stderr, "qvbench: %s\n", e.GetMessageText());
    return 1;
  }
  return 0;
}
