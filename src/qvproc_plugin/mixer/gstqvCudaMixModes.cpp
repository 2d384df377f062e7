// The mixer's two ways of making an output frame, and the wall's pool.
//
// The selector hands on a camera's own buffer and needs no pool. The wall's buffers carry a
// device image that is made to the wall's fixed format at every frame, so one process-wide pool
// serves every wall, as the element's users expect. Each mixer whose wall made a frame holds the
// pool, and when no mixer holds it any more (after a stop) it is deactivated and released.
#include <cstdint>
#include <mutex>

#include "QvDevice.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "common/gstqvCudaMemory.h"
#include "mixer/gstqvCudaMixPriv.h"

#define GST_CAT_DEFAULT gst_cudamixer2_debug

namespace {

std::mutex g_xPoolMutex;
GstBufferPool* g_pxWallPool = NULL;
// Mixers holding the wall's pool.
guint g_uWallUsers = 0;

// Calls of the selector in this process, by all mixers together; the camera tours count them.
gint iCallCount = 0;

GstBufferPool* MakeWallPool(const GstVideoInfo& xInfo, std::string& sError) {
  GstAllocator* pxAllocator = gst_allocator_find(QV_CUDA_MEMORY_NAME);
  if (!pxAllocator) {
    // No element registered the allocator yet.
    my_memory_init();
    pxAllocator = gst_allocator_find(QV_CUDA_MEMORY_NAME);
  }
  GstCaps* pxCaps = gst_video_info_to_caps(&xInfo);
  GstBufferPool* pxPool = gst_buffer_pool_new();
  GstStructure* pxConfig = gst_buffer_pool_get_config(pxPool);
  gst_buffer_pool_config_set_params(pxConfig, pxCaps, 1, 2, 32);
  gst_buffer_pool_config_set_allocator(pxConfig, pxAllocator, NULL);
  if (pxAllocator) gst_object_unref(pxAllocator);
  if (!pxCaps) {
    gst_structure_free(pxConfig);
    sError = "the output format cannot be described as caps";
  } else if (!gst_buffer_pool_set_config(pxPool, pxConfig)) {
    sError = "the output pool refused its configuration";
  } else if (!gst_buffer_pool_set_active(pxPool, TRUE)) {
    sError = "the output pool cannot be activated";
  } else {
    GST_INFO("new video wall pool for %" GST_PTR_FORMAT, pxCaps);
  }
  if (pxCaps) gst_caps_unref(pxCaps);
  if (sError.empty()) return pxPool;
  gst_object_unref(pxPool);
  return NULL;
}

GstBuffer* AcquireOutput(GstCudaMixer2* self, SMixFrame& xFrame) {
  std::string sError;
  GstBufferPool* pxPool = NULL;
  {
    std::lock_guard<std::mutex> xGuard(g_xPoolMutex);
    if (!g_pxWallPool) g_pxWallPool = MakeWallPool(self->info, sError);
    if (g_pxWallPool && !self->pxWallPool) {
      ++g_uWallUsers;
      self->pxWallPool = g_pxWallPool;
    }
    pxPool = self->pxWallPool;
  }
  GstBuffer* pxBuffer = NULL;
  if (pxPool) {
    const GstFlowReturn eFlow = gst_buffer_pool_acquire_buffer(pxPool, &pxBuffer, NULL);
    if (eFlow != GST_FLOW_OK || !pxBuffer) {
      sError = std::string("the output pool gave no buffer (") + gst_flow_get_name(eFlow) + ")";
      pxBuffer = NULL;
    }
  }
  if (!pxBuffer) {
    GST_ERROR_OBJECT(self, "%s", sError.c_str());
    xFrame.xMessages.push_back(gst_cudamixer2_new_message(self, GST_MESSAGE_ERROR,
                                                          "Cannot get an output buffer.", sError));
  }
  return pxBuffer;
}

// Bytes of a sample of the image: 2 for 16-bit data, else 1.
uint64_t SampleBytes(const Qv::CQvDeviceImage2D& xImage) {
  return xImage.GetFormat().eDataType == Qv::EDataType::UShort ? 2 : 1;
}

// The valid device image that a buffer of one memory carries, or null.
const Qv::CQvDeviceImage2D* ImageOfBuffer(GstBuffer* pxBuffer) {
  const Qv::CQvDeviceImage2D* pxImage =
      pxBuffer && gst_buffer_n_memory(pxBuffer) == 1
          ? QvDeviceImageFromMemory(gst_buffer_peek_memory(pxBuffer, 0))
          : NULL;
  return pxImage && pxImage->IsValid() ? pxImage : NULL;
}

// The device image of a wall input when it can give a whole tile of uSample-byte samples; null
// with the reason if not.
const Qv::CQvDeviceImage2D* TileSource(GstBuffer* pxBuffer, uint64_t uSample,
                                       std::string& sReason) {
  const Qv::CQvDeviceImage2D* pxImage = ImageOfBuffer(pxBuffer);
  if (!pxImage) {
    sReason = "carries no device image";
    return NULL;
  }
  uint64_t uRowBytes = 0;
  try {
    uRowBytes = pxImage->GetFormat().GetRowBytes();
  } catch (const Qv::IException& e) {
    sReason = e.GetMessageText();
    return NULL;
  }
  if (SampleBytes(*pxImage) != uSample) {
    sReason = std::string("is ") + pxImage->GetFormat().ToString().ToCString() +
              ", of another sample size than the wall's first tile";
    return NULL;
  }
  if (uRowBytes < kTileWidthBytes * uSample || pxImage->GetFormat().iHeight < kTileHeight) {
    sReason = std::string("is ") + pxImage->GetFormat().ToString().ToCString() +
              ", smaller than a tile of " + std::to_string(kTileWidthBytes * uSample) +
              " bytes by 1338 rows";
    return NULL;
  }
  return pxImage;
}

}  // namespace

