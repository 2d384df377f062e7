#include "common/gstUtil.h"

#include <cstdio>
#include <cstring>
#include <opencv2/core/cuda.hpp>

#include "QvDevice.h"
#include "QvMessage.h"
#include "QvOperatorTexts.h"
#include "QvPixel.h"
#include "common/gstqvCudaMemory.h"
#include "common/gstqvMetaInfo.h"

using Qv::EDataType;
using Qv::EPixelType;

// Width, height and rate of pxIn, where it has them, into pxOut.
static void CopySizeAndRate(const GstStructure* pxIn, GstStructure* pxOut) {
  for (const char* szField : {"width", "height", "framerate"}) {
    const GValue* pxValue = gst_structure_get_value(pxIn, szField);
    if (pxValue) gst_structure_set_value(pxOut, szField, pxValue);
  }
}

// pxResult as the filter allows it (taken).
static GstCaps* Filtered(GstCaps* pxResult, GstCaps* filter) {
  if (!filter) return pxResult;
  GstCaps* pxFiltered = gst_caps_intersect_full(filter, pxResult, GST_CAPS_INTERSECT_FIRST);
  gst_caps_unref(pxResult);
  return pxFiltered;
}

GstCaps* defaultNegotiation(const gchar* sinkCapsText, const gchar* srcCapsText,
                            GstPadDirection direction, GstCaps* caps, GstCaps* filter) {
  // Caps of the source pad ask for the sink side, and the other way round.
  GstCaps* pxResult = gst_caps_from_string(direction == GST_PAD_SRC ? sinkCapsText : srcCapsText);
  if (!pxResult) return gst_caps_new_empty();
  if (caps && gst_caps_get_size(caps) > 0 && gst_caps_get_size(pxResult) > 0)
    CopySizeAndRate(gst_caps_get_structure(caps, 0), gst_caps_get_structure(pxResult, 0));
  return Filtered(pxResult, filter);
}

GstCaps* DepthNegotiation(const SDepthCaps& xSink, const SDepthCaps& xSrc,
                          GstPadDirection direction, GstCaps* caps, GstCaps* filter) {
  const SDepthCaps& xThis = direction == GST_PAD_SINK ? xSink : xSrc;
  const SDepthCaps& xOther = direction == GST_PAD_SINK ? xSrc : xSink;
  const gchar* const aszThis[] = {xThis.sz8, xThis.sz16};
  const gchar* const aszOther[] = {xOther.sz8, xOther.sz16};
  bool abMay[2] = {false, false};
  for (int d = 0; d < 2; ++d) {
    GstCaps* pxThis = gst_caps_from_string(aszThis[d]);
    abMay[d] = pxThis && caps && gst_caps_can_intersect(caps, pxThis);
    if (pxThis) gst_caps_unref(pxThis);
  }
  // Caps of neither depth (an empty answer while downstream renegotiates) constrain nothing,
  // as a plain template answer would.
  if (!abMay[0] && !abMay[1]) abMay[0] = abMay[1] = true;
  const GstStructure* pxIn =
      caps && gst_caps_get_size(caps) > 0 ? gst_caps_get_structure(caps, 0) : NULL;
  GstCaps* pxResult = gst_caps_new_empty();
  for (int d = 0; d < 2; ++d) {
    GstCaps* pxOther = abMay[d] ? gst_caps_from_string(aszOther[d]) : NULL;
    if (!pxOther) continue;
    pxOther = gst_caps_make_writable(pxOther);
    for (guint i = 0; pxIn && i < gst_caps_get_size(pxOther); ++i)
      CopySizeAndRate(pxIn, gst_caps_get_structure(pxOther, i));
    gst_caps_append(pxResult, pxOther);
  }
  return Filtered(pxResult, filter);
}

