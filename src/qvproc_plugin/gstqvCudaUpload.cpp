/**
 * SECTION:element-qvcudaupload
 *
 * Copies raw 8-bit camera frames (GRAY8 or any video/x-bayer order) from host memory into a
 * device image. Its allocation answer gives the source a pool of pinned host memory, so the
 * one copy of a frame reads page-locked memory.
 *
 * |[
 * gst-launch-1.0 videotestsrc ! video/x-raw,format=GRAY8,width=1920,height=1080 ! \
 *     qvcudaupload ! fakesink
 * ]|
 */
#include "gstqvCudaUpload.h"

#include "QvDevice.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "QvImage.h"
#include "gstBufferMap.h"
#include "gstUtil.h"
#include "gstqvCudaMemory.h"
#include "gstqvSysMemAlloc.h"

GST_DEBUG_CATEGORY_STATIC(gst_cuda_upload_debug);
#define GST_CAT_DEFAULT gst_cuda_upload_debug

#define UPLOAD_SINK_CAPS                                                                        \
  "video/x-raw, format = (string) { GRAY8 }, width = (int) [ 1, max ], height = (int) [ 1, "    \
  "max ], framerate = (fraction) [ 0, max ];video/x-bayer,format=(string){BA81,bggr,grbg,gbrg," \
  "rggb},width=(int)[1,MAX],height=(int)[1,MAX],framerate=(fraction)[0/1,MAX];"
#define UPLOAD_SRC_CAPS                                                                      \
  "video/x-raw, format = (string) { GRAY8 }, width = (int) [ 1, max ], height = (int) [ 1, " \
  "max ], framerate = (fraction) [ 0, max ]"

static GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(UPLOAD_SINK_CAPS));
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(UPLOAD_SRC_CAPS));

G_DEFINE_TYPE_WITH_CODE(GstQvCudaUpload, gst_cuda_upload, GST_TYPE_QV_CUDA_BASE_TRANSFORM,
                        GST_DEBUG_CATEGORY_INIT(gst_cuda_upload_debug, "qvcudaupload", 0,
                                                "qvvideoproc upload element"))

static GstCaps* gst_cuda_upload_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                               GstCaps* caps, GstCaps* filter);
static gboolean gst_cuda_upload_set_caps(GstBaseTransform* trans, GstCaps* incaps,
                                         GstCaps* outcaps);
static GstFlowReturn gst_cuda_upload_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                     GstBuffer* outbuf);

static void gst_cuda_upload_class_init(GstQvCudaUploadClass* klass) {
  GstBaseTransformClass* pxTransClass = GST_BASE_TRANSFORM_CLASS(klass);
  QvSetupDeviceTransformClass(pxTransClass, "Qv device upload",
                              "Copies raw 8-bit camera frames (GRAY8 or video/x-bayer) from host "
                              "memory into device images",
                              &sink_template, &src_template,
                              GST_DEBUG_FUNCPTR(gst_cuda_upload_transform_frame),
                              GST_DEBUG_FUNCPTR(gst_cuda_upload_transform_caps));
  pxTransClass->set_caps = GST_DEBUG_FUNCPTR(gst_cuda_upload_set_caps);
  pxTransClass->propose_allocation = GST_DEBUG_FUNCPTR(ProposeAllocation);
}

static void gst_cuda_upload_init(GstQvCudaUpload* self) {
  my_memory_init();
  self->width = 0;
  self->height = 0;
  gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), FALSE);
}

static GstCaps* gst_cuda_upload_transform_caps(GstBaseTransform* /*trans*/,
                                               GstPadDirection direction, GstCaps* caps,
                                               GstCaps* filter) {
  return defaultNegotiation(UPLOAD_SINK_CAPS, UPLOAD_SRC_CAPS, direction, caps, filter);
}

static gboolean gst_cuda_upload_set_caps(GstBaseTransform* trans, GstCaps* incaps,
                                         GstCaps* outcaps) {
  GstQvCudaUpload* self = GST_CUDA_UPLOAD(trans);
  GST_LOG_OBJECT(self, "in caps %" GST_PTR_FORMAT " out caps %" GST_PTR_FORMAT, incaps, outcaps);
  const GstStructure* pxStructure = gst_caps_get_structure(incaps, 0);
  gst_structure_get_int(pxStructure, "width", &self->width);
  gst_structure_get_int(pxStructure, "height", &self->height);
  return TRUE;
}

static GstFlowReturn gst_cuda_upload_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                     GstBuffer* outbuf) {
  GstQvCudaUpload* self = GST_CUDA_UPLOAD(trans);
  try {
    LogMessage("Upload starting ");
    CGstBufferMap xIn(inbuf, GST_MAP_READ, "cannot map in buffer");
    CGstBufferMap xOut(outbuf, GST_MAP_WRITE, "cannot map out buffer");
    const guint64 uNeeded = static_cast<guint64>(self->width > 0 ? self->width : 0) *
                            (self->height > 0 ? self->height : 0);
    if (xIn.Size() < uNeeded) {
      Qv::CQvString sText("in buffer holds ");
      sText << static_cast<unsigned long>(xIn.Size()) << " bytes, a " << self->width << "x"
            << self->height << " frame needs " << static_cast<unsigned long>(uNeeded);
      QV_THROW(sText.ToCString());
    }
    Qv::CQvImageMoniker xMoniker;
    xMoniker.Create(self->width, self->height, Qv::EPixelType::BayerGR, Qv::EDataType::UByte,
                    xIn.Data());
    auto* pxImage = reinterpret_cast<Qv::CQvDeviceImage2D*>(xOut.Data());
    pxImage->CreateAsync(xMoniker, self->parent.stream);
    Qv::Device::SynchronizeStream(self->parent.stream);
    CopyMetData(outbuf, inbuf);
    LogMessage("Upload complete");
    return GST_FLOW_OK;
  } catch (const Qv::IException& e) {
    HandleException(e, GST_ELEMENT(trans));
  }
  return GST_FLOW_ERROR;
}
