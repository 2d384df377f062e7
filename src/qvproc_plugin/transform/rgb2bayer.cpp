/**
 * SECTION:element-qvrgb2bayer
 *
 * Passes RGB frames on as bayer frames of three times the height: the way back of qvbayer2rgb.
 * No byte of a buffer changes. Its factory is in the companion plugin qvvideoprochost.
 *
 * |[
 * gst-launch-1.0 filesrc location=frame.rgb blocksize=6220800 \
 *     ! video/x-raw,format=RGB,width=1920,height=1080,framerate=30/1 \
 *     ! qvrgb2bayer ! filesink location=frame.grbg
 * ]|
 */
#include "transform/rgb2bayer.h"

#include <cstdio>

#include "QvMessage.h"
#include "QvOperatorTexts.h"
#include "common/gstqvCapsFilter.h"

GST_DEBUG_CATEGORY_STATIC(gst_rgb2bayer_debug);
#define GST_CAT_DEFAULT gst_rgb2bayer_debug

G_DEFINE_TYPE(GstQvRgb2Bayer, gst_rgb2bayer, GST_TYPE_BASE_TRANSFORM)

static GstCaps* gst_rgb2bayer_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                             GstCaps* caps, GstCaps* filter);

static void gst_rgb2bayer_class_init(GstQvRgb2BayerClass* klass) {
  GST_DEBUG_CATEGORY_INIT(gst_rgb2bayer_debug, "qvrgb2bayer", 0, "qvrgb2bayer caps filter");
  QvCapsFilterClassInit(GST_BASE_TRANSFORM_CLASS(klass), "RGB to Bayer relabelling",
                        "Passes RGB video/x-raw buffers on unchanged, labelled as video/x-bayer "
                        "of three times the height",
                        QV_CAPS_BAYER, QV_CAPS_RGB,
                        GST_DEBUG_FUNCPTR(gst_rgb2bayer_transform_caps));
}

static void gst_rgb2bayer_init(GstQvRgb2Bayer* self) {
  QvCapsFilterInit(GST_BASE_TRANSFORM(self));
}

// The height rule guesses the side from the size: a positive height at or below every height
// seen so far is an RGB height and is multiplied by three; a larger one is taken as done.
static gint gst_rgb2bayer_height(gint iHeight) {
  static gint iMaxHeight = 99999;
  Qv::OperatorMessage(QV_TEXT_HEIGHT_BEFORE, iHeight);
  if (iHeight <= 0 || iHeight > iMaxHeight) return iHeight;
  iMaxHeight = iHeight;
  return 3 * iHeight;
}

static GstCaps* gst_rgb2bayer_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                             GstCaps* caps, GstCaps* filter) {
  return QvRelabelCaps(trans, caps, filter, direction != GST_PAD_SRC, gst_rgb2bayer_height);
}