void gst_cudamixer2_release_pools(GstCudaMixer2* self) {
  std::lock_guard<std::mutex> xGuard(g_xPoolMutex);
  if (!self->pxWallPool) return;
  self->pxWallPool = NULL;
  // Buffers still out keep the pool object alive and are freed when they come back.
  if (--g_uWallUsers == 0) {
    GST_INFO("releasing the video wall pool");
    gst_buffer_pool_set_active(g_pxWallPool, FALSE);
    gst_object_unref(g_pxWallPool);
    g_pxWallPool = NULL;
  }
}

GstMessage* gst_cudamixer2_new_message(GstCudaMixer2* self, GstMessageType eType,
                                       const std::string& sText, const std::string& sDebug,
                                       GQuark uDomain, gint iCode) {
  GError* pxError = g_error_new_literal(uDomain, iCode, sText.c_str());
  GstMessage* pxMessage = eType == GST_MESSAGE_ERROR
                              ? gst_message_new_error(GST_OBJECT(self), pxError, sDebug.c_str())
                              : gst_message_new_warning(GST_OBJECT(self), pxError, sDebug.c_str());
  g_error_free(pxError);
  return pxMessage;
}

void gst_cudamixer2_post_messages(GstCudaMixer2* self, std::vector<GstMessage*>& xMessages) {
  for (GstMessage* pxMessage : xMessages) gst_element_post_message(GST_ELEMENT(self), pxMessage);
  xMessages.clear();
}

GstFlowReturn gst_cudamixer2_camera_selector(GstCudaMixer2* self, SMixFrame& xFrame) {
  const gint iCount = static_cast<gint>(static_cast<guint>(g_atomic_int_add(&iCallCount, 1)) + 1u);
  const gint iRequested = g_atomic_int_get(&self->requested_camera);
  const gint iPads = self->numpads > 0 ? self->numpads : 1;
  gint iCamera;
  switch (static_cast<guint>(iRequested)) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 4:
    case 5:
      iCamera = iRequested;
      break;
    case 7:
      iCamera = (iCount / 250) % iPads;
      break;
    case 8:
      iCamera = (iCount / 1000) % iPads;
      break;
    default:
      iCamera = (iCount / 50) % iPads;
      break;
  }
  self->current_camera = iCamera;

  GstCudaMixer2Pad* pxPad =
      iCamera >= 0 ? static_cast<GstCudaMixer2Pad*>(g_slist_nth_data(self->sinkpads, iCamera))
                   : NULL;
  if (pxPad && pxPad->mixcol->buffer) {
    // The camera's own buffer goes on, so a buffer covering several intervals goes out again.
    xFrame.pxBuffer = gst_buffer_ref(pxPad->mixcol->buffer);
    return GST_FLOW_OK;
  }
  // Without a frame of the camera the output frame is skipped: a buffer without an image would
  // stop the device elements behind the mixer. Said once per camera of a request.
  if (iRequested != self->iWarnedRequest) {
    self->iWarnedRequest = iRequested;
    self->uWarnedCameras = 0;
  }
  const guint64 uBit = G_GUINT64_CONSTANT(1) << (iCamera & 63);
  if (!(self->uWarnedCameras & uBit)) {
    self->uWarnedCameras |= uBit;
    const std::string sText = "Camera " + std::to_string(iCamera) +
                              (pxPad ? " has no frame" : " has no pad") +
                              "; output frames are skipped until it has one.";
    GST_WARNING_OBJECT(self, "%s", sText.c_str());
    xFrame.xMessages.push_back(
        gst_cudamixer2_new_message(self, GST_MESSAGE_WARNING, sText, "selector"));
  }
  return GST_FLOW_OK;
}

// The wall's mosaic order and sample size: the first tile's. Tiles start on even rows and
// columns, so each keeps its camera's order; cameras of one rig share it, and their depth.
static Qv::CQvImageFormat WallFormat(GstCudaMixer2* self) {
  for (GSList* l = self->sinkpads; l; l = l->next) {
    const Qv::CQvDeviceImage2D* pxImage =
        ImageOfBuffer(static_cast<GstCudaMixer2Pad*>(l->data)->mixcol->buffer);
    if (pxImage && Qv::IsBayerPixelType(pxImage->GetFormat().ePixelType))
      return Qv::CQvImageFormat(kWallWidth, kWallHeight, pxImage->GetFormat().ePixelType,
                                pxImage->GetFormat().eDataType);
  }
  return Qv::CQvImageFormat(kWallWidth, kWallHeight, Qv::EPixelType::BayerGR, Qv::EDataType::UByte);
}

