// The mixer's collect loop: which buffer each pad contributes to an output interval, the
// interval's frame, quality of service, and the clipping of incoming buffers to their segment.
#include <cstring>

#include "QvDevice.h"
#include "QvException.h"
#include "QvMessage.h"
#include "QvOperatorTexts.h"
#include "common/gstqvSysMemAlloc.h"
#include "mixer/gstqvCudaMix.h"
#include "mixer/gstqvCudaMixPriv.h"

#define GST_CAT_DEFAULT gst_cudamixer2_debug

enum EFillResult { FILL_GO_ON, FILL_NEED_MORE, FILL_ALL_EOS, FILL_ERROR };

/* Quality of service */

// The time of one output frame, or 0 while the output has no usable rate.
static GstClockTime FrameDuration(const GstVideoInfo& xInfo) {
  if (GST_VIDEO_INFO_FPS_N(&xInfo) <= 0 || GST_VIDEO_INFO_FPS_D(&xInfo) <= 0) return 0;
  return gst_util_uint64_scale_int_round(GST_SECOND, GST_VIDEO_INFO_FPS_D(&xInfo),
                                         GST_VIDEO_INFO_FPS_N(&xInfo));
}

static void UpdateQos(GstCudaMixer2* self, gdouble proportion, GstClockTimeDiff diff,
                      GstClockTime timestamp, GstClockTime uFrame) {
  GST_DEBUG_OBJECT(
      self,
      "Updating QoS: proportion %lf, diff %c%" GST_TIME_FORMAT ", timestamp %" GST_TIME_FORMAT,
      proportion, diff < 0 ? '-' : '+',
      GST_TIME_ARGS(static_cast<GstClockTime>(diff < 0 ? -diff : diff)), GST_TIME_ARGS(timestamp));
  GST_CUDA_MIXER2_OBJECT_LOCK(self);
  self->proportion = proportion;
  if (!GST_CLOCK_TIME_IS_VALID(timestamp)) {
    self->earliest_time = GST_CLOCK_TIME_NONE;
  } else if (diff > 0) {
    // Late: skip twice the lateness and one more frame.
    self->earliest_time = timestamp + 2 * static_cast<GstClockTime>(diff) + uFrame;
  } else {
    const GstClockTime uEarly = static_cast<GstClockTime>(-diff);
    self->earliest_time = uEarly > timestamp ? 0 : timestamp - uEarly;
  }
  GST_CUDA_MIXER2_OBJECT_UNLOCK(self);
}

void gst_cudamixer2_update_qos(GstCudaMixer2* self, gdouble proportion, GstClockTimeDiff diff,
                               GstClockTime timestamp) {
  GST_CUDA_MIXER2_LOCK(self);
  const GstClockTime uFrame = FrameDuration(self->info);
  GST_CUDA_MIXER2_UNLOCK(self);
  UpdateQos(self, proportion, diff, timestamp, uFrame);
}

void gst_cudamixer2_reset_qos(GstCudaMixer2* self) {
  UpdateQos(self, 0.5, 0, GST_CLOCK_TIME_NONE, 0);
  GST_CUDA_MIXER2_OBJECT_LOCK(self);
  self->qos_processed = 0;
  self->qos_dropped = 0;
  GST_CUDA_MIXER2_OBJECT_UNLOCK(self);
}

// Runs with `lock` held.
static GstClockTimeDiff gst_cudamixer2_do_qos(GstCudaMixer2* self, GstClockTime timestamp) {
  if (!GST_CLOCK_TIME_IS_VALID(timestamp)) {
    GST_LOG_OBJECT(self, "invalid timestamp, can't do QoS, process frame");
    return -1;
  }
  GST_CUDA_MIXER2_OBJECT_LOCK(self);
  const GstClockTime uEarliest = self->earliest_time;
  GST_CUDA_MIXER2_OBJECT_UNLOCK(self);
  if (!GST_CLOCK_TIME_IS_VALID(uEarliest)) {
    GST_LOG_OBJECT(self, "no observation yet, process frame");
    return -1;
  }
  const GstClockTime uQosTime =
      gst_segment_to_running_time(&self->segment, GST_FORMAT_TIME, timestamp);
  GST_LOG_OBJECT(self, "qostime %" GST_TIME_FORMAT ", earliest %" GST_TIME_FORMAT,
                 GST_TIME_ARGS(uQosTime), GST_TIME_ARGS(uEarliest));
  const GstClockTimeDiff iJitter = GST_CLOCK_DIFF(uQosTime, uEarliest);
  if (GST_CLOCK_TIME_IS_VALID(uQosTime) && iJitter > 0)
    GST_DEBUG_OBJECT(self, "we are late, drop frame");
  else
    GST_LOG_OBJECT(self, "process frame");
  return iJitter;
}

