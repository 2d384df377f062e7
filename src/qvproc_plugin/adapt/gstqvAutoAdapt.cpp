/**
 * SECTION:element-qvautoadapt
 *
 * Holds exposure and gain of a camera at a target brightness. It stands in the raw branch,
 * before the upload, passes every buffer on untouched, measures every "update"-th frame in
 * place and writes the new values to the V4L2 driver of "device". Each frame gets a
 * MyMetaInfo with the exposure and gain it was taken with. With "master" set, the instances of
 * a rig only report their brightness, and the one on /dev/video0 sets all six cameras to the
 * values for their mean. No factory: a host application registers the type (qvproc-launch
 * does).
 *
 * |[
 * qvproc-launch v4l2src device=/dev/video0 ! video/x-bayer,format=grbg,width=3840,height=2160 ! \
 *     qvautoadapt device=/dev/video0 ! qvcudaupload ! qvcudadebayer ! qvcudasink
 * ]|
 */
#include "adapt/gstqvAutoAdapt.h"

#include <gst/video/video.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <string>

#include "H5Camera.h"
#include "QvException.h"
#include "QvImage.h"
#include "common/gstBufferMap.h"
#include "common/gstUtil.h"
#include "common/gstqvMetaInfo.h"

GST_DEBUG_CATEGORY_STATIC(gst_auto_adapt_debug);
#define GST_CAT_DEFAULT gst_auto_adapt_debug

#define AUTO_ADAPT_CAPS                                                                      \
  "video/x-raw, format = (string) { GRAY8 }, width = (int) [ 1, max ], height = (int) [ 1, " \
  "max ], framerate = (fraction) [ 0, max ];video/x-bayer,format=(string){BA81,bggr,grbg,"   \
  "gbrg,rggb},width=(int)[1,MAX],height=(int)[1,MAX],framerate=(fraction)[0/1,MAX];"

static GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(AUTO_ADAPT_CAPS));
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(AUTO_ADAPT_CAPS));

#define DEFAULT_DEVICE "/dev/video0"
// The device whose instance, in master mode, controls the rig.
#define CONTROLLER_DEVICE "/dev/video0"
#define RIG_CAMERAS 6

enum {
  PROP_0,
  PROP_DEVICE,
  PROP_AUTOEXP,
  PROP_AUTOGAIN,
  PROP_MASTER = 5,
  PROP_ROIX1,
  PROP_ROIX2,
  PROP_ROIY1,
  PROP_ROIY2,
  PROP_TARGET,
  PROP_TOLERANCE,
  PROP_ADAPTION,
  PROP_PENALTY,
  PROP_SAMPLES,
  PROP_UPDATE
};

G_DEFINE_TYPE_WITH_CODE(GstQvAutoAdapt, gst_auto_adapt, GST_TYPE_BASE_TRANSFORM,
                        GST_DEBUG_CATEGORY_INIT(gst_auto_adapt_debug, "qvautoadapt", 0,
                                                "qvvideoproc auto adapt element"))

static void gst_auto_adapt_set_property(GObject* object, guint prop_id, const GValue* value,
                                        GParamSpec* pspec);
static void gst_auto_adapt_get_property(GObject* object, guint prop_id, GValue* value,
                                        GParamSpec* pspec);
static void gst_auto_adapt_finalize(GObject* object);
static gboolean gst_auto_adapt_set_caps(GstBaseTransform* trans, GstCaps* incaps, GstCaps* outcaps);
static GstFlowReturn gst_auto_adapt_transform_frame_ip(GstBaseTransform* trans, GstBuffer* buffer);

namespace {

// The reports of all instances of the process, on a bus of their own that serves as a queue.
// Posts and pops go through one lock, which keeps the count that bounds it.
class CReportBus {
 public:
  static CReportBus& Get() {
    static CReportBus xBus;
    return xBus;
  }

  void Post(GstMessage* pxMessage) {
    std::lock_guard<std::mutex> xGuard(m_xLock);
    while (m_uQueued >= QV_AUTO_ADAPT_MAX_REPORTS) {
      GstMessage* pxOldest = gst_bus_pop(m_pxBus);
      if (!pxOldest) break;
      gst_message_unref(pxOldest);
      --m_uQueued;
    }
    if (gst_bus_post(m_pxBus, pxMessage)) ++m_uQueued;
  }

