/**
 * SECTION:element-qvcudamix
 *
 * Lines up to six camera branches on one output time line with GstCollectPads. Per output
 * frame it either hands on the current buffer of one camera ("selector", the default; the
 * camera comes from the "eventStruct" upstream event of the display sink) or copies the
 * top-left 1280 bytes by 1338 rows of each camera's raw device image into one 3840x2676 raw
 * mosaic on the device ("videowall"). It never blends and never converts.
 *
 * |[
 * gst-launch-1.0 qvcudamix name=mix type=videowall ! qvcudadebayer ! qvcudasink \
 *     videotestsrc ! video/x-raw,format=GRAY8,width=3840,height=2160 ! qvcudaupload ! mix. \
 *     videotestsrc ! video/x-raw,format=GRAY8,width=3840,height=2160 ! qvcudaupload ! mix.
 * ]|
 */
#include "mixer/gstqvCudaMix.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>

#include "QvDevice.h"
#include "QvException.h"
#include "QvMessage.h"
#include "QvOperatorTexts.h"
#include "common/gstqvSysMemAlloc.h"
#include "mixer/gstqvCudaMixPriv.h"

GST_DEBUG_CATEGORY(gst_cudamixer2_debug);
#define GST_CAT_DEFAULT gst_cudamixer2_debug

#define MIXER_CAPS                                                                                \
  "video/x-raw, format = (string) { GRAY8, RGBA, GRAY16_LE, RGBA64_LE }, width = (int) [ 1, max " \
  "], height = (int) [ "                                                                          \
  "1, max ], framerate = (fraction) [ 0, max ];video/x-bayer,format=(string){BA81,bggr,grbg,"     \
  "gbrg,rggb},width=(int)[1,MAX],height=(int)[1,MAX],framerate=(fraction)[0/1,MAX]"

static GstStaticPadTemplate src_factory =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(MIXER_CAPS));
static GstStaticPadTemplate sink_factory =
    GST_STATIC_PAD_TEMPLATE("sink_%u", GST_PAD_SINK, GST_PAD_REQUEST, GST_STATIC_CAPS(MIXER_CAPS));

#define DEFAULT_MIX_TYPE MixType_Selector

enum { PROP_0, PROP_TYPE };

// What gst_cudamixer2_fill_queues tells the pass.

/* GstCudaMixer2Pad */

G_DEFINE_TYPE(GstCudaMixer2Pad, gst_cudamixer2_pad, GST_TYPE_PAD)

static void gst_cudamixer2_pad_get_property(GObject* object, guint prop_id, GValue* /*value*/,
                                            GParamSpec* pspec) {
  G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
}

static void gst_cudamixer2_pad_set_property(GObject* object, guint prop_id, const GValue* /*value*/,
                                            GParamSpec* pspec) {
  G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
}

static void gst_cudamixer2_pad_class_init(GstCudaMixer2PadClass* klass) {
  GObjectClass* pxObjectClass = G_OBJECT_CLASS(klass);
  pxObjectClass->get_property = gst_cudamixer2_pad_get_property;
  pxObjectClass->set_property = gst_cudamixer2_pad_set_property;
}

static void gst_cudamixer2_pad_init(GstCudaMixer2Pad* /*pad*/) {}

/* GstCudaMixer2 */

static void gst_cudamixer2_child_proxy_init(gpointer g_iface, gpointer iface_data);

G_DEFINE_TYPE_WITH_CODE(GstCudaMixer2, gst_cudamixer2, GST_TYPE_ELEMENT,
                        G_IMPLEMENT_INTERFACE(GST_TYPE_CHILD_PROXY, gst_cudamixer2_child_proxy_init)
                            GST_DEBUG_CATEGORY_INIT(gst_cudamixer2_debug, "qvcudamix", 0,
                                                    "qvvideoproc camera mixer"))

static void gst_cudamixer2_set_property(GObject* object, guint prop_id, const GValue* value,
                                        GParamSpec* pspec);
static void gst_cudamixer2_get_property(GObject* object, guint prop_id, GValue* value,
                                        GParamSpec* pspec);
static void gst_cudamixer2_constructed(GObject* object);
static void gst_cudamixer2_dispose(GObject* object);
static void gst_cudamixer2_finalize(GObject* object);
static GstPad* gst_cudamixer2_request_new_pad(GstElement* element, GstPadTemplate* templ,
                                              const gchar* req_name, const GstCaps* caps);
static void gst_cudamixer2_release_pad(GstElement* element, GstPad* pad);
static GstStateChangeReturn gst_cudamixer2_change_state(GstElement* element,
                                                        GstStateChange transition);