/* The collect loop */

// A pad without a time segment (none came, or a flush cleared it) counts from 0, as
// GstCollectPads itself assumes.
static GstSegment* PadSegment(GstCudaMixer2Pad* pxPad) {
  GstSegment* pxSegment = &pxPad->mixcol->collect.segment;
  if (pxSegment->format != GST_FORMAT_TIME) {
    GST_WARNING_OBJECT(pxPad, "no time segment, assuming one that starts at 0");
    gst_segment_init(pxSegment, GST_FORMAT_TIME);
  }
  return pxSegment;
}

// Drops the candidate of a pad: the buffer in `queued`, or the one waiting in `collect`.
static void DiscardCandidate(GstCudaMixer2* self, GstCudaMixer2Collect* pxCol, bool bQueued) {
  if (bQueued) {
    gst_buffer_replace(&pxCol->queued, NULL);
    // Caps that came with the dropped buffer still hold for the next one, unless newer ones came.
    if (!pxCol->pending_caps) std::swap(pxCol->pending_caps, pxCol->queued_caps);
    gst_caps_replace(&pxCol->queued_caps, NULL);
  } else {
    GstBuffer* pxBuffer = gst_collect_pads_pop(self->collect, &pxCol->collect);
    if (pxBuffer) gst_buffer_unref(pxBuffer);
  }
}

// Decides pad by pad which buffer covers [output_start, output_end). Runs with `lock` held.
SCandidate gst_cudamixer2_place_candidate(const GstSegment& xSegment, gdouble dRate,
                                          GstClockTime uStart, GstClockTime uEnd,
                                          GstClockTime uCurrentEnd, GstClockTime uOutStart,
                                          GstClockTime uOutEnd) {
  const SCandidate xOutside = {ECandidate::Drop, uStart, uEnd, "Buffer outside the segment"};
  if ((GST_CLOCK_TIME_IS_VALID(xSegment.stop) && uStart >= xSegment.stop) || uEnd < xSegment.start)
    return xOutside;
  uStart = MAX(uStart, xSegment.start);
  if (GST_CLOCK_TIME_IS_VALID(xSegment.stop)) uEnd = MIN(uEnd, xSegment.stop);
  uStart = gst_segment_to_running_time(&xSegment, GST_FORMAT_TIME, uStart);
  uEnd = gst_segment_to_running_time(&xSegment, GST_FORMAT_TIME, uEnd);
  if (!GST_CLOCK_TIME_IS_VALID(uStart) || !GST_CLOCK_TIME_IS_VALID(uEnd)) return xOutside;
  if (dRate != 1.0) {
    // Input running time is stretched to the output segment's rate.
    uStart = static_cast<GstClockTime>(uStart * dRate);
    uEnd = static_cast<GstClockTime>(uEnd * dRate);
  }
  if (GST_CLOCK_TIME_IS_VALID(uCurrentEnd) && uCurrentEnd > uEnd)
    return {ECandidate::Drop, uStart, uEnd, "Buffer from the past"};
  if (uOutStart <= uEnd && uStart < uOutEnd) return {ECandidate::Take, uStart, uEnd, nullptr};
  if (uStart >= uOutEnd) return {ECandidate::Keep, uStart, uEnd, nullptr};
  return {ECandidate::Drop, uStart, uEnd, "Too old buffer"};
}