GstFlowReturn gst_cudamixer2_video_wall(GstCudaMixer2* self, SMixFrame& xFrame) {
  GstBuffer* pxOut = AcquireOutput(self, xFrame);
  if (!pxOut) return GST_FLOW_ERROR;

  GstMapInfo xOutMap;
  if (!gst_buffer_map(pxOut, &xOutMap, GST_MAP_READ)) {
    gst_buffer_unref(pxOut);
    GST_ERROR_OBJECT(self, "cannot map the wall's output buffer");
    xFrame.xMessages.push_back(gst_cudamixer2_new_message(
        self, GST_MESSAGE_ERROR, "Cannot map the output buffer.", "video wall"));
    return GST_FLOW_ERROR;
  }
  Qv::CQvDeviceImage2D* pxWall = QvDeviceImageFromMemory(gst_buffer_peek_memory(pxOut, 0));

  // Each tile comes from the buffer the collect loop holds for its pad (popped from the collect
  // pads when the pad took it). The inputs stay referenced until the stream is synchronised: an
  // image whose buffer dies goes back to the device cache and could be handed out while a copy
  // still reads it.
  std::vector<GstBuffer*> xInputs;
  std::string sError;
  try {
    if (!pxWall) QV_THROW("the wall's output buffer carries no device image");
    pxWall->Create(WallFormat(self));
    const uint64_t uSample = SampleBytes(*pxWall);
    if (!self->stream && Qv::Device::IsCuda()) self->stream = Qv::Device::CreateStream();
    auto* pWall = static_cast<uint8_t*>(pxWall->GetDevicePointer());
    const size_t uWallPitch = pxWall->GetDevicePitch();

    int iTile = 0;
    for (GSList* l = self->sinkpads; l; l = l->next) {
      GstCudaMixer2Pad* pxPad = static_cast<GstCudaMixer2Pad*>(l->data);
      GstCudaMixer2Collect* pxCol = pxPad->mixcol;
      if (!pxCol->buffer) {
        ++iTile;
        continue;
      }
      GstBuffer* pxIn = gst_buffer_ref(pxCol->buffer);
      xInputs.push_back(pxIn);
      if (iTile >= kMaxTiles) {
        if (!self->bWarnedSeventh) {
          self->bWarnedSeventh = TRUE;
          const std::string sText = std::string("The video wall has six tiles; the images of ") +
                                    GST_PAD_NAME(pxPad) + " and later pads are left out.";
          GST_WARNING_OBJECT(pxPad, "%s", sText.c_str());
          xFrame.xMessages.push_back(
              gst_cudamixer2_new_message(self, GST_MESSAGE_WARNING, sText, "tile beyond six"));
        }
        ++iTile;
        continue;
      }
      std::string sReason;
      const Qv::CQvDeviceImage2D* pxImage = TileSource(pxIn, uSample, sReason);
      if (!pxImage) {
        if (!pxPad->bWarnedTile) {
          pxPad->bWarnedTile = TRUE;
          const std::string sText = std::string("The image of ") + GST_PAD_NAME(pxPad) + " " +
                                    sReason + "; its tile stays unwritten.";
          GST_WARNING_OBJECT(pxPad, "%s", sText.c_str());
          xFrame.xMessages.push_back(
              gst_cudamixer2_new_message(self, GST_MESSAGE_WARNING, sText, "tile refused"));
        }
        ++iTile;
        continue;
      }
      const size_t uRow = static_cast<size_t>(iTile / kTilesPerRow);
      const size_t uColumn = static_cast<size_t>(iTile % kTilesPerRow);
      uint8_t* pDst = pWall + uRow * kTileHeight * uWallPitch + uColumn * kTileWidthBytes * uSample;
      Qv::Device::Copy2D(pDst, uWallPitch, pxImage->GetDevicePointer(), pxImage->GetDevicePitch(),
                         kTileWidthBytes * uSample, kTileHeight,
                         Qv::Device::ECopyKind::DeviceToDevice, self->stream, true);
      ++iTile;
    }
    Qv::Device::SynchronizeStream(self->stream);
  } catch (const Qv::IException& e) {
    sError = e.GetMessageText() ? e.GetMessageText() : "device failure";
    try {
      Qv::Device::SynchronizeStream(self->stream);
    } catch (const Qv::IException&) {
    }
  }
  gst_buffer_unmap(pxOut, &xOutMap);
  for (GstBuffer* pxIn : xInputs) gst_buffer_unref(pxIn);
  if (!sError.empty()) {
    gst_buffer_unref(pxOut);
    GST_ERROR_OBJECT(self, "video wall: %s", sError.c_str());
    xFrame.xMessages.push_back(gst_cudamixer2_new_message(
        self, GST_MESSAGE_ERROR, "Cannot make the video wall frame.", sError));
    return GST_FLOW_ERROR;
  }
  xFrame.pxBuffer = pxOut;
  return GST_FLOW_OK;
}