static gboolean gst_cudamixer2_src_query(GstPad* pad, GstObject* parent, GstQuery* query);
static gboolean gst_cudamixer2_src_event(GstPad* pad, GstObject* parent, GstEvent* event);
static gboolean gst_cudamixer2_sink_event(GstCollectPads* pads, GstCollectData* cdata,
                                          GstEvent* event, gpointer user_data);
static void gst_cudamixer2_reset(GstCudaMixer2* self);

static void gst_cudamixer2_class_init(GstCudaMixer2Class* klass) {
  GObjectClass* pxObjectClass = G_OBJECT_CLASS(klass);
  GstElementClass* pxElementClass = GST_ELEMENT_CLASS(klass);

  pxObjectClass->set_property = gst_cudamixer2_set_property;
  pxObjectClass->get_property = gst_cudamixer2_get_property;
  pxObjectClass->dispose = gst_cudamixer2_dispose;
  pxObjectClass->finalize = gst_cudamixer2_finalize;
  pxObjectClass->constructed = gst_cudamixer2_constructed;

  pxElementClass->request_new_pad = GST_DEBUG_FUNCPTR(gst_cudamixer2_request_new_pad);
  pxElementClass->release_pad = GST_DEBUG_FUNCPTR(gst_cudamixer2_release_pad);
  pxElementClass->change_state = GST_DEBUG_FUNCPTR(gst_cudamixer2_change_state);

  gst_element_class_add_static_pad_template(pxElementClass, &src_factory);
  gst_element_class_add_static_pad_template(pxElementClass, &sink_factory);
  gst_element_class_set_static_metadata(
      pxElementClass, "Qv device camera mixer", "Filter/Editor/Video/Compositor",
      "Lines up to six camera streams on one time line and passes on the selected camera's "
      "frame (selector) or packs their raw device images into one mosaic (videowall)",
      "qvvideoproc developers");

  g_object_class_install_property(
      pxObjectClass, PROP_TYPE,
      g_param_spec_string("type", "Mixer type",
                          "'selector' passes on one camera's buffer, 'videowall' packs the raw "
                          "images of up to six cameras into one 3840x2676 mosaic; other values "
                          "are refused with a warning",
                          "selector",
                          static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));

  // The pad type is known from here on, so that pipelines can name its properties.
  g_type_class_ref(GST_TYPE_CUDA_MIXER2_PAD);
}

static void gst_cudamixer2_init(GstCudaMixer2* self) {
  GstElementClass* pxClass = GST_ELEMENT_GET_CLASS(self);
  self->srcpad =
      gst_pad_new_from_template(gst_element_class_get_pad_template(pxClass, "src"), "src");
  gst_pad_set_query_function(self->srcpad, GST_DEBUG_FUNCPTR(gst_cudamixer2_src_query));
  gst_pad_set_event_function(self->srcpad, GST_DEBUG_FUNCPTR(gst_cudamixer2_src_event));
  gst_element_add_pad(GST_ELEMENT(self), self->srcpad);

  self->collect = gst_collect_pads_new();
  gst_collect_pads_set_function(self->collect, gst_cudamixer2_collected, self);
  gst_collect_pads_set_event_function(self->collect, gst_cudamixer2_sink_event, self);
  gst_collect_pads_set_query_function(self->collect, gst_cudamixer2_sink_query, self);
  gst_collect_pads_set_clip_function(self->collect, gst_cudamixer2_sink_clip, self);

  self->current_caps = NULL;
  self->pending_tags = NULL;
  g_mutex_init(&self->lock);
  g_mutex_init(&self->setcaps_lock);
  self->mix_type = DEFAULT_MIX_TYPE;

  gst_cudamixer2_reset(self);
  self->current_camera = 0;

  self->stream = nullptr;
  try {
    self->stream = Qv::Device::CreateStream();
  } catch (const Qv::IException& e) {
    // No device yet: the wall tries again at its first frame and reports there.
    GST_DEBUG_OBJECT(self, "no stream: %s", e.GetMessageText());
  }
}

static void gst_cudamixer2_constructed(GObject* object) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(object);
  gchar* szName = g_strconcat(GST_OBJECT_NAME(self), "-collectpads", NULL);
  gst_object_set_name(GST_OBJECT(self->collect), szName);
  g_free(szName);
  G_OBJECT_CLASS(gst_cudamixer2_parent_class)->constructed(object);
}

