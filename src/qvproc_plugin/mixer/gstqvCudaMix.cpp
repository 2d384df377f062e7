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
#include "common/gstqvSysMemAlloc.h"
#include "mixer/gstqvCudaMixPriv.h"

GST_DEBUG_CATEGORY(gst_cudamixer2_debug);
#define GST_CAT_DEFAULT gst_cudamixer2_debug

#define MIXER_CAPS                                                                              \
  "video/x-raw, format = (string) { GRAY8, RGBA }, width = (int) [ 1, max ], height = (int) [ " \
  "1, max ], framerate = (fraction) [ 0, max ];video/x-bayer,format=(string){BA81,bggr,grbg,"   \
  "gbrg,rggb},width=(int)[1,MAX],height=(int)[1,MAX],framerate=(fraction)[0/1,MAX]"

static GstStaticPadTemplate src_factory =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(MIXER_CAPS));
static GstStaticPadTemplate sink_factory =
    GST_STATIC_PAD_TEMPLATE("sink_%u", GST_PAD_SINK, GST_PAD_REQUEST, GST_STATIC_CAPS(MIXER_CAPS));

#define DEFAULT_MIX_TYPE MixType_Selector

enum { PROP_0, PROP_TYPE };

// What gst_cudamixer2_fill_queues tells the pass.
enum EFillResult { FILL_GO_ON, FILL_NEED_MORE, FILL_ALL_EOS, FILL_ERROR };

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
static GstFlowReturn gst_cudamixer2_collected(GstCollectPads* pads, gpointer user_data);
static gboolean gst_cudamixer2_sink_event(GstCollectPads* pads, GstCollectData* cdata,
                                          GstEvent* event, gpointer user_data);
static gboolean gst_cudamixer2_sink_query(GstCollectPads* pads, GstCollectData* cdata,
                                          GstQuery* query, gpointer user_data);
static GstFlowReturn gst_cudamixer2_sink_clip(GstCollectPads* pads, GstCollectData* cdata,
                                              GstBuffer* buf, GstBuffer** outbuf,
                                              gpointer user_data);
