/**
 * SECTION:element-qvcudadownload
 *
 * Brings a device image back to host memory as an ordinary video frame in pinned memory.
 * Colour images (RGBA caps) go through a host image; the stacked I420 image of qvcudayuv
 * (I420 caps) is copied plane by plane straight from the device into the frame. Its factory is in
 * the companion plugin qvvideoprochost.
 *
 * |[
 * gst-launch-1.0 videotestsrc num-buffers=10 ! video/x-bayer,format=grbg,width=1920,height=1080 ! \
 *     qvcudaupload ! qvcudadebayer ! qvcudadownload ! pngenc ! multifilesink location=f%02d.png
 * ]|
 */
#include "transform/gstqvCudaDownload.h"

#include "QvDevice.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "QvImage.h"
#include "QvMessage.h"
#include "QvOperatorTexts.h"
#include "common/gstBufferMap.h"
#include "common/gstUtil.h"
#include "common/gstqvSysMemAlloc.h"

GST_DEBUG_CATEGORY_STATIC(gst_cuda_download_debug);
#define GST_CAT_DEFAULT gst_cuda_download_debug

#define DOWNLOAD_CAPS                                                                              \
  "video/x-raw, format = (string) {  RGBA, RGBA64_LE, I420 }, width = (int) [ 1, max ], height = " \
  "(int) [ "                                                                                       \
  "1, max ], framerate = (fraction) [ 0, max ]"

static GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(DOWNLOAD_CAPS));
// I420 planes come from qvcudayuv: full range, BT.601 matrix, which a converter must be told.
#define DOWNLOAD_SRC_CAPS                                                                   \
  "video/x-raw, format = (string) { RGBA, RGBA64_LE }, width = (int) [ 1, max ], height = " \
  "(int) [ 1, max ], "                                                                      \
  "framerate = (fraction) [ 0, max ]; video/x-raw, format = (string) I420, colorimetry = "  \
  "(string) " QV_I420_COLORIMETRY                                                           \
  ", width = (int) [ 1, max ], height = (int) [ 1, max ], "                                 \
  "framerate = (fraction) [ 0, max ]"

static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(DOWNLOAD_SRC_CAPS));

// Each pool buffer is twice a frame, one to three of them.
#define POOL_MIN_BUFFERS 1
#define POOL_MAX_BUFFERS 3

G_DEFINE_TYPE_WITH_CODE(GstQvCudaDownload, gst_cuda_download, GST_TYPE_QV_CUDA_BASE_TRANSFORM,
                        GST_DEBUG_CATEGORY_INIT(gst_cuda_download_debug, "qvcudadownload", 0,
                                                "qvvideoproc download element"))

static void gst_cuda_download_finalize(GObject* object);
static GstStateChangeReturn gst_cuda_download_change_state(GstElement* element,
                                                           GstStateChange transition);
static GstCaps* gst_cuda_download_transform_caps(GstBaseTransform* trans, GstPadDirection direction,
                                                 GstCaps* caps, GstCaps* filter);
static GstCaps* gst_cuda_download_fixate_caps(GstBaseTransform* trans, GstPadDirection direction,
                                              GstCaps* caps, GstCaps* othercaps);
static gboolean gst_cuda_download_set_caps(GstBaseTransform* trans, GstCaps* incaps,
                                           GstCaps* outcaps);
static GstFlowReturn gst_cuda_download_prepare_output_buffer(GstBaseTransform* trans,
                                                             GstBuffer* inbuf, GstBuffer** outbuf);
static GstFlowReturn gst_cuda_download_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                       GstBuffer* outbuf);

static void gst_cuda_download_class_init(GstQvCudaDownloadClass* klass) {
  GObjectClass* pxObjectClass = G_OBJECT_CLASS(klass);
  GstElementClass* pxElementClass = GST_ELEMENT_CLASS(klass);
  GstBaseTransformClass* pxTransClass = GST_BASE_TRANSFORM_CLASS(klass);

  pxObjectClass->finalize = gst_cuda_download_finalize;
  pxElementClass->change_state = GST_DEBUG_FUNCPTR(gst_cuda_download_change_state);

  gst_element_class_set_static_metadata(
      pxElementClass, "Qv device download", "Filter/Converter/Video/Hardware",
      "Copies an RGBA device image, or the stacked I420 image of qvcudayuv, back into an "
      "ordinary video frame in pinned host memory",
      "qvvideoproc developers");
  gst_element_class_add_static_pad_template(pxElementClass, &sink_template);
  gst_element_class_add_static_pad_template(pxElementClass, &src_template);

  pxTransClass->transform = GST_DEBUG_FUNCPTR(gst_cuda_download_transform_frame);
  pxTransClass->transform_caps = GST_DEBUG_FUNCPTR(gst_cuda_download_transform_caps);
  pxTransClass->fixate_caps = GST_DEBUG_FUNCPTR(gst_cuda_download_fixate_caps);
  pxTransClass->set_caps = GST_DEBUG_FUNCPTR(gst_cuda_download_set_caps);
  pxTransClass->prepare_output_buffer = GST_DEBUG_FUNCPTR(gst_cuda_download_prepare_output_buffer);
}