static void gst_cudamixer2_set_property(GObject* object, guint prop_id, const GValue* value,
                                        GParamSpec* pspec) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(object);
  switch (prop_id) {
    case PROP_TYPE: {
      const gchar* szType = g_value_get_string(value);
      Qv::OperatorMessage(QV_TEXT_SETTING_MIXER_TYPE, szType ? szType : "(null)");
      if (g_strcmp0(szType, "selector") == 0) {
        g_atomic_int_set(&self->mix_type, MixType_Selector);
      } else if (g_strcmp0(szType, "videowall") == 0) {
        Qv::OperatorMessage(QV_TEXT_MIXER_TYPE_VIDEOWALL);
        g_atomic_int_set(&self->mix_type, MixType_VideoWall);
      } else {
        g_warning(
            "%s: unknown type '%s' ignored; the mixer stays '%s' (use 'selector' or "
            "'videowall')",
            GST_OBJECT_NAME(self), szType ? szType : "(null)",
            g_atomic_int_get(&self->mix_type) == MixType_Selector ? "selector" : "videowall");
      }
      break;
    }
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
      break;
  }
}

static void gst_cudamixer2_get_property(GObject* object, guint prop_id, GValue* value,
                                        GParamSpec* pspec) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(object);
  switch (prop_id) {
    case PROP_TYPE:
      g_value_set_string(
          value, g_atomic_int_get(&self->mix_type) == MixType_Selector ? "selector" : "videoWall");
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
      break;
  }
}

static void gst_cudamixer2_collect_free(GstCollectData* data) {
  GstCudaMixer2Collect* pxCol = reinterpret_cast<GstCudaMixer2Collect*>(data);
  gst_buffer_replace(&pxCol->buffer, NULL);
  // A buffer waiting for its successor dies with the pad as well.
  gst_buffer_replace(&pxCol->queued, NULL);
  gst_caps_replace(&pxCol->queued_caps, NULL);
  gst_caps_replace(&pxCol->pending_caps, NULL);
}

static bool PadNameInUse(GstCudaMixer2* self, guint uSerial) {
  gchar szName[16];
  g_snprintf(szName, sizeof(szName), "sink_%u", uSerial);
  for (GSList* l = self->sinkpads; l; l = l->next)
    if (g_strcmp0(GST_PAD_NAME(l->data), szName) == 0) return true;
  return false;
}

static GstPad* gst_cudamixer2_request_new_pad(GstElement* element, GstPadTemplate* templ,
                                              const gchar* req_name, const GstCaps* /*caps*/) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(element);
  GstElementClass* pxClass = GST_ELEMENT_GET_CLASS(element);
  if (templ != gst_element_class_get_pad_template(pxClass, "sink_%u")) return NULL;

  CMixLock xLock(&self->lock);
  const bool bNamed = req_name && strlen(req_name) > 5 && g_str_has_prefix(req_name, "sink_");
  guint uSerial =
      bNamed ? static_cast<guint>(g_ascii_strtoull(&req_name[5], NULL, 10)) : self->next_sinkpad;
  // An automatic name takes the next free number, so numbering goes on after it wraps.
  while (!bNamed && PadNameInUse(self, uSerial)) ++uSerial;
  // A name already in use is refused: the element could not add a second pad of that name.
  if (PadNameInUse(self, uSerial)) {
    GST_WARNING_OBJECT(self, "A pad named sink_%u exists already; request refused", uSerial);
    return NULL;
  }
  if (!bNamed || uSerial >= self->next_sinkpad) self->next_sinkpad = uSerial + 1;
  gchar* szName = g_strdup_printf("sink_%u", uSerial);

  GstCudaMixer2Pad* pxPad =
      GST_CUDA_MIXER2_PAD(g_object_new(GST_TYPE_CUDA_MIXER2_PAD, "name", szName, "direction",
                                       templ->direction, "template", templ, NULL));
  g_free(szName);

  GstCudaMixer2Collect* pxCol = reinterpret_cast<GstCudaMixer2Collect*>(
      gst_collect_pads_add_pad(self->collect, GST_PAD(pxPad), sizeof(GstCudaMixer2Collect),
                               gst_cudamixer2_collect_free, TRUE));
  pxPad->mixcol = pxCol;
  pxCol->start_time = GST_CLOCK_TIME_NONE;
  pxCol->end_time = GST_CLOCK_TIME_NONE;

  self->sinkpads = g_slist_append(self->sinkpads, pxPad);
  self->numpads++;
  xLock.Unlock();

  GST_DEBUG_OBJECT(self, "Adding pad %s", GST_PAD_NAME(pxPad));
  gst_element_add_pad(element, GST_PAD(pxPad));
  gst_child_proxy_child_added(GST_CHILD_PROXY(self), G_OBJECT(pxPad), GST_OBJECT_NAME(pxPad));
  return GST_PAD(pxPad);
}