static EFillResult gst_cudamixer2_fill_queues(GstCudaMixer2* self, GstClockTime output_start,
                                              GstClockTime output_end) {
  gboolean bEos = TRUE;
  gboolean bNeedMore = FALSE;
  if (!self->sinkpads) return FILL_ALL_EOS;
  const gdouble dRate = ABS(self->segment.rate);

  for (GSList* l = self->sinkpads; l; l = l->next) {
    GstCudaMixer2Pad* pxPad = static_cast<GstCudaMixer2Pad*>(l->data);
    GstCudaMixer2Collect* pxCol = pxPad->mixcol;
    const gboolean bPadEos =
        GST_COLLECT_PADS_STATE_IS_SET(&pxCol->collect, GST_COLLECT_PADS_STATE_EOS);
    GstBuffer* pxWaiting = gst_collect_pads_peek(self->collect, &pxCol->collect);

    if (!pxWaiting) {
      if (!GST_CLOCK_TIME_IS_VALID(pxCol->end_time)) continue;
      if (output_start >= pxCol->end_time) {
        // The current buffer is used up.
        DropCurrent(pxCol);
        if (!bPadEos) bNeedMore = TRUE;
      } else if (!bPadEos) {
        // An EOS pad's last buffer doesn't hold the stream open.
        bEos = FALSE;
      }
      continue;
    }

    const GstClockTime uPts = GST_BUFFER_PTS(pxWaiting);
    const GstClockTime uWaitingDuration = GST_BUFFER_DURATION(pxWaiting);
    gst_buffer_unref(pxWaiting);  // `collect` keeps its own reference

    if (!GST_CLOCK_TIME_IS_VALID(uPts)) {
      GST_ERROR_OBJECT(pxPad, "Need timestamped buffers!");
      return FILL_ERROR;
    }
    if ((pxCol->buffer && uPts < GST_BUFFER_PTS(pxCol->buffer)) ||
        (pxCol->queued && uPts < GST_BUFFER_PTS(pxCol->queued))) {
      GST_WARNING_OBJECT(pxPad, "Buffer from the past, dropping");
      DiscardCandidate(self, pxCol, false);
      bNeedMore = TRUE;
      continue;
    }

    const bool bQueued = pxCol->queued != NULL;
    GstClockTime uStart, uDuration;
    if (bQueued) {
      // The waiting buffer tells where the queued one ends; it stays where it is.
      uStart = GST_BUFFER_PTS(pxCol->queued);
      uDuration = uPts - uStart;
    } else {
      uStart = uPts;
      uDuration = uWaitingDuration;
      if (!GST_CLOCK_TIME_IS_VALID(uDuration)) {
        pxCol->queued = gst_collect_pads_pop(self->collect, &pxCol->collect);
        std::swap(pxCol->queued_caps, pxCol->pending_caps);
        bNeedMore = TRUE;
        continue;
      }
    }
    const SCandidate xPlace =
        gst_cudamixer2_place_candidate(*PadSegment(pxPad), dRate, uStart, uStart + uDuration,
                                       pxCol->end_time, output_start, output_end);
    const GstClockTime uRunStart = xPlace.uStart, uRunEnd = xPlace.uEnd;
    if (xPlace.eWhat == ECandidate::Drop) {
      GST_DEBUG_OBJECT(pxPad, "%s -- dropping", xPlace.szWhy);
      DiscardCandidate(self, pxCol, bQueued);
      bNeedMore = TRUE;
      continue;
    }
    if (xPlace.eWhat == ECandidate::Take) {
      GST_DEBUG_OBJECT(pxPad, "Taking new buffer with start time %" GST_TIME_FORMAT,
                       GST_TIME_ARGS(uRunStart));
      GstBuffer* pxTaken;
      GstCaps** ppxCaps = bQueued ? &pxCol->queued_caps : &pxCol->pending_caps;
      if (bQueued) {
        pxTaken = pxCol->queued;
        pxCol->queued = NULL;
      } else {
        pxTaken = gst_collect_pads_pop(self->collect, &pxCol->collect);
      }
      if (*ppxCaps) {
        // The first buffer of new caps: the output follows them after this pass.
        gst_video_info_from_caps(&pxPad->info, *ppxCaps);
        gst_caps_replace(&self->pxRenegotiate, NULL);
        self->pxRenegotiate = *ppxCaps;
        *ppxCaps = NULL;
      }
      gst_buffer_replace(&pxCol->buffer, NULL);
      pxCol->buffer = pxTaken;
      pxCol->start_time = uRunStart;
      pxCol->end_time = uRunEnd;
    } else {
      // It stays where it is, and its pad's streaming thread stays blocked.
      GST_DEBUG_OBJECT(pxPad, "Keeping buffer until %" GST_TIME_FORMAT, GST_TIME_ARGS(uRunStart));
    }
    bEos = FALSE;
  }

  if (bNeedMore) return FILL_NEED_MORE;
  if (bEos) return FILL_ALL_EOS;
  return FILL_GO_ON;
}