  // Null when nothing waits. The caller releases the message.
  GstMessage* Pop() {
    std::lock_guard<std::mutex> xGuard(m_xLock);
    if (!gst_bus_have_pending(m_pxBus)) return NULL;
    GstMessage* pxMessage = gst_bus_pop(m_pxBus);
    if (pxMessage && m_uQueued > 0) --m_uQueued;
    return pxMessage;
  }

 private:
  CReportBus() : m_pxBus(gst_bus_new()) {}

  GstBus* m_pxBus;
  std::mutex m_xLock;
  size_t m_uQueued = 0;
};

// Latest brightness by device; only the controller's streaming thread touches it.
std::map<std::string, float>& MessageMap() {
  static std::map<std::string, float> xMap;
  return xMap;
}

// Bytes between rows: a video meta's stride, else rows padded to 4 bytes as GStreamer lays out
// GRAY8 and bayer frames, or packed rows in a buffer too small for padding.
gsize FrameStride(GstBuffer* pxBuffer, gsize uSize, guint64 uWidth, guint64 uHeight,
                  gsize& uOffset) {
  const GstVideoMeta* pxMeta = gst_buffer_get_video_meta(pxBuffer);
  uOffset = pxMeta ? pxMeta->offset[0] : 0;
  if (pxMeta) return static_cast<gsize>(std::max(pxMeta->stride[0], 0));
  return uSize >= GST_ROUND_UP_4(uWidth) * uHeight ? GST_ROUND_UP_4(uWidth) : uWidth;
}

GstMessage* CreateMessage(const SAutoAdaptStatus& status) {
  GstStructure* pxStructure = gst_structure_new_from_string("autoadapt");
  GValue xDevice = G_VALUE_INIT;
  g_value_init(&xDevice, G_TYPE_STRING);
  g_value_set_string(&xDevice, status.sDevice.c_str());
  gst_structure_set_value(pxStructure, "device", &xDevice);
  g_value_unset(&xDevice);
  GValue xBrightness = G_VALUE_INIT;
  g_value_init(&xBrightness, G_TYPE_FLOAT);
  g_value_set_float(&xBrightness, status.fBrightness);
  gst_structure_set_value(pxStructure, "brightness", &xBrightness);
  return gst_message_new_application(NULL, pxStructure);
}

// A message without the two fields gives a report without device.
SAutoAdaptStatus ReadMessage(GstMessage* message) {
  SAutoAdaptStatus xStatus;
  const GstStructure* pxStructure = gst_message_get_structure(message);
  if (!pxStructure) return xStatus;
  const GValue* pxDevice = gst_structure_get_value(pxStructure, "device");
  const GValue* pxBrightness = gst_structure_get_value(pxStructure, "brightness");
  if (!pxDevice || !G_VALUE_HOLDS_STRING(pxDevice) || !pxBrightness ||
      !G_VALUE_HOLDS_FLOAT(pxBrightness))
    return xStatus;
  const gchar* szDevice = g_value_get_string(pxDevice);
  xStatus.sDevice = szDevice ? szDevice : "";
  xStatus.fBrightness = g_value_get_float(pxBrightness);
  return xStatus;
}

// The controller's part of a frame: take in the reports, and once all six cameras have
// reported, set all of them to the values for their mean brightness.
void JointStep(CH5Camera& xCamera, CAutoAdapt& xAdapt, const std::string& sDevice, float fGain,
               float fExposure) {
  std::map<std::string, float>& xMap = MessageMap();
  CReportBus& xBus = CReportBus::Get();
  while (GstMessage* pxMessage = xBus.Pop()) {
    const SAutoAdaptStatus xStatus = ReadMessage(pxMessage);
    gst_message_unref(pxMessage);
    if (!xStatus.sDevice.empty()) xMap[xStatus.sDevice] = xStatus.fBrightness;
  }
  if (xMap.size() != RIG_CAMERAS) return;
  float fSum = 0.0f;
  for (const auto& xEntry : xMap) fSum += xEntry.second;
  const float fMean = fSum / 6.0f;
  // The next joint step waits for all six again, also when this one fails.
  const std::map<std::string, float> xReports = std::move(xMap);
  xMap.clear();
  if (!xAdapt.CalculateExposureGain(fGain, fExposure, fMean)) return;
  xAdapt.ClipValues(fGain, fExposure);
  try {
    for (const auto& xEntry : xReports) {
      xCamera.SetDevice(xEntry.first);
      xCamera.SetProperty(CamGain, fGain);
      xCamera.SetProperty(CamExposure, fExposure);
    }
  } catch (const Qv::IException&) {
    // The controller's own camera stays its own.
    xCamera.SetDevice(sDevice);
    throw;
  }
  xCamera.SetDevice(sDevice);
}

}  // namespace