static void gst_cudamixer2_release_pad(GstElement* element, GstPad* pad) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(element);
  GST_COLLECT_PADS_STREAM_LOCK(self->collect);
  GST_CUDA_MIXER2_LOCK(self);
  GSList* pxLink = g_slist_find(self->sinkpads, pad);
  if (!pxLink) {
    g_log(G_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "Unknown pad %s", GST_PAD_NAME(pad));
    GST_CUDA_MIXER2_UNLOCK(self);
    GST_COLLECT_PADS_STREAM_UNLOCK(self->collect);
    return;
  }
  self->sinkpads = g_slist_delete_link(self->sinkpads, pxLink);
  self->numpads--;
  // The output format follows the remaining pads; the caps on the source pad stay until the
  // next caps event on a sink pad.
  std::vector<GstMessage*> xMessages;
  gst_cudamixer2_update_converters(self, xMessages);
  GST_CUDA_MIXER2_UNLOCK(self);
  GST_COLLECT_PADS_STREAM_UNLOCK(self->collect);
  gst_cudamixer2_post_messages(self, xMessages);
  // Announced without the locks: a handler may well ask the element for its children.
  gst_child_proxy_child_removed(GST_CHILD_PROXY(self), G_OBJECT(pad), GST_OBJECT_NAME(pad));

  gst_collect_pads_remove_pad(self->collect, pad);
  gst_element_remove_pad(element, pad);
}

static void gst_cudamixer2_dispose(GObject* object) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(object);
  if (self->pending_tags) {
    gst_tag_list_unref(self->pending_tags);
    self->pending_tags = NULL;
  }
  gst_caps_replace(&self->current_caps, NULL);
  gst_caps_replace(&self->pxRenegotiate, NULL);
  G_OBJECT_CLASS(gst_cudamixer2_parent_class)->dispose(object);
}

static void gst_cudamixer2_finalize(GObject* object) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(object);
  // The pads themselves went with the element's dispose.
  g_slist_free(self->sinkpads);
  self->sinkpads = NULL;
  self->numpads = 0;
  gst_object_unref(self->collect);
  gst_cudamixer2_release_pools(self);
  g_mutex_clear(&self->lock);
  g_mutex_clear(&self->setcaps_lock);
  // The stream is used only during frames; it goes with the element.
  if (self->stream) {
    try {
      Qv::Device::DestroyStream(self->stream);
    } catch (const Qv::IException&) {
    }
    self->stream = nullptr;
  }
  G_OBJECT_CLASS(gst_cudamixer2_parent_class)->finalize(object);
}

/* GstChildProxy */

static GObject* gst_cudamixer2_child_proxy_get_child_by_index(GstChildProxy* child_proxy,
                                                              guint index) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(child_proxy);
  GST_CUDA_MIXER2_LOCK(self);
  GObject* pxChild = G_OBJECT(g_slist_nth_data(self->sinkpads, index));
  if (pxChild) gst_object_ref(pxChild);
  GST_CUDA_MIXER2_UNLOCK(self);
  return pxChild;
}

static guint gst_cudamixer2_child_proxy_get_children_count(GstChildProxy* child_proxy) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(child_proxy);
  GST_CUDA_MIXER2_LOCK(self);
  const guint uCount = static_cast<guint>(self->numpads);
  GST_CUDA_MIXER2_UNLOCK(self);
  GST_INFO_OBJECT(self, "Children Count: %u", uCount);
  return uCount;
}

static void gst_cudamixer2_child_proxy_init(gpointer g_iface, gpointer /*iface_data*/) {
  GstChildProxyInterface* pxIface = static_cast<GstChildProxyInterface*>(g_iface);
  pxIface->get_child_by_index = gst_cudamixer2_child_proxy_get_child_by_index;
  pxIface->get_children_count = gst_cudamixer2_child_proxy_get_children_count;
}

/* Lifecycle */

static void gst_cudamixer2_reset(GstCudaMixer2* self) {
  gst_video_info_init(&self->info);
  self->ts_offset = 0;
  self->nframes = 0;
  gst_segment_init(&self->segment, GST_FORMAT_TIME);
  self->segment.position = GST_CLOCK_TIME_NONE;
  gst_cudamixer2_reset_qos(self);
  for (GSList* l = self->sinkpads; l; l = l->next) {
    GstCudaMixer2Pad* pxPad = static_cast<GstCudaMixer2Pad*>(l->data);
    GstCudaMixer2Collect* pxCol = pxPad->mixcol;
    DropCurrent(pxCol);
    gst_video_info_init(&pxPad->info);
    pxPad->bWarnedTile = FALSE;
    gst_caps_replace(&pxCol->pending_caps, NULL);
  }
  self->newseg_pending = TRUE;
  self->bSegmentDone = FALSE;
  self->bWarnedSeventh = FALSE;
  self->bSeekPending = FALSE;
  self->iFlushStopsPending = 0;
  self->uWarnedCameras = 0;
}