// A segment with the segment flag has run to its stop: SEGMENT_DONE goes out once, and until a
// seek or flush starts a new segment the passes make no frames. What arrives meanwhile lies
// behind the stop and is dropped, so that no pad stays blocked and no pass repeats at once.
// Runs with `lock` held and gives it back held; the caller sends what it returns once the lock
// is released (SendSegmentDone).
struct SSegmentDone {
  gboolean bAnnounce;
  gboolean bAllEos;
  gint64 iStop;
};

static SSegmentDone gst_cudamixer2_segment_done(GstCudaMixer2* self) {
  SSegmentDone xDone = {!self->bSegmentDone, TRUE, static_cast<gint64>(self->segment.stop)};
  self->bSegmentDone = TRUE;
  for (GSList* l = self->sinkpads; l; l = l->next) {
    GstCudaMixer2Collect* pxCol = static_cast<GstCudaMixer2Pad*>(l->data)->mixcol;
    GstBuffer* pxBuffer = gst_collect_pads_pop(self->collect, &pxCol->collect);
    if (pxBuffer) {
      GST_LOG_OBJECT(l->data, "dropping a buffer behind the segment's stop");
      gst_buffer_unref(pxBuffer);
    }
    if (!GST_COLLECT_PADS_STATE_IS_SET(&pxCol->collect, GST_COLLECT_PADS_STATE_EOS))
      xDone.bAllEos = FALSE;
  }
  return xDone;
}

static GstFlowReturn SendSegmentDone(GstCudaMixer2* self, const SSegmentDone& xDone) {
  if (xDone.bAnnounce) {
    GST_DEBUG_OBJECT(self, "posting segment-done at %" GST_TIME_FORMAT,
                     GST_TIME_ARGS(static_cast<GstClockTime>(xDone.iStop)));
    gst_element_post_message(
        GST_ELEMENT(self),
        gst_message_new_segment_done(GST_OBJECT(self), GST_FORMAT_TIME, xDone.iStop));
    gst_pad_push_event(self->srcpad, gst_event_new_segment_done(GST_FORMAT_TIME, xDone.iStop));
  }
  if (xDone.bAllEos) {
    GST_DEBUG_OBJECT(self, "All sinkpads are EOS -- forwarding");
    gst_pad_push_event(self->srcpad, gst_event_new_eos());
    return GST_FLOW_EOS;
  }
  return GST_FLOW_OK;
}

static void SendCaps(GstCudaMixer2* self) {
  if (self->send_caps && self->current_caps &&
      !gst_pad_push_event(self->srcpad, gst_event_new_caps(self->current_caps)))
    GST_WARNING_OBJECT(self->srcpad, "Sending caps event failed");
  self->send_caps = FALSE;
}

