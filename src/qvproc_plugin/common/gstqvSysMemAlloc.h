#pragma once
// Page-locked host memory that the device reaches without a staging copy, and the answer to
// an allocation query that hands a pool of it to the source upstream.
#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>

#define QV_SYSMEM_NAME "MySysMem"

G_BEGIN_DECLS

typedef struct _MySysMem {
  GstMemory mem;
  guint8* data;
} MySysMem;

typedef struct _MySysMemAllocator {
  GstAllocator parent;
} MySysMemAllocator;

typedef struct _MySysMemAllocatorClass {
  GstAllocatorClass parent_class;
} MySysMemAllocatorClass;

GType my_sysmem_allocator_get_type(void);

// Registers a new allocator object under "MySysMem".
void my_SysMem_init(void);

gboolean ProposeAllocation(GstBaseTransform* trans, GstQuery* decideQuery, GstQuery* query);

G_END_DECLS