static GstStateChangeReturn gst_cudamixer2_change_state(GstElement* element,
                                                        GstStateChange transition) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(element);
  switch (transition) {
    case GST_STATE_CHANGE_READY_TO_PAUSED:
      self->send_caps = TRUE;
      self->send_stream_start = TRUE;
      gst_segment_init(&self->segment, GST_FORMAT_TIME);
      gst_caps_replace(&self->current_caps, NULL);
      GST_LOG_OBJECT(self, "starting collectpads");
      gst_collect_pads_start(self->collect);
      break;
    case GST_STATE_CHANGE_PAUSED_TO_READY:
      GST_LOG_OBJECT(self, "stopping collectpads");
      gst_collect_pads_stop(self->collect);
      break;
    default:
      break;
  }
  const GstStateChangeReturn eResult =
      GST_ELEMENT_CLASS(gst_cudamixer2_parent_class)->change_state(element, transition);
  if (transition == GST_STATE_CHANGE_PAUSED_TO_READY) {
    gst_cudamixer2_reset(self);
    gst_cudamixer2_release_pools(self);
  }
  return eResult;
}

/* Events and queries */

// The output starts anew at the segment's start. Runs with `lock` held.
static void RestartTimeline(GstCudaMixer2* self) {
  self->ts_offset = 0;
  self->nframes = 0;
  self->segment.position = GST_CLOCK_TIME_NONE;
  self->newseg_pending = TRUE;
  self->bSegmentDone = FALSE;
  gst_cudamixer2_reset_qos(self);
}

static void SetCollectFlushing(GstCollectData* pxData, gboolean bFlushing) {
  const guint uState = static_cast<guint>(pxData->state);
  pxData->state =
      static_cast<GstCollectPadsStateFlags>(bFlushing ? uState | GST_COLLECT_PADS_STATE_FLUSHING
                                                      : uState & ~GST_COLLECT_PADS_STATE_FLUSHING);
}

// The seek's segment takes effect and the time line starts again. Called with `lock`, while no
// pass runs.
static void ApplySeek(GstCudaMixer2* self) {
  self->bSeekPending = FALSE;
  self->segment = self->xSeekSegment;
  if (self->pending_tags) gst_tag_list_unref(self->pending_tags);
  self->pending_tags = NULL;
  for (GSList* l = self->sinkpads; l; l = l->next) {
    GstCudaMixer2Collect* pxCol = static_cast<GstCudaMixer2Pad*>(l->data)->mixcol;
    DropCurrent(pxCol);
  }
  RestartTimeline(self);
}

// At the first flush of a flushing seek every pad flushes, not only the one whose branch
// flushes first: a camera that has flushed and runs again must not be mixed with another's
// frame from before the seek. Each branch's own flush stop opens its pad again. The pads' own
// flushing flag stays as it is, so that the seek still travels up every branch.
static void gst_cudamixer2_flush_all(GstCudaMixer2* self) {
  GST_COLLECT_PADS_STREAM_LOCK(self->collect);
  GST_CUDA_MIXER2_LOCK(self);
  const gboolean bFirst = self->bSeekPending;
  if (bFirst) ApplySeek(self);
  GST_CUDA_MIXER2_UNLOCK(self);
  if (bFirst)
    for (GSList* l = self->collect->data; l; l = l->next) {
      GstCollectData* pxData = static_cast<GstCollectData*>(l->data);
      SetCollectFlushing(pxData, TRUE);
      // Wakes a branch that waits with a buffer here: it returns FLUSHING.
      GstBuffer* pxOld = gst_collect_pads_pop(self->collect, pxData);
      if (pxOld) gst_buffer_unref(pxOld);
    }
  GST_COLLECT_PADS_STREAM_UNLOCK(self->collect);
}