GstFlowReturn gst_cudamixer2_collected(GstCollectPads* /*pads*/, gpointer user_data) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(user_data);

  if (GST_VIDEO_INFO_FORMAT(&self->info) == GST_VIDEO_FORMAT_UNKNOWN)
    return GST_FLOW_NOT_NEGOTIATED;
  if (FrameDuration(self->info) == 0) {
    GST_ERROR_OBJECT(self, "the output has no frame rate");
    return GST_FLOW_NOT_NEGOTIATED;
  }

  if (self->send_stream_start) {
    gchar szStreamId[32];
    g_snprintf(szStreamId, sizeof(szStreamId), "mix-%08x", g_random_int());
    if (!gst_pad_push_event(self->srcpad, gst_event_new_stream_start(szStreamId)))
      GST_WARNING_OBJECT(self->srcpad, "Sending stream start event failed");
    self->send_stream_start = FALSE;
  }
  SendCaps(self);

  GST_CUDA_MIXER2_LOCK(self);
  if (self->newseg_pending) {
    Qv::OperatorMessage(QV_TEXT_SENDING_NEWSEGMENT);
    GST_DEBUG_OBJECT(self, "Sending NEWSEGMENT event");
    GstEvent* pxSegment = gst_event_new_segment(&self->segment);
    GST_CUDA_MIXER2_UNLOCK(self);
    if (!gst_pad_push_event(self->srcpad, pxSegment)) {
      // A flushing output refuses it; the segment goes out after the flush.
      if (GST_PAD_IS_FLUSHING(self->srcpad)) return GST_FLOW_FLUSHING;
      GST_ELEMENT_ERROR(self, STREAM, FAILED, ("Downstream refused the output segment."),
                        ("segment event of %s", GST_OBJECT_NAME(self)));
      return GST_FLOW_ERROR;
    }
    GST_CUDA_MIXER2_LOCK(self);
    self->newseg_pending = FALSE;
  }

  const GstClockTime uStart = GST_CLOCK_TIME_IS_VALID(self->segment.position)
                                  ? self->segment.position
                                  : self->segment.start;
  GstClockTime uEnd =
      self->segment.start + self->ts_offset +
      gst_util_uint64_scale_round(self->nframes + 1, GST_SECOND * GST_VIDEO_INFO_FPS_D(&self->info),
                                  GST_VIDEO_INFO_FPS_N(&self->info));

  if (GST_CLOCK_TIME_IS_VALID(self->segment.stop) && uEnd >= self->segment.stop) {
    GST_DEBUG_OBJECT(self, "Segment done");
    if (!(self->segment.flags & GST_SEGMENT_FLAG_SEGMENT)) {
      GST_CUDA_MIXER2_UNLOCK(self);
      gst_pad_push_event(self->srcpad, gst_event_new_eos());
      return GST_FLOW_EOS;
    }
    if (self->bSegmentDone || uStart >= self->segment.stop) {
      const SSegmentDone xDone = gst_cudamixer2_segment_done(self);
      GST_CUDA_MIXER2_UNLOCK(self);
      return SendSegmentDone(self, xDone);
    }
    uEnd = self->segment.stop;
  }

  if (self->pending_tags) {
    gst_pad_push_event(self->srcpad, gst_event_new_tag(self->pending_tags));
    self->pending_tags = NULL;
  }

  switch (gst_cudamixer2_fill_queues(self, uStart, uEnd)) {
    case FILL_ERROR:
      GST_CUDA_MIXER2_UNLOCK(self);
      GST_ERROR_OBJECT(self, "Error collecting buffers");
      GST_ELEMENT_ERROR(self, STREAM, FAILED, ("Error collecting buffers"),
                        ("a camera delivered a buffer without timestamp"));
      return GST_FLOW_ERROR;
    case FILL_NEED_MORE:
      GST_DEBUG_OBJECT(self, "Need more data for decisions");
      GST_CUDA_MIXER2_UNLOCK(self);
      return GST_FLOW_OK;
    case FILL_ALL_EOS:
      GST_CUDA_MIXER2_UNLOCK(self);
      GST_DEBUG_OBJECT(self, "All sinkpads are EOS -- forwarding");
      gst_pad_push_event(self->srcpad, gst_event_new_eos());
      return GST_FLOW_EOS;
    case FILL_GO_ON:
      break;
  }

  SMixFrame xFrame;
  GstFlowReturn eResult = GST_FLOW_OK;
  const GstClockTimeDiff iJitter = gst_cudamixer2_do_qos(self, uStart);
  if (iJitter > 0) {
    Qv::OperatorMessage(QV_TEXT_HAVE_JITTER);
    GST_CUDA_MIXER2_OBJECT_LOCK(self);
    const guint64 uDropped = ++self->qos_dropped;
    const guint64 uProcessed = self->qos_processed;
    const gdouble dProportion = self->proportion;
    GST_CUDA_MIXER2_OBJECT_UNLOCK(self);
    GstMessage* pxQos = gst_message_new_qos(
        GST_OBJECT(self), FALSE,
        gst_segment_to_running_time(&self->segment, GST_FORMAT_TIME, uStart),
        gst_segment_to_stream_time(&self->segment, GST_FORMAT_TIME, uStart), uStart, uEnd - uStart);
    gst_message_set_qos_values(pxQos, iJitter, dProportion, 1000000);
    gst_message_set_qos_stats(pxQos, GST_FORMAT_BUFFERS, uProcessed, uDropped);
    xFrame.xMessages.push_back(pxQos);
  } else {
    eResult = g_atomic_int_get(&self->mix_type) == MixType_VideoWall
                  ? gst_cudamixer2_video_wall(self, xFrame)
                  : gst_cudamixer2_camera_selector(self, xFrame);
    if (eResult == GST_FLOW_OK) {
      GST_CUDA_MIXER2_OBJECT_LOCK(self);
      self->qos_processed++;
      GST_CUDA_MIXER2_OBJECT_UNLOCK(self);
    }
  }
  // A failed frame leaves the time line where it was.
  if (eResult == GST_FLOW_OK) {
    self->segment.position = uEnd;
    self->nframes++;
  }
  GstCaps* pxNewCaps = self->pxRenegotiate;
  self->pxRenegotiate = NULL;
  GST_CUDA_MIXER2_UNLOCK(self);

  if (pxNewCaps) {
    GST_CUDA_MIXER2_LOCK(self);
    gboolean bOk = gst_cudamixer2_update_converters(self, xFrame.xMessages);
    GST_CUDA_MIXER2_UNLOCK(self);
    if (bOk) bOk = gst_cudamixer2_update_src_caps(self, pxNewCaps, xFrame.xMessages);
    if (!bOk) {
      gchar* szCaps = gst_caps_to_string(pxNewCaps);
      xFrame.xMessages.push_back(gst_cudamixer2_new_message(
          self, GST_MESSAGE_ERROR, "Cannot renegotiate the output.",
          std::string("new input caps ") + szCaps, GST_CORE_ERROR, GST_CORE_ERROR_NEGOTIATION));
      g_free(szCaps);
      eResult = GST_FLOW_NOT_NEGOTIATED;
      gst_buffer_replace(&xFrame.pxBuffer, NULL);
    }
    gst_caps_unref(pxNewCaps);
    SendCaps(self);
  }

  gst_cudamixer2_post_messages(self, xFrame.xMessages);
  if (eResult != GST_FLOW_OK) return eResult;
  if (!xFrame.pxBuffer) return GST_FLOW_OK;
  GST_LOG_OBJECT(self, "Pushing buffer with ts %" GST_TIME_FORMAT " and duration %" GST_TIME_FORMAT,
                 GST_TIME_ARGS(GST_BUFFER_PTS(xFrame.pxBuffer)),
                 GST_TIME_ARGS(GST_BUFFER_DURATION(xFrame.pxBuffer)));
  return gst_pad_push(self->srcpad, xFrame.pxBuffer);
}

