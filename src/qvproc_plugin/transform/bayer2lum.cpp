/**
 * SECTION:element-qvbayer2lum
 *
 * Passes bayer frames on as GRAY8 frames of the same size. No byte of a buffer changes. Its factory
 * is in the companion plugin qvvideoprochost.
 *
 * |[
 * gst-launch-1.0 filesrc location=frame.grbg blocksize=2073600 \
 *     ! video/x-bayer,format=grbg,width=1920,height=1080,framerate=30/1 \
 *     ! qvbayer2lum ! filesink location=frame.gray
 * ]|
 */
#include "transform/bayer2lum.h"

#include "common/gstUtil.h"
#include "common/gstqvCapsFilter.h"

GST_DEBUG_CATEGORY_STATIC(gst_bayer2lum_debug);
#define GST_CAT_DEFAULT gst_bayer2lum_debug

G_DEFINE_TYPE(GstQvBayer2LUM, gst_bayer2lum, GST_TYPE_BASE_TRANSFORM)

static GstCaps* gst_bayer2lum_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                             GstCaps* caps, GstCaps* filter);

static void gst_bayer2lum_class_init(GstQvBayer2LUMClass* klass) {
  GST_DEBUG_CATEGORY_INIT(gst_bayer2lum_debug, "qvbayer2lum", 0, "qvbayer2lum caps filter");
  QvCapsFilterClassInit(GST_BASE_TRANSFORM_CLASS(klass), "Bayer to Gray8 relabelling",
                        "Passes video/x-bayer buffers on unchanged, labelled as GRAY8 video/x-raw "
                        "of the same size",
                        QV_CAPS_GRAY8, QV_CAPS_BAYER,
                        GST_DEBUG_FUNCPTR(gst_bayer2lum_transform_caps));
}

static void gst_bayer2lum_init(GstQvBayer2LUM* self) {
  QvCapsFilterInit(GST_BASE_TRANSFORM(self));
}

static GstCaps* gst_bayer2lum_transform_caps(GstBaseTransform* /*trans*/, GstPadDirection direction,
                                             GstCaps* caps, GstCaps* filter) {
  return defaultNegotiation(QV_CAPS_BAYER, QV_CAPS_GRAY8, direction, caps, filter);
}
