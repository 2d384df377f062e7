#pragma once
// What the transform elements share: negotiation, output buffers, the hand-over of camera
// settings, and the one failure report.
#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "QvImage.h"
#include "QvImageFormat.h"
#include "QvString.h"

namespace cv::cuda {
class GpuMat;
}

GstCaps* defaultNegotiation(const gchar* sinkCapsText, const gchar* srcCapsText,
                            GstPadDirection direction, GstCaps* caps, GstCaps* filter);
// One pad's caps by sample depth: what it takes or gives with 8-bit and with 16-bit samples.
struct SDepthCaps {
  const gchar* sz8;
  const gchar* sz16;
};
// The other pad's caps for caps of this one: each depth that caps may have maps to the same
// depth on the other side, with caps' size and rate; so 8-bit input never gives 16-bit output.
GstCaps* DepthNegotiation(const SDepthCaps& xSink, const SDepthCaps& xSrc,
                          GstPadDirection direction, GstCaps* caps, GstCaps* filter);
// Significant bits of a sample of raw camera caps: 16 for GRAY16_LE, 10 to 16 for the bayer
// formats of 16-bit words ("grbg12le"), else 8.
gint QvCapsSampleDepth(const GstStructure* pxStructure);
GstFlowReturn PrepareOutputBufferCuda(GstBaseTransform* trans, GstBuffer* inbuf,
                                      GstBuffer** outbuf);
void CopyMetData(GstBuffer* outbuf, GstBuffer* inbuf);
// Writes the exception chain to standard output and, given the element whose frame failed,
// posts it on the bus as a GST_STREAM_ERROR_FAILED element error: the messages of the chain as
// the text, files and lines as the debug text.
void HandleException(const Qv::IException& exception, GstElement* element = NULL);
void LogMessage(const char* text);
// The device image of a mapped input buffer: null when the map gave none. A buffer of other
// memory is refused, since its host bytes would be taken for an image.
Qv::CQvDeviceImage2D* DeviceImageOfBuffer(GstBuffer* buffer, guint8* mapped);

// The colorimetry of the I420 frames of qvcudayuv and qvcudadownload: full range, BT.601
// matrix, so that a converter downstream reads the levels as they were written.
#define QV_I420_COLORIMETRY "1:4:0:0"
// The stacked I420 image holds chroma planes in whole rows of W samples: only for an even width
// and a height divisible by 4. Other I420 sizes get a negotiation error and FALSE.
gboolean QvStackedI420Fits(GstElement* element, const GstVideoInfo* info);

// Format mapping between GStreamer's video formats, the image ids and OpenCV matrix types. The
// tables are not inverse to one another: a gray frame is a raw mosaic, a planar YUV frame one
// Lum image. Failures raise CQvException.
GstVideoFormat MapQvToGstFormat(Qv::EPixelType::ID pixelType);
Qv::EPixelType::ID MapGstToQvPixType(const GstVideoFrame* frame);
Qv::EDataType::ID MapGstToQvDataType(const GstVideoFrame* frame);
int MapToCVFormat(Qv::CQvImageFormat format);
Qv::EPixelType::ID PixelTypeFromCVFormat(int type);
Qv::EDataType::ID DataTypeFromCVFormat(int type);

// Frame copy between host images, mapped video frames and OpenCV device matrices.
// One plane: a mosaic goes only into a frame of the same mosaic or a Lum frame.
void copyQvImageToGSTFrame(Qv::CQvImage& image, GstVideoFrame* frame);
// One copy from the device image straight into the frame, where the frame has the image's size
// and takes its pixels as they are; false, with nothing written, leaves the frame to
// copyQvImageToGSTFrame from a host copy of the image.
bool copyDeviceImageToGSTFrame(const Qv::CQvDeviceImage2D& image, GstVideoFrame* frame,
                               cudaStream_t hStream);
// Three planes from the stacked I420 layout; the planes must have strides W, W/2 and W/2.
void copyQvImageToGSTFrame_YUV(Qv::CQvImage& image, GstVideoFrame* frame);
// A view on plane 0 with packed rows, valid while the frame stays mapped.
Qv::CQvImageMoniker copyGSTFrameToQvImage(GstVideoFrame* frame);
// Wraps the device memory without a copy; the matrix must not outlive the image.
cv::cuda::GpuMat QvDevImgToCvMat(Qv::CQvDeviceImage2D* image);
// Copies the matrix into the image, creating it first when create is true.
void CvMatToQvDevImg(cv::cuda::GpuMat& mat, Qv::CQvDeviceImage2D* image, bool create);