gint QvCapsSampleDepth(const GstStructure* pxStructure) {
  const gchar* szFormat = gst_structure_get_string(pxStructure, "format");
  if (!szFormat) return 8;
  if (g_strcmp0(szFormat, "GRAY16_LE") == 0) return 16;
  if (strlen(szFormat) == 8 && g_str_has_suffix(szFormat, "le"))
    return static_cast<gint>(g_ascii_strtoll(szFormat + 4, NULL, 10));
  return 8;
}

GstFlowReturn PrepareOutputBufferCuda(GstBaseTransform* trans, GstBuffer* /*inbuf*/,
                                      GstBuffer** outbuf) {
  GstAllocator* pxAllocator = gst_allocator_find(QV_CUDA_MEMORY_NAME);
  if (!pxAllocator) {
    // No upload element registered the allocator yet: register it here.
    my_memory_init();
    pxAllocator = gst_allocator_find(QV_CUDA_MEMORY_NAME);
  }
  GstAllocationParams xParams;
  gst_allocation_params_init(&xParams);
  *outbuf = gst_buffer_new_allocate(pxAllocator, 1, &xParams);
  if (pxAllocator) gst_object_unref(pxAllocator);
  if (!*outbuf) {
    GST_ERROR_OBJECT(trans, "cannot allocate a device image buffer");
    return GST_FLOW_ERROR;
  }
  return GST_FLOW_OK;
}

gboolean QvStackedI420Fits(GstElement* element, const GstVideoInfo* info) {
  const int iWidth = GST_VIDEO_INFO_WIDTH(info), iHeight = GST_VIDEO_INFO_HEIGHT(info);
  if (GST_VIDEO_INFO_FORMAT(info) != GST_VIDEO_FORMAT_I420 || (iWidth % 2 == 0 && iHeight % 4 == 0))
    return TRUE;
  GST_ELEMENT_ERROR(element, CORE, NEGOTIATION,
                    ("an I420 frame of %dx%d is not supported: its planes need an even width and "
                     "a height divisible by 4",
                     iWidth, iHeight),
                    (NULL));
  return FALSE;
}

void CopyMetData(GstBuffer* outbuf, GstBuffer* inbuf) {
  gst_buffer_copy_into(outbuf, inbuf, GST_BUFFER_COPY_TIMESTAMPS, 0, -1);
  MyMetaInfo* pxIn =
      reinterpret_cast<MyMetaInfo*>(gst_buffer_get_meta(inbuf, MY_META_INFO_API_TYPE));
  if (!pxIn) return;
  MyMetaInfo* pxOut =
      reinterpret_cast<MyMetaInfo*>(gst_buffer_add_meta(outbuf, my_meta_get_info(), NULL));
  if (!pxOut) return;
  pxOut->exposure = pxIn->exposure;
  pxOut->gain = pxIn->gain;
}

void HandleException(const Qv::IException& exception, GstElement* element) {
  Qv::OperatorMessage(QV_TEXT_EXCEPTION_CATCHED);
  GString* pxText = g_string_new(NULL);
  GString* pxDebug = g_string_new(NULL);
  for (const Qv::IException* pxEx = &exception; pxEx; pxEx = pxEx->GetInnerException()) {
    const char* szFile = pxEx->GetFile();
    const char* szText = pxEx->GetMessageText();
    Qv::OperatorMessage(QV_TEXT_EXCEPTION_LINE, szFile ? szFile : "", pxEx->GetLine(),
                        szText ? szText : "");
    if (szText && *szText) g_string_append_printf(pxText, "%s%s", pxText->len ? ": " : "", szText);
    g_string_append_printf(pxDebug, "%s%s:%d: %s", pxDebug->len ? "\n" : "", szFile ? szFile : "",
                           pxEx->GetLine(), szText ? szText : "");
  }
  // The bus is what an application sees: which element failed, and why.
  if (element)
    GST_ELEMENT_ERROR(element, STREAM, FAILED, ("%s", pxText->str), ("%s", pxDebug->str));
  g_string_free(pxText, TRUE);
  g_string_free(pxDebug, TRUE);
}

// The element's trace of what it does; nothing is kept, so callers pass fixed texts only and
// format nothing for it.
void LogMessage(const char* /*text*/) {}

