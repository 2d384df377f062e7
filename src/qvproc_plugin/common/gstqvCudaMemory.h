#pragma once
// The memory of a buffer that carries a device image: mapping it yields the
// CQvDeviceImage2D pointer, and freeing it destroys the image.
#include <gst/gst.h>

#include "QvDeviceImage2D.h"

#define QV_CUDA_MEMORY_NAME "QvCudaDevImage"

G_BEGIN_DECLS

typedef struct _MyMemory {
  GstMemory mem;
  Qv::CQvDeviceImage2D* data;
  // A memory made by share holds a reference to its parent and never owns the image.
  gboolean bOwnsImage;
} MyMemory;

typedef struct _MyMemoryAllocator {
  GstAllocator parent;
} MyMemoryAllocator;

typedef struct _MyMemoryAllocatorClass {
  GstAllocatorClass parent_class;
} MyMemoryAllocatorClass;

GType my_memory_allocator_get_type(void);

// Registers a new allocator object under "QvCudaDevImage".
void my_memory_init(void);

// Memories of this allocator that are alive now; a test checks that each image dies once.
gint my_memory_get_live_count(void);

G_END_DECLS

// The device image of a mapped buffer memory of this allocator, or null.
Qv::CQvDeviceImage2D* QvDeviceImageFromMemory(GstMemory* mem);
