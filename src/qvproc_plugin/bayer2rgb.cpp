/**
 * SECTION:element-qvbayer2rgb
 *
 * Passes bayer frames on as RGB frames of a third of the height: a bayer image of one byte a
 * pixel and an RGB image of a third of the height have the same bytes. No byte of a buffer
 * changes. No factory: a host application registers the type (qvproc-launch does).
 *
 * |[
 * qvproc-launch filesrc location=frame.grbg blocksize=6220800 \
 *     ! video/x-bayer,format=grbg,width=1920,height=3240,framerate=30/1 \
 *     ! qvbayer2rgb ! filesink location=frame.rgb
 * ]|
 */
#include "bayer2rgb.h"

#include "gstqvCapsFilter.h"
#include "gstqvSysMemAlloc.h"

GST_DEBUG_CATEGORY_STATIC(gst_bayer2rgb_debug);
#define GST_CAT_DEFAULT gst_bayer2rgb_debug

G_DEFINE_TYPE(GstBayer2RGB, gst_bayer2rgb, GST_TYPE_BASE_TRANSFORM)

static GstCaps* gst_bayer2rgb_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                             GstCaps* caps, GstCaps* filter);

static void gst_bayer2rgb_class_init(GstBayer2RGBClass* klass) {
  GstElementClass* pxElementClass = GST_ELEMENT_CLASS(klass);
  GstBaseTransformClass* pxTransClass = GST_BASE_TRANSFORM_CLASS(klass);

  GST_DEBUG_CATEGORY_INIT(gst_bayer2rgb_debug, "qvbayer2rgb", 0, "bayer2lum element");

  gst_element_class_set_static_metadata(
      pxElementClass, "Bayer to Gray8 filter", "Filter/Converter/Video",
      "Converts video/x-bayer to video/x-raw", "qvvideoproc developers");
  GstCaps* pxSrcCaps = gst_caps_from_string(QV_CAPS_RGB);
  GstCaps* pxSinkCaps = gst_caps_from_string(QV_CAPS_BAYER);
  gst_element_class_add_pad_template(
      pxElementClass, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, pxSrcCaps));
  gst_element_class_add_pad_template(
      pxElementClass, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, pxSinkCaps));
  gst_caps_unref(pxSrcCaps);
  gst_caps_unref(pxSinkCaps);

  pxTransClass->transform_caps = GST_DEBUG_FUNCPTR(gst_bayer2rgb_transform_caps);
  pxTransClass->transform_ip = GST_DEBUG_FUNCPTR(QvCapsFilterTransformIp);
  pxTransClass->propose_allocation = GST_DEBUG_FUNCPTR(ProposeAllocation);
  pxTransClass->prepare_output_buffer = GST_DEBUG_FUNCPTR(QvCapsFilterPrepareOutputBuffer);
  pxTransClass->query = GST_DEBUG_FUNCPTR(QvCapsFilterQuery);
}

static void gst_bayer2rgb_init(GstBayer2RGB* self) {
  QvCapsFilterInit(GST_BASE_TRANSFORM(self));
}

// The height rule guesses the side from the size: a height at or above every height seen so
// far is a bayer height and is divided by three; a smaller one is taken as already divided.
static gint gst_bayer2rgb_height(gint iHeight) {
  static gint iMaxHeight = 0;
  if (iHeight < iMaxHeight) return iHeight;
  iMaxHeight = iHeight;
  return iHeight / 3;
}

static GstCaps* gst_bayer2rgb_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                             GstCaps* caps, GstCaps* filter) {
  return QvRelabelCaps(trans, caps, filter, direction == GST_PAD_SRC, gst_bayer2rgb_height);
}