Qv::CQvDeviceImage2D* DeviceImageOfBuffer(GstBuffer* buffer, guint8* mapped) {
  if (!mapped) return NULL;
  GstMemory* pxMem = gst_buffer_n_memory(buffer) == 1 ? gst_buffer_peek_memory(buffer, 0) : NULL;
  if (!pxMem || !gst_memory_is_type(pxMem, QV_CUDA_MEMORY_NAME)) {
    Qv::CQvString sText("buffer holds no device image but memory of type '");
    sText << (pxMem && pxMem->allocator && pxMem->allocator->mem_type ? pxMem->allocator->mem_type
                                                                      : "none")
          << "': an upload element must stand upstream";
    QV_THROW(sText.ToCString());
  }
  return reinterpret_cast<Qv::CQvDeviceImage2D*>(mapped);
}

GstVideoFormat MapQvToGstFormat(Qv::EPixelType::ID pixelType) {
  switch (pixelType) {
    case EPixelType::Lum:
      return GST_VIDEO_FORMAT_GRAY8;
    case EPixelType::RGB:
      return GST_VIDEO_FORMAT_RGB;
    case EPixelType::RGBA:
      return GST_VIDEO_FORMAT_RGBA;
    case EPixelType::BGR:
      return GST_VIDEO_FORMAT_BGR;
    case EPixelType::BGRA:
      return GST_VIDEO_FORMAT_BGRA;
    default:
      return GST_VIDEO_FORMAT_UNKNOWN;
  }
}

static GstVideoFormat FrameFormat(const GstVideoFrame* frame) {
  return frame && frame->info.finfo ? GST_VIDEO_INFO_FORMAT(&frame->info)
                                    : GST_VIDEO_FORMAT_UNKNOWN;
}

Qv::EPixelType::ID MapGstToQvPixType(const GstVideoFrame* frame) {
  switch (FrameFormat(frame)) {
    case GST_VIDEO_FORMAT_ENCODED:
    case GST_VIDEO_FORMAT_I420:
    case GST_VIDEO_FORMAT_I420_10LE:
      return EPixelType::Lum;
    case GST_VIDEO_FORMAT_RGBx:
    case GST_VIDEO_FORMAT_RGBA:
    case GST_VIDEO_FORMAT_RGBA64_LE:
      return EPixelType::RGBA;
    case GST_VIDEO_FORMAT_BGRx:
    case GST_VIDEO_FORMAT_BGRA:
      return EPixelType::BGRA;
    case GST_VIDEO_FORMAT_RGB:
      return EPixelType::RGB;
    case GST_VIDEO_FORMAT_BGR:
      return EPixelType::BGR;
    case GST_VIDEO_FORMAT_GRAY8:
    case GST_VIDEO_FORMAT_GRAY16_BE:
    case GST_VIDEO_FORMAT_GRAY16_LE:
      return EPixelType::BayerGR;
    default:
      QV_THROW("Pixel type cannot be determined");
  }
}

Qv::EDataType::ID MapGstToQvDataType(const GstVideoFrame* frame) {
  switch (FrameFormat(frame)) {
    case GST_VIDEO_FORMAT_ENCODED:
    case GST_VIDEO_FORMAT_GRAY16_BE:
    case GST_VIDEO_FORMAT_GRAY16_LE:
    case GST_VIDEO_FORMAT_RGBA64_LE:
    case GST_VIDEO_FORMAT_RGB16:
    case GST_VIDEO_FORMAT_BGR16:
      return EDataType::UShort;
    case GST_VIDEO_FORMAT_I420:
    case GST_VIDEO_FORMAT_RGBx:
    case GST_VIDEO_FORMAT_BGRx:
    case GST_VIDEO_FORMAT_RGBA:
    case GST_VIDEO_FORMAT_BGRA:
    case GST_VIDEO_FORMAT_RGB:
    case GST_VIDEO_FORMAT_BGR:
    case GST_VIDEO_FORMAT_GRAY8:
      return EDataType::UByte;
    default:
      QV_THROW("Data type cannot be determined");
  }
}

