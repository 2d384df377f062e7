/**
 * SECTION:element-qvcudaupload
 *
 * Copies raw 8-bit camera frames (GRAY8 or any video/x-bayer order) from host memory into a
 * device image. Its allocation answer gives the source a pool of pinned host memory, so the
 * one copy of a frame reads page-locked memory.
 *
 * |[
 * gst-launch-1.0 videotestsrc ! video/x-raw,format=GRAY8,width=1920,height=1080 ! \
 *     qvcudaupload ! fakesink
 * ]|
 */
#include "transform/gstqvCudaUpload.h"

#include <gst/video/video.h>

#include <vector>

#include "QvDevice.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "QvImage.h"
#include "common/gstBufferMap.h"
#include "common/gstUtil.h"
#include "common/gstqvCudaMemory.h"
#include "common/gstqvSysMemAlloc.h"

GST_DEBUG_CATEGORY_STATIC(gst_cuda_upload_debug);
#define GST_CAT_DEFAULT gst_cuda_upload_debug

#define UPLOAD_SIZE "width=(int)[1,MAX],height=(int)[1,MAX],framerate=(fraction)[0/1,MAX]"
#define UPLOAD_SINK8                              \
  "video/x-raw,format=(string)GRAY8," UPLOAD_SIZE \
  ";video/x-bayer,format=(string)"                \
  "{BA81,bggr,grbg,gbrg,rggb}," UPLOAD_SIZE
// 10 to 16 significant bits in 16-bit little-endian words, as RAW10 and RAW12 sensors deliver.
#define UPLOAD_SINK16                                                                          \
  "video/x-raw,format=(string)GRAY16_LE," UPLOAD_SIZE                                          \
  ";video/x-bayer,format=(string){"                                                            \
  "bggr10le,bggr12le,bggr14le,bggr16le,gbrg10le,gbrg12le,gbrg14le,gbrg16le,grbg10le,grbg12le," \
  "grbg14le,grbg16le,rggb10le,rggb12le,rggb14le,rggb16le}," UPLOAD_SIZE
#define UPLOAD_SRC8 "video/x-raw,format=(string)GRAY8," UPLOAD_SIZE
#define UPLOAD_SRC16 "video/x-raw,format=(string)GRAY16_LE," UPLOAD_SIZE
#define UPLOAD_SINK_CAPS UPLOAD_SINK8 ";" UPLOAD_SINK16
#define UPLOAD_SRC_CAPS UPLOAD_SRC8 ";" UPLOAD_SRC16

static GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(UPLOAD_SINK_CAPS));
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(UPLOAD_SRC_CAPS));

G_DEFINE_TYPE_WITH_CODE(GstQvCudaUpload, gst_cuda_upload, GST_TYPE_QV_CUDA_BASE_TRANSFORM,
                        GST_DEBUG_CATEGORY_INIT(gst_cuda_upload_debug, "qvcudaupload", 0,
                                                "qvvideoproc upload element"))

// Which order of the 2 x 2 colour pattern the mosaic is read in: one fixed order, or the one
// that video/x-bayer caps name.
enum EUploadOrder { ORDER_GRBG, ORDER_RGGB, ORDER_BGGR, ORDER_GBRG, ORDER_CAPS };
enum { PROP_0, PROP_BAYER_ORDER };

static GType gst_qv_bayer_order_get_type() {
  static GType s_eType = 0;
  static const GEnumValue axValues[] = {
      {ORDER_GRBG, "GRBG (green, red / blue, green)", "grbg"},
      {ORDER_RGGB, "RGGB", "rggb"},
      {ORDER_BGGR, "BGGR", "bggr"},
      {ORDER_GBRG, "GBRG", "gbrg"},
      {ORDER_CAPS, "The order that video/x-bayer caps name (BA81 is BGGR); GRBG for GRAY8", "caps"},
      {0, NULL, NULL}};
  if (g_once_init_enter(&s_eType))
    g_once_init_leave(&s_eType, g_enum_register_static("GstQvBayerOrder", axValues));
  return s_eType;
}

// The device image's pixel type of an order, by property value or caps name.
static gint OrderPixelType(gint eOrder) {
  switch (eOrder) {
    case ORDER_RGGB:
      return Qv::EPixelType::BayerRG;
    case ORDER_BGGR:
      return Qv::EPixelType::BayerBG;
    case ORDER_GBRG:
      return Qv::EPixelType::BayerGB;
    default:
      return Qv::EPixelType::BayerGR;
  }
}

static gint CapsOrder(const gchar* szFormat) {
  if (!szFormat) return ORDER_GRBG;
  if (g_str_has_prefix(szFormat, "rggb")) return ORDER_RGGB;
  if (g_str_has_prefix(szFormat, "bggr") || g_strcmp0(szFormat, "BA81") == 0) return ORDER_BGGR;
  if (g_str_has_prefix(szFormat, "gbrg")) return ORDER_GBRG;
  return ORDER_GRBG;
}

