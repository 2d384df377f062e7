/**
 * SECTION:element-qvcudanormalize
 *
 * Divides each RGBA device image by a gray reference image (a flat-field correction) and
 * writes 8-bit RGBA. The reference is read once per instance from "/home/ubuntu/gray4k.png",
 * or from the file that the environment variable QV_GRAY_REFERENCE names; the "gray" property
 * is kept but does not choose the file. Without a reference every frame fails. Its factory is in
 * the companion plugin qvvideoprochost.
 *
 * |[
 * QV_GRAY_REFERENCE=gray.png gst-launch-1.0 videotestsrc num-buffers=10 ! \
 *     video/x-bayer,format=grbg,width=1920,height=1080 ! qvcudaupload ! qvcudadebayer ! \
 *     qvcudanormalize ! qvcudadownload ! fakesink
 * ]|
 */
#include "gstqvCudaNormalize.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "FileIO.h"
#include "QvCudaCompNormalize.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "QvImage.h"
#include "QvMessage.h"
#include "gstBufferMap.h"
#include "gstUtil.h"

GST_DEBUG_CATEGORY_STATIC(gst_cuda_normalize_debug);
#define GST_CAT_DEFAULT gst_cuda_normalize_debug

#define NORMALIZE_CAPS                                                                      \
  "video/x-raw, format = (string) { RGBA }, width = (int) [ 1, max ], height = (int) [ 1, " \
  "max ], framerate = (fraction) [ 0, max ]"

static GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(NORMALIZE_CAPS));
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(NORMALIZE_CAPS));

#define DEFAULT_GRAY "gray4k.png"

enum { PROP_0, PROP_GRAY };

G_DEFINE_TYPE_WITH_CODE(GstQvCudaNormalize, gst_cuda_normalize, GST_TYPE_QV_CUDA_BASE_TRANSFORM,
                        GST_DEBUG_CATEGORY_INIT(gst_cuda_normalize_debug, "qvcudanormalize", 0,
                                                "qvvideoproc normalize element"))

static void gst_cuda_normalize_set_property(GObject* object, guint prop_id, const GValue* value,
                                            GParamSpec* pspec);
static void gst_cuda_normalize_get_property(GObject* object, guint prop_id, GValue* value,
                                            GParamSpec* pspec);
static void gst_cuda_normalize_finalize(GObject* object);
static GstFlowReturn gst_cuda_normalize_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                        GstBuffer* outbuf);

static void gst_cuda_normalize_class_init(GstQvCudaNormalizeClass* klass) {
  GObjectClass* pxObjectClass = G_OBJECT_CLASS(klass);

  pxObjectClass->set_property = gst_cuda_normalize_set_property;
  pxObjectClass->get_property = gst_cuda_normalize_get_property;
  pxObjectClass->finalize = gst_cuda_normalize_finalize;

  g_object_class_install_property(
      pxObjectClass, PROP_GRAY,
      g_param_spec_string("gray", "Gray reference name",
                          "Kept for applications; the reference file is chosen by "
                          "QV_GRAY_REFERENCE or defaults to /home/ubuntu/gray4k.png",
                          DEFAULT_GRAY,
                          static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));

  QvSetupDeviceTransformClass(
      GST_BASE_TRANSFORM_CLASS(klass), "Qv device flat-field normalizer",
      "Divides each RGBA device image by a gray reference image read once from a PNG file "
      "(/home/ubuntu/gray4k.png, or the file that QV_GRAY_REFERENCE names)",
      &sink_template, &src_template, GST_DEBUG_FUNCPTR(gst_cuda_normalize_transform_frame), NULL,
      "Filter/Effect/Video/Hardware");
}

// The reference is read, widened to 8-bit RGBA and uploaded once; any failure, lack of memory
// too, leaves the instance without reference, and its frames fail.
static void gst_cuda_normalize_load_reference(GstQvCudaNormalize* self) {
  const char* szOverride = std::getenv(QV_GRAY_REFERENCE_ENV);
  self->grayPath = g_strdup(szOverride && *szOverride ? szOverride : QV_GRAY_REFERENCE_PATH);
  try {
    Qv::CQvImage xFile;
    Qv::FileIO::CImage::Read(xFile, self->grayPath);
    Qv::CQvImage xRgba;
    Qv::CQvImage::ConvertType(xRgba, xFile, Qv::EPixelType::RGBA, Qv::EDataType::UByte, true);
    self->grayImage = new Qv::CQvDeviceImage2D(xRgba);
  } catch (const Qv::CQvException& e) {
    Qv::OperatorMessage("%s\n", e.ToString(true).ToCString());
    // No bus yet at instance init: the element's log says it, and every frame fails with it.
    GST_WARNING_OBJECT(self, "no gray reference image from '%s': %s", self->grayPath,
                       e.GetMessageText());
    self->grayImage = nullptr;
  } catch (const std::exception& e) {
    Qv::OperatorMessage("%s\n", e.what());
    GST_WARNING_OBJECT(self, "no gray reference image from '%s': %s", self->grayPath, e.what());
  }
}

static void gst_cuda_normalize_init(GstQvCudaNormalize* self) {
  self->parent.comp = new Qv::CQvCudaCompNormalize();
  self->grayImage = nullptr;
  self->gray = g_strdup(DEFAULT_GRAY);
  self->grayPath = nullptr;
  gst_cuda_normalize_load_reference(self);
}

static void gst_cuda_normalize_finalize(GObject* object) {
  GstQvCudaNormalize* self = GST_CUDA_NORMALIZE(object);
  delete self->grayImage;
  self->grayImage = nullptr;
  g_free(self->gray);
  self->gray = nullptr;
  g_free(self->grayPath);
  self->grayPath = nullptr;
  G_OBJECT_CLASS(gst_cuda_normalize_parent_class)->finalize(object);
}

// The text is only kept: it does not choose the reference file, and nothing reloads.
static void gst_cuda_normalize_set_property(GObject* object, guint prop_id, const GValue* value,
                                            GParamSpec* pspec) {
  GstQvCudaNormalize* self = GST_CUDA_NORMALIZE(object);
  switch (prop_id) {
    case PROP_GRAY: {
      const gchar* szValue = g_value_get_string(value);
      GST_OBJECT_LOCK(self);
      g_free(self->gray);
      self->gray = g_strdup(szValue ? szValue : DEFAULT_GRAY);
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

static GstFlowReturn gst_cuda_normalize_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                        GstBuffer* outbuf) {
  GstQvCudaNormalize* self = GST_CUDA_NORMALIZE(trans);
  static const SQvFrameTexts xTexts = {"Normalize plugin start", "cannot map inbuffer",
                                       "cannot map outbuffer", "no image data found",
                                       "found a device image pointer in meta !!.\n"};
  return QvRunDeviceFrame(&self->parent, inbuf, outbuf, xTexts,
                          [self](Qv::CQvDeviceImage2D& xIn, Qv::CQvDeviceImage2D& xOut) {
                            if (!self->grayImage) {
                              Qv::CQvString sText("no gray reference image: '");
                              sText << self->grayPath
                                    << "' could not be read when the element was made";
                              QV_THROW(sText.ToCString());
                            }
                            static_cast<Qv::CQvCudaCompNormalize*>(self->parent.comp)
                                ->Normalize(xOut, xIn, *self->grayImage, Qv::EDataType::UByte);
                          });
}