int MapToCVFormat(Qv::CQvImageFormat format) {
  if (format.eDataType != EDataType::UByte) QV_THROW("Unsupported data type provided");
  switch (format.ePixelType) {
    case EPixelType::Lum:
    case EPixelType::BayerRG:
    case EPixelType::BayerBG:
    case EPixelType::BayerGR:
    case EPixelType::BayerGB:
      return CV_8UC1;
    case EPixelType::LumA:
    case EPixelType::Unknown:
      return CV_8UC2;
    case EPixelType::RGB:
    case EPixelType::BGR:
      return CV_8UC3;
    case EPixelType::RGBA:
    case EPixelType::BGRA:
      return CV_8UC4;
    case EPixelType::None:
      QV_THROW("Unsupported amount of channels in ImageFormat");
    default:
      QV_THROW("Unknown pixel type");
  }
}

Qv::EPixelType::ID PixelTypeFromCVFormat(int type) {
  switch (type) {
    case CV_8UC1:
      return EPixelType::Lum;
    case CV_8UC2:
      return EPixelType::LumA;
    case CV_8UC3:
      return EPixelType::RGB;
    case CV_8UC4:
      return EPixelType::RGBA;
    default:
      QV_THROW("Unsupported CV type provided");
  }
}

Qv::EDataType::ID DataTypeFromCVFormat(int type) {
  switch (type) {
    case CV_8UC1:
    case CV_8UC2:
    case CV_8UC3:
    case CV_8UC4:
      return EDataType::UByte;
    default:
      QV_THROW("Unsupported CV type provided");
  }
}

static uint64_t ImageBytes(const Qv::IImage& image) {
  int iWidth = 0, iHeight = 0;
  image.GetSize(iWidth, iHeight);
  if (iWidth <= 0 || iHeight <= 0) return 0;
  return static_cast<uint64_t>(iWidth) * static_cast<uint64_t>(iHeight) *
         static_cast<uint64_t>(image.GetBytesPerPixel());
}

static EPixelType::ID PixelTypeOf(const Qv::IImage& image) {
  EPixelType::ID ePixel = EPixelType::None;
  EDataType::ID eData = EDataType::Void;
  image.GetType(ePixel, eData);
  return ePixel;
}

static void ThrowCopyRefused(const char* szReason, uint64_t uHave, uint64_t uNeed) {
  Qv::CQvString sText("cannot copy QvImage to gstframe: ");
  sText << szReason << " (" << static_cast<unsigned long long>(uHave) << " for "
        << static_cast<unsigned long long>(uNeed) << " bytes)";
  QV_THROW(sText.ToCString());
}

void copyQvImageToGSTFrame(Qv::CQvImage& image, GstVideoFrame* frame) {
  if (!frame || !frame->info.finfo) QV_THROW("cannot copy QvImage to gstframe: no video frame");
  auto* pDst = static_cast<guint8*>(frame->data[0]);
  const int iWidth = GST_VIDEO_INFO_WIDTH(&frame->info);
  const int iHeight = GST_VIDEO_INFO_HEIGHT(&frame->info);
  const int iStride = GST_VIDEO_INFO_PLANE_STRIDE(&frame->info, 0);
  // A mosaic goes only into a frame of its own mosaic or into a Lum frame; anything else
  // that is no mosaic is copied whatever the frame says.
  const EPixelType::ID eFrame = MapGstToQvPixType(frame);
  const EPixelType::ID eImage = PixelTypeOf(image);
  if (eFrame != eImage && Qv::IsBayerPixelType(eImage) && eFrame != EPixelType::Lum) {
    LogMessage("cannot copy QvImgtoGstFrame, pixType mismatch");
    QV_THROW("cannot copy QvImage to gstframe");
  }
  const auto* pSrc = static_cast<const guint8*>(image.GetDataPtr());
  const uint64_t uRow = static_cast<uint64_t>(iWidth > 0 ? iWidth : 0) *
                        static_cast<uint64_t>(image.GetBytesPerPixel());
  if (iHeight < 1 || uRow == 0) return;
  const uint64_t uNeed = uRow * static_cast<uint64_t>(iHeight);
  // The size comes from the frame: neither side may be read or written past its end.
  if (!pSrc || ImageBytes(image) < uNeed)
    ThrowCopyRefused("the image is smaller than the frame", ImageBytes(image), uNeed);
  if (!pDst || iStride < 0 || static_cast<uint64_t>(iStride) < uRow)
    ThrowCopyRefused("the frame's rows are shorter than the image's",
                     static_cast<uint64_t>(iStride > 0 ? iStride : 0), uRow);
  if (static_cast<uint64_t>(iStride) == uRow) {
    std::memcpy(pDst, pSrc, uNeed);
    return;
  }
  for (int y = 0; y < iHeight; ++y)
    std::memcpy(pDst + static_cast<uint64_t>(y) * iStride, pSrc + y * uRow, uRow);
}