static gboolean gst_cudamixer2_sink_event(GstCollectPads* pads, GstCollectData* cdata,
                                          GstEvent* event, gpointer user_data) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(user_data);
  GstCudaMixer2Collect* pxCol = reinterpret_cast<GstCudaMixer2Collect*>(cdata);
  GST_DEBUG_OBJECT(cdata->pad, "Got %s event: %" GST_PTR_FORMAT, GST_EVENT_TYPE_NAME(event), event);

  switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_CAPS: {
      GstCaps* pxCaps = NULL;
      gst_event_parse_caps(event, &pxCaps);
      const gboolean bOk = gst_cudamixer2_pad_sink_setcaps(cdata->pad, self, pxCaps);
      gst_event_unref(event);
      return bOk;
    }
    case GST_EVENT_FLUSH_START: {
      // The first one also goes downstream, which frees a pass blocked there.
      const gboolean bOk = gst_collect_pads_event_default(pads, cdata, event, FALSE);
      if (g_atomic_int_get(&self->iFlushStopsPending) > 0) gst_cudamixer2_flush_all(self);
      return bOk;
    }
    case GST_EVENT_FLUSH_STOP: {
      // A flush on any pad rewinds the whole output.
      GST_CUDA_MIXER2_LOCK(self);
      DropCurrent(pxCol);
      RestartTimeline(self);
      GST_CUDA_MIXER2_UNLOCK(self);
      // In a flushing seek only the last branch's flush stop goes downstream: until then a
      // camera that has flushed and runs again waits for the others, instead of pushing into
      // an output that the next branch's flush start would make refuse its frames for good.
      const gboolean bHeld = g_atomic_int_get(&self->iFlushStopsPending) > 0 &&
                             !g_atomic_int_dec_and_test(&self->iFlushStopsPending);
      return gst_collect_pads_event_default(pads, cdata, event, bHeld);
    }
    case GST_EVENT_SEGMENT: {
      GstSegment xSegment;
      gst_event_copy_segment(event, &xSegment);
      if (xSegment.format != GST_FORMAT_TIME) {
        // The time line is made of running times: another format can't be placed on it.
        GST_ELEMENT_WARNING(self, STREAM, FORMAT,
                            ("Refused a segment in %s on %s: the mixer takes time segments only.",
                             gst_format_get_name(xSegment.format), GST_PAD_NAME(cdata->pad)),
                            (NULL));
        gst_event_unref(event);
        return FALSE;
      }
      gst_cudamixer2_reset_qos(self);
      break;
    }
    case GST_EVENT_TAG: {
      GstTagList* pxTags = NULL;
      gst_event_parse_tag(event, &pxTags);
      GST_CUDA_MIXER2_LOCK(self);
      GstTagList* pxMerged = gst_tag_list_merge(self->pending_tags, pxTags, GST_TAG_MERGE_APPEND);
      if (self->pending_tags) gst_tag_list_unref(self->pending_tags);
      self->pending_tags = pxMerged;
      GST_CUDA_MIXER2_UNLOCK(self);
      gst_event_unref(event);
      return TRUE;
    }
    default:
      break;
  }
  return gst_collect_pads_event_default(pads, cdata, event, FALSE);
}

static gboolean forward_event_func(const GValue* val, GValue* ret, gpointer user_data) {
  GstEvent* pxEvent = static_cast<GstEvent*>(user_data);
  GstPad* pxPad = GST_PAD(g_value_get_object(val));
  gst_event_ref(pxEvent);
  GST_LOG_OBJECT(pxPad, "About to send event %s", GST_EVENT_TYPE_NAME(pxEvent));
  if (!gst_pad_push_event(pxPad, pxEvent)) {
    g_value_set_boolean(ret, FALSE);
    GST_WARNING_OBJECT(pxPad, "Sending event  %p (%s) failed.", static_cast<void*>(pxEvent),
                       GST_EVENT_TYPE_NAME(pxEvent));
  } else {
    GST_LOG_OBJECT(pxPad, "Sent event  %p (%s).", static_cast<void*>(pxEvent),
                   GST_EVENT_TYPE_NAME(pxEvent));
  }
  // One failed pad doesn't keep the event from the others.
  return TRUE;
}

static gboolean gst_cudamixer2_push_sink_event(GstCudaMixer2* self, GstEvent* event) {
  GST_LOG_OBJECT(self, "Forwarding event %p (%s)", static_cast<void*>(event),
                 GST_EVENT_TYPE_NAME(event));
  GValue xResult = G_VALUE_INIT;
  g_value_init(&xResult, G_TYPE_BOOLEAN);
  g_value_set_boolean(&xResult, TRUE);
  GstIterator* pxIter = gst_element_iterate_sink_pads(GST_ELEMENT(self));
  const GstIteratorResult eIter = gst_iterator_fold(pxIter, forward_event_func, &xResult, event);
  gst_iterator_free(pxIter);
  gst_event_unref(event);
  const gboolean bOk = eIter != GST_ITERATOR_ERROR && g_value_get_boolean(&xResult);
  g_value_unset(&xResult);
  return bOk;
}

