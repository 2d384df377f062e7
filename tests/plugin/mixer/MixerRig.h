#pragma once
// A mixer between test pads. Every input is a source pad of the test, fed from threads of its
// own (GstCollectPads holds a push until the mixer takes the buffer), one item after the other;
// the output is a sink pad that records what arrives. Hand-overs go through std::mutex, so that
// ThreadSanitizer sees them.
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "GstTestUtil.h"
#include "common/gstqvCudaMemory.h"

namespace QvTest {

constexpr GstClockTime kMs = GST_MSECOND;
inline constexpr const char* kGray25 = "video/x-raw,format=GRAY8,width=16,height=8,framerate=25/1";

// A small system-memory buffer with the times set.
inline GstBuffer* TimedBuffer(GstClockTime uPts, GstClockTime uDuration) {
  GstBuffer* pxBuffer = gst_buffer_new_allocate(NULL, 16, NULL);
  gst_buffer_memset(pxBuffer, 0, 0x11, 16);
  GST_BUFFER_PTS(pxBuffer) = uPts;
  GST_BUFFER_DURATION(pxBuffer) = uDuration;
  return pxBuffer;
}

inline GstEvent* CapsEvent(const char* szCaps) {
  GstCaps* pxCaps = gst_caps_from_string(szCaps);
  GstEvent* pxEvent = gst_event_new_caps(pxCaps);
  gst_caps_unref(pxCaps);
  return pxEvent;
}

inline GstEvent* SegmentFromZero() {
  GstSegment xSegment;
  gst_segment_init(&xSegment, GST_FORMAT_TIME);
  return gst_event_new_segment(&xSegment);
}

// One buffer as it left the mixer: labelled by the name the test gave the input buffer or "wall"
// for a wall frame.
struct SOutBuffer {
  std::string sLabel;
  GstBuffer* pxBuffer;  // a reference
  GstClockTime uPts, uDuration;
};

class CMixerRig {
 public:
  // A mixer of the type (null: the default) in PLAYING with a pad per caps text, each past its
  // stream start, caps and time segment from 0.
  CMixerRig(const char* szType, const std::vector<const char*>& xCaps) {
    m_pxMixer = GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("qvcudamix", NULL)));
    if (szType) g_object_set(m_pxMixer, "type", szType, NULL);
    m_pxBus = gst_bus_new();
    gst_element_set_bus(m_pxMixer, m_pxBus);
    m_pxSink = NewPad("sink", GST_PAD_SINK);
    gst_pad_set_chain_function(m_pxSink, OnChain);
    GstPad* pxSrc = gst_element_get_static_pad(m_pxMixer, "src");
    EXPECT_EQ(GST_PAD_LINK_OK, gst_pad_link(pxSrc, m_pxSink));
    gst_object_unref(pxSrc);
    for (size_t i = 0; i < xCaps.size(); ++i) {
      m_xPads.push_back({NewPad("src", GST_PAD_SRC),
                         gst_element_request_pad_simple(m_pxMixer, "sink_%u"),
                         {},
                         {}});
      EXPECT_EQ(GST_PAD_LINK_OK, gst_pad_link(m_xPads[i].pxSrc, m_xPads[i].pxMixerPad));
    }
    EXPECT_EQ(GST_STATE_CHANGE_SUCCESS, gst_element_set_state(m_pxMixer, GST_STATE_PLAYING));
    for (size_t i = 0; i < xCaps.size(); ++i) {
      const std::string sStream = "camera-" + std::to_string(i);
      gst_pad_push_event(m_xPads[i].pxSrc, gst_event_new_stream_start(sStream.c_str()));
      gst_pad_push_event(m_xPads[i].pxSrc, CapsEvent(xCaps[i]));
      gst_pad_push_event(m_xPads[i].pxSrc, SegmentFromZero());
    }
  }
  ~CMixerRig() {
    gst_element_set_state(m_pxMixer, GST_STATE_NULL);  // a push still held returns now
    Settle();
    for (SPad& x : m_xPads) {
      gst_object_unref(x.pxSrc);
      gst_object_unref(x.pxMixerPad);
    }
    for (auto& x : m_xNames) gst_buffer_unref(const_cast<GstBuffer*>(x.first));
    for (SOutBuffer& x : m_xOut)
      if (x.pxBuffer) gst_buffer_unref(x.pxBuffer);
    for (GstEvent* pxEvent : m_xEvents) gst_event_unref(pxEvent);
    gst_element_set_bus(m_pxMixer, NULL);
    gst_object_unref(m_pxMixer);
    gst_object_unref(m_pxSink);
    for (GstMessage* pxMessage : m_xMessages) gst_message_unref(pxMessage);
    gst_bus_set_flushing(m_pxBus, TRUE);
    gst_object_unref(m_pxBus);
  }
  CMixerRig(const CMixerRig&) = delete;
  CMixerRig& operator=(const CMixerRig&) = delete;

  // Pushes on pad i from the test's thread; the name labels the buffer where it comes out.
  GstFlowReturn PushNow(size_t i, GstBuffer* pxBuffer, const std::string& sName = "") {
    Name(pxBuffer, sName);
    return gst_pad_push(m_xPads.at(i).pxSrc, pxBuffer);
  }
  // Queues a push or an event on pad i, after what is queued there; Settle waits for all.
  void Push(size_t i, GstBuffer* pxBuffer, const std::string& sName = "") {
    Name(pxBuffer, sName);
    Later(i, [px = m_xPads.at(i).pxSrc, pxBuffer] { gst_pad_push(px, pxBuffer); });
  }
  void Event(size_t i, GstEvent* pxEvent) {
    Later(i, [px = m_xPads.at(i).pxSrc, pxEvent] { gst_pad_push_event(px, pxEvent); });
  }
  void Eos(size_t i) { Event(i, gst_event_new_eos()); }
  // Queues a time line written as "a0@0+40 b50@50 a.": a buffer named a0 on pad a at 0 ms for
  // 40 ms, one named b50 on pad b at 50 ms without duration, the end of pad a's stream.
  void Feed(const std::string& sSteps) {
    std::istringstream xSteps(sSteps);
    for (std::string s; xSteps >> s;) {
      const size_t i = s[0] - 'a', uAt = s.find('@'), uPlus = s.find('+');
      if (uAt == std::string::npos) {
        Eos(i);
        continue;
      }
      const GstClockTime uPts = std::stoi(s.substr(uAt + 1)) * kMs;
      Push(i,
           TimedBuffer(uPts, uPlus == std::string::npos ? GST_CLOCK_TIME_NONE
                                                        : std::stoi(s.substr(uPlus + 1)) * kMs),
           s.substr(0, uAt));
    }
  }
  void Settle() {
    for (SPad& x : m_xPads)
      if (x.xLast.valid()) x.xLast.wait();
  }

  // The output: its buffers, events (borrowed) and the waits for them.
  std::vector<SOutBuffer> Out() {
    std::lock_guard<std::mutex> xGuard(m_xMutex);
    return m_xOut;
  }
  // The labels of the output buffers, separated by spaces.
  std::string Labels() {
    std::string s;
    for (const SOutBuffer& x : Out()) s += (s.empty() ? "" : " ") + x.sLabel;
    return s;
  }
  std::vector<GstEvent*> Events(GstEventType eType) {
    std::lock_guard<std::mutex> xGuard(m_xMutex);
    std::vector<GstEvent*> x;
    for (GstEvent* px : m_xEvents)
      if (GST_EVENT_TYPE(px) == eType) x.push_back(px);
    return x;
  }
  GstEventType LastEventType() {
    std::lock_guard<std::mutex> xGuard(m_xMutex);
    return GST_EVENT_TYPE(m_xEvents.back());
  }
  bool WaitForBuffers(size_t uCount, int iSeconds = 10) {
    return Wait(iSeconds, [&] { return m_xOut.size() >= uCount; });
  }
  bool WaitForEos(int iSeconds = 10) {
    return Wait(iSeconds, [&] {
      for (GstEvent* px : m_xEvents)
        if (GST_EVENT_TYPE(px) == GST_EVENT_EOS) return true;
      return false;
    });
  }

  // Sends an event into the mixer's source pad, as downstream would.
  gboolean Upstream(GstEvent* pxEvent) { return gst_pad_push_event(m_pxSink, pxEvent); }
  // The camera selection as the display sends it.
  gboolean SelectCamera(int iCamera) {
    return Upstream(
        gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM,
                             gst_structure_new("eventStruct", "camID", G_TYPE_INT, iCamera, NULL)));
  }
  // What the mixer sent upstream to pad i.
  std::vector<GstEventType> UpstreamTypes(size_t i) {
    std::lock_guard<std::mutex> xGuard(m_xMutex);
    return m_xPads.at(i).xUpstream;
  }
  gint64 Position() {
    gint64 iPosition = -2;
    GstPad* pxSrc = gst_element_get_static_pad(m_pxMixer, "src");
    gst_pad_query_position(pxSrc, GST_FORMAT_TIME, &iPosition);
    gst_object_unref(pxSrc);
    return iPosition;
  }
  // The messages of the type the mixer posted so far, oldest first (borrowed), and the texts of
  // its errors or warnings.
  std::vector<GstMessage*> RawMessages(GstMessageType eType) {
    while (GstMessage* pxMessage = gst_bus_pop(m_pxBus)) m_xMessages.push_back(pxMessage);
    std::vector<GstMessage*> x;
    for (GstMessage* pxMessage : m_xMessages)
      if (GST_MESSAGE_TYPE(pxMessage) == eType) x.push_back(pxMessage);
    return x;
  }
  std::vector<std::string> Messages(GstMessageType eType) {
    std::vector<std::string> xTexts;
    for (GstMessage* pxMessage : RawMessages(eType)) xTexts.push_back(MessageText(pxMessage));
    return xTexts;
  }

 private:
  struct SPad {
    GstPad* pxSrc;
    GstPad* pxMixerPad;
    std::shared_future<void> xLast;
    std::vector<GstEventType> xUpstream;
  };

  // Pads of ANY caps: a pad without a template answers a caps query with its current caps.
  GstPad* NewPad(const char* szName, GstPadDirection eDirection) {
    GstPad* pxPad = gst_pad_new_from_template(
        gst_pad_template_new(szName, eDirection, GST_PAD_ALWAYS, GST_CAPS_ANY), szName);
    gst_pad_set_element_private(pxPad, this);
    gst_pad_set_event_function(pxPad, OnEvent);
    gst_pad_set_active(pxPad, TRUE);
    return pxPad;
  }
  void Name(GstBuffer* pxBuffer, const std::string& sName) {
    std::lock_guard<std::mutex> xGuard(m_xMutex);
    if (!sName.empty()) m_xNames[gst_buffer_ref(pxBuffer)] = sName;
  }
  void Later(size_t i, std::function<void()> fnItem) {
    std::shared_future<void> xBefore = m_xPads.at(i).xLast;
    m_xPads[i].xLast = std::async(std::launch::async, [xBefore, fnItem] {
                         if (xBefore.valid()) xBefore.wait();
                         fnItem();
                       }).share();
  }
  template <class F>
  bool Wait(int iSeconds, F fnDone) {
    std::unique_lock<std::mutex> xLock(m_xMutex);
    return m_xCond.wait_for(xLock, std::chrono::seconds(iSeconds), fnDone);
  }

  static GstFlowReturn OnChain(GstPad* pad, GstObject*, GstBuffer* buffer) {
    auto* self = static_cast<CMixerRig*>(gst_pad_get_element_private(pad));
    GstMemory* pxMemory = gst_buffer_n_memory(buffer) ? gst_buffer_peek_memory(buffer, 0) : NULL;
    SOutBuffer x{"?", buffer, GST_BUFFER_PTS(buffer), GST_BUFFER_DURATION(buffer)};
    std::lock_guard<std::mutex> xGuard(self->m_xMutex);
    auto it = self->m_xNames.find(buffer);
    if (it != self->m_xNames.end())
      x.sLabel = it->second;
    else if (pxMemory && gst_memory_is_type(pxMemory, QV_CUDA_MEMORY_NAME))
      x.sLabel = "wall";
    self->m_xOut.push_back(x);
    self->m_xCond.notify_all();
    return GST_FLOW_OK;
  }
  static gboolean OnEvent(GstPad* pad, GstObject*, GstEvent* event) {
    auto* self = static_cast<CMixerRig*>(gst_pad_get_element_private(pad));
    std::lock_guard<std::mutex> xGuard(self->m_xMutex);
    if (GST_PAD_IS_SINK(pad)) {
      self->m_xEvents.push_back(event);
      self->m_xCond.notify_all();
      return TRUE;
    }
    // Linking sends a reconfigure event of its own; it says nothing about the mixer.
    if (GST_EVENT_TYPE(event) != GST_EVENT_RECONFIGURE)
      for (SPad& x : self->m_xPads)
        if (x.pxSrc == pad) x.xUpstream.push_back(GST_EVENT_TYPE(event));
    gst_event_unref(event);
    return TRUE;
  }

  GstElement* m_pxMixer;
  GstBus* m_pxBus;
  GstPad* m_pxSink;
  std::vector<SPad> m_xPads;
  std::mutex m_xMutex;
  std::condition_variable m_xCond;
  std::map<const GstBuffer*, std::string> m_xNames;  // each holds a reference
  std::vector<SOutBuffer> m_xOut;
  std::vector<GstEvent*> m_xEvents;
  std::vector<GstMessage*> m_xMessages;
};

}  // namespace QvTest
