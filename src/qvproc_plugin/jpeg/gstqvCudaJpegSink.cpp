/**
 * SECTION:element-qvcudajpegsink
 *
 * Writes every frame of a device-image stream to its own JPEG file. The frame is converted to
 * YUV 4:2:0 on the device straight into the planes of a platform buffer, and an encoder reads
 * those planes: nvJPEG where the library is present and the device is a GPU (then only the
 * finished JPEG stream comes to the host), TurboJPEG otherwise. "location" names the files: a
 * pattern with at most one integer conversion, filled with the frame number from 1. No
 * factory: a host application registers the type (qvproc-launch does).
 *
 * |[
 * qvproc-launch videotestsrc num-buffers=10 ! video/x-bayer,format=grbg,width=3840,height=2160 ! \
 *     qvcudaupload ! qvcudadebayer ! qvcudascale ! qvcudajpegsink location=frame%05d.jpg
 * ]|
 */
#include "jpeg/gstqvCudaJpegSink.h"

#include <gst/video/video.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "QvCudaCompNormalize.h"
#include "QvCudaCompYUV.h"
#include "QvDevice.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "QvJpegEncoder.h"
#include "QvMessage.h"
#include "QvOperatorTexts.h"
#include "common/gstBufferMap.h"
#include "common/gstUtil.h"

GST_DEBUG_CATEGORY_STATIC(gst_cuda_jpeg_sink_debug);
#define GST_CAT_DEFAULT gst_cuda_jpeg_sink_debug

static GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw, format = (string) { RGBA, RGBA64_LE }, width = (int) [ 1, max ], "
                    "height = "
                    "(int) [ 1, max ], framerate = (fraction) [ 0, max ]"));

#define DEFAULT_LOCATION "image"
#define DEFAULT_QUALITY 85
#define BUFFER_WIDTH 3840
#define BUFFER_HEIGHT 2160
// 3840 * 2160 * 3: the output area is never smaller, and grows to the encoder's worst case
// where that is larger.
#define JPEG_CAPACITY 24883200ul
#define MAX_FILE_NAME 255
#define FPS_EVERY 5

enum { PROP_0, PROP_LOCATION, PROP_QUALITY };

G_DEFINE_TYPE_WITH_CODE(GstQvCudaJpegSink, gst_cuda_jpeg_sink, GST_TYPE_BASE_SINK,
                        GST_DEBUG_CATEGORY_INIT(gst_cuda_jpeg_sink_debug, "qvcudajpegsink", 0,
                                                "qvvideoproc JPEG sink"))

static void gst_cuda_jpeg_sink_finalize(GObject* object);
static void gst_cuda_jpeg_sink_set_property(GObject* object, guint prop_id, const GValue* value,
                                            GParamSpec* pspec);
static void gst_cuda_jpeg_sink_get_property(GObject* object, guint prop_id, GValue* value,
                                            GParamSpec* pspec);
static gboolean gst_cuda_jpeg_sink_start(GstBaseSink* sink);
static gboolean gst_cuda_jpeg_sink_set_caps(GstBaseSink* sink, GstCaps* caps);
static GstFlowReturn gst_cuda_jpeg_sink_render(GstBaseSink* sink, GstBuffer* buffer);

