#pragma once
// The mixer: up to six camera branches on one output time line, either passing on the selected
// camera's own buffer or packing the raw images into one mosaic on the device.
#include <gst/base/gstcollectpads.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include "QvCudaDefs.h"

G_BEGIN_DECLS

#define GST_TYPE_CUDA_MIXER2 (gst_cudamixer2_get_type())
#define GST_CUDA_MIXER2(obj) \
  (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_CUDA_MIXER2, GstCudaMixer2))
#define GST_IS_CUDA_MIXER2(obj) (G_TYPE_CHECK_INSTANCE_TYPE((obj), GST_TYPE_CUDA_MIXER2))
#define GST_TYPE_CUDA_MIXER2_PAD (gst_cudamixer2_pad_get_type())
#define GST_CUDA_MIXER2_PAD(obj) \
  (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_CUDA_MIXER2_PAD, GstCudaMixer2Pad))

enum { MixType_Selector = 0, MixType_VideoWall = 1 };

// What GstCollectPads keeps per sink pad.
typedef struct _GstCudaMixer2Collect {
  GstCollectData collect;
  // A buffer without duration, waiting for its successor to learn where it ends.
  GstBuffer* queued;
  // Caps that came while buffers of the previous caps were still held here: they apply when the
  // first buffer that came after them becomes current, so that each buffer goes out under its
  // own caps. `queued_caps` are those of `queued`, `pending_caps` those of the next buffer.
  GstCaps* queued_caps;
  GstCaps* pending_caps;
  // The buffer that covers the output interval, and its times in output running time.
  GstBuffer* buffer;
  GstClockTime start_time;
  GstClockTime end_time;
} GstCudaMixer2Collect;

typedef struct _GstCudaMixer2Pad {
  GstPad parent;
  GstVideoInfo info;
  GstCudaMixer2Collect* mixcol;
  // The wall refused one of this pad's images; said once, not every frame.
  gboolean bWarnedTile;
} GstCudaMixer2Pad;

typedef struct _GstCudaMixer2PadClass {
  GstPadClass parent_class;
} GstCudaMixer2PadClass;

typedef struct _GstCudaMixer2 {
  GstElement element;

  GstPad* srcpad;
  GMutex lock;
  GMutex setcaps_lock;
  GstCollectPads* collect;
  GSList* sinkpads;
  gint numpads;
  guint next_sinkpad;

  GstVideoInfo info;
  GstCaps* current_caps;
  gboolean send_caps;
  gboolean newseg_pending;
  GstSegment segment;
  GstClockTime ts_offset;
  guint64 nframes;

  gdouble proportion;
  GstClockTime earliest_time;
  guint64 qos_processed;
  guint64 qos_dropped;

  gboolean send_stream_start;
  GstTagList* pending_tags;
  gint requested_camera;
  gint current_camera;
  cudaStream_t stream;
  gint mix_type;

  // A segment with the segment flag has run to its stop and SEGMENT_DONE went out.
  gboolean bSegmentDone;
  // The wall met a pad beyond its six tiles; said once until the next stop.
  gboolean bWarnedSeventh;
  // The shared output pool this mixer's wall uses now; a pool that no mixer uses any more is
  // released.
  GstBufferPool* pxWallPool;
  // A flushing seek's segment, applied at the first branch's flush; and the branches whose
  // flush stop has not come yet (atomic): the output stays flushing until the last one.
  GstSegment xSeekSegment;
  gboolean bSeekPending;
  gint iFlushStopsPending;
  // Caps to renegotiate the output with after this pass: a pad's pending caps became current.
  GstCaps* pxRenegotiate;
  // The cameras of the request `iWarnedRequest` that were said to have no frame (one bit each).
  gint iWarnedRequest;
  guint64 uWarnedCameras;
} GstCudaMixer2;

typedef struct _GstCudaMixer2Class {
  GstElementClass parent_class;
} GstCudaMixer2Class;

GType gst_cudamixer2_get_type(void);
GType gst_cudamixer2_pad_get_type(void);

G_END_DECLS
