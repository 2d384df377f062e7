/**
 * SECTION:element-qvcudayuv
 *
 * Converts an RGBA device image to I420 on the device. The result is one Lum device image of
 * one and a half times the height, Y, U and V stacked; the caps keep the frame's own size and
 * say I420. No factory: a host application registers the type (qvproc-launch does).
 *
 * |[
 * qvproc-launch videotestsrc num-buffers=10 ! video/x-bayer,format=grbg,width=1920,height=1080 ! \
 *     qvcudaupload ! qvcudadebayer ! qvcudayuv ! qvcudadownload ! filesink location=out.i420
 * ]|
 */
#include "gstqvCudaYUV.h"

#include "QvCudaCompYUV.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "gstBufferMap.h"
#include "gstUtil.h"
#include "gstqvCudaMemory.h"

GST_DEBUG_CATEGORY_STATIC(gst_cuda_yuv_debug);
#define GST_CAT_DEFAULT gst_cuda_yuv_debug

#define YUV_SINK_CAPS                                                                       \
  "video/x-raw, format = (string) { RGBA }, width = (int) [ 1, max ], height = (int) [ 1, " \
  "max ], framerate = (fraction) [ 0, max ]"
#define YUV_SRC_CAPS                                                                        \
  "video/x-raw, format = (string) { I420 }, width = (int) [ 1, max ], height = (int) [ 1, " \
  "max ], framerate = (fraction) [ 0, max ]"

static GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(YUV_SINK_CAPS));
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(YUV_SRC_CAPS));

G_DEFINE_TYPE_WITH_CODE(GstQvCudaYUV, gst_cuda_yuv, GST_TYPE_QV_CUDA_BASE_TRANSFORM,
                        GST_DEBUG_CATEGORY_INIT(gst_cuda_yuv_debug, "qvcudayuv", 0,
                                                "qvvideoproc YUV element"))

static void gst_cuda_yuv_finalize(GObject* object);
static GstCaps* gst_cuda_yuv_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                            GstCaps* caps, GstCaps* filter);
static GstFlowReturn gst_cuda_yuv_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                  GstBuffer* outbuf);

static void gst_cuda_yuv_class_init(GstQvCudaYUVClass* klass) {
  GObjectClass* pxObjectClass = G_OBJECT_CLASS(klass);
  GstElementClass* pxElementClass = GST_ELEMENT_CLASS(klass);
  GstBaseTransformClass* pxTransClass = GST_BASE_TRANSFORM_CLASS(klass);

  pxObjectClass->finalize = gst_cuda_yuv_finalize;

  gst_element_class_set_static_metadata(pxElementClass, "qv cuda yuv element",
                                        "Filter/Effect/Video", "Velmora Cuda YUV",
                                        "qvvideoproc developers");
  gst_element_class_add_static_pad_template(pxElementClass, &sink_template);
  gst_element_class_add_static_pad_template(pxElementClass, &src_template);

  pxTransClass->transform = GST_DEBUG_FUNCPTR(gst_cuda_yuv_transform_frame);
  pxTransClass->transform_caps = GST_DEBUG_FUNCPTR(gst_cuda_yuv_transform_caps);
  pxTransClass->prepare_output_buffer = GST_DEBUG_FUNCPTR(PrepareOutputBufferCuda);
}

static void gst_cuda_yuv_init(GstQvCudaYUV* self) {
  self->comp = new Qv::CQvCudaCompYUV();
}

static void gst_cuda_yuv_finalize(GObject* object) {
  GstQvCudaYUV* self = GST_CUDA_YUV(object);
  delete self->comp;
  self->comp = nullptr;
  G_OBJECT_CLASS(gst_cuda_yuv_parent_class)->finalize(object);
}

static GstCaps* gst_cuda_yuv_transform_caps(GstBaseTransform* /*trans*/, GstPadDirection direction,
                                            GstCaps* caps, GstCaps* filter) {
  return defaultNegotiation(YUV_SINK_CAPS, YUV_SRC_CAPS, direction, caps, filter);
}

static GstFlowReturn gst_cuda_yuv_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                  GstBuffer* outbuf) {
  GstQvCudaYUV* self = GST_CUDA_YUV(trans);
  try {
    LogMessage("starting yuv! \n");
    CGstBufferMap xIn(inbuf, GST_MAP_READ, "cannot map inbuffer");
    CGstBufferMap xOut(outbuf, GST_MAP_WRITE, "cannot map outbuffer");
    Qv::CQvDeviceImage2D* pxIn = DeviceImageOfBuffer(inbuf, xIn.Data());
    if (!pxIn) QV_THROW("no image data available");
    auto* pxOut = reinterpret_cast<Qv::CQvDeviceImage2D*>(xOut.Data());
    self->comp->SetStream(self->parent.stream);
    self->comp->Convert(*pxOut, *pxIn);
    CopyMetData(outbuf, inbuf);
    return GST_FLOW_OK;
  } catch (const Qv::IException& e) {
    HandleException(e);
  }
  return GST_FLOW_ERROR;
}
