/**
 * SECTION:element-qvcudasink
 *
 * Shows device images in a window on the X11 display. The window comes up at the first frame
 * on a thread of its own; each frame goes from device memory into the window's GL texture.
 * The window's keys pick the camera (sent upstream to qvcudamix as "eventStruct" with
 * "camID" on every frame), step focus, gain and exposure through v4l2-ctl, and toggle
 * mipmapping ("m", also the property "mipmap"); the pointer pans (left button) and zooms
 * (right button), "r" resets the view. A frame that finds the window busy is dropped.
 *
 * |[
 * gst-launch-1.0 videotestsrc ! video/x-bayer,format=grbg,width=1920,height=1080 ! \
 *     qvcudaupload ! qvcudadebayer ! qvcudascale ! qvcudasink
 * ]|
 */
#include "display/gstqvCudaSink.h"

#include <chrono>
#include <cstdio>

#include "QvException.h"
#include "QvMessage.h"
#include "QvOperatorTexts.h"
#include "common/gstBufferMap.h"
#include "common/gstUtil.h"
#include "nativewindow_glx.h"

GST_DEBUG_CATEGORY_STATIC(gst_cuda_sink_debug);
#define GST_CAT_DEFAULT gst_cuda_sink_debug

#define SINK_CAPS                                                                                  \
  "video/x-bayer,format=(string){BA81,bggr,grbg,gbrg,rggb},width=(int)[1,MAX],height=(int)[1,"     \
  "MAX],framerate=(fraction)[0/1,MAX];video/x-raw, format = (string) { RGBA, GRAY8, RGBA64_LE }, " \
  "width = "                                                                                       \
  "(int) [ 1, max ], height = (int) [ 1, max ], framerate = (fraction) [ 0, max ]"

static GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(SINK_CAPS));

#define DEFAULT_MIPMAP FALSE
// The property's id is part of the element's interface.
enum { PROP_0, PROP_MIPMAP = 1234 };

// GST_EVENT_CUSTOM_UPSTREAM (69121).
#define CAMERA_EVENT_TYPE GST_EVENT_CUSTOM_UPSTREAM
#define FPS_EVERY 25
#define MAX_TIMES 25

G_DEFINE_TYPE_WITH_CODE(GstQvCudaSink, gst_cuda_sink, GST_TYPE_BASE_SINK,
                        GST_DEBUG_CATEGORY_INIT(gst_cuda_sink_debug, "qvcudasink", 0,
                                                "qvvideoproc display sink"))

static void gst_cuda_sink_finalize(GObject* object);
static void gst_cuda_sink_set_property(GObject* object, guint prop_id, const GValue* value,
                                       GParamSpec* pspec);
static void gst_cuda_sink_get_property(GObject* object, guint prop_id, GValue* value,
                                       GParamSpec* pspec);
static GstFlowReturn gst_cuda_sink_render(GstBaseSink* sink, GstBuffer* buffer);
static gboolean gst_cuda_sink_stop(GstBaseSink* sink);

static void gst_cuda_sink_class_init(GstQvCudaSinkClass* klass) {
  GObjectClass* pxObjectClass = G_OBJECT_CLASS(klass);
  GstElementClass* pxElementClass = GST_ELEMENT_CLASS(klass);
  GstBaseSinkClass* pxSinkClass = GST_BASE_SINK_CLASS(klass);

  pxObjectClass->finalize = gst_cuda_sink_finalize;
  pxObjectClass->set_property = gst_cuda_sink_set_property;
  pxObjectClass->get_property = gst_cuda_sink_get_property;

  g_object_class_install_property(
      pxObjectClass, PROP_MIPMAP,
      g_param_spec_boolean("mipmap", "MipMap", "Whether to use mipmapping or not", DEFAULT_MIPMAP,
                           static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));

  gst_element_class_set_static_metadata(pxElementClass, "CUDA Sink", "Sink/Video",
                                        "Velmora cuda sink ", "qvvideoproc developers");
  gst_element_class_add_static_pad_template(pxElementClass, &sink_template);

  pxSinkClass->render = GST_DEBUG_FUNCPTR(gst_cuda_sink_render);
  pxSinkClass->stop = GST_DEBUG_FUNCPTR(gst_cuda_sink_stop);
}

static void gst_cuda_sink_init(GstQvCudaSink* self) {
  self->pxTimes = new std::deque<gint64>();
  self->uFrames = 0;
  self->pxWindow = NULL;
  self->bMipMapAtStart = DEFAULT_MIPMAP;
}

// The window, its thread and its X11 connection end at PAUSED to READY and with the element,
// never later: a thread still drawing while the host application exits crashes it. The next
// start opens a new window. Streaming has stopped here.
static gboolean gst_cuda_sink_stop(GstBaseSink* sink) {
  GstQvCudaSink* self = GST_CUDA_SINK(sink);
  GST_OBJECT_LOCK(self);
  CNativeWindowX11GLX* pxWindow = self->pxWindow;
  if (pxWindow) self->bMipMapAtStart = pxWindow->bMipMap;
  self->pxWindow = NULL;
  GST_OBJECT_UNLOCK(self);
  delete pxWindow;  // joins the thread
  return TRUE;
}

