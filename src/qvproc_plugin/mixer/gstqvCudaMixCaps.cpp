// The mixer's negotiation: what a sink pad takes, the output format and its caps.
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "QvDevice.h"
#include "QvException.h"
#include "QvMessage.h"
#include "common/gstqvSysMemAlloc.h"
#include "mixer/gstqvCudaMix.h"
#include "mixer/gstqvCudaMixPriv.h"

#define GST_CAT_DEFAULT gst_cudamixer2_debug

/* Negotiation */

// What a sink pad may take once the output is known: any size, rate and format of the output's
// media type, pixel aspect ratio and interlace mode.
static GstCaps* gst_cudamixer2_relaxed_caps(GstCudaMixer2* self) {
  GstCaps* pxCaps = gst_pad_get_current_caps(self->srcpad);
  if (!pxCaps) pxCaps = gst_pad_get_pad_template_caps(self->srcpad);
  pxCaps = gst_caps_make_writable(pxCaps);
  for (guint i = 0; i < gst_caps_get_size(pxCaps); ++i) {
    GstStructure* s = gst_caps_get_structure(pxCaps, i);
    gst_structure_set(s, "width", GST_TYPE_INT_RANGE, 1, G_MAXINT, "height", GST_TYPE_INT_RANGE, 1,
                      G_MAXINT, "framerate", GST_TYPE_FRACTION_RANGE, 0, 1, G_MAXINT, 1, NULL);
    if (!gst_structure_has_field(s, "pixel-aspect-ratio"))
      gst_structure_set(s, "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1, NULL);
    gst_structure_remove_fields(s, "colorimetry", "chroma-site", "format", NULL);
  }
  return pxCaps;
}

static gboolean gst_cudamixer2_pad_sink_acceptcaps(GstPad* pad, GstCudaMixer2* self,
                                                   GstCaps* caps) {
  GstCaps* pxRelaxed = gst_cudamixer2_relaxed_caps(self);
  const gboolean bOk = gst_caps_can_intersect(caps, pxRelaxed);
  GST_DEBUG_OBJECT(pad, "%saccepted caps %" GST_PTR_FORMAT " against %" GST_PTR_FORMAT,
                   bOk ? "" : "not ", caps, pxRelaxed);
  gst_caps_unref(pxRelaxed);
  return bOk;
}

gboolean gst_cudamixer2_sink_query(GstCollectPads* /*pads*/, GstCollectData* cdata, GstQuery* query,
                                   gpointer user_data) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(user_data);
  switch (GST_QUERY_TYPE(query)) {
    case GST_QUERY_CAPS: {
      GstCaps* pxFilter = NULL;
      gst_query_parse_caps(query, &pxFilter);
      GstCaps* pxCaps = gst_cudamixer2_relaxed_caps(self);
      if (pxFilter) {
        GstCaps* pxTmp = gst_caps_intersect_full(pxFilter, pxCaps, GST_CAPS_INTERSECT_FIRST);
        gst_caps_unref(pxCaps);
        pxCaps = pxTmp;
      }
      GstCaps* pxTemplate = gst_pad_get_pad_template_caps(self->srcpad);
      GstCaps* pxResult = gst_caps_intersect(pxCaps, pxTemplate);
      gst_caps_unref(pxTemplate);
      gst_caps_unref(pxCaps);
      gst_query_set_caps_result(query, pxResult);
      gst_caps_unref(pxResult);
      return TRUE;
    }
    case GST_QUERY_ACCEPT_CAPS: {
      GstCaps* pxCaps = NULL;
      gst_query_parse_accept_caps(query, &pxCaps);
      gst_query_set_accept_caps_result(
          query, gst_cudamixer2_pad_sink_acceptcaps(cdata->pad, self, pxCaps));
      return TRUE;
    }
    case GST_QUERY_ALLOCATION:
      return ProposeAllocation(NULL, NULL, query);
    default:
      return gst_collect_pads_query_default(self->collect, cdata, query, FALSE);
  }
}

