/**
 * SECTION:element-qvbayer2rgb
 *
 * Passes bayer frames on as RGB frames of a third of the height: a bayer image of one byte a
 * pixel and an RGB image of a third of the height have the same bytes. No byte of a buffer
 * changes. Its factory is in the companion plugin qvvideoprochost.
 *
 * |[
 * gst-launch-1.0 filesrc location=frame.grbg blocksize=6220800 \
 *     ! video/x-bayer,format=grbg,width=1920,height=3240,framerate=30/1 \
 *     ! qvbayer2rgb ! filesink location=frame.rgb
 * ]|
 */
#include "transform/bayer2rgb.h"

#include "common/gstqvCapsFilter.h"

GST_DEBUG_CATEGORY_STATIC(gst_bayer2rgb_debug);
#define GST_CAT_DEFAULT gst_bayer2rgb_debug

G_DEFINE_TYPE(GstQvBayer2RGB, gst_bayer2rgb, GST_TYPE_BASE_TRANSFORM)

static GstCaps* gst_bayer2rgb_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                             GstCaps* caps, GstCaps* filter);

static void gst_bayer2rgb_class_init(GstQvBayer2RGBClass* klass) {
  GST_DEBUG_CATEGORY_INIT(gst_bayer2rgb_debug, "qvbayer2rgb", 0, "qvbayer2rgb caps filter");
  QvCapsFilterClassInit(GST_BASE_TRANSFORM_CLASS(klass), "Bayer to RGB relabelling",
                        "Passes video/x-bayer buffers on unchanged, labelled as RGB video/x-raw "
                        "of a third of the height",
                        QV_CAPS_RGB, QV_CAPS_BAYER,
                        GST_DEBUG_FUNCPTR(gst_bayer2rgb_transform_caps));
}

static void gst_bayer2rgb_init(GstQvBayer2RGB* self) {
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
