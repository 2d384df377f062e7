/**
 * SECTION:element-qvcudadebayer
 *
 * Turns the raw mosaic device image of the upload element into an RGBA device image of the
 * same size, with a fixed white balance (red 1 / 0.7, green 1, blue 1 / 0.88). The bayer
 * order comes from the image; an image that is no mosaic passes as an empty output image.
 *
 * |[
 * gst-launch-1.0 videotestsrc ! video/x-raw,format=GRAY8,width=1920,height=1080 ! \
 *     qvcudaupload ! qvcudadebayer ! fakesink
 * ]|
 */
#include "transform/gstqvCudaDebayer.h"

#include "QvCudaCompDemosaic.h"
#include "QvPixel.h"

GST_DEBUG_CATEGORY_STATIC(gst_cuda_debayer_debug);
#define GST_CAT_DEFAULT gst_cuda_debayer_debug

#define DEBAYER_SIZE "width=(int)[1,MAX],height=(int)[1,MAX],framerate=(fraction)[0/1,MAX]"
#define DEBAYER_SINK8 "video/x-raw,format=(string)GRAY8," DEBAYER_SIZE
#define DEBAYER_SINK16 "video/x-raw,format=(string)GRAY16_LE," DEBAYER_SIZE
#define DEBAYER_SRC8 "video/x-raw,format=(string)RGBA," DEBAYER_SIZE
#define DEBAYER_SRC16 "video/x-raw,format=(string)RGBA64_LE," DEBAYER_SIZE
#define DEBAYER_SINK_CAPS DEBAYER_SINK8 ";" DEBAYER_SINK16
#define DEBAYER_SRC_CAPS DEBAYER_SRC8 ";" DEBAYER_SRC16

// The fixed white balance of the camera rig.
static const float kRedGain = 1.4285715f;
static const float kGreenGain = 1.0f;
static const float kBlueGain = 1.1363636f;

static GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(DEBAYER_SINK_CAPS));
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(DEBAYER_SRC_CAPS));

G_DEFINE_TYPE_WITH_CODE(GstQvCudaDebayer, gst_cuda_debayer, GST_TYPE_QV_CUDA_BASE_TRANSFORM,
                        GST_DEBUG_CATEGORY_INIT(gst_cuda_debayer_debug, "qvcudadebayer", 0,
                                                "qvvideoproc debayer element"))

static GstCaps* gst_cuda_debayer_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                                GstCaps* caps, GstCaps* filter);
static GstFlowReturn gst_cuda_debayer_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                      GstBuffer* outbuf);

static void gst_cuda_debayer_class_init(GstQvCudaDebayerClass* klass) {
  QvSetupDeviceTransformClass(GST_BASE_TRANSFORM_CLASS(klass), "Qv device debayer",
                              "Demosaics a raw device image into an RGBA device image of the same "
                              "size with the rig's fixed white balance",
                              &sink_template, &src_template,
                              GST_DEBUG_FUNCPTR(gst_cuda_debayer_transform_frame),
                              GST_DEBUG_FUNCPTR(gst_cuda_debayer_transform_caps));
}

static void gst_cuda_debayer_init(GstQvCudaDebayer* self) {
  self->parent.comp = new Qv::CQvCudaCompDemosaic();
}

static GstCaps* gst_cuda_debayer_transform_caps(GstBaseTransform* /*trans*/,
                                                GstPadDirection direction, GstCaps* caps,
                                                GstCaps* filter) {
  // 16-bit mosaics give RGBA with 16-bit channels.
  return DepthNegotiation({DEBAYER_SINK8, DEBAYER_SINK16}, {DEBAYER_SRC8, DEBAYER_SRC16}, direction,
                          caps, filter);
}

static GstFlowReturn gst_cuda_debayer_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                      GstBuffer* outbuf) {
  GstQvCudaBaseTransform* self = GST_QV_CUDA_BASE_TRANSFORM(trans);
  static const SQvFrameTexts xTexts = {"Debayer plugin start", "cannot map inbuffer",
                                       "cannot map outbuffer", "no image data found",
                                       "found a device image pointer!.\n"};
  return QvRunDeviceFrame(self, inbuf, outbuf, xTexts,
                          [self](Qv::CQvDeviceImage2D& xIn, Qv::CQvDeviceImage2D& xOut) {
                            // Anything but a mosaic leaves the output image empty.
                            if (!Qv::IsBayerPixelType(xIn.GetFormat().ePixelType)) return;
                            static_cast<Qv::CQvCudaCompDemosaic*>(self->comp)
                                ->Debayer(xOut, xIn, kRedGain, kGreenGain, kBlueGain);
                          });
}
