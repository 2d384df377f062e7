/**
 * SECTION:element-qvcudascale
 *
 * Brings an RGBA device image to the one target size of the process (iScaledWidth x
 * iScaledHeight, 3840 x 1784 unless the host application changes them), one linear-filtered
 * sample a pixel.
 *
 * |[
 * gst-launch-1.0 videotestsrc ! video/x-raw,format=GRAY8,width=1920,height=1080 ! \
 *     qvcudaupload ! qvcudadebayer ! qvcudascale ! fakesink
 * ]|
 */
#include "transform/gstqvCudaScale.h"

#include "QvCudaCompConvolve.h"

GST_DEBUG_CATEGORY_STATIC(gst_cuda_scale_debug);
#define GST_CAT_DEFAULT gst_cuda_scale_debug

int iScaledWidth = 3840;
int iScaledHeight = 1784;

#define SCALE_CAPS                                                                                \
  "video/x-raw, format = (string) { RGBA, RGBA64_LE }, width = (int) [ 1, max ], height = (int) " \
  "[ 1, "                                                                                         \
  "max ], framerate = (fraction) [ 0, max ]"

static GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(SCALE_CAPS));
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(SCALE_CAPS));

G_DEFINE_TYPE_WITH_CODE(GstQvCudaScale, gst_cuda_scale, GST_TYPE_QV_CUDA_BASE_TRANSFORM,
                        GST_DEBUG_CATEGORY_INIT(gst_cuda_scale_debug, "qvcudascale", 0,
                                                "qvvideoproc scale element"))

static GstCaps* gst_cuda_scale_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                              GstCaps* caps, GstCaps* filter);
static GstFlowReturn gst_cuda_scale_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                    GstBuffer* outbuf);

static void gst_cuda_scale_class_init(GstQvCudaScaleClass* klass) {
  QvSetupDeviceTransformClass(
      GST_BASE_TRANSFORM_CLASS(klass), "Qv device scaler",
      "Scales an RGBA device image to the process-wide target size "
      "(3840x1784 unless the application sets iScaledWidth and "
      "iScaledHeight), one linear-filtered sample a pixel",
      &sink_template, &src_template, GST_DEBUG_FUNCPTR(gst_cuda_scale_transform_frame),
      GST_DEBUG_FUNCPTR(gst_cuda_scale_transform_caps), "Filter/Converter/Video/Scaler/Hardware");
}

static void gst_cuda_scale_init(GstQvCudaScale* self) {
  self->parent.comp = new Qv::CQvCudaCompConvolve();
}

// A fixed size on either side becomes the target size on the other; ranges and lists stay.
static GstCaps* gst_cuda_scale_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                              GstCaps* caps, GstCaps* filter) {
  GstCaps* pxResult = gst_caps_new_empty();
  for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
    const GstStructure* pxIn = gst_caps_get_structure(caps, i);
    GstStructure* pxCopy = gst_structure_copy(pxIn);

    GValue xFormats = G_VALUE_INIT;
    g_value_init(&xFormats, GST_TYPE_LIST);
    for (const char* szFormat : {"GRAY8", "RGBA", "ARGB"}) {
      GValue xFormat = G_VALUE_INIT;
      g_value_init(&xFormat, G_TYPE_STRING);
      g_value_set_string(&xFormat, szFormat);
      gst_value_list_append_and_take_value(&xFormats, &xFormat);
    }
    const GValue* pxOldFormat = gst_structure_get_value(pxIn, "format");
    if (g_strcmp0(gst_structure_get_string(pxIn, "format"), "RGBA64_LE") == 0) {
      // 16-bit colour stays 16-bit.
      g_value_unset(&xFormats);
    } else if (pxOldFormat) {
      GValue xMerged = G_VALUE_INIT;
      gst_value_list_merge(&xMerged, pxOldFormat, &xFormats);
      gst_structure_take_value(pxCopy, "format", &xMerged);
      g_value_unset(&xFormats);
    } else {
      gst_structure_take_value(pxCopy, "format", &xFormats);
    }
    gst_structure_remove_fields(pxCopy, "colorimetry", "chroma-site", NULL);

    const GValue* pxWidth = gst_structure_get_value(pxIn, "width");
    if (pxWidth && G_VALUE_HOLDS_INT(pxWidth))
      gst_structure_set(pxCopy, "width", G_TYPE_INT, iScaledWidth, NULL);
    const GValue* pxHeight = gst_structure_get_value(pxIn, "height");
    if (pxHeight && G_VALUE_HOLDS_INT(pxHeight))
      gst_structure_set(pxCopy, "height", G_TYPE_INT, iScaledHeight, NULL);
    gst_caps_append_structure(pxResult, pxCopy);
  }

  GstPad* pxOther = direction == GST_PAD_SINK ? GST_BASE_TRANSFORM_SRC_PAD(trans)
                                              : GST_BASE_TRANSFORM_SINK_PAD(trans);
  GstCaps* pxTemplate = gst_pad_get_pad_template_caps(pxOther);
  GstCaps* pxIntersection = gst_caps_intersect(pxResult, pxTemplate);
  gst_caps_unref(pxTemplate);
  gst_caps_unref(pxResult);
  if (filter && pxIntersection) {
    GstCaps* pxFiltered = gst_caps_intersect_full(filter, pxIntersection, GST_CAPS_INTERSECT_FIRST);
    gst_caps_unref(pxIntersection);
    return pxFiltered;
  }
  return pxIntersection;
}

static GstFlowReturn gst_cuda_scale_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                    GstBuffer* outbuf) {
  GstQvCudaBaseTransform* self = GST_QV_CUDA_BASE_TRANSFORM(trans);
  static const SQvFrameTexts xTexts = {"Scale plugin start", "cannot map inbuffer",
                                       "cannot map outbuffer", "no image data found",
                                       "found a device image pointer in meta !!.\n"};
  return QvRunDeviceFrame(self, inbuf, outbuf, xTexts,
                          [self](Qv::CQvDeviceImage2D& xIn, Qv::CQvDeviceImage2D& xOut) {
                            static_cast<Qv::CQvCudaCompConvolve*>(self->comp)
                                ->Shrink(xOut, xIn, iScaledWidth, iScaledHeight, true);
                          });
}
