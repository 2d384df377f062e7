/**
 * SECTION:element-qvcudanormalize
 *
 * Divides each RGBA device image by a gray reference image (a flat-field correction) and
 * writes 8-bit RGBA. The reference is the PNG file that the "gray" property names, read when the
 * element starts; the property defaults to "/home/ubuntu/gray4k.png", or to the file that the
 * environment variable QV_GRAY_REFERENCE names. A file that cannot be read fails the start. Its
 * factory is in the companion plugin qvvideoprochost.
 *
 * |[
 * gst-launch-1.0 videotestsrc num-buffers=10 ! \
 *     video/x-bayer,format=grbg,width=1920,height=1080 ! qvcudaupload ! qvcudadebayer ! \
 *     qvcudanormalize gray=gray.png ! qvcudadownload ! fakesink
 * ]|
 */
#include "transform/gstqvCudaNormalize.h"

#include <cstdlib>
#include <exception>
#include <string>

#include "FileIO.h"
#include "QvCudaCompNormalize.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "QvImage.h"
#include "common/gstBufferMap.h"
#include "common/gstUtil.h"

GST_DEBUG_CATEGORY_STATIC(gst_cuda_normalize_debug);
#define GST_CAT_DEFAULT gst_cuda_normalize_debug

#define NORMALIZE_CAPS                                                                            \
  "video/x-raw, format = (string) { RGBA, RGBA64_LE }, width = (int) [ 1, max ], height = (int) " \
  "[ 1, "                                                                                         \
  "max ], framerate = (fraction) [ 0, max ]"

static GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(NORMALIZE_CAPS));
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(NORMALIZE_CAPS));

enum { PROP_0, PROP_GRAY };

G_DEFINE_TYPE_WITH_CODE(GstQvCudaNormalize, gst_cuda_normalize, GST_TYPE_QV_CUDA_BASE_TRANSFORM,
                        GST_DEBUG_CATEGORY_INIT(gst_cuda_normalize_debug, "qvcudanormalize", 0,
                                                "qvvideoproc normalize element"))

static void gst_cuda_normalize_set_property(GObject* object, guint prop_id, const GValue* value,
                                            GParamSpec* pspec);
static void gst_cuda_normalize_get_property(GObject* object, guint prop_id, GValue* value,
                                            GParamSpec* pspec);
static void gst_cuda_normalize_finalize(GObject* object);
static gboolean gst_cuda_normalize_start(GstBaseTransform* trans);
static GstFlowReturn gst_cuda_normalize_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                        GstBuffer* outbuf);

static void gst_cuda_normalize_class_init(GstQvCudaNormalizeClass* klass) {
  GObjectClass* pxObjectClass = G_OBJECT_CLASS(klass);

  pxObjectClass->set_property = gst_cuda_normalize_set_property;
  pxObjectClass->get_property = gst_cuda_normalize_get_property;
  pxObjectClass->finalize = gst_cuda_normalize_finalize;

  // The environment variable moves the default, for the whole process.
  const char* szOverride = std::getenv(QV_GRAY_REFERENCE_ENV);
  g_object_class_install_property(
      pxObjectClass, PROP_GRAY,
      g_param_spec_string("gray", "Gray", "Gray image file path",
                          szOverride && *szOverride ? szOverride : QV_GRAY_REFERENCE_PATH,
                          static_cast<GParamFlags>(G_PARAM_READWRITE | GST_PARAM_MUTABLE_READY |
                                                   G_PARAM_STATIC_STRINGS)));

  QvSetupDeviceTransformClass(
      GST_BASE_TRANSFORM_CLASS(klass), "Qv device flat-field normalizer",
      "Divides each RGBA device image by a gray reference image read at start from the PNG "
      "file that the gray property names",
      &sink_template, &src_template, GST_DEBUG_FUNCPTR(gst_cuda_normalize_transform_frame), NULL,
      "Filter/Effect/Video/Hardware");
  // After the base class's setup, whose start this one calls first.
  GST_BASE_TRANSFORM_CLASS(klass)->start = GST_DEBUG_FUNCPTR(gst_cuda_normalize_start);
}