static void gst_cuda_jpeg_sink_class_init(GstQvCudaJpegSinkClass* klass) {
  GObjectClass* pxObjectClass = G_OBJECT_CLASS(klass);
  GstElementClass* pxElementClass = GST_ELEMENT_CLASS(klass);
  GstBaseSinkClass* pxSinkClass = GST_BASE_SINK_CLASS(klass);

  pxObjectClass->finalize = gst_cuda_jpeg_sink_finalize;
  pxObjectClass->set_property = gst_cuda_jpeg_sink_set_property;
  pxObjectClass->get_property = gst_cuda_jpeg_sink_get_property;

  g_object_class_install_property(
      pxObjectClass, PROP_LOCATION,
      g_param_spec_string("location", "Location", "storage location for the jpegs",
                          DEFAULT_LOCATION,
                          static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
  g_object_class_install_property(
      pxObjectClass, PROP_QUALITY,
      g_param_spec_int("quality", "Quality", "jpeg quality level (0-100)", 0, 100, DEFAULT_QUALITY,
                       static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));

  gst_element_class_set_static_metadata(pxElementClass, "CUDA_JPEG Sink", "Sink/Video",
                                        "Velmora cuda jpeg sink ", "qvvideoproc developers");
  gst_element_class_add_static_pad_template(pxElementClass, &sink_template);

  pxSinkClass->start = GST_DEBUG_FUNCPTR(gst_cuda_jpeg_sink_start);
  pxSinkClass->set_caps = GST_DEBUG_FUNCPTR(gst_cuda_jpeg_sink_set_caps);
  pxSinkClass->render = GST_DEBUG_FUNCPTR(gst_cuda_jpeg_sink_render);
}

// The platform buffer at the given size, in the memory that the encoder reads, mapped; the
// output area grows with it where the encoder's worst case needs more.
static void gst_cuda_jpeg_sink_make_buffer(GstQvCudaJpegSink* self, int iWidth, int iHeight) {
  self->xBufferShim.UnmapNvBuffer(self->xNvMapped);
  self->xBufferShim.DestroyNvBuffer(self->xNvBuffer);
  self->xNvBuffer = self->xBufferShim.CreateNvBuffer(NvBufferColorFormat_YUV420, iWidth, iHeight,
                                                     self->pxEncoder->GetPlaneMemory());
  self->xNvMapped = self->xBufferShim.MapNvBuffer(self->xNvBuffer);
  const unsigned long uNeeded = self->pxEncoder->GetMaxStreamSize(iWidth, iHeight);
  if (!self->pJpegData || uNeeded > self->uJpegCapacity) {
    delete[] self->pJpegData;
    self->pJpegData = nullptr;
    self->uJpegCapacity = uNeeded > JPEG_CAPACITY ? uNeeded : JPEG_CAPACITY;
    self->pJpegData = new unsigned char[self->uJpegCapacity];
  }
  self->uJpegSize = self->uJpegCapacity;
}

static void gst_cuda_jpeg_sink_init(GstQvCudaJpegSink* self) {
  self->sLocation = g_strdup(DEFAULT_LOCATION);
  self->iQuality = DEFAULT_QUALITY;
  self->uFrames = 0;
  self->pxYuvComp = new Qv::CQvCudaCompYUV();
  // An element without a device still exists; start says why it cannot run.
  try {
    self->pxStream = Qv::Device::CreateStream();
    try {
      self->pxEncoder = NvJpegEncoder::Create(EJpegEncoder::Auto, self->pxStream).release();
    } catch (const Qv::IException& e) {
      GST_WARNING_OBJECT(self, "nvJPEG cannot start (%s): TurboJPEG encodes", e.GetMessageText());
      self->pxEncoder = NvJpegEncoder::Create(EJpegEncoder::Turbo, self->pxStream).release();
    }
    self->xBufferShim.Initialize();
    gst_cuda_jpeg_sink_make_buffer(self, BUFFER_WIDTH, BUFFER_HEIGHT);
  } catch (const Qv::IException& e) {
    self->sInitError = g_strdup(e.GetMessageText());
    GST_DEBUG_OBJECT(self, "cannot set up the device: %s", e.GetMessageText());
  }
  self->pxTimes = new std::list<int64_t>();
}

static void gst_cuda_jpeg_sink_finalize(GObject* object) {
  GstQvCudaJpegSink* self = GST_CUDA_JPEG_SINK(object);
  self->xBufferShim.UnmapNvBuffer(self->xNvMapped);
  self->xBufferShim.DestroyNvBuffer(self->xNvBuffer);
  self->xBufferShim.Destroy();
  delete[] self->pJpegData;
  self->pJpegData = nullptr;
  Qv::OperatorMessage(QV_TEXT_SINK_FINALIZE);
  delete self->pxEncoder;
  delete self->pxYuvComp;
  if (self->pxStream) {
    try {
      Qv::Device::DestroyStream(self->pxStream);
    } catch (const Qv::IException&) {
    }
  }
  delete self->pxTimes;
  g_free(self->sLocation);
  g_free(self->sInitError);
  g_free(self->sLocationError);
  G_OBJECT_CLASS(gst_cuda_jpeg_sink_parent_class)->finalize(object);
}

// A pattern goes to snprintf with the frame number as its one argument, so it may hold at most
// one integer conversion (flags, width and precision allowed; no '*', no length modifier) and
// any number of "%%". Gives null when the pattern is sound, else why not.
static const gchar* gst_cuda_jpeg_sink_pattern_fault(const gchar* szPattern) {
  if (!szPattern) return "no pattern";
  int iConversions = 0;
  for (const gchar* p = szPattern; *p; ++p) {
    if (*p != '%') continue;
    if (*++p == '%') continue;
    while (*p && std::strchr("-+ #0", *p)) ++p;
    while (g_ascii_isdigit(*p)) ++p;
    if (*p == '.')
      for (++p; g_ascii_isdigit(*p);) ++p;
    if (!*p) return "it ends inside a conversion";
    if (!std::strchr("diuxXo", *p))
      return "a conversion other than d, i, u, x, X or o (no '*', no length modifier)";
    if (++iConversions > 1) return "more than one conversion";
  }
  return nullptr;
}

static void gst_cuda_jpeg_sink_set_property(GObject* object, guint prop_id, const GValue* value,
                                            GParamSpec* pspec) {
  GstQvCudaJpegSink* self = GST_CUDA_JPEG_SINK(object);
  switch (prop_id) {
    case PROP_LOCATION: {
      const gchar* szNew = g_value_get_string(value);
      const gchar* szFault = gst_cuda_jpeg_sink_pattern_fault(szNew);
      // Without a bus yet the warning goes unseen: start fails on the refusal it keeps.
      if (szFault) {
        GST_OBJECT_LOCK(self);
        g_free(self->sLocationError);
        self->sLocationError =
            g_strdup_printf("location \"%s\" refused: %s", szNew ? szNew : "(null)", szFault);
        gchar* szText = g_strdup_printf("%s; \"%s\" stays", self->sLocationError, self->sLocation);
        GST_OBJECT_UNLOCK(self);
        GST_ELEMENT_WARNING(self, RESOURCE, SETTINGS, ("%s", szText), (NULL));
        g_free(szText);
        return;
      }
      GST_OBJECT_LOCK(self);
      g_clear_pointer(&self->sLocationError, g_free);
      g_free(self->sLocation);
      self->sLocation = g_strdup(szNew);
      GST_OBJECT_UNLOCK(self);
      break;
    }
    case PROP_QUALITY:
      GST_OBJECT_LOCK(self);
      self->iQuality = g_value_get_int(value);
      GST_OBJECT_UNLOCK(self);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
      break;
  }
}

static void gst_cuda_jpeg_sink_get_property(GObject* object, guint prop_id, GValue* value,
                                            GParamSpec* pspec) {
  GstQvCudaJpegSink* self = GST_CUDA_JPEG_SINK(object);
  GST_OBJECT_LOCK(self);
  switch (prop_id) {
    case PROP_LOCATION:
      g_value_set_string(value, self->sLocation);
      break;
    case PROP_QUALITY:
      g_value_set_int(value, self->iQuality);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
      break;
  }
  GST_OBJECT_UNLOCK(self);
}

static gboolean gst_cuda_jpeg_sink_start(GstBaseSink* sink) {
  GstQvCudaJpegSink* self = GST_CUDA_JPEG_SINK(sink);
  if (self->sInitError || !self->pxEncoder) {
    GST_ELEMENT_ERROR(self, RESOURCE, FAILED,
                      ("%s", self->sInitError ? self->sInitError : "no JPEG encoder"),
                      ("no platform buffer or encoder for %s", GST_OBJECT_NAME(self)));
    return FALSE;
  }
  GST_OBJECT_LOCK(self);
  g_autofree gchar* szLocationError = g_strdup(self->sLocationError);
  GST_OBJECT_UNLOCK(self);
  if (szLocationError) {
    GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("%s", szLocationError), (NULL));
    return FALSE;
  }
  GST_INFO_OBJECT(self, "encoding with %s on the %s backend", self->pxEncoder->GetName(),
                  Qv::Device::GetBackendName());
  return TRUE;
}

// The three-plane conversion writes chroma for whole 2 x 2 blocks only, so a frame of an odd
// side would leave the last chroma column or row unwritten; such frames are refused here.
static gboolean gst_cuda_jpeg_sink_set_caps(GstBaseSink* sink, GstCaps* caps) {
  GstQvCudaJpegSink* self = GST_CUDA_JPEG_SINK(sink);
  GstVideoInfo xInfo;
  if (!gst_video_info_from_caps(&xInfo, caps)) {
    GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("cannot read the caps as a video frame"), (NULL));
    return FALSE;
  }
  const int iWidth = GST_VIDEO_INFO_WIDTH(&xInfo);
  const int iHeight = GST_VIDEO_INFO_HEIGHT(&xInfo);
  if (iWidth < 2 || iHeight < 2 || iWidth % 2 || iHeight % 2) {
    GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
                      ("a frame of %dx%d cannot be written as JPEG: the 4:2:0 planes need an even "
                       "width and height of at least 2",
                       iWidth, iHeight),
                      (NULL));
    return FALSE;
  }
  if (!self->pxEncoder) return FALSE;
  if (static_cast<int>(self->xNvBuffer.xParams.width[0]) == iWidth &&
      static_cast<int>(self->xNvBuffer.xParams.height[0]) == iHeight)
    return TRUE;
  try {
    gst_cuda_jpeg_sink_make_buffer(self, iWidth, iHeight);
  } catch (const Qv::IException& e) {
    GST_ELEMENT_ERROR(self, RESOURCE, NO_SPACE_LEFT, ("%s", e.GetMessageText()),
                      ("no platform buffer of %dx%d", iWidth, iHeight));
    return FALSE;
  }
  GST_DEBUG_OBJECT(self, "platform buffer of %dx%d", iWidth, iHeight);
  return TRUE;
}

