#pragma once
// Abstract base of the device transforms: each instance owns one stream, made at instance
// init and released at finalize, and refuses to start when no device backend can be had.
#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>

#include "QvCudaComp.h"
#include "QvCudaDefs.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "common/gstBufferMap.h"
#include "common/gstUtil.h"

G_BEGIN_DECLS

#define GST_TYPE_QV_CUDA_BASE_TRANSFORM (gst_qv_cuda_base_transform_get_type())
#define GST_QV_CUDA_BASE_TRANSFORM(obj) \
  (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_QV_CUDA_BASE_TRANSFORM, GstQvCudaBaseTransform))

typedef struct _GstQvCudaBaseTransform {
  GstBaseTransform parent;
  cudaStream_t stream;
  // The element's computation object, if it has one; deleted at finalize.
  Qv::CQvCudaComp* comp;
} GstQvCudaBaseTransform;

typedef struct _GstQvCudaBaseTransformClass {
  GstBaseTransformClass parent_class;
} GstQvCudaBaseTransformClass;

GType gst_qv_cuda_base_transform_get_type(void);

G_END_DECLS

typedef GstFlowReturn (*QvTransformFunc)(GstBaseTransform*, GstBuffer*, GstBuffer*);
typedef GstCaps* (*QvTransformCapsFunc)(GstBaseTransform*, GstPadDirection, GstCaps*, GstCaps*);

// What every device transform sets on its class: metadata (classification szKlass), both pad
// templates, transform, transform_caps (if given; else the
// same caps on both sides), and output buffers that carry a device image.
void QvSetupDeviceTransformClass(GstBaseTransformClass* pxClass, const char* szLongName,
                                 const char* szDescription, GstStaticPadTemplate* pxSinkTemplate,
                                 GstStaticPadTemplate* pxSrcTemplate, QvTransformFunc fnTransform,
                                 QvTransformCapsFunc fnTransformCaps,
                                 const char* szKlass = "Filter/Converter/Video/Hardware");

// The words of one element's frame step.
struct SQvFrameTexts {
  const char* szStart;
  const char* szCannotMapIn;
  const char* szCannotMapOut;
  const char* szNoImage;
  const char* szFoundImage;
};

// The frame step of the device transforms: map both buffers, find the input image, run the
// computation on the element's stream, hand camera settings on. Every failure of the image
// code ends the frame with HandleException (standard output and an element error on the bus)
// and GST_FLOW_ERROR; the maps are released on all paths.
template <class F>
GstFlowReturn QvRunDeviceFrame(GstQvCudaBaseTransform* self, GstBuffer* inbuf, GstBuffer* outbuf,
                               const SQvFrameTexts& xTexts, F&& fnCompute) {
  try {
    LogMessage(xTexts.szStart);
    CGstBufferMap xIn(inbuf, GST_MAP_READ, xTexts.szCannotMapIn);
    CGstBufferMap xOut(outbuf, GST_MAP_WRITE, xTexts.szCannotMapOut);
    Qv::CQvDeviceImage2D* pxInImage = DeviceImageOfBuffer(inbuf, xIn.Data());
    if (!pxInImage) QV_THROW(xTexts.szNoImage);
    LogMessage(xTexts.szFoundImage);
    if (self->comp) self->comp->SetStream(self->stream);
    fnCompute(*pxInImage, *reinterpret_cast<Qv::CQvDeviceImage2D*>(xOut.Data()));
    CopyMetData(outbuf, inbuf);
    return GST_FLOW_OK;
  } catch (const Qv::IException& e) {
    HandleException(e, GST_ELEMENT(self));
  }
  return GST_FLOW_ERROR;
}