// A branch that will send no flush stop for the running flushing seek: when it was the last one
// awaited, the output flushing stops now (or the seek applies now, where nothing flushed), and
// its pad no longer waits for a flush of its own.
static void ReleaseFlushStop(GstCudaMixer2* self, GstPad* pxSinkPad) {
  GST_COLLECT_PADS_STREAM_LOCK(self->collect);
  GstCollectData* pxData = static_cast<GstCollectData*>(gst_pad_get_element_private(pxSinkPad));
  if (pxData && !GST_PAD_IS_FLUSHING(pxSinkPad)) SetCollectFlushing(pxData, FALSE);
  gboolean bStopFlush = FALSE;
  if (g_atomic_int_dec_and_test(&self->iFlushStopsPending)) {
    GST_CUDA_MIXER2_LOCK(self);
    bStopFlush = !self->bSeekPending;
    if (self->bSeekPending) ApplySeek(self);
    GST_CUDA_MIXER2_UNLOCK(self);
  }
  GST_COLLECT_PADS_STREAM_UNLOCK(self->collect);
  if (bStopFlush) gst_pad_push_event(self->srcpad, gst_event_new_flush_stop(TRUE));
}

struct SSeekForward {
  GstCudaMixer2* pxMixer;
  GstEvent* pxSeek;
  gboolean bAccepted;
};

static gboolean ForwardSeek(GstElement* /*element*/, GstPad* pxSinkPad, gpointer user_data) {
  SSeekForward* pxForward = static_cast<SSeekForward*>(user_data);
  GstPad* pxPeer = gst_pad_get_peer(pxSinkPad);
  const gboolean bOk = pxPeer && gst_pad_send_event(pxPeer, gst_event_ref(pxForward->pxSeek));
  if (pxPeer) gst_object_unref(pxPeer);
  pxForward->bAccepted |= bOk;
  if (!bOk) ReleaseFlushStop(pxForward->pxMixer, pxSinkPad);
  return TRUE;
}

static gboolean gst_cudamixer2_src_seek(GstCudaMixer2* self, GstPad* pad, GstEvent* event) {
  gdouble dRate;
  GstFormat eFormat;
  GstSeekFlags eFlags;
  GstSeekType eStartType, eStopType;
  gint64 iStart, iStop;
  gst_event_parse_seek(event, &dRate, &eFormat, &eFlags, &eStartType, &iStart, &eStopType, &iStop);
  if (dRate <= 0.0) {
    GST_ERROR_OBJECT(pad, "Negative rates not supported yet");
    gst_event_unref(event);
    return FALSE;
  }
  if (eFormat != GST_FORMAT_TIME) {
    GST_WARNING_OBJECT(pad, "Refused a seek in %s: the mixer seeks in time only",
                       gst_format_get_name(eFormat));
    gst_event_unref(event);
    return FALSE;
  }
  GST_DEBUG_OBJECT(self, "Handling SEEK event");

  if (eFlags & GST_SEEK_FLAG_FLUSH) {
    // The output flushes once, from the first branch's flush start to the last branch's flush
    // stop; the new segment applies at the first flush (gst_cudamixer2_flush_all).
    GST_CUDA_MIXER2_LOCK(self);
    self->xSeekSegment = self->segment;
    gst_segment_do_seek(&self->xSeekSegment, dRate, eFormat, eFlags, eStartType, iStart, eStopType,
                        iStop, NULL);
    self->bSeekPending = TRUE;
    const gint iBranches = static_cast<gint>(g_slist_length(self->sinkpads));
    g_atomic_int_set(&self->iFlushStopsPending, iBranches);
    if (iBranches == 0) ApplySeek(self);
    GST_CUDA_MIXER2_UNLOCK(self);
    // The sources seek, flush and start again within this call.
    SSeekForward xForward = {self, event, FALSE};
    gst_element_foreach_sink_pad(GST_ELEMENT(self), ForwardSeek, &xForward);
    gst_event_unref(event);
    return xForward.bAccepted;
  }
  GST_CUDA_MIXER2_LOCK(self);
  // The whole update runs under `lock`, so a pass sees the old or the new segment, never a mix.
  const gdouble dOldRate = ABS(self->segment.rate);
  for (GSList* l = self->sinkpads; l; l = l->next) {
    GstCudaMixer2Collect* pxCol = static_cast<GstCudaMixer2Pad*>(l->data)->mixcol;
    if (dRate != dOldRate && pxCol->buffer) {
      // The pad's current times stay in the output's scale.
      if (dOldRate != 1.0) {
        pxCol->start_time = static_cast<GstClockTime>(pxCol->start_time / dOldRate);
        pxCol->end_time = static_cast<GstClockTime>(pxCol->end_time / dOldRate);
      }
      if (dRate != 1.0) {
        pxCol->start_time = static_cast<GstClockTime>(pxCol->start_time * dRate);
        pxCol->end_time = static_cast<GstClockTime>(pxCol->end_time * dRate);
      }
    }
  }
  gst_segment_do_seek(&self->segment, dRate, eFormat, eFlags, eStartType, iStart, eStopType, iStop,
                      NULL);
  RestartTimeline(self);
  GST_CUDA_MIXER2_UNLOCK(self);
  // GstCollectPads forgets which pads are at EOS when it sees a seek, and only a flush brings
  // that back: after a seek without flush a camera that had ended would stall every pass.
  return gst_pad_event_default(pad, GST_OBJECT(self), event);
}

