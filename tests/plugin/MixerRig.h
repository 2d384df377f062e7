#pragma once
// A mixer between test pads: each input branch is a source pad with a thread of its own, since
// GstCollectPads holds a push until the mixer takes the buffer, and the output is a sink pad
// that records buffers and events. All hand-overs go through std::mutex, so that
// ThreadSanitizer sees them.
#include <gst/gst.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace QvTest {

constexpr GstClockTime kMs = GST_MSECOND;

// A small system-memory buffer with the times set.
GstBuffer* TimedBuffer(GstClockTime uPts, GstClockTime uDuration, size_t uBytes = 16);

// A buffer of the device image allocator holding a BayerGR image of the bytes (packed rows).
GstBuffer* DeviceImageBuffer(int iWidth, int iHeight, const std::vector<uint8_t>& xBytes,
                             GstClockTime uPts, GstClockTime uDuration);

class CMixInput {
 public:
  // Requests a sink pad of the mixer (by name, or the next free one) and links a source pad.
  CMixInput(GstElement* pxMixer, const char* szPadName);
  ~CMixInput();
  CMixInput(const CMixInput&) = delete;
  CMixInput& operator=(const CMixInput&) = delete;

  GstPad* MixerPad() const { return m_pxMixerPad; }
  GstPad* SourcePad() const { return m_pxSrc; }

  // Each call queues one item for the branch's thread and returns its ticket.
  // Caps, then (unless told not to) a time segment from 0; the ticket is that of the caps.
  size_t Caps(const char* szCaps, bool bSegment = true);
  size_t Segment();
  size_t Event(GstEvent* pxEvent);
  size_t Eos() { return Event(gst_event_new_eos()); }
  // Takes the buffer; the branch keeps a reference until it dies, so a test may compare
  // output buffers with it.
  size_t Push(GstBuffer* pxBuffer);
  GstBuffer* Last() const { return m_xKept.empty() ? nullptr : m_xKept.back(); }

  // The result of an item: the flow of a buffer push, OK or ERROR for an event. Returns
  // GST_FLOW_CUSTOM_ERROR if the item was not through within the time (a kept buffer).
  GstFlowReturn Wait(size_t uTicket, int iMilliseconds = 10000);

  // What the mixer sent upstream to this branch.
  std::vector<GstEventType> UpstreamEventTypes();

  // Stops the thread; items not yet pushed are dropped. The mixer must not hold a push.
  void Stop();

 private:
  void Run();
  size_t Queue(GstMiniObject* pxItem);
  static gboolean OnEvent(GstPad* pad, GstObject* parent, GstEvent* event);

  GstElement* m_pxMixer;
  GstPad* m_pxSrc = nullptr;
  GstPad* m_pxMixerPad = nullptr;
  std::vector<GstBuffer*> m_xKept;

  std::mutex m_xMutex;
  std::condition_variable m_xCond;
  std::deque<std::pair<size_t, GstMiniObject*>> m_xQueue;
  std::vector<int> m_xResults;  // -1000 while pending
  std::vector<GstEvent*> m_xUpstream;
  bool m_bStop = false;
  std::thread m_xThread;
};

// One buffer as it left the mixer.
struct SOutBuffer {
  const GstBuffer* pxIdentity;  // for comparison only; may be gone
  GstBuffer* pxBuffer;          // a reference, or null for an unwritten selector pool buffer
  GstClockTime uPts;
  GstClockTime uDuration;
  gsize uSize;
  const GstBufferPool* pxPool;  // for comparison only
  bool bFromPool;
  bool bDeviceImage;
  bool bSysMem;
};

class CMixOutput {
 public:
  CMixOutput(GstElement* pxMixer, const char* szAllowedCaps);
  ~CMixOutput();
  CMixOutput(const CMixOutput&) = delete;
  CMixOutput& operator=(const CMixOutput&) = delete;

  bool WaitForEos(int iMilliseconds = 10000);
  bool WaitForBuffers(size_t uCount, int iMilliseconds = 10000);
  std::vector<SOutBuffer> Buffers();
  std::vector<GstEvent*> Events();  // borrowed
  std::vector<GstEventType> EventTypes();
  // Sends an event upstream into the mixer's source pad.
  gboolean SendUpstream(GstEvent* pxEvent) { return gst_pad_push_event(m_pxSink, pxEvent); }
  GstPad* Pad() const { return m_pxSink; }
  void Release();

 private:
  static GstFlowReturn OnChain(GstPad* pad, GstObject* parent, GstBuffer* buffer);
  static gboolean OnEvent(GstPad* pad, GstObject* parent, GstEvent* event);
  static gboolean OnQuery(GstPad* pad, GstObject* parent, GstQuery* query);

  GstPad* m_pxSink = nullptr;
  GstCaps* m_pxAllowed = nullptr;
  std::mutex m_xMutex;
  std::condition_variable m_xCond;
  std::vector<SOutBuffer> m_xBuffers;
  std::vector<GstEvent*> m_xEvents;
};

class CMixerRig {
 public:
  // szType: the mixer's "type", or null for the default. szAllowedCaps: what downstream
  // accepts, or null for anything.
  explicit CMixerRig(const char* szType = nullptr, const char* szAllowedCaps = nullptr);
  ~CMixerRig();
  CMixerRig(const CMixerRig&) = delete;
  CMixerRig& operator=(const CMixerRig&) = delete;

  CMixInput& AddInput(const char* szPadName = nullptr);
  // All pads of a test come before its first buffer: a pass only waits for pads that exist.
  std::vector<CMixInput*> AddInputs(size_t uCount);
  CMixInput& Input(size_t i) { return *m_xInputs.at(i); }
  void Play();
  GstElement* Mixer() const { return m_pxMixer; }
  CMixOutput& Out() { return *m_pxOut; }

  // The camera selection as the display sends it; the result of the mixer's event handler.
  gboolean SelectCamera(int iCamera);
  // Messages the mixer posted so far of the types, oldest first; borrowed.
  std::vector<GstMessage*> Messages(GstMessageType eTypes);

 private:
  GstElement* m_pxMixer;
  GstBus* m_pxBus;
  std::unique_ptr<CMixOutput> m_pxOut;
  std::vector<std::unique_ptr<CMixInput>> m_xInputs;
  std::vector<GstMessage*> m_xMessages;
};

// Fields of the first structure of some caps.
int CapsInt(GstCaps* pxCaps, const char* szField);
std::string CapsString(GstCaps* pxCaps, const char* szField);
std::pair<int, int> CapsFraction(GstCaps* pxCaps, const char* szField);

}  // namespace QvTest