bool copyDeviceImageToGSTFrame(const Qv::CQvDeviceImage2D& image, GstVideoFrame* frame,
                               cudaStream_t hStream) {
  if (!frame || !frame->info.finfo || !frame->data[0] || !image.IsValid()) return false;
  const Qv::CQvImageFormat& xFormat = image.GetFormat();
  const int iWidth = GST_VIDEO_INFO_WIDTH(&frame->info);
  const int iHeight = GST_VIDEO_INFO_HEIGHT(&frame->info);
  const int iStride = GST_VIDEO_INFO_PLANE_STRIDE(&frame->info, 0);
  if (iWidth != xFormat.iWidth || iHeight != xFormat.iHeight || iWidth < 1 || iHeight < 1)
    return false;
  const EPixelType::ID eFrame = MapGstToQvPixType(frame);
  if (eFrame != xFormat.ePixelType && Qv::IsBayerPixelType(xFormat.ePixelType) &&
      eFrame != EPixelType::Lum)
    return false;
  const uint64_t uRow = static_cast<uint64_t>(iWidth) * xFormat.GetBytesPerPixel();
  if (iStride < 0 || static_cast<uint64_t>(iStride) < uRow) return false;
  Qv::Device::Copy2D(frame->data[0], static_cast<size_t>(iStride), image.GetDevicePointer(),
                     image.GetDevicePitch(), uRow, static_cast<size_t>(iHeight),
                     Qv::Device::ECopyKind::DeviceToHost, hStream, true);
  Qv::Device::SynchronizeStream(hStream);
  return true;
}

void copyQvImageToGSTFrame_YUV(Qv::CQvImage& image, GstVideoFrame* frame) {
  if (!frame || !frame->info.finfo) QV_THROW("cannot copy QvImage to gstframe: no video frame");
  const int iWidth = GST_VIDEO_INFO_WIDTH(&frame->info);
  const int iHeight = GST_VIDEO_INFO_HEIGHT(&frame->info);
  if (MapGstToQvPixType(frame) != PixelTypeOf(image)) {
    LogMessage("cannot copy QvImgtoGstFrame, pixType mismatch");
    QV_THROW("invalid pix type");
  }
  const uint64_t uBpp = static_cast<uint64_t>(image.GetBytesPerPixel());
  const uint64_t uW = static_cast<uint64_t>(iWidth > 0 ? iWidth : 0);
  const uint64_t uH = static_cast<uint64_t>(iHeight > 0 ? iHeight : 0);
  const uint64_t uRow = uW * uBpp;
  // Plane Y is written with rows of W samples and each chroma plane as one run of rows of
  // W/2 samples: any other stride would put samples in the wrong place or past the plane.
  if (static_cast<uint64_t>(GST_VIDEO_INFO_PLANE_STRIDE(&frame->info, 0)) != uRow ||
      GST_VIDEO_INFO_N_PLANES(&frame->info) < 3 ||
      static_cast<uint64_t>(GST_VIDEO_INFO_PLANE_STRIDE(&frame->info, 1)) != uW / 2 * uBpp ||
      static_cast<uint64_t>(GST_VIDEO_INFO_PLANE_STRIDE(&frame->info, 2)) != uW / 2 * uBpp)
    QV_THROW("Error: linestride missmatch");
  const uint64_t uLuma = uW * uH * uBpp;
  const uint64_t uChroma = ((uH / 2) * uW) / 2 * uBpp;
  if (uLuma == 0) return;
  const auto* pSrc = static_cast<const guint8*>(image.GetDataPtr());
  if (!pSrc || ImageBytes(image) < uLuma + 2 * uChroma)
    ThrowCopyRefused("the image is smaller than the frame", ImageBytes(image), uLuma + 2 * uChroma);
  if (!frame->data[0] || !frame->data[1] || !frame->data[2])
    QV_THROW("cannot copy QvImage to gstframe: the frame has no three planes");
  std::memcpy(frame->data[0], pSrc, uLuma);
  std::memcpy(frame->data[1], pSrc + uLuma, uChroma);
  std::memcpy(frame->data[2], pSrc + uLuma + uChroma, uChroma);
}

