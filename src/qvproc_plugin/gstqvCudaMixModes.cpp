// The mixer's two ways of making an output frame, and the pools they take buffers from.
//
// The pools are process-wide, as the element's users expect: a second mixer with the same output
// uses the pool the first one made. A pool is keyed by what its buffers must fit, so a second
// mixer or a new output size gets a pool of its own and no frame lands in a buffer of the wrong
// size. The wall's buffers carry a device image that is made to the wall's fixed format at every
// frame, so one wall pool serves every output; selector pools go by caps and byte size. Each
// mixer holds the pools it uses now, and a pool that no mixer holds any more (after a size change
// or a stop) is deactivated and released, so that a process does not keep one pool per size it
// ever saw.
#include <cstdint>
#include <mutex>

#include "QvDevice.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "gstqvCudaMemory.h"
#include "gstqvCudaMixPriv.h"
#include "gstqvSysMemAlloc.h"

#define GST_CAT_DEFAULT gst_cudamixer2_debug

namespace {

enum class EMixPool { Wall, Selector };

struct SPoolEntry {
  EMixPool eKind;
  GstCaps* pxCaps;
  guint uSize;
  GstBufferPool* pxPool;
  // Mixers holding this pool.
  guint uUsers;
};

std::mutex g_xPoolMutex;
std::vector<SPoolEntry> g_xPools;

// Calls of the selector in this process, by all mixers together; the camera tours count them.
gint iCallCount = 0;

// The allocator registered under the name, registering it first if no element did yet.
GstAllocator* FindAllocator(const char* szName, void (*fnRegister)(void)) {
  GstAllocator* pxAllocator = gst_allocator_find(szName);
  if (!pxAllocator) {
    fnRegister();
    pxAllocator = gst_allocator_find(szName);
  }
  return pxAllocator;
}

GstBufferPool* MakePool(EMixPool eKind, GstCaps* pxCaps, guint uSize, std::string& sError) {
  GstAllocator* pxAllocator = NULL;
  GstAllocationParams xParams;
  gst_allocation_params_init(&xParams);
  if (eKind == EMixPool::Wall) {
    pxAllocator = FindAllocator(QV_CUDA_MEMORY_NAME, my_memory_init);
  } else {
    pxAllocator = FindAllocator(QV_SYSMEM_NAME, my_SysMem_init);
    xParams.align = 15;
  }
  GstBufferPool* pxPool = gst_buffer_pool_new();
  GstStructure* pxConfig = gst_buffer_pool_get_config(pxPool);
  gst_buffer_pool_config_set_params(pxConfig, pxCaps, uSize, 2, 32);
  gst_buffer_pool_config_set_allocator(pxConfig, pxAllocator,
                                       eKind == EMixPool::Wall ? NULL : &xParams);
  if (pxAllocator) gst_object_unref(pxAllocator);
  if (!gst_buffer_pool_set_config(pxPool, pxConfig)) {
    sError = "the output pool refused its configuration";
  } else if (!gst_buffer_pool_set_active(pxPool, TRUE)) {
    sError = "the output pool cannot be activated";
  } else {
    return pxPool;
  }
  gst_object_unref(pxPool);
  return NULL;
}

// Drops one mixer's hold on a pool; the last hold deactivates and releases it. Buffers still out
// keep the pool object alive and are freed when they come back. Call with g_xPoolMutex held.
void DropHold(GstBufferPool*& pxHeld) {
  if (!pxHeld) return;
  for (auto it = g_xPools.begin(); it != g_xPools.end(); ++it) {
    if (it->pxPool != pxHeld) continue;
    if (--it->uUsers == 0) {
      GST_INFO("releasing the %u-byte pool for %" GST_PTR_FORMAT, it->uSize, it->pxCaps);
      gst_buffer_pool_set_active(it->pxPool, FALSE);
      gst_object_unref(it->pxPool);
      gst_caps_unref(it->pxCaps);
      g_xPools.erase(it);
    }
    break;
  }
  pxHeld = NULL;
}

// The shared pool that fits the output, made on first use and held by the mixer in pxHeld
// (borrowed: valid while the mixer holds it). A mixer moves its hold when its output changes.
GstBufferPool* SharedPool(EMixPool eKind, const GstVideoInfo& xInfo, GstBufferPool*& pxHeld,
                          std::string& sError) {
  GstCaps* pxCaps = gst_video_info_to_caps(&xInfo);
  if (!pxCaps) {
    sError = "the output format cannot be described as caps";
    return NULL;
  }
  const guint64 uBytes = eKind == EMixPool::Wall ? 1u : GST_VIDEO_INFO_SIZE(&xInfo);
  if (uBytes > G_MAXUINT) {
    gst_caps_unref(pxCaps);
    sError = "the output frame is too large for a buffer pool";
    return NULL;
  }
  const guint uSize = static_cast<guint>(uBytes);
  std::lock_guard<std::mutex> xGuard(g_xPoolMutex);
  for (SPoolEntry& x : g_xPools) {
    if (x.eKind != eKind) continue;
    if (eKind == EMixPool::Selector && (x.uSize != uSize || !gst_caps_is_equal(x.pxCaps, pxCaps)))
      continue;
    gst_caps_unref(pxCaps);
    if (pxHeld != x.pxPool) {
      ++x.uUsers;
      GstBufferPool* pxFound = x.pxPool;
      DropHold(pxHeld);  // may erase another entry, never this one: it has a user now
      pxHeld = pxFound;
    }
    return pxHeld;
  }
  GstBufferPool* pxPool = MakePool(eKind, pxCaps, uSize, sError);
  if (!pxPool) {
    gst_caps_unref(pxCaps);
    return NULL;
  }
  GST_INFO("new %s pool of %u-byte buffers for %" GST_PTR_FORMAT,
           eKind == EMixPool::Wall ? "video wall" : "selector", uSize, pxCaps);
  DropHold(pxHeld);
  g_xPools.push_back(SPoolEntry{eKind, pxCaps, uSize, pxPool, 1});
  pxHeld = pxPool;
  return pxPool;
}

GstBuffer* AcquireOutput(GstCudaMixer2* self, EMixPool eKind, SMixFrame& xFrame) {
  std::string sError;
  GstBufferPool*& pxHeld = eKind == EMixPool::Wall ? self->pxWallPool : self->pxSelectorPool;
  GstBufferPool* pxPool = SharedPool(eKind, self->info, pxHeld, sError);
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

// The device image of a wall input when it can give a whole tile; null with the reason if not.
const Qv::CQvDeviceImage2D* TileSource(GstBuffer* pxBuffer, std::string& sReason) {
  Qv::CQvDeviceImage2D* pxImage = NULL;
  if (gst_buffer_n_memory(pxBuffer) == 1)
    pxImage = QvDeviceImageFromMemory(gst_buffer_peek_memory(pxBuffer, 0));
  if (!pxImage || !pxImage->IsValid()) {
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
  if (uRowBytes < static_cast<uint64_t>(kTileWidthBytes) ||
      pxImage->GetFormat().iHeight < kTileHeight) {
    sReason = std::string("is ") + pxImage->GetFormat().ToString().ToCString() +
              ", smaller than a tile of 1280 bytes by 1338 rows";
    return NULL;
  }
  return pxImage;
}

}  // namespace

void gst_cudamixer2_release_pools(GstCudaMixer2* self) {
  std::lock_guard<std::mutex> xGuard(g_xPoolMutex);
  DropHold(self->pxSelectorPool);
  DropHold(self->pxWallPool);
}

GstMessage* gst_cudamixer2_new_message(GstCudaMixer2* self, GstMessageType eType,
                                       const std::string& sText, const std::string& sDebug) {
  GError* pxError =
      g_error_new_literal(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_FAILED, sText.c_str());
  GstMessage* pxMessage = eType == GST_MESSAGE_ERROR
                              ? gst_message_new_error(GST_OBJECT(self), pxError, sDebug.c_str())
                              : gst_message_new_warning(GST_OBJECT(self), pxError, sDebug.c_str());
  g_error_free(pxError);
  return pxMessage;
}

GstFlowReturn gst_cudamixer2_camera_selector(GstCudaMixer2* self, SMixFrame& xFrame) {
  // Nothing is written to the pool buffer: it goes out as it is when no camera has a frame.
  GstBuffer* pxOut = AcquireOutput(self, EMixPool::Selector, xFrame);
  if (!pxOut) return GST_FLOW_ERROR;

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
    gst_buffer_unref(pxOut);
    pxOut = gst_buffer_ref(pxPad->mixcol->buffer);
  }
  xFrame.pxBuffer = pxOut;
  return GST_FLOW_OK;
}

GstFlowReturn gst_cudamixer2_video_wall(GstCudaMixer2* self, SMixFrame& xFrame) {
  GstBuffer* pxOut = AcquireOutput(self, EMixPool::Wall, xFrame);
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
    pxWall->Create(
        Qv::CQvImageFormat(kWallWidth, kWallHeight, Qv::EPixelType::BayerGR, Qv::EDataType::UByte));
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
      const Qv::CQvDeviceImage2D* pxImage = TileSource(pxIn, sReason);
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
      uint8_t* pDst = pWall + uRow * kTileHeight * uWallPitch + uColumn * kTileWidthBytes;
      Qv::Device::Copy2D(pDst, uWallPitch, pxImage->GetDevicePointer(), pxImage->GetDevicePitch(),
                         kTileWidthBytes, kTileHeight, Qv::Device::ECopyKind::DeviceToDevice,
                         self->stream, true);
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
