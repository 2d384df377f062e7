#pragma once
// Shared by the mixer's units: the element, pads, events and queries (gstqvCudaMix),
// negotiation (gstqvCudaMixCaps), the collect loop and quality of service (gstqvCudaMixCollect),
// and the two ways of making an output frame with their process-wide pools (gstqvCudaMixModes).
#include <gst/gst.h>

#include <string>
#include <vector>

#include "mixer/gstqvCudaMix.h"

#if defined(__SANITIZE_THREAD__)
#define QV_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QV_TSAN 1
#endif
#endif
#if defined(QV_TSAN)
#include <sanitizer/tsan_interface.h>
#endif

GST_DEBUG_CATEGORY_EXTERN(gst_cudamixer2_debug);

// GLib's GMutex is a bare futex on Linux, which ThreadSanitizer cannot see. The element's locks
// tell it about each hand-over, so that what it reports about the mixer is a real race.
inline void QvMixMutexLock(GMutex* pxMutex) {
  g_mutex_lock(pxMutex);
#if defined(QV_TSAN)
  __tsan_acquire(pxMutex);
#endif
}

inline void QvMixMutexUnlock(GMutex* pxMutex) {
#if defined(QV_TSAN)
  __tsan_release(pxMutex);
#endif
  g_mutex_unlock(pxMutex);
}

// Holds one of the element's locks for a scope, with the same annotations; Unlock() lets go
// early.
class CMixLock {
 public:
  explicit CMixLock(GMutex* pxMutex) : m_pxMutex(pxMutex) { QvMixMutexLock(m_pxMutex); }
  ~CMixLock() { Unlock(); }
  CMixLock(const CMixLock&) = delete;
  CMixLock& operator=(const CMixLock&) = delete;
  void Unlock() {
    if (m_bHeld) QvMixMutexUnlock(m_pxMutex);
    m_bHeld = false;
  }

 private:
  GMutex* m_pxMutex;
  bool m_bHeld = true;
};

#define GST_CUDA_MIXER2_LOCK(mix) QvMixMutexLock(&(mix)->lock)
#define GST_CUDA_MIXER2_UNLOCK(mix) QvMixMutexUnlock(&(mix)->lock)
#define GST_CUDA_MIXER2_SETCAPS_LOCK(mix) QvMixMutexLock(&(mix)->setcaps_lock)
#define GST_CUDA_MIXER2_SETCAPS_UNLOCK(mix) QvMixMutexUnlock(&(mix)->setcaps_lock)
#define GST_CUDA_MIXER2_OBJECT_LOCK(mix) QvMixMutexLock(GST_OBJECT_GET_LOCK(mix))
#define GST_CUDA_MIXER2_OBJECT_UNLOCK(mix) QvMixMutexUnlock(GST_OBJECT_GET_LOCK(mix))

// The video wall's geometry: a fixed raw mosaic of 3 x 2 tiles, each the top-left corner of one
// camera's image.
constexpr int kWallWidth = 3840;
constexpr int kWallHeight = 2676;
constexpr int kTileWidthBytes = 1280;
constexpr int kTileHeight = 1338;
constexpr int kTilesPerRow = 3;
constexpr int kMaxTiles = 6;

// What a mode function leaves behind: the output buffer, if any, and the messages to post once
// `lock` is released (a bus sync handler must never run under the element's lock).
struct SMixFrame {
  GstBuffer* pxBuffer = nullptr;
  std::vector<GstMessage*> xMessages;
};

// The pad has no current buffer any more; the next pass takes a new one.
inline void DropCurrent(GstCudaMixer2Collect* pxCol) {
  gst_buffer_replace(&pxCol->buffer, NULL);
  pxCol->start_time = GST_CLOCK_TIME_NONE;
  pxCol->end_time = GST_CLOCK_TIME_NONE;
}

// Both run with `lock` held. On failure the frame holds an error message and no buffer; the
// selector leaves no buffer when its camera has no frame.
GstFlowReturn gst_cudamixer2_camera_selector(GstCudaMixer2* self, SMixFrame& xFrame);
GstFlowReturn gst_cudamixer2_video_wall(GstCudaMixer2* self, SMixFrame& xFrame);

// Gives back the mixer's hold on the wall's shared pool, which goes when no mixer holds it.
// Called when the mixer stops and at finalize.
void gst_cudamixer2_release_pools(GstCudaMixer2* self);

// An error or warning message of the element, built now and posted later.
GstMessage* gst_cudamixer2_new_message(GstCudaMixer2* self, GstMessageType eType,
                                       const std::string& sText, const std::string& sDebug,
                                       GQuark uDomain = GST_RESOURCE_ERROR,
                                       gint iCode = GST_RESOURCE_ERROR_FAILED);
// Posts what a pass or a negotiation left behind; called with none of the element's locks held,
// since a bus sync handler must never run under them.
void gst_cudamixer2_post_messages(GstCudaMixer2* self, std::vector<GstMessage*>& xMessages);

// Negotiation (gstqvCudaMixCaps).
// A sink pad's new caps: the converters and the output caps follow.
gboolean gst_cudamixer2_pad_sink_setcaps(GstPad* pad, GstCudaMixer2* self, GstCaps* caps);
// Caps, accept-caps and allocation queries on a sink pad.
gboolean gst_cudamixer2_sink_query(GstCollectPads* pads, GstCollectData* cdata, GstQuery* query,
                                   gpointer user_data);
// The output format from the pads' formats. Runs with `lock` held; an error goes into
// xMessages.
gboolean gst_cudamixer2_update_converters(GstCudaMixer2* self, std::vector<GstMessage*>& xMessages);
// The output caps from the pads' sizes and rates and what downstream takes.
gboolean gst_cudamixer2_update_src_caps(GstCudaMixer2* self, GstCaps* caps,
                                        std::vector<GstMessage*>& xMessages);

// The collect loop and quality of service (gstqvCudaMixCollect).
// One pass of the collect loop: at most one output frame.
GstFlowReturn gst_cudamixer2_collected(GstCollectPads* pads, gpointer user_data);
// Drops what lies outside a pad's segment and times the rest in running time.
GstFlowReturn gst_cudamixer2_sink_clip(GstCollectPads* pads, GstCollectData* cdata, GstBuffer* buf,
                                       GstBuffer** outbuf, gpointer user_data);
// Quality of service from downstream's QoS events.
void gst_cudamixer2_reset_qos(GstCudaMixer2* self);
void gst_cudamixer2_update_qos(GstCudaMixer2* self, gdouble proportion, GstClockTimeDiff diff,
                               GstClockTime timestamp);

// Where a pad's next buffer, covering [uStart, uEnd) in the pad's own time, falls against the
// output interval [uOutStart, uOutEnd): taken for it, kept for a later one, or dropped (outside
// the pad's segment, or older than the pad's current buffer, which ends at uCurrentEnd). The
// times given back are running times in the output's rate. Pure, so that the time rules are
// tested without threads.
enum class ECandidate { Take, Keep, Drop };
struct SCandidate {
  ECandidate eWhat;
  GstClockTime uStart, uEnd;
  const char* szWhy;  // of a drop
};
SCandidate gst_cudamixer2_place_candidate(const GstSegment& xSegment, gdouble dRate,
                                          GstClockTime uStart, GstClockTime uEnd,
                                          GstClockTime uCurrentEnd, GstClockTime uOutStart,
                                          GstClockTime uOutEnd);