bool QvAutoAdaptPopReport(SAutoAdaptStatus& status) {
  GstMessage* pxMessage = CReportBus::Get().Pop();
  if (!pxMessage) return false;
  status = ReadMessage(pxMessage);
  gst_message_unref(pxMessage);
  return true;
}

static void gst_auto_adapt_class_init(GstQvAutoAdaptClass* klass) {
  GObjectClass* pxObjectClass = G_OBJECT_CLASS(klass);
  GstElementClass* pxElementClass = GST_ELEMENT_CLASS(klass);
  GstBaseTransformClass* pxTransClass = GST_BASE_TRANSFORM_CLASS(klass);

  pxObjectClass->set_property = gst_auto_adapt_set_property;
  pxObjectClass->get_property = gst_auto_adapt_get_property;
  pxObjectClass->finalize = gst_auto_adapt_finalize;

  const GParamFlags eFlags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
  g_object_class_install_property(
      pxObjectClass, PROP_DEVICE,
      g_param_spec_string("device", "Device", "Device to manipulate", DEFAULT_DEVICE, eFlags));
  g_object_class_install_property(
      pxObjectClass, PROP_AUTOEXP,
      g_param_spec_boolean("autoexp", "AutoExp", "Enable auto exposure", TRUE, eFlags));
  g_object_class_install_property(
      pxObjectClass, PROP_AUTOGAIN,
      g_param_spec_boolean("autogain", "AutoGain", "Enable auto gain", TRUE, eFlags));
  g_object_class_install_property(
      pxObjectClass, PROP_MASTER,
      g_param_spec_boolean("master", "Master", "Use Master to control values", FALSE, eFlags));
  struct SFloatProperty {
    guint uId;
    const char *szName, *szNick, *szBlurb;
    float fMin, fMax, fDefault;
  };
  // "adaption" declares 0.0 as its default, while a new element starts at 0.5 (set at init).
  static const SFloatProperty axFloats[] = {
      {PROP_ROIX1, "roix1", "ROIX1", "Region of interest Start-X", 0.0f, 1.0f, 0.0f},
      {PROP_ROIX2, "roix2", "ROIX2", "Region of interest End-X", 0.0f, 1.0f, 1.0f},
      {PROP_ROIY1, "roiy1", "ROIY1", "Region of interest Start-Y", 0.0f, 1.0f, 0.0f},
      {PROP_ROIY2, "roiy2", "ROIY2", "Region of interest End-Y", 0.0f, 1.0f, 1.0f},
      {PROP_TARGET, "target", "Target", "Target brightness", 0.0f, 1.0f, 0.4f},
      {PROP_TOLERANCE, "tolerance", "Tolerance", "Tolerance for the target brightness", 0.0f, 1.0f,
       0.1f},
      {PROP_ADAPTION, "adaption", "Adaption", "Adaption rate for exp/gain", 0.0f, 0.5f, 0.0f},
      {PROP_PENALTY, "penalty", "Penalty", "Penalty for overexposed pixel", 0.0f, 100.0f, 1.0f},
  };
  for (const SFloatProperty& x : axFloats)
    g_object_class_install_property(
        pxObjectClass, x.uId,
        g_param_spec_float(x.szName, x.szNick, x.szBlurb, x.fMin, x.fMax, x.fDefault, eFlags));
  g_object_class_install_property(
      pxObjectClass, PROP_SAMPLES,
      g_param_spec_int("samples", "Samples", "Samples taken per axis", 1, 1000, 50, eFlags));
  g_object_class_install_property(
      pxObjectClass, PROP_UPDATE,
      g_param_spec_int("update", "Update", "Update intervall for brightness measure", 1, 1000, 5,
                       eFlags));

  gst_element_class_set_static_metadata(pxElementClass, "qv auto exposure and gain",
                                        "Filter/Effect/Video", "Velmora Auto adapt camera settings",
                                        "qvvideoproc developers");
  gst_element_class_add_static_pad_template(pxElementClass, &src_template);
  gst_element_class_add_static_pad_template(pxElementClass, &sink_template);

  pxTransClass->set_caps = GST_DEBUG_FUNCPTR(gst_auto_adapt_set_caps);
  pxTransClass->transform_ip = GST_DEBUG_FUNCPTR(gst_auto_adapt_transform_frame_ip);
}