static void gst_cuda_sink_finalize(GObject* object) {
  GstQvCudaSink* self = GST_CUDA_SINK(object);
  gst_cuda_sink_stop(GST_BASE_SINK(object));
  delete self->pxTimes;
  self->pxTimes = NULL;
  G_OBJECT_CLASS(gst_cuda_sink_parent_class)->finalize(object);
}

static void gst_cuda_sink_set_property(GObject* object, guint prop_id, const GValue* value,
                                       GParamSpec* pspec) {
  GstQvCudaSink* self = GST_CUDA_SINK(object);
  switch (prop_id) {
    case PROP_MIPMAP:
      GST_OBJECT_LOCK(self);
      if (self->pxWindow)
        self->pxWindow->bMipMap = g_value_get_boolean(value) != FALSE;
      else
        self->bMipMapAtStart = g_value_get_boolean(value);
      GST_OBJECT_UNLOCK(self);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
      break;
  }
}

static void gst_cuda_sink_get_property(GObject* object, guint prop_id, GValue* value,
                                       GParamSpec* pspec) {
  GstQvCudaSink* self = GST_CUDA_SINK(object);
  switch (prop_id) {
    case PROP_MIPMAP:
      GST_OBJECT_LOCK(self);
      g_value_set_boolean(value, self->pxWindow && self->pxWindow->bMipMap);
      GST_OBJECT_UNLOCK(self);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
      break;
  }
}

static void gst_cuda_sink_make_window(GstQvCudaSink* self) {
  CNativeWindowX11GLX* pxWindow = new CNativeWindowX11GLX();
  GST_OBJECT_LOCK(self);
  self->pxWindow = pxWindow;
  if (self->bMipMapAtStart) pxWindow->bMipMap = true;
  GST_OBJECT_UNLOCK(self);
  // Returns at once; the window comes up on its own thread, and frames that arrive before it
  // is ready are dropped.
  pxWindow->CreateNativeThreaded(0, 0, 800, 600);
  GST_DEBUG_OBJECT(self, "window thread started");
}

static void gst_cuda_sink_count_frame(GstQvCudaSink* self) {
  const gint64 iNowMs = std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count() /
                        1000000;
  std::deque<gint64>& xTimes = *self->pxTimes;
  xTimes.push_back(iNowMs);
  ++self->uFrames;
  if (self->uFrames % FPS_EVERY == 0) {
    const float fSpan = static_cast<float>(xTimes.back() - xTimes.front());
    const float fFps = 1000.0f / (fSpan / (static_cast<float>(xTimes.size()) - 1.0f));
    // %g is the default stream format of a float.
    Qv::OperatorMessage(QV_TEXT_FPS, static_cast<double>(fFps));
  }
  if (xTimes.size() > MAX_TIMES) xTimes.pop_front();
}

static GstFlowReturn gst_cuda_sink_render(GstBaseSink* sink, GstBuffer* buffer) {
  GstQvCudaSink* self = GST_CUDA_SINK(sink);
  if (!self->pxWindow) gst_cuda_sink_make_window(self);
  gst_cuda_sink_count_frame(self);

  try {
    const int iCamera = self->pxWindow->iCamera;
    if (iCamera != -1) {
      GstStructure* pxStructure =
          gst_structure_new("eventStruct", "camID", G_TYPE_INT, iCamera, NULL);
      gst_element_send_event(GST_ELEMENT(self),
                             gst_event_new_custom(CAMERA_EVENT_TYPE, pxStructure));
    }
    CGstBufferMap xMap(buffer, GST_MAP_READ, "cannot map inbuffer");
    // Memory of any other allocator is refused rather than taken for an image.
    Qv::CQvDeviceImage2D* pxImage = DeviceImageOfBuffer(buffer, xMap.Data());
    if (!pxImage) {
      Qv::OperatorMessage(QV_TEXT_NO_DEVICE_IMAGE);
    } else {
      self->pxWindow->UpdateTextureThreaded(pxImage);
    }
  } catch (const Qv::CQvException& e) {
    Qv::OperatorMessage("%s\n", e.ToString(true).ToCString());
  }
  if (!self->pxWindow->IsClosed()) return GST_FLOW_OK;
  // The window's thread has ended by itself: the user closed the window (reported as GStreamer's
  // own video sinks do), or X11, GL or the device failed it.
  const std::string& sError = self->pxWindow->GetError();
  GST_ELEMENT_ERROR(self, RESOURCE, NOT_FOUND,
                    ("%s", sError.empty() ? "Output window was closed" : sError.c_str()), (NULL));
  return GST_FLOW_ERROR;
}