static void gst_cuda_upload_set_property(GObject* object, guint prop_id, const GValue* value,
                                         GParamSpec* pspec) {
  GstQvCudaUpload* self = GST_CUDA_UPLOAD(object);
  if (prop_id == PROP_BAYER_ORDER)
    g_atomic_int_set(&self->eOrder, g_value_get_enum(value));
  else
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
}

static void gst_cuda_upload_get_property(GObject* object, guint prop_id, GValue* value,
                                         GParamSpec* pspec) {
  GstQvCudaUpload* self = GST_CUDA_UPLOAD(object);
  if (prop_id == PROP_BAYER_ORDER)
    g_value_set_enum(value, g_atomic_int_get(&self->eOrder));
  else
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
}

static GstCaps* gst_cuda_upload_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                               GstCaps* caps, GstCaps* filter);
static gboolean gst_cuda_upload_set_caps(GstBaseTransform* trans, GstCaps* incaps,
                                         GstCaps* outcaps);
static GstFlowReturn gst_cuda_upload_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                     GstBuffer* outbuf);

static void gst_cuda_upload_class_init(GstQvCudaUploadClass* klass) {
  GstBaseTransformClass* pxTransClass = GST_BASE_TRANSFORM_CLASS(klass);
  QvSetupDeviceTransformClass(pxTransClass, "Qv device upload",
                              "Copies raw camera frames (GRAY8, GRAY16_LE, or video/x-bayer with 8 "
                              "to 16-bit samples) from host memory into device images",
                              &sink_template, &src_template,
                              GST_DEBUG_FUNCPTR(gst_cuda_upload_transform_frame),
                              GST_DEBUG_FUNCPTR(gst_cuda_upload_transform_caps));
  pxTransClass->set_caps = GST_DEBUG_FUNCPTR(gst_cuda_upload_set_caps);
  GObjectClass* pxObjectClass = G_OBJECT_CLASS(klass);
  pxObjectClass->set_property = gst_cuda_upload_set_property;
  pxObjectClass->get_property = gst_cuda_upload_get_property;
  g_object_class_install_property(
      pxObjectClass, PROP_BAYER_ORDER,
      g_param_spec_enum("bayer-order", "Bayer order",
                        "Order of the sensor's 2 x 2 colour pattern that the device image is "
                        "read in; takes effect at the next caps",
                        gst_qv_bayer_order_get_type(), ORDER_GRBG,
                        static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
  pxTransClass->propose_allocation = GST_DEBUG_FUNCPTR(ProposeAllocation);
}

static void gst_cuda_upload_init(GstQvCudaUpload* self) {
  my_memory_init();
  self->width = 0;
  self->height = 0;
  self->eOrder = ORDER_GRBG;
  self->ePixelType = Qv::EPixelType::BayerGR;
  self->iDepth = 8;
  gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), FALSE);
}

static GstCaps* gst_cuda_upload_transform_caps(GstBaseTransform* /*trans*/,
                                               GstPadDirection direction, GstCaps* caps,
                                               GstCaps* filter) {
  return DepthNegotiation({UPLOAD_SINK8, UPLOAD_SINK16}, {UPLOAD_SRC8, UPLOAD_SRC16}, direction,
                          caps, filter);
}

static gboolean gst_cuda_upload_set_caps(GstBaseTransform* trans, GstCaps* incaps,
                                         GstCaps* outcaps) {
  GstQvCudaUpload* self = GST_CUDA_UPLOAD(trans);
  GST_LOG_OBJECT(self, "in caps %" GST_PTR_FORMAT " out caps %" GST_PTR_FORMAT, incaps, outcaps);
  const GstStructure* pxStructure = gst_caps_get_structure(incaps, 0);
  gst_structure_get_int(pxStructure, "width", &self->width);
  gst_structure_get_int(pxStructure, "height", &self->height);
  self->iCapsStride = 0;
  self->iDepth = QvCapsSampleDepth(pxStructure);
  const gint eOrder = g_atomic_int_get(&self->eOrder);
  gint eUsed = eOrder == ORDER_CAPS ? ORDER_GRBG : eOrder;
  if (gst_structure_has_name(pxStructure, "video/x-raw")) {
    GstVideoInfo xInfo;
    if (gst_video_info_from_caps(&xInfo, incaps))
      self->iCapsStride = GST_VIDEO_INFO_PLANE_STRIDE(&xInfo, 0);
  } else {
    const gchar* szOrder = gst_structure_get_string(pxStructure, "format");
    if (eOrder == ORDER_CAPS) {
      eUsed = CapsOrder(szOrder);
    } else if (eOrder == ORDER_GRBG && szOrder && !g_str_has_prefix(szOrder, "grbg")) {
      // Read as GRBG by default; another order gives wrong colours downstream.
      GST_ELEMENT_WARNING(self, STREAM, FORMAT,
                          ("the mosaic is read as GRBG; the caps say %s", szOrder), (NULL));
    }
  }
  self->ePixelType = OrderPixelType(eUsed);
  return TRUE;
}

