/**
 * SECTION:element-qvcudayuv
 *
 * Converts an RGBA device image to I420 on the device. The result is one Lum device image of
 * one and a half times the height, Y, U and V stacked; the caps keep the frame's own size and
 * say I420. Its factory is in the companion plugin qvvideoprochost.
 *
 * |[
 * gst-launch-1.0 videotestsrc num-buffers=10 ! video/x-bayer,format=grbg,width=1920,height=1080 ! \
 *     qvcudaupload ! qvcudadebayer ! qvcudayuv ! qvcudadownload ! filesink location=out.i420
 * ]|
 */
#include "transform/gstqvCudaYUV.h"

#include "QvCudaCompYUV.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "common/gstBufferMap.h"
#include "common/gstUtil.h"
#include "common/gstqvCudaMemory.h"

GST_DEBUG_CATEGORY_STATIC(gst_cuda_yuv_debug);
#define GST_CAT_DEFAULT gst_cuda_yuv_debug

// 16-bit colour converts too; the stacked image then holds 16-bit samples, which the download
// narrows to the 8 bits of I420.
#define YUV_SINK_CAPS                                                                             \
  "video/x-raw, format = (string) { RGBA, RGBA64_LE }, width = (int) [ 1, max ], height = (int) " \
  "[ 1, "                                                                                         \
  "max ], framerate = (fraction) [ 0, max ]"
// Full range, BT.601 matrix: what the conversion writes, so that a converter downstream reads
// the levels right.
#define YUV_SRC_CAPS                                                                     \
  "video/x-raw, format = (string) { I420 }, colorimetry = (string) " QV_I420_COLORIMETRY \
  ", width = (int) [ 1, max ], height = (int) [ 1, max ], framerate = (fraction) [ 0, max ]"

static GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(YUV_SINK_CAPS));
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(YUV_SRC_CAPS));

G_DEFINE_TYPE_WITH_CODE(GstQvCudaYUV, gst_cuda_yuv, GST_TYPE_QV_CUDA_BASE_TRANSFORM,
                        GST_DEBUG_CATEGORY_INIT(gst_cuda_yuv_debug, "qvcudayuv", 0,
                                                "qvvideoproc YUV element"))

static GstCaps* gst_cuda_yuv_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                            GstCaps* caps, GstCaps* filter);
static gboolean gst_cuda_yuv_set_caps(GstBaseTransform* trans, GstCaps* incaps, GstCaps* outcaps);
static GstFlowReturn gst_cuda_yuv_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                  GstBuffer* outbuf);

static void gst_cuda_yuv_class_init(GstQvCudaYUVClass* klass) {
  QvSetupDeviceTransformClass(GST_BASE_TRANSFORM_CLASS(klass), "Qv device RGBA to I420",
                              "Converts an RGBA device image to full-range BT.601 I420, the three "
                              "planes stacked in one device image for qvcudadownload",
                              &sink_template, &src_template,
                              GST_DEBUG_FUNCPTR(gst_cuda_yuv_transform_frame),
                              GST_DEBUG_FUNCPTR(gst_cuda_yuv_transform_caps));
  GST_BASE_TRANSFORM_CLASS(klass)->set_caps = GST_DEBUG_FUNCPTR(gst_cuda_yuv_set_caps);
}

static void gst_cuda_yuv_init(GstQvCudaYUV* self) {
  self->parent.comp = new Qv::CQvCudaCompYUV();
}

static GstCaps* gst_cuda_yuv_transform_caps(GstBaseTransform* /*trans*/, GstPadDirection direction,
                                            GstCaps* caps, GstCaps* filter) {
  return defaultNegotiation(YUV_SINK_CAPS, YUV_SRC_CAPS, direction, caps, filter);
}

// Sizes whose planes the stacked image cannot hold are refused here, before the first frame.
static gboolean gst_cuda_yuv_set_caps(GstBaseTransform* trans, GstCaps* /*incaps*/,
                                      GstCaps* outcaps) {
  GstVideoInfo xInfo;
  return gst_video_info_from_caps(&xInfo, outcaps) && QvStackedI420Fits(GST_ELEMENT(trans), &xInfo);
}

static GstFlowReturn gst_cuda_yuv_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                  GstBuffer* outbuf) {
  GstQvCudaBaseTransform* self = GST_QV_CUDA_BASE_TRANSFORM(trans);
  static const SQvFrameTexts xTexts = {"starting yuv! \n", "cannot map inbuffer",
                                       "cannot map outbuffer", "no image data available",
                                       "found a device image pointer"};
  return QvRunDeviceFrame(self, inbuf, outbuf, xTexts,
                          [self](Qv::CQvDeviceImage2D& xIn, Qv::CQvDeviceImage2D& xOut) {
                            static_cast<Qv::CQvCudaCompYUV*>(self->comp)->Convert(xOut, xIn);
                          });
}