static void gst_cuda_normalize_init(GstQvCudaNormalize* self) {
  self->parent.comp = new Qv::CQvCudaCompNormalize();
  self->grayImage = nullptr;
  GParamSpec* pxSpec = g_object_class_find_property(G_OBJECT_GET_CLASS(self), "gray");
  self->gray = g_strdup(g_value_get_string(g_param_spec_get_default_value(pxSpec)));
}

static void gst_cuda_normalize_finalize(GObject* object) {
  GstQvCudaNormalize* self = GST_CUDA_NORMALIZE(object);
  delete self->grayImage;
  self->grayImage = nullptr;
  g_free(self->gray);
  self->gray = nullptr;
  G_OBJECT_CLASS(gst_cuda_normalize_parent_class)->finalize(object);
}

// The file is read at the next start.
static void gst_cuda_normalize_set_property(GObject* object, guint prop_id, const GValue* value,
                                            GParamSpec* pspec) {
  GstQvCudaNormalize* self = GST_CUDA_NORMALIZE(object);
  switch (prop_id) {
    case PROP_GRAY: {
      const gchar* szValue = g_value_get_string(value);
      GST_OBJECT_LOCK(self);
      g_free(self->gray);
      self->gray = g_strdup(szValue ? szValue : "");
      GST_OBJECT_UNLOCK(self);
      break;
    }
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
      break;
  }
}

static void gst_cuda_normalize_get_property(GObject* object, guint prop_id, GValue* value,
                                            GParamSpec* pspec) {
  GstQvCudaNormalize* self = GST_CUDA_NORMALIZE(object);
  switch (prop_id) {
    case PROP_GRAY:
      GST_OBJECT_LOCK(self);
      g_value_set_string(value, self->gray);
      GST_OBJECT_UNLOCK(self);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
      break;
  }
}

// The reference is read, widened to 8-bit RGBA and uploaded at every start, from the file that
// the property names then; any failure, lack of memory too, fails the start and names the file.
static gboolean gst_cuda_normalize_start(GstBaseTransform* trans) {
  GstQvCudaNormalize* self = GST_CUDA_NORMALIZE(trans);
  if (!GST_BASE_TRANSFORM_CLASS(gst_cuda_normalize_parent_class)->start(trans)) return FALSE;
  GST_OBJECT_LOCK(self);
  gchar* szPath = g_strdup(self->gray);
  GST_OBJECT_UNLOCK(self);
  delete self->grayImage;
  self->grayImage = nullptr;
  std::string sCause;
  try {
    Qv::CQvImage xFile;
    Qv::FileIO::CImage::Read(xFile, szPath);
    Qv::CQvImage xRgba;
    Qv::CQvImage::ConvertType(xRgba, xFile, Qv::EPixelType::RGBA, Qv::EDataType::UByte, true);
    self->grayImage = new Qv::CQvDeviceImage2D(xRgba);
  } catch (const Qv::CQvException& e) {
    sCause = e.GetMessageText();
  } catch (const std::exception& e) {
    sCause = e.what();
  }
  if (!self->grayImage)
    GST_ELEMENT_ERROR(self, RESOURCE, OPEN_READ,
                      ("cannot read the gray reference image '%s': %s", szPath, sCause.c_str()),
                      ("gray=%s", szPath));
  g_free(szPath);
  return self->grayImage != nullptr;
}

static GstFlowReturn gst_cuda_normalize_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                        GstBuffer* outbuf) {
  GstQvCudaNormalize* self = GST_CUDA_NORMALIZE(trans);
  static const SQvFrameTexts xTexts = {"Normalize plugin start", "cannot map inbuffer",
                                       "cannot map outbuffer", "no image data found",
                                       "found a device image pointer in meta !!.\n"};
  return QvRunDeviceFrame(&self->parent, inbuf, outbuf, xTexts,
                          [self](Qv::CQvDeviceImage2D& xIn, Qv::CQvDeviceImage2D& xOut) {
                            if (!self->grayImage) QV_THROW("no gray reference image");
                            static_cast<Qv::CQvCudaCompNormalize*>(self->parent.comp)
                                ->Normalize(xOut, xIn, *self->grayImage,
                                            // 16-bit colour stays 16-bit.
                                            xIn.GetFormat().eDataType == Qv::EDataType::UShort
                                                ? Qv::EDataType::UShort
                                                : Qv::EDataType::UByte);
                          });
}