// The time stamp of a frame and, every few frames, the rate over the list.
static void gst_cuda_jpeg_sink_count_frame(GstQvCudaJpegSink* self) {
  const int64_t iNowMs = std::chrono::duration_cast<std::chrono::nanoseconds>(
                             std::chrono::system_clock::now().time_since_epoch())
                             .count() /
                         1000000;
  std::list<int64_t>& xTimes = *self->pxTimes;
  xTimes.push_back(iNowMs);
  ++self->uFrames;
  if (self->uFrames % FPS_EVERY == 0) {
    const float fFps = 1000.0f / (static_cast<float>(xTimes.back() - xTimes.front()) /
                                  (static_cast<float>(xTimes.size()) - 1.0f));
    // %g is the default stream format of a float.
    Qv::OperatorMessage(QV_TEXT_FPS, static_cast<double>(fFps));
  }
  if (xTimes.size() > FPS_EVERY) xTimes.pop_front();
}

// A file that cannot be named, opened or written costs this frame and a warning, nothing more.
static void gst_cuda_jpeg_sink_write(GstQvCudaJpegSink* self, const gchar* szPattern) {
  gchar szName[MAX_FILE_NAME + 1];
  const int iLength = std::snprintf(szName, sizeof(szName), szPattern, self->uFrames);
  if (iLength < 0 || iLength > MAX_FILE_NAME) {
    GST_ELEMENT_WARNING(self, RESOURCE, WRITE,
                        ("the file name of frame %u from \"%s\" is longer than %d characters: the "
                         "frame is not written",
                         self->uFrames, szPattern, MAX_FILE_NAME),
                        (NULL));
    return;
  }
  std::FILE* pxFile = std::fopen(szName, "wb");
  if (!pxFile) {
    GST_ELEMENT_WARNING(self, RESOURCE, OPEN_WRITE,
                        ("Could not open file \"%s\" for writing.", szName), GST_ERROR_SYSTEM);
    return;
  }
  const bool bWritten = std::fwrite(self->pJpegData, 1, self->uJpegSize, pxFile) == self->uJpegSize;
  if (std::fclose(pxFile) != 0 || !bWritten)
    GST_ELEMENT_WARNING(self, RESOURCE, WRITE, ("Could not write to file \"%s\".", szName),
                        GST_ERROR_SYSTEM);
}