static void gst_auto_adapt_init(GstQvAutoAdapt* self) {
  self->iWidth = 0;
  self->iHeight = 0;
  self->xSettingsElement = SAutoAdaptSettings();
  self->sDevice = g_strdup(DEFAULT_DEVICE);
  self->pxCamera = nullptr;
  self->uFrameCount = 0;
  // The buffer goes on as it came; the frame is only read.
  gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), TRUE);
}

static void gst_auto_adapt_finalize(GObject* object) {
  GstQvAutoAdapt* self = GST_AUTO_ADAPT(object);
  delete self->pxCamera;  // closes its file
  self->pxCamera = nullptr;
  g_free(self->sDevice);
  self->sDevice = nullptr;
  G_OBJECT_CLASS(gst_auto_adapt_parent_class)->finalize(object);
}

static float* FloatField(SAutoAdaptSettings& x, guint prop_id) {
  switch (prop_id) {
    case PROP_ROIX1:
      return &x.fRoiX1;
    case PROP_ROIX2:
      return &x.fRoiX2;
    case PROP_ROIY1:
      return &x.fRoiY1;
    case PROP_ROIY2:
      return &x.fRoiY2;
    case PROP_TARGET:
      return &x.fTarget;
    case PROP_TOLERANCE:
      return &x.fTolerance;
    case PROP_ADAPTION:
      return &x.fAdaption;
    case PROP_PENALTY:
      return &x.fPenalty;
    default:
      return nullptr;
  }
}

static void gst_auto_adapt_set_property(GObject* object, guint prop_id, const GValue* value,
                                        GParamSpec* pspec) {
  GstQvAutoAdapt* self = GST_AUTO_ADAPT(object);
  SAutoAdaptSettings& x = self->xSettingsElement;
  GST_OBJECT_LOCK(self);
  if (float* pfField = FloatField(x, prop_id)) {
    *pfField = g_value_get_float(value);
  } else {
    switch (prop_id) {
      case PROP_DEVICE: {
        const gchar* szDevice = g_value_get_string(value);
        g_free(self->sDevice);
        self->sDevice = g_strdup(szDevice ? szDevice : "");
        break;
      }
      case PROP_AUTOEXP:
        x.bAutoExp = g_value_get_boolean(value);
        break;
      case PROP_AUTOGAIN:
        x.bAutoGain = g_value_get_boolean(value);
        break;
      case PROP_MASTER:
        x.bMaster = g_value_get_boolean(value);
        break;
      case PROP_SAMPLES:
        x.iSamples = g_value_get_int(value);
        break;
      case PROP_UPDATE:
        x.iUpdate = g_value_get_int(value);
        break;
      default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
        break;
    }
  }
  GST_OBJECT_UNLOCK(self);
}

static void gst_auto_adapt_get_property(GObject* object, guint prop_id, GValue* value,
                                        GParamSpec* pspec) {
  GstQvAutoAdapt* self = GST_AUTO_ADAPT(object);
  SAutoAdaptSettings& x = self->xSettingsElement;
  GST_OBJECT_LOCK(self);
  if (float* pfField = FloatField(x, prop_id)) {
    g_value_set_float(value, *pfField);
  } else {
    switch (prop_id) {
      case PROP_DEVICE:
        g_value_set_string(value, self->sDevice);
        break;
      case PROP_AUTOEXP:
        g_value_set_boolean(value, x.bAutoExp);
        break;
      case PROP_AUTOGAIN:
        g_value_set_boolean(value, x.bAutoGain);
        break;
      case PROP_MASTER:
        g_value_set_boolean(value, x.bMaster);
        break;
      case PROP_SAMPLES:
        g_value_set_int(value, x.iSamples);
        break;
      case PROP_UPDATE:
        g_value_set_int(value, x.iUpdate);
        break;
      default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
        break;
    }
  }
  GST_OBJECT_UNLOCK(self);
}

static gboolean gst_auto_adapt_set_caps(GstBaseTransform* trans, GstCaps* incaps,
                                        GstCaps* /*outcaps*/) {
  GstQvAutoAdapt* self = GST_AUTO_ADAPT(trans);
  const GstStructure* pxStructure = gst_caps_get_structure(incaps, 0);
  gst_structure_get_int(pxStructure, "width", &self->iWidth);
  gst_structure_get_int(pxStructure, "height", &self->iHeight);
  return TRUE;
}