// Picks the output format from the pads. Runs with the stream lock of `collect` and `lock` held.
gboolean gst_cudamixer2_update_converters(GstCudaMixer2* self,
                                          std::vector<GstMessage*>& xMessages) {
  GstCaps* pxDownstream = gst_pad_get_allowed_caps(self->srcpad);
  if (!pxDownstream || gst_caps_is_empty(pxDownstream)) {
    if (pxDownstream) gst_caps_unref(pxDownstream);
    return FALSE;
  }

  std::map<GstVideoFormat, gint> xCounts;
  gint iBestCount = 0;
  GstVideoFormat eBest = GST_VIDEO_FORMAT_UNKNOWN;
  GstVideoInfo xBest;
  gst_video_info_init(&xBest);
  gboolean bAnyAlpha = FALSE;
  gboolean bAlphaChosen = FALSE;

  for (GSList* l = self->sinkpads; l; l = l->next) {
    GstCudaMixer2Pad* pxPad = static_cast<GstCudaMixer2Pad*>(l->data);
    if (!pxPad->info.finfo) continue;
    if (GST_VIDEO_INFO_HAS_ALPHA(&pxPad->info))
      bAnyAlpha = TRUE;
    else if (bAlphaChosen)
      continue;
    const GstVideoFormat eFormat = GST_VIDEO_INFO_FORMAT(&pxPad->info);
    if (eFormat == GST_VIDEO_FORMAT_UNKNOWN) continue;
    GstCaps* pxPadCaps = gst_video_info_to_caps(&pxPad->info);
    if (!pxPadCaps) continue;
    pxPadCaps = gst_caps_make_writable(pxPadCaps);
    for (guint i = 0; i < gst_caps_get_size(pxPadCaps); ++i)
      gst_structure_remove_fields(gst_caps_get_structure(pxPadCaps, i), "width", "height",
                                  "framerate", "pixel-aspect-ratio", "interlace-mode", NULL);
    const gboolean bFits = gst_caps_can_intersect(pxPadCaps, pxDownstream);
    gst_caps_unref(pxPadCaps);
    if (!bFits) continue;

    const gint iCount = ++xCounts[eFormat];
    if (!bAlphaChosen && GST_VIDEO_INFO_HAS_ALPHA(&pxPad->info)) {
      // An alpha format beats any count.
      eBest = eFormat;
      bAlphaChosen = TRUE;
      iBestCount = iCount;
      xBest = pxPad->info;
    } else if (iCount > iBestCount) {
      eBest = eFormat;
      iBestCount = iCount;
      xBest = pxPad->info;
    }
  }

  if (eBest == GST_VIDEO_FORMAT_UNKNOWN) {
    // Bayer input always ends here: it parses as an encoded format that no output offers.
    pxDownstream = gst_caps_fixate(pxDownstream);
    gst_video_info_from_caps(&xBest, pxDownstream);
  }
  gst_caps_unref(pxDownstream);

  if (bAnyAlpha && !GST_VIDEO_INFO_HAS_ALPHA(&xBest)) {
    static const char* szText =
        "At least one of the input pads contains alpha, but downstream can't support alpha.";
    static const char* szDebug =
        "Either convert your inputs to not contain alpha or add a videoconvert after the mixer";
    xMessages.push_back(gst_cudamixer2_new_message(self, GST_MESSAGE_ERROR, szText, szDebug,
                                                   GST_CORE_ERROR, GST_CORE_ERROR_NEGOTIATION));
    GST_WARNING_OBJECT(self, "error: %s", szText);
    GST_WARNING_OBJECT(self, "error: %s", szDebug);
    return FALSE;
  }

  if (GST_VIDEO_INFO_FPS_N(&xBest) != GST_VIDEO_INFO_FPS_N(&self->info) ||
      GST_VIDEO_INFO_FPS_D(&xBest) != GST_VIDEO_INFO_FPS_D(&self->info)) {
    // The time line goes on from where it is, so the next interval has no jump.
    if (GST_CLOCK_TIME_IS_VALID(self->segment.position)) {
      self->ts_offset = self->segment.position - self->segment.start;
    } else if (GST_VIDEO_INFO_FPS_N(&self->info) > 0) {
      self->ts_offset +=
          gst_util_uint64_scale_round(self->nframes, GST_SECOND * GST_VIDEO_INFO_FPS_D(&self->info),
                                      GST_VIDEO_INFO_FPS_N(&self->info));
    }
    self->nframes = 0;
  }
  self->info = xBest;

  gchar* szColorimetry = gst_video_colorimetry_to_string(&xBest.colorimetry);
  gchar* szChroma = gst_video_chroma_site_to_string(xBest.chroma_site);
  GST_DEBUG_OBJECT(self, "The output format will now be : %d with colorimetry : %s and chroma : %s",
                   GST_VIDEO_INFO_FORMAT(&xBest), GST_STR_NULL(szColorimetry),
                   GST_STR_NULL(szChroma));
  g_free(szColorimetry);
  g_free(szChroma);
  return TRUE;
}

