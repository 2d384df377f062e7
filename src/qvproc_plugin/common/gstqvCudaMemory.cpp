#include "common/gstqvCudaMemory.h"

#include <cstdio>

#include "QvException.h"
#include "common/gstUtil.h"

static gint g_iLiveMemories = 0;

G_DEFINE_TYPE(MyMemoryAllocator, my_memory_allocator, GST_TYPE_ALLOCATOR)

static GstMemory* my_memory_new(GstAllocator* allocator, GstMemory* parent, gsize maxsize,
                                gsize align, gsize offset, gsize size, GstMemoryFlags flags,
                                Qv::CQvDeviceImage2D* image, gboolean owns) {
  MyMemory* pxMem = static_cast<MyMemory*>(g_slice_alloc(sizeof(MyMemory)));
  gst_memory_init(GST_MEMORY_CAST(pxMem), flags, allocator, parent, maxsize, align, offset, size);
  pxMem->data = image;
  pxMem->bOwnsImage = owns;
  g_atomic_int_inc(&g_iLiveMemories);
  return GST_MEMORY_CAST(pxMem);
}

static GstMemory* my_memory_alloc(GstAllocator* allocator, gsize size,
                                  GstAllocationParams* params) {
  LogMessage("allocating new memory with custom allocator");
  // The image is empty; the element that writes the buffer creates it.
  Qv::CQvDeviceImage2D* pxImage = new Qv::CQvDeviceImage2D();
  return my_memory_new(allocator, NULL, 8, params->align, params->prefix, size,
                       static_cast<GstMemoryFlags>(params->flags), pxImage, TRUE);
}

static void my_memory_free(GstAllocator* /*allocator*/, GstMemory* mem) {
  LogMessage("FREE memory with CUSTOM allocator");
  MyMemory* pxMem = reinterpret_cast<MyMemory*>(mem);
  if (pxMem->data && pxMem->bOwnsImage) delete pxMem->data;
  pxMem->data = NULL;
  g_slice_free1(sizeof(MyMemory), pxMem);
  g_atomic_int_add(&g_iLiveMemories, -1);
  GST_LOG("%p: freed", static_cast<void*>(mem));
}

static gpointer my_memory_map(GstMemory* mem, gsize /*maxsize*/, GstMapFlags /*flags*/) {
  return reinterpret_cast<MyMemory*>(mem)->data;
}

static void my_memory_unmap(GstMemory* mem) {
  GST_LOG("%p: unmapped", static_cast<void*>(mem));
}

// A share is a view of the same image: it keeps the parent alive and never frees the image,
// so however many shares exist the image dies once, with the last of them. The handle is
// indivisible, so offset and size do not apply.
static GstMemory* my_memory_share(GstMemory* mem, gssize /*offset*/, gssize /*size*/) {
  MyMemory* pxMem = reinterpret_cast<MyMemory*>(mem);
  GstMemory* pxParent = mem->parent ? mem->parent : mem;
  return my_memory_new(
      mem->allocator, pxParent, mem->maxsize, mem->align, mem->offset, mem->size,
      static_cast<GstMemoryFlags>(GST_MINI_OBJECT_FLAGS(pxParent) | GST_MEMORY_FLAG_READONLY),
      pxMem->data, FALSE);
}

// A copy is a new device image with the same pixels, not a copy of the handle's bytes.
static GstMemory* my_memory_copy(GstMemory* mem, gssize /*offset*/, gssize /*size*/) {
  MyMemory* pxMem = reinterpret_cast<MyMemory*>(mem);
  Qv::CQvDeviceImage2D* pxCopy = new Qv::CQvDeviceImage2D();
  if (pxMem->data && pxMem->data->IsValid()) {
    try {
      pxMem->data->CopyTo(*pxCopy);
    } catch (const Qv::IException& e) {
      HandleException(e);
      delete pxCopy;
      return NULL;
    }
  }
  return my_memory_new(mem->allocator, NULL, mem->maxsize, mem->align, mem->offset, mem->size,
                       static_cast<GstMemoryFlags>(0), pxCopy, TRUE);
}

static void my_memory_allocator_class_init(MyMemoryAllocatorClass* klass) {
  GstAllocatorClass* pxAllocatorClass = GST_ALLOCATOR_CLASS(klass);
  pxAllocatorClass->alloc = my_memory_alloc;
  pxAllocatorClass->free = my_memory_free;
}

static void my_memory_allocator_init(MyMemoryAllocator* allocator) {
  GstAllocator* pxAlloc = GST_ALLOCATOR_CAST(allocator);
  pxAlloc->mem_type = QV_CUDA_MEMORY_NAME;
  pxAlloc->mem_map = my_memory_map;
  pxAlloc->mem_unmap = my_memory_unmap;
  pxAlloc->mem_share = my_memory_share;
  pxAlloc->mem_copy = my_memory_copy;
}

void my_memory_init(void) {
  GstAllocator* pxAllocator =
      static_cast<GstAllocator*>(g_object_new(my_memory_allocator_get_type(), NULL));
  // Registered allocators live for the rest of the process.
  GST_OBJECT_FLAG_SET(pxAllocator, GST_OBJECT_FLAG_MAY_BE_LEAKED);
  gst_allocator_register(QV_CUDA_MEMORY_NAME, pxAllocator);
}

gint my_memory_get_live_count(void) {
  return g_atomic_int_get(&g_iLiveMemories);
}

Qv::CQvDeviceImage2D* QvDeviceImageFromMemory(GstMemory* mem) {
  if (!mem || !gst_memory_is_type(mem, QV_CUDA_MEMORY_NAME)) return NULL;
  return reinterpret_cast<MyMemory*>(mem)->data;
}