static gboolean gst_cudamixer2_src_event(GstPad* pad, GstObject* parent, GstEvent* event) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(parent);
  switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_SEEK:
      return gst_cudamixer2_src_seek(self, pad, event);
    case GST_EVENT_QOS: {
      GstQOSType eType;
      gdouble dProportion;
      GstClockTimeDiff iDiff;
      GstClockTime uTimestamp;
      gst_event_parse_qos(event, &eType, &dProportion, &iDiff, &uTimestamp);
      gst_cudamixer2_update_qos(self, dProportion, iDiff, uTimestamp);
      return gst_cudamixer2_push_sink_event(self, event);
    }
    case GST_EVENT_NAVIGATION:
      gst_event_unref(event);
      return FALSE;
    case GST_EVENT_CUSTOM_UPSTREAM: {
      // The display's camera selection ends here, with or without a camera in it.
      const GstStructure* pxStructure = gst_event_get_structure(event);
      gint iCamera = 0;
      const gboolean bSelected =
          pxStructure && gst_structure_get_int(pxStructure, "camID", &iCamera);
      if (bSelected) {
        g_atomic_int_set(&self->requested_camera, iCamera);
        GST_LOG_OBJECT(self, "camera %d requested", iCamera);
      }
      gst_event_unref(event);
      return bSelected;
    }
    default:
      return gst_cudamixer2_push_sink_event(self, event);
  }
}

static gboolean gst_cudamixer2_query_duration(GstCudaMixer2* self, GstQuery* query) {
  GstFormat eFormat;
  gst_query_parse_duration(query, &eFormat, NULL);
  gint64 iMax = -1;
  gboolean bOk = TRUE;
  gboolean bDone = FALSE;
  GstIterator* pxIter = gst_element_iterate_sink_pads(GST_ELEMENT(self));
  while (!bDone) {
    GValue xItem = G_VALUE_INIT;
    switch (gst_iterator_next(pxIter, &xItem)) {
      case GST_ITERATOR_DONE:
        bDone = TRUE;
        break;
      case GST_ITERATOR_OK: {
        GstPad* pxPad = GST_PAD(g_value_get_object(&xItem));
        gint64 iDuration = -1;
        // Every pad is asked; after one without an answer the answers no longer count.
        bOk &= gst_pad_peer_query_duration(pxPad, eFormat, &iDuration);
        if (bOk) {
          if (iDuration == -1) {
            iMax = -1;
            bDone = TRUE;
          } else if (iDuration > iMax) {
            iMax = iDuration;
          }
        }
        break;
      }
      case GST_ITERATOR_RESYNC:
        iMax = -1;
        bOk = TRUE;
        gst_iterator_resync(pxIter);
        break;
      default:
        bOk = FALSE;
        bDone = TRUE;
        break;
    }
    g_value_unset(&xItem);
  }
  gst_iterator_free(pxIter);
  if (bOk) {
    GST_DEBUG_OBJECT(self, "Total duration in format %s: %" GST_TIME_FORMAT,
                     gst_format_get_name(eFormat), GST_TIME_ARGS(static_cast<GstClockTime>(iMax)));
    gst_query_set_duration(query, eFormat, iMax);
  }
  return bOk;
}

static gboolean gst_cudamixer2_src_query(GstPad* pad, GstObject* parent, GstQuery* query) {
  GstCudaMixer2* self = GST_CUDA_MIXER2(parent);
  switch (GST_QUERY_TYPE(query)) {
    case GST_QUERY_POSITION: {
      GstFormat eFormat;
      gst_query_parse_position(query, &eFormat, NULL);
      if (eFormat != GST_FORMAT_TIME) return FALSE;
      GST_CUDA_MIXER2_LOCK(self);
      const GstClockTime uPosition =
          gst_segment_to_stream_time(&self->segment, GST_FORMAT_TIME, self->segment.position);
      GST_CUDA_MIXER2_UNLOCK(self);
      gst_query_set_position(query, eFormat, static_cast<gint64>(uPosition));
      return TRUE;
    }
    case GST_QUERY_DURATION:
      return gst_cudamixer2_query_duration(self, query);
    case GST_QUERY_CAPS:
      return gst_pad_query_default(pad, parent, query);
    default:
      // Latency among them: the mixer adds none it could tell.
      return FALSE;
  }
}