static void gst_cudamixer2_reset(GstCudaMixer2* self);
static void gst_cudamixer2_reset_qos(GstCudaMixer2* self);
static gboolean gst_cudamixer2_update_converters(GstCudaMixer2* self);

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
      Qv::OperatorMessage("Setting Mixer Type to: %s\n", szType ? szType : "(null)");
      if (g_strcmp0(szType, "selector") == 0) {
        g_atomic_int_set(&self->mix_type, MixType_Selector);
      } else if (g_strcmp0(szType, "videowall") == 0) {
        Qv::OperatorMessage("Setting Mixer Type to: MixType_VideoWall \n");
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

// The pad has no current buffer any more; the next pass takes a new one.
static void DropCurrent(GstCudaMixer2Collect* pxCol) {
  gst_buffer_replace(&pxCol->buffer, NULL);
  pxCol->start_time = GST_CLOCK_TIME_NONE;
  pxCol->end_time = GST_CLOCK_TIME_NONE;
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

  GST_CUDA_MIXER2_LOCK(self);
  const bool bNamed = req_name && strlen(req_name) > 5 && g_str_has_prefix(req_name, "sink_");
  guint uSerial =
      bNamed ? static_cast<guint>(g_ascii_strtoull(&req_name[5], NULL, 10)) : self->next_sinkpad;
  // An automatic name takes the next free number, so numbering goes on after it wraps.
  while (!bNamed && PadNameInUse(self, uSerial)) ++uSerial;
  // A name already in use is refused: the element could not add a second pad of that name.
  if (PadNameInUse(self, uSerial)) {
    GST_CUDA_MIXER2_UNLOCK(self);
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
  GST_CUDA_MIXER2_UNLOCK(self);

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
  gst_cudamixer2_update_converters(self);
  GST_CUDA_MIXER2_UNLOCK(self);
  GST_COLLECT_PADS_STREAM_UNLOCK(self->collect);
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

static void gst_cudamixer2_update_qos(GstCudaMixer2* self, gdouble proportion,
                                      GstClockTimeDiff diff, GstClockTime timestamp) {
  GST_CUDA_MIXER2_LOCK(self);
  const GstClockTime uFrame = FrameDuration(self->info);
  GST_CUDA_MIXER2_UNLOCK(self);
  UpdateQos(self, proportion, diff, timestamp, uFrame);
}

static void gst_cudamixer2_reset_qos(GstCudaMixer2* self) {
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

static gboolean gst_cudamixer2_sink_query(GstCollectPads* /*pads*/, GstCollectData* cdata,
                                          GstQuery* query, gpointer user_data) {
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
static gboolean gst_cudamixer2_update_converters(GstCudaMixer2* self) {
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
    GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("%s", szText), ("%s", szDebug));
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
static gboolean gst_cudamixer2_update_src_caps(GstCudaMixer2* self, GstCaps* caps) {
  GST_CUDA_MIXER2_SETCAPS_LOCK(self);
  GST_CUDA_MIXER2_LOCK(self);

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
    GST_CUDA_MIXER2_UNLOCK(self);
    GST_CUDA_MIXER2_SETCAPS_UNLOCK(self);
    return TRUE;
  }
  if (GST_VIDEO_INFO_FORMAT(&self->info) == GST_VIDEO_FORMAT_UNKNOWN) {
    GST_DEBUG_OBJECT(self, "no output format to make caps of");
    GST_CUDA_MIXER2_UNLOCK(self);
    GST_CUDA_MIXER2_SETCAPS_UNLOCK(self);
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
      if (bWall)
        GST_ELEMENT_ERROR(
            self, CORE, NEGOTIATION,
            ("Downstream cannot take the video wall's size of %dx%d.", iWidth, iHeight),
            ("downstream takes %" GST_PTR_FORMAT, pxPeer));
      gst_caps_unref(pxChosen);
      gst_caps_unref(pxPeer);
      GST_CUDA_MIXER2_UNLOCK(self);
      GST_CUDA_MIXER2_SETCAPS_UNLOCK(self);
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
  GST_CUDA_MIXER2_UNLOCK(self);
  GstVideoInfo xParsed;
  if (!pxNew || !gst_video_info_from_caps(&xParsed, pxNew)) {
    if (pxNew) gst_caps_unref(pxNew);
    GST_CUDA_MIXER2_SETCAPS_UNLOCK(self);
    return FALSE;
  }

  GST_CUDA_MIXER2_LOCK(self);
  if (GST_VIDEO_INFO_FPS_N(&xParsed) != GST_VIDEO_INFO_FPS_N(&self->info) ||
      GST_VIDEO_INFO_FPS_D(&xParsed) != GST_VIDEO_INFO_FPS_D(&self->info)) {
    if (GST_CLOCK_TIME_IS_VALID(self->segment.position)) {
      self->ts_offset = self->segment.position - self->segment.start;
      self->nframes = 0;
    }
    gst_cudamixer2_reset_qos(self);
  }
  self->info = xParsed;
  GST_CUDA_MIXER2_UNLOCK(self);

  if (self->current_caps && gst_caps_is_equal(self->current_caps, pxNew)) {
    gst_caps_unref(pxNew);
  } else {
    GST_DEBUG_OBJECT(self, "new output caps %" GST_PTR_FORMAT, pxNew);
    gst_caps_take(&self->current_caps, pxNew);
    self->send_caps = TRUE;
  }
  GST_CUDA_MIXER2_SETCAPS_UNLOCK(self);
  return TRUE;
}

static gboolean gst_cudamixer2_pad_sink_setcaps(GstPad* pad, GstCudaMixer2* self, GstCaps* caps) {
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
  gboolean bOk = gst_cudamixer2_update_converters(self);
  GST_CUDA_MIXER2_UNLOCK(self);
  if (bOk) bOk = gst_cudamixer2_update_src_caps(self, caps);
  GST_COLLECT_PADS_STREAM_UNLOCK(self->collect);
  return bOk;
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
    GstClockTime uEnd = uStart + uDuration;

    GstSegment* pxSegment = PadSegment(pxPad);
    if ((GST_CLOCK_TIME_IS_VALID(pxSegment->stop) && uStart >= pxSegment->stop) ||
        uEnd < pxSegment->start) {
      GST_DEBUG_OBJECT(pxPad, "Buffer outside the segment");
      DiscardCandidate(self, pxCol, bQueued);
      bNeedMore = TRUE;
      continue;
    }
    uStart = MAX(uStart, pxSegment->start);
    if (GST_CLOCK_TIME_IS_VALID(pxSegment->stop)) uEnd = MIN(uEnd, pxSegment->stop);
    uStart = gst_segment_to_running_time(pxSegment, GST_FORMAT_TIME, uStart);
    uEnd = gst_segment_to_running_time(pxSegment, GST_FORMAT_TIME, uEnd);
    if (!GST_CLOCK_TIME_IS_VALID(uStart) || !GST_CLOCK_TIME_IS_VALID(uEnd)) {
      GST_DEBUG_OBJECT(pxPad, "Buffer outside the segment");
      DiscardCandidate(self, pxCol, bQueued);
      bNeedMore = TRUE;
      continue;
    }
    if (dRate != 1.0) {
      // Input running time is stretched to the output segment's rate.
      uStart = static_cast<GstClockTime>(uStart * dRate);
      uEnd = static_cast<GstClockTime>(uEnd * dRate);
    }
    if (GST_CLOCK_TIME_IS_VALID(pxCol->end_time) && pxCol->end_time > uEnd) {
      GST_DEBUG_OBJECT(pxPad, "Buffer from the past, dropping");
      DiscardCandidate(self, pxCol, bQueued);
      bNeedMore = TRUE;
      continue;
    }

    if (output_start <= uEnd && uStart < output_end) {
      GST_DEBUG_OBJECT(pxPad, "Taking new buffer with start time %" GST_TIME_FORMAT,
                       GST_TIME_ARGS(uStart));
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
      pxCol->start_time = uStart;
      pxCol->end_time = uEnd;
      bEos = FALSE;
    } else if (uStart >= output_end) {
      // It stays where it is, and its pad's streaming thread stays blocked.
      GST_DEBUG_OBJECT(pxPad, "Keeping buffer until %" GST_TIME_FORMAT, GST_TIME_ARGS(uStart));
      bEos = FALSE;
    } else {
      GST_DEBUG_OBJECT(pxPad, "Too old buffer -- dropping");
      DiscardCandidate(self, pxCol, bQueued);
      bNeedMore = TRUE;
    }
  }

  if (bNeedMore) return FILL_NEED_MORE;
  if (bEos) return FILL_ALL_EOS;
  return FILL_GO_ON;
}

// A segment with the segment flag has run to its stop: SEGMENT_DONE goes out once, and until a
// seek or flush starts a new segment the passes make no frames. What arrives meanwhile lies
// behind the stop and is dropped, so that no pad stays blocked and no pass repeats at once.
// Called with `lock` held; releases it.
static GstFlowReturn gst_cudamixer2_segment_done(GstCudaMixer2* self) {
  const gboolean bAnnounce = !self->bSegmentDone;
  self->bSegmentDone = TRUE;
  const gint64 iStop = static_cast<gint64>(self->segment.stop);
  gboolean bAllEos = TRUE;
  for (GSList* l = self->sinkpads; l; l = l->next) {
    GstCudaMixer2Collect* pxCol = static_cast<GstCudaMixer2Pad*>(l->data)->mixcol;
    GstBuffer* pxBuffer = gst_collect_pads_pop(self->collect, &pxCol->collect);
    if (pxBuffer) {
      GST_LOG_OBJECT(l->data, "dropping a buffer behind the segment's stop");
      gst_buffer_unref(pxBuffer);
    }
    if (!GST_COLLECT_PADS_STATE_IS_SET(&pxCol->collect, GST_COLLECT_PADS_STATE_EOS))
      bAllEos = FALSE;
  }
  GST_CUDA_MIXER2_UNLOCK(self);

  if (bAnnounce) {
    GST_DEBUG_OBJECT(self, "posting segment-done at %" GST_TIME_FORMAT,
                     GST_TIME_ARGS(static_cast<GstClockTime>(iStop)));
    gst_element_post_message(
        GST_ELEMENT(self), gst_message_new_segment_done(GST_OBJECT(self), GST_FORMAT_TIME, iStop));
    gst_pad_push_event(self->srcpad, gst_event_new_segment_done(GST_FORMAT_TIME, iStop));
  }
  if (bAllEos) {
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

static GstFlowReturn gst_cudamixer2_collected(GstCollectPads* /*pads*/, gpointer user_data) {
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
    Qv::OperatorMessage("Sending NEWSEGMENT even\n");
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
    if (self->bSegmentDone || uStart >= self->segment.stop)
      return gst_cudamixer2_segment_done(self);
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
    Qv::OperatorMessage("Have jitter, dropping frames!\n");
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
    gboolean bOk = gst_cudamixer2_update_converters(self);
    GST_CUDA_MIXER2_UNLOCK(self);
    if (bOk) bOk = gst_cudamixer2_update_src_caps(self, pxNewCaps);
    if (!bOk) {
      GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("Cannot renegotiate the output."),
                        ("new input caps %" GST_PTR_FORMAT, pxNewCaps));
      eResult = GST_FLOW_NOT_NEGOTIATED;
      gst_buffer_replace(&xFrame.pxBuffer, NULL);
    }
    gst_caps_unref(pxNewCaps);
    SendCaps(self);
  }

  for (GstMessage* pxMessage : xFrame.xMessages)
    gst_element_post_message(GST_ELEMENT(self), pxMessage);
  if (eResult != GST_FLOW_OK) return eResult;
  if (!xFrame.pxBuffer) return GST_FLOW_OK;
  GST_LOG_OBJECT(self, "Pushing buffer with ts %" GST_TIME_FORMAT " and duration %" GST_TIME_FORMAT,
                 GST_TIME_ARGS(GST_BUFFER_PTS(xFrame.pxBuffer)),
                 GST_TIME_ARGS(GST_BUFFER_DURATION(xFrame.pxBuffer)));
  return gst_pad_push(self->srcpad, xFrame.pxBuffer);
}

/* Events, queries and clipping */

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

static GstFlowReturn gst_cudamixer2_sink_clip(GstCollectPads* /*pads*/, GstCollectData* cdata,
                                              GstBuffer* buf, GstBuffer** outbuf,
                                              gpointer user_data) {
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