/* Clipping */

GstFlowReturn gst_cudamixer2_sink_clip(GstCollectPads* /*pads*/, GstCollectData* cdata,
                                       GstBuffer* buf, GstBuffer** outbuf, gpointer user_data) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(user_data);
  GstCudaMixer2Pad* pxPad = GST_CUDA_MIXER2_PAD(cdata->pad);
  GstCudaMixer2Collect* pxCol = reinterpret_cast<GstCudaMixer2Collect*>(cdata);

  const GstClockTime uStart = GST_BUFFER_PTS(buf);
  if (!GST_CLOCK_TIME_IS_VALID(uStart)) {
    GST_ERROR_OBJECT(pxPad, "Timestamped buffers required!");
    GST_ELEMENT_ERROR(self, STREAM, FAILED, ("Timestamped buffers required!"),
                      ("a buffer without timestamp on %s", GST_PAD_NAME(pxPad)));
    // Handed back so that GstCollectPads releases it and the push fails with the error.
    *outbuf = buf;
    return GST_FLOW_ERROR;
  }

  GstClockTime uDuration = GST_BUFFER_DURATION(buf);
  if (!GST_CLOCK_TIME_IS_VALID(uDuration)) {
    if (GST_VIDEO_INFO_FPS_N(&pxPad->info) <= 0 || GST_VIDEO_INFO_FPS_D(&pxPad->info) <= 0) {
      *outbuf = buf;
      return GST_FLOW_OK;
    }
    uDuration = gst_util_uint64_scale_int_round(GST_SECOND, GST_VIDEO_INFO_FPS_D(&pxPad->info),
                                                GST_VIDEO_INFO_FPS_N(&pxPad->info));
    if (!GST_CLOCK_TIME_IS_VALID(uDuration)) {
      *outbuf = buf;
      return GST_FLOW_OK;
    }
  }

  GstSegment* pxSegment = PadSegment(pxPad);
  GstClockTime uEnd = uStart + uDuration;
  if (GST_CLOCK_TIME_IS_VALID(pxSegment->stop)) uEnd = MIN(uEnd, pxSegment->stop);
  uEnd = gst_segment_to_running_time(pxSegment, GST_FORMAT_TIME, uEnd);

  GST_CUDA_MIXER2_LOCK(self);
  const gdouble dRate = ABS(self->segment.rate);
  GST_CUDA_MIXER2_UNLOCK(self);
  if (GST_CLOCK_TIME_IS_VALID(uEnd) && dRate != 1.0) uEnd = static_cast<GstClockTime>(uEnd * dRate);

  if (pxCol->buffer && GST_CLOCK_TIME_IS_VALID(uEnd) && uEnd < pxCol->end_time) {
    gst_buffer_unref(buf);
    *outbuf = NULL;
    return GST_FLOW_OK;
  }
  *outbuf = buf;
  return GST_FLOW_OK;
}