static void gst_cuda_download_init(GstQvCudaDownload* self) {
  gst_video_info_init(&self->videoInfo);
  gst_video_info_init(&self->poolInfo);
  g_mutex_init(&self->poolLock);
  self->pool = NULL;
}

// Deactivating wakes a streaming thread that waits for a buffer; buffers still downstream
// keep the pool alive until they come back.
static void gst_cuda_download_release_pool(GstBufferPool* pool) {
  if (!pool) return;
  gst_buffer_pool_set_active(pool, FALSE);
  gst_object_unref(pool);
}

static GstBufferPool* gst_cuda_download_take_pool(GstQvCudaDownload* self) {
  g_mutex_lock(&self->poolLock);
  GstBufferPool* pxPool = self->pool;
  self->pool = NULL;
  g_mutex_unlock(&self->poolLock);
  return pxPool;
}

static void gst_cuda_download_finalize(GObject* object) {
  GstQvCudaDownload* self = GST_CUDA_DOWNLOAD(object);
  gst_cuda_download_release_pool(gst_cuda_download_take_pool(self));
  g_mutex_clear(&self->poolLock);
  G_OBJECT_CLASS(gst_cuda_download_parent_class)->finalize(object);
}

static GstStateChangeReturn gst_cuda_download_change_state(GstElement* element,
                                                           GstStateChange transition) {
  // Before the pads stop: a thread blocked in acquire must come back for them to stop.
  if (transition == GST_STATE_CHANGE_PAUSED_TO_READY)
    gst_cuda_download_release_pool(gst_cuda_download_take_pool(GST_CUDA_DOWNLOAD(element)));
  return GST_ELEMENT_CLASS(gst_cuda_download_parent_class)->change_state(element, transition);
}

// Towards the source pad each structure splits into RGBA and I420, and I420 gets its
// colorimetry.
static GstCaps* gst_cuda_download_transform_caps(GstBaseTransform* /*trans*/,
                                                 GstPadDirection direction, GstCaps* caps,
                                                 GstCaps* filter) {
  if (direction == GST_PAD_SRC)
    return defaultNegotiation(DOWNLOAD_CAPS, DOWNLOAD_CAPS, direction, caps, filter);
  GstCaps* pxBoth = defaultNegotiation(DOWNLOAD_CAPS, DOWNLOAD_CAPS, direction, caps, NULL);
  GstCaps* pxResult = gst_caps_new_empty();
  for (guint i = 0; i < gst_caps_get_size(pxBoth); ++i) {
    // 16-bit colour goes out as it is; 8-bit colour as RGBA or, stacked, as I420.
    const gchar* szIn = gst_structure_get_string(gst_caps_get_structure(pxBoth, i), "format");
    const bool b16 = g_strcmp0(szIn, "RGBA64_LE") == 0;
    for (const char* szFormat : {"RGBA", "RGBA64_LE", "I420"}) {
      if (szIn && b16 != g_str_equal(szFormat, "RGBA64_LE")) continue;
      GstStructure* pxOne = gst_structure_copy(gst_caps_get_structure(pxBoth, i));
      gst_structure_set(pxOne, "format", G_TYPE_STRING, szFormat, NULL);
      if (g_str_equal(szFormat, "I420"))
        gst_structure_set(pxOne, "colorimetry", G_TYPE_STRING, QV_I420_COLORIMETRY, NULL);
      pxResult = gst_caps_merge_structure(pxResult, pxOne);
    }
  }
  gst_caps_unref(pxBoth);
  if (!filter) return pxResult;
  GstCaps* pxFiltered = gst_caps_intersect_full(filter, pxResult, GST_CAPS_INTERSECT_FIRST);
  gst_caps_unref(pxResult);
  return pxFiltered;
}

