/**
 * SECTION:element-qvbayer2lum
 *
 * Passes bayer frames on as GRAY8 frames of the same size. No byte of a buffer changes. No
 * factory: a host application registers the type (qvproc-launch does).
 *
 * |[
 * qvproc-launch filesrc location=frame.grbg blocksize=2073600 \
 *     ! video/x-bayer,format=grbg,width=1920,height=1080,framerate=30/1 \
 *     ! qvbayer2lum ! filesink location=frame.gray
 * ]|
 */
#include "bayer2lum.h"

#include "gstUtil.h"
#include "gstqvCapsFilter.h"
#include "gstqvSysMemAlloc.h"

GST_DEBUG_CATEGORY_STATIC(gst_bayer2lum_debug);
#define GST_CAT_DEFAULT gst_bayer2lum_debug

G_DEFINE_TYPE(GstBayer2LUM, gst_bayer2lum, GST_TYPE_BASE_TRANSFORM)

static GstCaps* gst_bayer2lum_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                             GstCaps* caps, GstCaps* filter);

static void gst_bayer2lum_class_init(GstBayer2LUMClass* klass) {
  GstElementClass* pxElementClass = GST_ELEMENT_CLASS(klass);
  GstBaseTransformClass* pxTransClass = GST_BASE_TRANSFORM_CLASS(klass);

  GST_DEBUG_CATEGORY_INIT(gst_bayer2lum_debug, "qvbayer2lum", 0, "bayer2lum element");

  gst_element_class_set_static_metadata(
      pxElementClass, "Bayer to Gray8 filter", "Filter/Converter/Video",
      "Converts video/x-bayer to video/x-raw", "qvvideoproc developers");
  GstCaps* pxSrcCaps = gst_caps_from_string(QV_CAPS_GRAY8);
  GstCaps* pxSinkCaps = gst_caps_from_string(QV_CAPS_BAYER);
  gst_element_class_add_pad_template(
      pxElementClass, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, pxSrcCaps));
  gst_element_class_add_pad_template(
      pxElementClass, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, pxSinkCaps));
  gst_caps_unref(pxSrcCaps);
  gst_caps_unref(pxSinkCaps);

  pxTransClass->transform_caps = GST_DEBUG_FUNCPTR(gst_bayer2lum_transform_caps);
  pxTransClass->transform_ip = GST_DEBUG_FUNCPTR(QvCapsFilterTransformIp);
  pxTransClass->propose_allocation = GST_DEBUG_FUNCPTR(ProposeAllocation);
  pxTransClass->prepare_output_buffer = GST_DEBUG_FUNCPTR(QvCapsFilterPrepareOutputBuffer);
  pxTransClass->query = GST_DEBUG_FUNCPTR(QvCapsFilterQuery);
}

static void gst_bayer2lum_init(GstBayer2LUM* self) {
  QvCapsFilterInit(GST_BASE_TRANSFORM(self));
}

static GstCaps* gst_bayer2lum_transform_caps(GstBaseTransform* /*trans*/, GstPadDirection direction,
                                             GstCaps* caps, GstCaps* filter) {
  return defaultNegotiation(QV_CAPS_BAYER, QV_CAPS_GRAY8, direction, caps, filter);
}
