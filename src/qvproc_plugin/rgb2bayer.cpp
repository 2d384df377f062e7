/**
 * SECTION:element-qvrgb2bayer
 *
 * Passes RGB frames on as bayer frames of three times the height: the way back of qvbayer2rgb.
 * No byte of a buffer changes. No factory: a host application registers the type
 * (qvproc-launch does).
 *
 * |[
 * qvproc-launch filesrc location=frame.rgb blocksize=6220800 \
 *     ! video/x-raw,format=RGB,width=1920,height=1080,framerate=30/1 \
 *     ! qvrgb2bayer ! filesink location=frame.grbg
 * ]|
 */
#include "rgb2bayer.h"

#include <cstdio>

#include "gstqvCapsFilter.h"
#include "gstqvSysMemAlloc.h"

GST_DEBUG_CATEGORY_STATIC(gst_rgb2bayer_debug);
#define GST_CAT_DEFAULT gst_rgb2bayer_debug

G_DEFINE_TYPE(GstRgb2Bayer, gst_rgb2bayer, GST_TYPE_BASE_TRANSFORM)

static GstCaps* gst_rgb2bayer_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                             GstCaps* caps, GstCaps* filter);

static void gst_rgb2bayer_class_init(GstRgb2BayerClass* klass) {
  GstElementClass* pxElementClass = GST_ELEMENT_CLASS(klass);
  GstBaseTransformClass* pxTransClass = GST_BASE_TRANSFORM_CLASS(klass);

  GST_DEBUG_CATEGORY_INIT(gst_rgb2bayer_debug, "qvrgb2bayer", 0, "rgb2bayer element");

  gst_element_class_set_static_metadata(
      pxElementClass, "Bayer to Gray8 filter", "Filter/Converter/Video",
      "Converts video/x-bayer to video/x-raw", "qvvideoproc developers");
  GstCaps* pxSrcCaps = gst_caps_from_string(QV_CAPS_BAYER);
  GstCaps* pxSinkCaps = gst_caps_from_string(QV_CAPS_RGB);
  gst_element_class_add_pad_template(
      pxElementClass, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, pxSrcCaps));
  gst_element_class_add_pad_template(
      pxElementClass, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, pxSinkCaps));
  gst_caps_unref(pxSrcCaps);
  gst_caps_unref(pxSinkCaps);

  pxTransClass->transform_caps = GST_DEBUG_FUNCPTR(gst_rgb2bayer_transform_caps);
  pxTransClass->transform_ip = GST_DEBUG_FUNCPTR(QvCapsFilterTransformIp);
  pxTransClass->propose_allocation = GST_DEBUG_FUNCPTR(ProposeAllocation);
  pxTransClass->prepare_output_buffer = GST_DEBUG_FUNCPTR(QvCapsFilterPrepareOutputBuffer);
  pxTransClass->query = GST_DEBUG_FUNCPTR(QvCapsFilterQuery);
}

static void gst_rgb2bayer_init(GstRgb2Bayer* self) {
  QvCapsFilterInit(GST_BASE_TRANSFORM(self));
}

// The height rule guesses the side from the size: a positive height at or below every height
// seen so far is an RGB height and is multiplied by three; a larger one is taken as done.
static gint gst_rgb2bayer_height(gint iHeight) {
  static gint iMaxHeight = 99999;
  std::printf("Height before transform %d\n", iHeight);
  std::fflush(stdout);
  if (iHeight <= 0 || iHeight > iMaxHeight) return iHeight;
  iMaxHeight = iHeight;
  return 3 * iHeight;
}

static GstCaps* gst_rgb2bayer_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                             GstCaps* caps, GstCaps* filter) {
  return QvRelabelCaps(trans, caps, filter, direction != GST_PAD_SRC, gst_rgb2bayer_height);
}
