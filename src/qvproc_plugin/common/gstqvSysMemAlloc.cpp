#include "common/gstqvSysMemAlloc.h"

#include <gst/video/gstvideopool.h>
#include <gst/video/video.h>

#include "QvDevice.h"
#include "QvException.h"
#include "common/gstUtil.h"

G_DEFINE_TYPE(MySysMemAllocator, my_sysmem_allocator, GST_TYPE_ALLOCATOR)

static GstMemory* my_sysmem_new(GstAllocator* allocator, GstMemory* parent, gsize maxsize,
                                gsize align, gsize offset, gsize size, GstMemoryFlags flags,
                                guint8* data) {
  MySysMem* pxMem = static_cast<MySysMem*>(g_slice_alloc(sizeof(MySysMem)));
  gst_memory_init(GST_MEMORY_CAST(pxMem), flags, allocator, parent, maxsize, align, offset, size);
  pxMem->data = data;
  return GST_MEMORY_CAST(pxMem);
}

static GstMemory* my_sysmem_alloc(GstAllocator* allocator, gsize size,
                                  GstAllocationParams* params) {
  const gsize uTotal = size + params->prefix + params->padding;
  guint8* pData = NULL;
  try {
    LogMessage("allocating cuda Host memory");
    pData = static_cast<guint8*>(Qv::Device::AllocPinnedHost(uTotal));
  } catch (const Qv::IException& e) {
    HandleException(e);
  }
  if (!pData) {
    GST_WARNING_OBJECT(allocator, "cannot allocate %" G_GSIZE_FORMAT " bytes of pinned memory",
                       uTotal);
    return NULL;
  }
  return my_sysmem_new(allocator, NULL, uTotal, params->align, params->prefix, size,
                       static_cast<GstMemoryFlags>(params->flags), pData);
}

static void my_sysmem_free(GstAllocator* /*allocator*/, GstMemory* mem) {
  LogMessage("FREE memory with CUSTOM allocator");
  MySysMem* pxMem = reinterpret_cast<MySysMem*>(mem);
  // A share points into its parent's block and frees nothing.
  if (!mem->parent) Qv::Device::FreePinnedHost(pxMem->data);
  g_slice_free1(sizeof(MySysMem), pxMem);
}

static gpointer my_sysmem_map(GstMemory* mem, gsize /*maxsize*/, GstMapFlags /*flags*/) {
  return reinterpret_cast<MySysMem*>(mem)->data;
}

static void my_sysmem_unmap(GstMemory* /*mem*/) {}

// A share is a sub-region of the same block that keeps its parent alive; only the parent
// frees the block, so shares never release it twice.
static GstMemory* my_sysmem_share(GstMemory* mem, gssize offset, gssize size) {
  MySysMem* pxMem = reinterpret_cast<MySysMem*>(mem);
  GstMemory* pxParent = mem->parent ? mem->parent : mem;
  if (size == -1) size = static_cast<gssize>(mem->size) - offset;
  return my_sysmem_new(
      mem->allocator, pxParent, mem->maxsize, mem->align, mem->offset + static_cast<gsize>(offset),
      static_cast<gsize>(size),
      static_cast<GstMemoryFlags>(GST_MINI_OBJECT_FLAGS(pxParent) | GST_MEMORY_FLAG_READONLY),
      pxMem->data);
}

static void my_sysmem_allocator_class_init(MySysMemAllocatorClass* klass) {
  GstAllocatorClass* pxAllocatorClass = GST_ALLOCATOR_CLASS(klass);
  pxAllocatorClass->alloc = my_sysmem_alloc;
  pxAllocatorClass->free = my_sysmem_free;
}

static void my_sysmem_allocator_init(MySysMemAllocator* allocator) {
  GstAllocator* pxAlloc = GST_ALLOCATOR_CAST(allocator);
  pxAlloc->mem_type = QV_SYSMEM_NAME;
  pxAlloc->mem_map = my_sysmem_map;
  pxAlloc->mem_unmap = my_sysmem_unmap;
  pxAlloc->mem_share = my_sysmem_share;
}

void my_SysMem_init(void) {
  GstAllocator* pxAllocator =
      static_cast<GstAllocator*>(g_object_new(my_sysmem_allocator_get_type(), NULL));
  GST_OBJECT_FLAG_SET(pxAllocator, GST_OBJECT_FLAG_MAY_BE_LEAKED);
  gst_allocator_register(QV_SYSMEM_NAME, pxAllocator);
}

gboolean ProposeAllocation(GstBaseTransform* trans, GstQuery* /*decideQuery*/, GstQuery* query) {
  my_SysMem_init();
  GstAllocator* pxAllocator = NULL;
  GstBufferPool* pxPool = NULL;
  try {
    GST_LOG("Propose Allocation - query %" GST_PTR_FORMAT, query);
    GstCaps* pxCaps = NULL;
    gboolean bNeedPool = FALSE;
    gst_query_parse_allocation(query, &pxCaps, &bNeedPool);
    if (!bNeedPool) return TRUE;

    GstAllocationParams xParams;
    gst_allocation_params_init(&xParams);
    pxAllocator = gst_allocator_find(QV_SYSMEM_NAME);

    GstVideoInfo xInfo;
    if (!pxCaps || !gst_video_info_from_caps(&xInfo, pxCaps)) QV_THROW("no caps available");
    // Sizes in 64 bits: the largest caps must not wrap a byte count.
    guint64 uSize = xInfo.size;
    if (uSize == 0) {
      // Bayer caps have no size of GStreamer's: packed rows, of 16-bit words for the 10 to
      // 16-bit formats ("grbg12le").
      const guint64 uSample = QvCapsSampleDepth(gst_caps_get_structure(pxCaps, 0)) > 8 ? 2 : 1;
      uSize = static_cast<guint64>(xInfo.width) * static_cast<guint64>(xInfo.height) * uSample;
    }
    if (uSize > G_MAXUINT) QV_THROW("frame too large for a buffer pool");

    pxPool = gst_video_buffer_pool_new();
    GstStructure* pxConfig = gst_buffer_pool_get_config(pxPool);
    gst_buffer_pool_config_set_params(pxConfig, pxCaps, static_cast<guint>(uSize), 0, 0);
    gst_buffer_pool_config_set_allocator(pxConfig, pxAllocator, &xParams);
    if (!gst_buffer_pool_set_config(pxPool, pxConfig))
      QV_THROW("gst_buffer_pool_set_config failed");

    gst_query_add_allocation_pool(query, pxPool, static_cast<guint>(uSize), 0, 0);
    gst_query_add_allocation_param(query, pxAllocator, &xParams);
    gst_object_unref(pxPool);
    if (pxAllocator) gst_object_unref(pxAllocator);
    return TRUE;
  } catch (const Qv::CQvException& e) {
    GST_WARNING_OBJECT(trans, "cannot propose an allocation: %s", e.GetMessageText());
  }
  if (pxPool) gst_object_unref(pxPool);
  if (pxAllocator) gst_object_unref(pxAllocator);
  return FALSE;
}