// Picks width, height and rate of the output and makes its caps. Runs with the stream lock of
// `collect` held.
gboolean gst_cudamixer2_update_src_caps(GstCudaMixer2* self, GstCaps* caps,
                                        std::vector<GstMessage*>& xMessages) {
  CMixLock xSetCaps(&self->setcaps_lock);
  CMixLock xLock(&self->lock);

  gint iWidth = 0, iHeight = 0, iFpsN = 0, iFpsD = 1;
  gdouble dBestFps = 0.0;
  for (GSList* l = self->sinkpads; l; l = l->next) {
    const GstVideoInfo& xPad = static_cast<GstCudaMixer2Pad*>(l->data)->info;
    if (GST_VIDEO_INFO_WIDTH(&xPad) == 0 || GST_VIDEO_INFO_HEIGHT(&xPad) == 0) continue;
    iWidth = MAX(iWidth, GST_VIDEO_INFO_WIDTH(&xPad));
    iHeight = MAX(iHeight, GST_VIDEO_INFO_HEIGHT(&xPad));
    gdouble dFps = 0.0;
    if (GST_VIDEO_INFO_FPS_D(&xPad) != 0)
      gst_util_fraction_to_double(GST_VIDEO_INFO_FPS_N(&xPad), GST_VIDEO_INFO_FPS_D(&xPad), &dFps);
    if (dFps > dBestFps) {
      dBestFps = dFps;
      iFpsN = GST_VIDEO_INFO_FPS_N(&xPad);
      iFpsD = GST_VIDEO_INFO_FPS_D(&xPad);
    }
  }
  // Every wall frame is the whole mosaic: downstream takes that size or nothing.
  const bool bWall = g_atomic_int_get(&self->mix_type) == MixType_VideoWall;
  if (bWall) {
    iWidth = kWallWidth;
    iHeight = kWallHeight;
  }
  if (dBestFps == 0.0 || iFpsN <= 0 || iFpsD <= 0) {
    iFpsN = 25;
    iFpsD = 1;
  }
  if (iWidth <= 0 || iHeight <= 0) {
    // The source caps wait for a pad with a size.
    return TRUE;
  }
  if (GST_VIDEO_INFO_FORMAT(&self->info) == GST_VIDEO_FORMAT_UNKNOWN) {
    GST_DEBUG_OBJECT(self, "no output format to make caps of");
    return FALSE;
  }
  if ((iFpsN != GST_VIDEO_INFO_FPS_N(&self->info) || iFpsD != GST_VIDEO_INFO_FPS_D(&self->info)) &&
      GST_CLOCK_TIME_IS_VALID(self->segment.position)) {
    self->ts_offset = self->segment.position - self->segment.start;
    self->nframes = 0;
  }

  GstVideoInfo xInfo;
  gst_video_info_set_format(&xInfo, GST_VIDEO_INFO_FORMAT(&self->info), iWidth, iHeight);
  GST_VIDEO_INFO_PAR_N(&xInfo) = GST_VIDEO_INFO_PAR_N(&self->info);
  GST_VIDEO_INFO_PAR_D(&xInfo) = GST_VIDEO_INFO_PAR_D(&self->info);
  GST_VIDEO_INFO_FPS_N(&xInfo) = iFpsN;
  GST_VIDEO_INFO_FPS_D(&xInfo) = iFpsD;

  GstCaps* pxPeer = gst_pad_peer_query_caps(self->srcpad, NULL);
  if (pxPeer && !gst_caps_can_intersect(pxPeer, caps)) {
    // Downstream can't take the pad's caps as they are: let it choose the rate, and in the
    // selector also the size, nearest to the ones chosen here.
    GstCaps* pxRelaxed = gst_caps_make_writable(gst_caps_ref(caps));
    for (guint i = 0; i < gst_caps_get_size(pxRelaxed); ++i) {
      GstStructure* s = gst_caps_get_structure(pxRelaxed, i);
      gst_structure_set(s, "framerate", GST_TYPE_FRACTION_RANGE, 0, 1, G_MAXINT, 1, NULL);
      if (bWall)
        gst_structure_set(s, "width", G_TYPE_INT, iWidth, "height", G_TYPE_INT, iHeight, NULL);
      else
        gst_structure_set(s, "width", GST_TYPE_INT_RANGE, 1, G_MAXINT, "height", GST_TYPE_INT_RANGE,
                          1, G_MAXINT, NULL);
    }
    GstCaps* pxChosen = gst_caps_intersect(pxRelaxed, pxPeer);
    gst_caps_unref(pxRelaxed);
    if (gst_caps_is_empty(pxChosen)) {
      GST_DEBUG_OBJECT(self, "empty caps");
      if (bWall) {
        gchar* szPeer = gst_caps_to_string(pxPeer);
        xMessages.push_back(gst_cudamixer2_new_message(
            self, GST_MESSAGE_ERROR,
            "Downstream cannot take the video wall's size of " + std::to_string(iWidth) + "x" +
                std::to_string(iHeight) + ".",
            std::string("downstream takes ") + szPeer, GST_CORE_ERROR, GST_CORE_ERROR_NEGOTIATION));
        g_free(szPeer);
      }
      gst_caps_unref(pxChosen);
      gst_caps_unref(pxPeer);
      return FALSE;
    }
    pxChosen = gst_caps_truncate(pxChosen);
    pxChosen = gst_caps_make_writable(pxChosen);
    GstStructure* s = gst_caps_get_structure(pxChosen, 0);
    gst_structure_fixate_field_nearest_int(s, "width", iWidth);
    gst_structure_fixate_field_nearest_int(s, "height", iHeight);
    gst_structure_fixate_field_nearest_fraction(s, "framerate", iFpsN, iFpsD);
    gst_structure_get_int(s, "width", &GST_VIDEO_INFO_WIDTH(&xInfo));
    gst_structure_get_int(s, "height", &GST_VIDEO_INFO_HEIGHT(&xInfo));
    gst_structure_get_fraction(s, "framerate", &GST_VIDEO_INFO_FPS_N(&xInfo),
                               &GST_VIDEO_INFO_FPS_D(&xInfo));
    gst_caps_unref(pxChosen);
  }
  if (pxPeer) gst_caps_unref(pxPeer);

  GstCaps* pxNew = gst_video_info_to_caps(&xInfo);
  xLock.Unlock();
  GstVideoInfo xParsed;
  if (!pxNew || !gst_video_info_from_caps(&xParsed, pxNew)) {
    if (pxNew) gst_caps_unref(pxNew);
    return FALSE;
  }

  CMixLock xInfoLock(&self->lock);
  if (GST_VIDEO_INFO_FPS_N(&xParsed) != GST_VIDEO_INFO_FPS_N(&self->info) ||
      GST_VIDEO_INFO_FPS_D(&xParsed) != GST_VIDEO_INFO_FPS_D(&self->info)) {
    if (GST_CLOCK_TIME_IS_VALID(self->segment.position)) {
      self->ts_offset = self->segment.position - self->segment.start;
      self->nframes = 0;
    }
    gst_cudamixer2_reset_qos(self);
  }
  self->info = xParsed;
  xInfoLock.Unlock();

  if (self->current_caps && gst_caps_is_equal(self->current_caps, pxNew)) {
    gst_caps_unref(pxNew);
  } else {
    GST_DEBUG_OBJECT(self, "new output caps %" GST_PTR_FORMAT, pxNew);
    gst_caps_take(&self->current_caps, pxNew);
    self->send_caps = TRUE;
  }
  return TRUE;
}