Qv::CQvImageMoniker copyGSTFrameToQvImage(GstVideoFrame* frame) {
  if (!frame || !frame->info.finfo) QV_THROW("cannot read gstframe: no video frame");
  const EPixelType::ID ePixel = MapGstToQvPixType(frame);
  const EDataType::ID eData = MapGstToQvDataType(frame);
  const int iWidth = GST_VIDEO_INFO_WIDTH(&frame->info);
  const int iHeight = GST_VIDEO_INFO_HEIGHT(&frame->info);
  const Qv::CQvImageFormat xFormat(iWidth, iHeight, ePixel, eData);
  // The view has packed rows: plane 0 must hold at least that many bytes a row.
  if (iWidth > 0 &&
      static_cast<uint64_t>(GST_VIDEO_INFO_PLANE_STRIDE(&frame->info, 0)) < xFormat.GetRowBytes()) {
    Qv::CQvString sText("cannot read gstframe: rows of ");
    sText << static_cast<unsigned long long>(xFormat.GetRowBytes())
          << " bytes do not fit a stride of " << GST_VIDEO_INFO_PLANE_STRIDE(&frame->info, 0);
    QV_THROW(sText.ToCString());
  }
  Qv::CQvImageMoniker xMoniker;
  xMoniker.Create(iWidth, iHeight, ePixel, eData, frame->data[0]);
  return xMoniker;
}

cv::cuda::GpuMat QvDevImgToCvMat(Qv::CQvDeviceImage2D* image) {
  if (!image) QV_THROW("No device image");
  const Qv::CQvImageFormat& xFormat = image->GetFormat();
  const int iType = MapToCVFormat(xFormat);
  return cv::cuda::GpuMat(xFormat.iHeight, xFormat.iWidth, iType, image->GetDevicePointer(),
                          image->GetDevicePitch());
}

void CvMatToQvDevImg(cv::cuda::GpuMat& mat, Qv::CQvDeviceImage2D* image, bool create) {
  if (!image) QV_THROW("No device image");
  const int iType = mat.flags & 0xFFF;
  const Qv::CQvImageFormat xFormat(mat.cols, mat.rows, PixelTypeFromCVFormat(iType),
                                   DataTypeFromCVFormat(iType));
  if (create)
    image->Create(xFormat);
  else if (image->GetFormat() != xFormat)
    QV_THROW("Incompatible formats provided");
  const uint64_t uRow = xFormat.GetRowBytes();
  if (!mat.data || mat.step < uRow) QV_THROW("The matrix holds no rows of its width");
  Qv::Device::Copy2D(image->GetDevicePointer(), image->GetDevicePitch(), mat.data, mat.step, uRow,
                     static_cast<size_t>(xFormat.iHeight), Qv::Device::ECopyKind::DeviceToDevice,
                     nullptr, false);
}