// Both sides allow RGBA and I420: a download converts nothing, so the other side keeps this
// side's format wherever its peer allows that.
static GstCaps* gst_cuda_download_fixate_caps(GstBaseTransform* trans, GstPadDirection direction,
                                              GstCaps* caps, GstCaps* othercaps) {
  const GstStructure* pxStructure =
      gst_caps_get_size(caps) > 0 ? gst_caps_get_structure(caps, 0) : NULL;
  const gchar* szFormat = pxStructure ? gst_structure_get_string(pxStructure, "format") : NULL;
  if (szFormat) {
    GstCaps* pxSame = gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, szFormat, NULL);
    GstCaps* pxPreferred = gst_caps_intersect_full(othercaps, pxSame, GST_CAPS_INTERSECT_FIRST);
    gst_caps_unref(pxSame);
    if (gst_caps_is_empty(pxPreferred)) {
      gst_caps_unref(pxPreferred);
    } else {
      gst_caps_unref(othercaps);
      othercaps = pxPreferred;
    }
  }
  return GST_BASE_TRANSFORM_CLASS(gst_cuda_download_parent_class)
      ->fixate_caps(trans, direction, caps, othercaps);
}

static gboolean gst_cuda_download_set_caps(GstBaseTransform* trans, GstCaps* /*incaps*/,
                                           GstCaps* outcaps) {
  GstQvCudaDownload* self = GST_CUDA_DOWNLOAD(trans);
  if (!gst_video_info_from_caps(&self->videoInfo, outcaps)) {
    GST_ERROR_OBJECT(self, "cannot read the output caps %" GST_PTR_FORMAT, outcaps);
    return FALSE;
  }
  return QvStackedI420Fits(GST_ELEMENT(trans), &self->videoInfo);
}

static GstBufferPool* gst_cuda_download_new_pool(GstQvCudaDownload* self) {
  GstAllocationParams xParams = {static_cast<GstMemoryFlags>(0), 15, 0, 0, {}};
  GstAllocator* pxAllocator = gst_allocator_find(QV_SYSMEM_NAME);
  if (!pxAllocator) {
    // No allocation query ran upstream: register the pinned allocator here.
    my_SysMem_init();
    pxAllocator = gst_allocator_find(QV_SYSMEM_NAME);
  }
  GstBufferPool* pxPool = gst_buffer_pool_new();
  GstStructure* pxConfig = gst_buffer_pool_get_config(pxPool);
  GstCaps* pxCaps = gst_video_info_to_caps(&self->videoInfo);
  gst_buffer_pool_config_set_params(pxConfig, pxCaps,
                                    static_cast<guint>(2 * GST_VIDEO_INFO_SIZE(&self->videoInfo)),
                                    POOL_MIN_BUFFERS, POOL_MAX_BUFFERS);
  gst_buffer_pool_config_set_allocator(pxConfig, pxAllocator, &xParams);
  gst_caps_unref(pxCaps);
  if (pxAllocator) gst_object_unref(pxAllocator);
  if (!gst_buffer_pool_set_config(pxPool, pxConfig) || !gst_buffer_pool_set_active(pxPool, TRUE)) {
    GST_ELEMENT_ERROR(self, RESOURCE, FAILED, ("cannot start an output pool"),
                      ("frames of %d x %d", GST_VIDEO_INFO_WIDTH(&self->videoInfo),
                       GST_VIDEO_INFO_HEIGHT(&self->videoInfo)));
    gst_object_unref(pxPool);
    return NULL;
  }
  return pxPool;
}

static gboolean gst_cuda_download_same_frame(const GstVideoInfo* a, const GstVideoInfo* b) {
  return GST_VIDEO_INFO_FORMAT(a) == GST_VIDEO_INFO_FORMAT(b) &&
         GST_VIDEO_INFO_WIDTH(a) == GST_VIDEO_INFO_WIDTH(b) &&
         GST_VIDEO_INFO_HEIGHT(a) == GST_VIDEO_INFO_HEIGHT(b) &&
         GST_VIDEO_INFO_SIZE(a) == GST_VIDEO_INFO_SIZE(b);
}