gboolean gst_cudamixer2_pad_sink_setcaps(GstPad* pad, GstCudaMixer2* self, GstCaps* caps) {
  GstCudaMixer2Pad* pxPad = GST_CUDA_MIXER2_PAD(pad);
  GstVideoInfo xInfo;
  if (!gst_video_info_from_caps(&xInfo, caps)) {
    GST_ERROR_OBJECT(pad, "Failed to parse caps");
    return FALSE;
  }

  GST_COLLECT_PADS_STREAM_LOCK(self->collect);
  GST_CUDA_MIXER2_LOCK(self);
  if (GST_VIDEO_INFO_FORMAT(&self->info) != GST_VIDEO_FORMAT_UNKNOWN &&
      (GST_VIDEO_INFO_PAR_N(&self->info) != GST_VIDEO_INFO_PAR_N(&xInfo) ||
       GST_VIDEO_INFO_PAR_D(&self->info) != GST_VIDEO_INFO_PAR_D(&xInfo) ||
       GST_VIDEO_INFO_INTERLACE_MODE(&self->info) != GST_VIDEO_INFO_INTERLACE_MODE(&xInfo))) {
    GST_DEBUG_OBJECT(pad,
                     "got input caps %" GST_PTR_FORMAT ", but current caps are %" GST_PTR_FORMAT,
                     caps, self->current_caps);
    GST_CUDA_MIXER2_UNLOCK(self);
    GST_COLLECT_PADS_STREAM_UNLOCK(self->collect);
    return FALSE;
  }
  GstCudaMixer2Collect* pxCol = pxPad->mixcol;
  const bool bDefer = pxCol->buffer || pxCol->queued;
  gst_caps_replace(&pxCol->pending_caps, bDefer ? caps : NULL);
  if (bDefer) {
    // Buffers of the previous caps are still held: the caps wait for the next buffer.
    GST_CUDA_MIXER2_UNLOCK(self);
    GST_COLLECT_PADS_STREAM_UNLOCK(self->collect);
    return TRUE;
  }
  pxPad->info = xInfo;
  pxPad->bWarnedTile = FALSE;
  std::vector<GstMessage*> xMessages;
  gboolean bOk = gst_cudamixer2_update_converters(self, xMessages);
  GST_CUDA_MIXER2_UNLOCK(self);
  if (bOk) bOk = gst_cudamixer2_update_src_caps(self, caps, xMessages);
  GST_COLLECT_PADS_STREAM_UNLOCK(self->collect);
  gst_cudamixer2_post_messages(self, xMessages);
  return bOk;
}
