#pragma once
#include <gst/video/video.h>

#include "common/gstqvCudaBaseTransform.h"

G_BEGIN_DECLS

#define GST_TYPE_CUDA_DOWNLOAD (gst_cuda_download_get_type())
#define GST_CUDA_DOWNLOAD(obj) \
  (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_CUDA_DOWNLOAD, GstQvCudaDownload))

typedef struct _GstQvCudaDownload {
  GstQvCudaBaseTransform parent;
  GstVideoInfo videoInfo;
  // Output pool of pinned host memory, made for poolInfo; a frame of another size gets a new
  // one. Guarded by poolLock.
  GMutex poolLock;
  GstBufferPool* pool;
  GstVideoInfo poolInfo;
} GstQvCudaDownload;

typedef struct _GstQvCudaDownloadClass {
  GstQvCudaBaseTransformClass parent_class;
} GstQvCudaDownloadClass;

GType gst_cuda_download_get_type(void);

G_END_DECLS
