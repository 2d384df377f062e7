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
#include "transform/gstqvCudaUpload.h"

#include <gst/video/video.h>

#include "QvDevice.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "QvImage.h"
#include "common/gstBufferMap.h"
#include "common/gstUtil.h"
#include "common/gstqvCudaMemory.h"
#include "common/gstqvSysMemAlloc.h"

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
  self->iCapsStride = 0;
  if (gst_structure_has_name(pxStructure, "video/x-raw")) {
    GstVideoInfo xInfo;
    if (gst_video_info_from_caps(&xInfo, incaps))
      self->iCapsStride = GST_VIDEO_INFO_PLANE_STRIDE(&xInfo, 0);
  } else {
    // The device image is always read as GRBG; another order gives wrong colours downstream.
    const gchar* szOrder = gst_structure_get_string(pxStructure, "format");
    if (szOrder && g_strcmp0(szOrder, "grbg") != 0)
      GST_ELEMENT_WARNING(self, STREAM, FORMAT,
                          ("the mosaic is read as GRBG; the caps say %s", szOrder), (NULL));
  }
  return TRUE;
}

// Bytes between rows of an input frame: a video meta's stride where the buffer carries one, the
// caps' stride for GRAY8, and for bayer buffers rows padded to 4 bytes when the buffer is that
// large, else packed rows.
static gsize UploadStride(const GstQvCudaUpload* self, GstBuffer* pxBuffer, gsize uSize,
                          gsize& uOffset) {
  uOffset = 0;
  const GstVideoMeta* pxMeta = gst_buffer_get_video_meta(pxBuffer);
  if (pxMeta && pxMeta->n_planes >= 1) {
    uOffset = pxMeta->offset[0];
    return static_cast<gsize>(pxMeta->stride[0] > 0 ? pxMeta->stride[0] : 0);
  }
  if (self->iCapsStride > 0) return static_cast<gsize>(self->iCapsStride);
  const gsize uPacked = static_cast<gsize>(self->width);
  const gsize uPadded = (uPacked + 3) & ~static_cast<gsize>(3);
  return uSize >= uPadded * static_cast<gsize>(self->height) ? uPadded : uPacked;
}

static GstFlowReturn gst_cuda_upload_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                     GstBuffer* outbuf) {
  GstQvCudaUpload* self = GST_CUDA_UPLOAD(trans);
  try {
    LogMessage("Upload starting ");
    CGstBufferMap xIn(inbuf, GST_MAP_READ, "cannot map in buffer");
    CGstBufferMap xOut(outbuf, GST_MAP_WRITE, "cannot map out buffer");
    const guint64 uWidth = static_cast<guint64>(self->width > 0 ? self->width : 0);
    const guint64 uHeight = static_cast<guint64>(self->height > 0 ? self->height : 0);
    gsize uOffset = 0;
    const guint64 uStride = UploadStride(self, inbuf, xIn.Size(), uOffset);
    // The last row needs no padding after it.
    const guint64 uNeeded = uHeight == 0 ? 0 : uOffset + uStride * (uHeight - 1) + uWidth;
    if (uStride < uWidth) {
      Qv::CQvString sText("a row stride of ");
      sText << static_cast<unsigned long>(uStride) << " bytes is shorter than a row of "
            << static_cast<unsigned long>(uWidth) << " bytes";
      QV_THROW(sText.ToCString());
    }
    if (xIn.Size() < uNeeded) {
      Qv::CQvString sText("in buffer holds ");
      sText << static_cast<unsigned long>(xIn.Size()) << " bytes, a " << self->width << "x"
            << self->height << " frame needs " << static_cast<unsigned long>(uNeeded);
      QV_THROW(sText.ToCString());
    }
    auto* pxImage = reinterpret_cast<Qv::CQvDeviceImage2D*>(xOut.Data());
    pxImage->Create(Qv::CQvImageFormat(self->width, self->height, Qv::EPixelType::BayerGR,
                                       Qv::EDataType::UByte));
    pxImage->Upload(static_cast<const guint8*>(xIn.Data()) + uOffset, uStride, self->parent.stream,
                    true);
    Qv::Device::SynchronizeStream(self->parent.stream);
    CopyMetData(outbuf, inbuf);
    LogMessage("Upload complete");
    return GST_FLOW_OK;
  } catch (const Qv::IException& e) {
    HandleException(e, GST_ELEMENT(trans));
  }
  return GST_FLOW_ERROR;
}