static GstFlowReturn gst_cuda_jpeg_sink_render(GstBaseSink* sink, GstBuffer* buffer) {
  GstQvCudaJpegSink* self = GST_CUDA_JPEG_SINK(sink);
  gst_cuda_jpeg_sink_count_frame(self);
  GST_OBJECT_LOCK(self);
  const std::string sPattern = self->sLocation;
  const int iQuality = self->iQuality;
  GST_OBJECT_UNLOCK(self);
  try {
    if (!self->pxEncoder || !self->xNvMapped.pPlane[0]) QV_THROW("no platform buffer");
    {
      CGstBufferMap xMap(buffer, GST_MAP_READ, "cannot map inbuffer");
      Qv::CQvDeviceImage2D* pxSource = DeviceImageOfBuffer(buffer, xMap.Data());
      if (!pxSource) QV_THROW("no image data found");
      const Qv::CQvImageFormat& xFormat = pxSource->GetFormat();
      // The conversion runs over the buffer's extent: a frame of another size would be read
      // outside its image or leave part of the buffer stale.
      if (xFormat.iWidth != self->xNvMapped.iWidth[0] ||
          xFormat.iHeight != self->xNvMapped.iHeight[0]) {
        Qv::CQvString sText("a frame of ");
        sText << xFormat.iWidth << "x" << xFormat.iHeight << " does not fit the platform buffer of "
              << self->xNvMapped.iWidth[0] << "x" << self->xNvMapped.iHeight[0];
        QV_THROW(sText.ToCString());
      }
      Qv::CQvDeviceImage2D xY, xU, xV;
      self->xBufferShim.GetMoniker(self->xNvMapped, xY, xU, xV);
      // The platform buffer's planes are 8-bit: 16-bit colour is narrowed to 8 bits first.
      Qv::CQvDeviceImage2D xNarrow;
      if (xFormat.eDataType == Qv::EDataType::UShort) {
        Qv::CQvCudaCompNormalize xNormalize;
        xNormalize.SetStream(self->pxStream);
        xNormalize.Normalize(xNarrow, *pxSource, Qv::EDataType::UByte);
        pxSource = &xNarrow;
      }
      self->pxYuvComp->SetStream(self->pxStream);
      self->pxYuvComp->Convert(xY, xU, xV, *pxSource);
      Qv::Device::SynchronizeStream(self->pxStream);
    }
    self->pxEncoder->Encode(self->xNvBuffer, iQuality, &self->pJpegData, self->uJpegSize);
    gst_cuda_jpeg_sink_write(self, sPattern.c_str());
    self->uJpegSize = self->uJpegCapacity;
  } catch (const Qv::CQvException& e) {
    self->uJpegSize = self->uJpegCapacity;
    Qv::OperatorMessage("%s\n", e.ToString(true).ToCString());
    GST_ELEMENT_WARNING(self, STREAM, FAILED,
                        ("frame %u is lost: %s", self->uFrames, e.GetMessageText()), (NULL));
  }
  return GST_FLOW_OK;
}