// Bytes between rows of an input frame: a video meta's stride where the buffer carries one, the
// caps' stride for GRAY8, and for bayer buffers rows padded to 4 bytes when the buffer is that
// large, else packed rows.
static gsize UploadStride(const GstQvCudaUpload* self, GstBuffer* pxBuffer, gsize uSize,
                          gsize& uOffset) {
  uOffset = 0;
  const GstVideoMeta* pxMeta = gst_buffer_get_video_meta(pxBuffer);
  if (pxMeta && pxMeta->n_planes >= 1) {
    uOffset = pxMeta->offset[0];
    return static_cast<gsize>(pxMeta->stride[0] > 0 ? pxMeta->stride[0] : 0);
  }
  if (self->iCapsStride > 0) return static_cast<gsize>(self->iCapsStride);
  const gsize uPacked = static_cast<gsize>(self->width) * (self->iDepth > 8 ? 2 : 1);
  const gsize uPadded = (uPacked + 3) & ~static_cast<gsize>(3);
  return uSize >= uPadded * static_cast<gsize>(self->height) ? uPadded : uPacked;
}

static GstFlowReturn gst_cuda_upload_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                     GstBuffer* outbuf) {
  GstQvCudaUpload* self = GST_CUDA_UPLOAD(trans);
  try {
    LogMessage("Upload starting ");
    CGstBufferMap xIn(inbuf, GST_MAP_READ, "cannot map in buffer");
    CGstBufferMap xOut(outbuf, GST_MAP_WRITE, "cannot map out buffer");
    const guint64 uSample = self->iDepth > 8 ? 2 : 1;
    const guint64 uWidth = static_cast<guint64>(self->width > 0 ? self->width : 0) * uSample;
    const guint64 uHeight = static_cast<guint64>(self->height > 0 ? self->height : 0);
    gsize uOffset = 0;
    const guint64 uStride = UploadStride(self, inbuf, xIn.Size(), uOffset);
    // The last row needs no padding after it.
    const guint64 uNeeded = uHeight == 0 ? 0 : uOffset + uStride * (uHeight - 1) + uWidth;
    if (uStride < uWidth) {
      Qv::CQvString sText("a row stride of ");
      sText << static_cast<unsigned long>(uStride) << " bytes is shorter than a row of "
            << static_cast<unsigned long>(uWidth) << " bytes";
      QV_THROW(sText.ToCString());
    }
    if (xIn.Size() < uNeeded) {
      Qv::CQvString sText("in buffer holds ");
      sText << static_cast<unsigned long>(xIn.Size()) << " bytes, a " << self->width << "x"
            << self->height << " frame needs " << static_cast<unsigned long>(uNeeded);
      QV_THROW(sText.ToCString());
    }
    auto* pxImage = reinterpret_cast<Qv::CQvDeviceImage2D*>(xOut.Data());
    pxImage->Create(Qv::CQvImageFormat(
        self->width, self->height, static_cast<Qv::EPixelType::ID>(self->ePixelType),
        uSample == 2 ? Qv::EDataType::UShort : Qv::EDataType::UByte));
    const guint8* pRows = static_cast<const guint8*>(xIn.Data()) + uOffset;
    if (uSample == 2 && self->iDepth < 16) {
      // 10 to 14 significant bits fill the 16-bit range by a left shift (1023 at 10 bits
      // becomes 65472), so that the demosaic's normalization by 65535 holds. Bits above the
      // depth shift out like the others.
      const int iShift = 16 - self->iDepth;
      const guint64 uPixels = uWidth / 2;
      auto ShiftInto = [&](guint8* pOut, guint64 uOutStride) {
        for (guint64 y = 0; y < uHeight; ++y) {
          const guint8* p = pRows + y * uStride;
          auto* q = reinterpret_cast<guint16*>(pOut + y * uOutStride);
          for (guint64 x = 0; x < uPixels; ++x)
            q[x] = static_cast<guint16>((p[2 * x] | (p[2 * x + 1] << 8)) << iShift);
        }
      };
      if (Qv::Device::IsCuda()) {
        std::vector<guint16> xScaled(static_cast<size_t>(uPixels * uHeight));
        ShiftInto(reinterpret_cast<guint8*>(xScaled.data()), uWidth);
        pxImage->Upload(xScaled.data(), uWidth, self->parent.stream, true);
        Qv::Device::SynchronizeStream(self->parent.stream);
      } else {
        // The host backend's device image is host memory: the samples go straight into it.
        ShiftInto(static_cast<guint8*>(pxImage->GetDevicePointer()), pxImage->GetDevicePitch());
      }
    } else {
      pxImage->Upload(pRows, uStride, self->parent.stream, true);
      Qv::Device::SynchronizeStream(self->parent.stream);
    }
    CopyMetData(outbuf, inbuf);
    LogMessage("Upload complete");
    return GST_FLOW_OK;
  } catch (const Qv::IException& e) {
    HandleException(e, GST_ELEMENT(trans));
  }
  return GST_FLOW_ERROR;
}