static GstFlowReturn gst_auto_adapt_transform_frame_ip(GstBaseTransform* trans, GstBuffer* buffer) {
  GstQvAutoAdapt* self = GST_AUTO_ADAPT(trans);
  CReportBus& xBus = CReportBus::Get();
  std::string sDevice;
  try {
    self->uFrameCount = static_cast<gint>(static_cast<guint>(self->uFrameCount) + 1u);
    CGstBufferMap xMap(buffer, GST_MAP_READ, "cannot map in buffer");
    // What the application may change meanwhile, as one consistent copy.
    GST_OBJECT_LOCK(self);
    const SAutoAdaptSettings xSettings = self->xSettingsElement;
    sDevice = self->sDevice ? self->sDevice : "";
    GST_OBJECT_UNLOCK(self);
    // The camera follows "device", closing the file of the device before.
    if (self->pxCamera && self->pxCamera->sDevice != sDevice) self->pxCamera->SetDevice(sDevice);
    if (!self->pxCamera) self->pxCamera = new CH5Camera(sDevice);
    CH5Camera& xCamera = *self->pxCamera;

    // The moniker reads the mapped bytes in place: they must hold the whole frame.
    const guint64 uWidth = static_cast<guint64>(std::max(self->iWidth, 0));
    const guint64 uHeight = static_cast<guint64>(std::max(self->iHeight, 0));
    gsize uOffset = 0;
    const guint64 uStride = FrameStride(buffer, xMap.Size(), uWidth, uHeight, uOffset);
    if (uStride < uWidth || xMap.Size() < uOffset ||
        xMap.Size() - uOffset < (uHeight == 0 ? 0 : uStride * (uHeight - 1) + uWidth)) {
      Qv::CQvString sText("buffer of ");
      sText << static_cast<unsigned long long>(xMap.Size()) << " bytes holds no frame of "
            << self->iWidth << "x" << self->iHeight;
      QV_THROW(sText.ToCString());
    }
    // Whatever the caps say: a 2x2 block holds each site of any mosaic once.
    Qv::CQvImageMoniker xFrame;
    xFrame.Create(self->iWidth, self->iHeight, Qv::EPixelType::BayerGR, Qv::EDataType::UByte,
                  xMap.Data() + uOffset);

    float fExposureMin = 0, fExposureMax = 0, fExposure = 0, fGainMin = 0, fGainMax = 0, fGain = 0;
    xCamera.GetPropertyRange(CamExposure, fExposureMin, fExposureMax);
    xCamera.GetProperty(CamExposure, fExposure);
    xCamera.GetPropertyRange(CamGain, fGainMin, fGainMax);
    xCamera.GetProperty(CamGain, fGain);
    CAutoAdapt xAdapt(fExposure, fExposureMin, fExposureMax, fGain, fGainMin, fGainMax, xSettings);
    xAdapt.uRowPitch = uStride;

    if (xSettings.bMaster && sDevice == CONTROLLER_DEVICE)
      JointStep(xCamera, xAdapt, sDevice, fGain, fExposure);

    const guint uUpdate = static_cast<guint>(xSettings.iUpdate > 0 ? xSettings.iUpdate : 1);
    if (static_cast<guint>(self->uFrameCount) % uUpdate == 0) {
      if (xSettings.bMaster) {
        SAutoAdaptStatus xStatus;
        xStatus.fBrightness = xAdapt.GetAverageBrightness(&xFrame);
        xStatus.sDevice = sDevice;
        xBus.Post(CreateMessage(xStatus));
      } else {
        float fNewGain = 0, fNewExposure = 0;
        xAdapt.DoAutoExposure(fNewGain, fNewExposure, &xFrame);
        xCamera.SetProperty(CamExposure, fNewExposure);
        xCamera.SetProperty(CamGain, fNewGain);
      }
    }

    // The settings the frame was taken with, from before its own adaption. A buffer that
    // others hold too cannot take a meta and goes on without.
    if (gst_buffer_is_writable(buffer)) {
      auto* pxMeta =
          reinterpret_cast<MyMetaInfo*>(gst_buffer_add_meta(buffer, my_meta_get_info(), NULL));
      if (pxMeta) {
        pxMeta->exposure = fExposure;
        pxMeta->gain = fGain;
      }
    } else {
      GST_LOG_OBJECT(self, "buffer not writable, no meta");
    }
  } catch (const Qv::IException& e) {
    HandleException(e);
    GST_ELEMENT_ERROR(self, RESOURCE, FAILED, ("%s", e.GetMessageText()),
                      ("frame %d of camera %s", self->uFrameCount, sDevice.c_str()));
    return GST_FLOW_ERROR;
  }
  return GST_FLOW_OK;
}