// A reference to the pool for the current caps, made when there is none or the frame size
// changed.
static GstBufferPool* gst_cuda_download_ref_pool(GstQvCudaDownload* self) {
  GstBufferPool* pxOld = NULL;
  g_mutex_lock(&self->poolLock);
  if (self->pool && !gst_cuda_download_same_frame(&self->poolInfo, &self->videoInfo)) {
    pxOld = self->pool;
    self->pool = NULL;
  }
  if (!self->pool) {
    self->pool = gst_cuda_download_new_pool(self);
    self->poolInfo = self->videoInfo;
  }
  GstBufferPool* pxPool = self->pool ? GST_BUFFER_POOL(gst_object_ref(self->pool)) : NULL;
  g_mutex_unlock(&self->poolLock);
  gst_cuda_download_release_pool(pxOld);
  return pxPool;
}

static GstFlowReturn gst_cuda_download_prepare_output_buffer(GstBaseTransform* trans,
                                                             GstBuffer* /*inbuf*/,
                                                             GstBuffer** outbuf) {
  GstQvCudaDownload* self = GST_CUDA_DOWNLOAD(trans);
  if (GST_VIDEO_INFO_SIZE(&self->videoInfo) == 0) return GST_FLOW_NOT_NEGOTIATED;
  // A pool buffer holds two frames in at most G_MAXUINT bytes.
  if (GST_VIDEO_INFO_SIZE(&self->videoInfo) > G_MAXUINT / 2) {
    HandleException(Qv::CQvException::CreateFirst("a frame over 2 GiB does not fit the output pool",
                                                  __FILE__, __func__, __LINE__),
                    GST_ELEMENT(trans));
    return GST_FLOW_ERROR;
  }
  GstBufferPool* pxPool = gst_cuda_download_ref_pool(self);
  if (!pxPool) return GST_FLOW_ERROR;
  // With all buffers downstream this waits until one comes back.
  const GstFlowReturn eResult = gst_buffer_pool_acquire_buffer(pxPool, outbuf, NULL);
  gst_object_unref(pxPool);
  if (eResult != GST_FLOW_OK) return eResult;
  // Downstream sees one frame, not the whole block.
  gst_buffer_set_size(*outbuf, static_cast<gssize>(GST_VIDEO_INFO_SIZE(&self->videoInfo)));
  return GST_FLOW_OK;
}

// Unmaps the frame on every way out. A mapped frame holds a reference to its buffer, so the
// buffer is writable again (for the meta) only after Unmap.
class CVideoFrameMap {
 public:
  explicit CVideoFrameMap(GstVideoFrame* pxFrame) : m_pxFrame(pxFrame) {}
  ~CVideoFrameMap() { Unmap(); }
  CVideoFrameMap(const CVideoFrameMap&) = delete;
  CVideoFrameMap& operator=(const CVideoFrameMap&) = delete;
  void Unmap() {
    if (m_pxFrame) gst_video_frame_unmap(m_pxFrame);
    m_pxFrame = NULL;
  }

 private:
  GstVideoFrame* m_pxFrame;
};

// The stacked image must hold this frame: W wide and H plus H/2 rows high.
static void gst_cuda_download_check_planes(const GstVideoFrame* pxFrame, int iWidth, int iHeight) {
  const GstVideoInfo* pxInfo = &pxFrame->info;
  if (GST_VIDEO_INFO_N_PLANES(pxInfo) != 3) {
    Qv::CQvString sText("a planar image cannot go into a ");
    sText << gst_video_format_to_string(GST_VIDEO_INFO_FORMAT(pxInfo)) << " frame";
    QV_THROW(sText.ToCString());
  }
  if (GST_VIDEO_INFO_WIDTH(pxInfo) != iWidth || GST_VIDEO_INFO_HEIGHT(pxInfo) != iHeight) {
    Qv::CQvString sText("the planar image holds a frame of ");
    sText << iWidth << "x" << iHeight << ", the caps say " << GST_VIDEO_INFO_WIDTH(pxInfo) << "x"
          << GST_VIDEO_INFO_HEIGHT(pxInfo);
    QV_THROW(sText.ToCString());
  }
}

// Plane Y is H rows of W; each chroma plane H/4 rows of W, that is two rows of W/2 of the frame
// in each: the even ones on the left, the odd ones on the right. The frame's strides are its own.
static void gst_cuda_download_copy_planes(GstVideoFrame* pxFrame, const guint8* pSrc, size_t uPitch,
                                          Qv::Device::ECopyKind eKind, cudaStream_t hStream) {
  const size_t W = GST_VIDEO_FRAME_WIDTH(pxFrame), H = GST_VIDEO_FRAME_HEIGHT(pxFrame);
  Qv::Device::Copy2D(pxFrame->data[0], GST_VIDEO_FRAME_PLANE_STRIDE(pxFrame, 0), pSrc, uPitch, W, H,
                     eKind, hStream, true);
  for (int p = 1; p < 3; ++p) {
    const size_t uStride = GST_VIDEO_FRAME_PLANE_STRIDE(pxFrame, p);
    for (size_t uOdd = 0; uOdd < 2; ++uOdd)
      Qv::Device::Copy2D(static_cast<guint8*>(pxFrame->data[p]) + uOdd * uStride, 2 * uStride,
                         pSrc + uPitch * (H + (p - 1) * H / 4) + uOdd * W / 2, uPitch, W / 2, H / 4,
                         eKind, hStream, true);
  }
  Qv::Device::SynchronizeStream(hStream);
}

// The stacked I420 image: H luma rows, then U and V in H/4 rows of W each.
static void gst_cuda_download_planes(GstQvCudaDownload* self, const Qv::CQvDeviceImage2D& xImage,
                                     GstVideoFrame* pxFrame) {
  const Qv::CQvImageFormat& xFormat = xImage.GetFormat();
  gst_cuda_download_check_planes(pxFrame, xFormat.iWidth,
                                 static_cast<int>(static_cast<double>(xFormat.iHeight) / 1.5));
  if (xFormat.eDataType == Qv::EDataType::UShort) {
    LogMessage("Image is of type uShort - LUM converting to lum - ubyte ");
    Qv::CQvImage xHost, xBytes;
    xImage.CopyTo(xHost);
    xHost.ConvertType(xBytes, Qv::EPixelType::Lum, Qv::EDataType::UByte);
    gst_cuda_download_copy_planes(pxFrame, static_cast<const guint8*>(xBytes.GetDataPtr()),
                                  xBytes.GetFormat().GetRowBytes(),
                                  Qv::Device::ECopyKind::HostToHost, self->parent.stream);
  } else if (xFormat.eDataType == Qv::EDataType::UByte) {
    gst_cuda_download_copy_planes(pxFrame, static_cast<const guint8*>(xImage.GetDevicePointer()),
                                  xImage.GetDevicePitch(), Qv::Device::ECopyKind::DeviceToHost,
                                  self->parent.stream);
  } else {
    Qv::CQvString sText("a planar image of data type '");
    sText << Qv::CQvImageFormat::DataType2String(xFormat.eDataType)
          << "' cannot go into an 8-bit frame";
    QV_THROW(sText.ToCString());
  }
}

static GstFlowReturn gst_cuda_download_transform_frame(GstBaseTransform* trans, GstBuffer* inbuf,
                                                       GstBuffer* outbuf) {
  GstQvCudaDownload* self = GST_CUDA_DOWNLOAD(trans);
  GstVideoFrame xFrame;
  if (!gst_video_frame_map(&xFrame, &self->videoInfo, outbuf, GST_MAP_WRITE)) {
    Qv::OperatorMessage(QV_TEXT_MAPPING_FAILED);
    GST_ELEMENT_ERROR(trans, STREAM, FAILED, ("Cannot map the output frame."), (NULL));
    return GST_FLOW_ERROR;
  }
  try {
    CVideoFrameMap xFrameMap(&xFrame);
    CGstBufferMap xIn(inbuf, GST_MAP_READ, "cannot map in buffer");
    Qv::CQvDeviceImage2D* pxImage = DeviceImageOfBuffer(inbuf, xIn.Data());
    if (!pxImage) QV_THROW("No device image in meta found");
    if (pxImage->GetFormat().ePixelType != Qv::EPixelType::Lum) {
      Qv::OperatorMessage(QV_TEXT_DOWNLOAD_FORMAT, pxImage->GetFormat().ToString().ToCString());
      if (!copyDeviceImageToGSTFrame(*pxImage, &xFrame, self->parent.stream)) {
        Qv::CQvImage xHost;
        pxImage->CopyTo(xHost);
        copyQvImageToGSTFrame(xHost, &xFrame);
      }
    } else {
      gst_cuda_download_planes(self, *pxImage, &xFrame);
    }
    xFrameMap.Unmap();
    CopyMetData(outbuf, inbuf);
    LogMessage("Cuda download finish");
    return GST_FLOW_OK;
  } catch (const Qv::IException& e) {
    HandleException(e, GST_ELEMENT(trans));
  }
  return GST_FLOW_ERROR;
}
