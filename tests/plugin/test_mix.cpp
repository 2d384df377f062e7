// The mixer between test pads whose buffers and times each test sets: pads and property,
// negotiation, the output time line, the two modes, events, queries and quality of service.
// Expected frames are worked out by hand from the 40 ms intervals of a 25/1 output.
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "GstTestUtil.h"
#include "MixerRig.h"
#include "QvDevice.h"
#include "plugin.h"

using namespace QvTest;

namespace {

const char* kGray25 = "video/x-raw,format=GRAY8,width=16,height=8,framerate=25/1";

// Names the outputs: an input buffer by the name the test gave it, an unwritten selector pool
// buffer "pool", a wall frame "wall".
std::vector<std::string> Labels(const std::vector<SOutBuffer>& xOut,
                                const std::map<const GstBuffer*, std::string>& xNames) {
  std::vector<std::string> xLabels;
  for (const SOutBuffer& x : xOut) {
    auto it = xNames.find(x.pxIdentity);
    if (it != xNames.end())
      xLabels.push_back(it->second);
    else
      xLabels.push_back(x.bDeviceImage ? "wall" : x.bFromPool ? "pool" : "?");
  }
  return xLabels;
}

std::vector<std::string> Repeat(const std::string& s, size_t n) {
  return std::vector<std::string>(n, s);
}

std::vector<std::string> Concat(std::initializer_list<std::vector<std::string>> xParts) {
  std::vector<std::string> x;
  for (const auto& xPart : xParts) x.insert(x.end(), xPart.begin(), xPart.end());
  return x;
}

GstCaps* LastCaps(CMixOutput& xOut) {
  GstCaps* pxCaps = NULL;
  for (GstEvent* pxEvent : xOut.Events())
    if (GST_EVENT_TYPE(pxEvent) == GST_EVENT_CAPS) gst_event_parse_caps(pxEvent, &pxCaps);
  return pxCaps;
}

size_t CountEvents(CMixOutput& xOut, GstEventType eType) {
  size_t n = 0;
  for (GstEventType e : xOut.EventTypes()) n += e == eType;
  return n;
}

const GstSegment* LastSegment(CMixOutput& xOut) {
  const GstSegment* pxSegment = NULL;
  for (GstEvent* pxEvent : xOut.Events())
    if (GST_EVENT_TYPE(pxEvent) == GST_EVENT_SEGMENT) gst_event_parse_segment(pxEvent, &pxSegment);
  return pxSegment;
}

gint64 Position(GstElement* pxMixer) {
  gint64 iPosition = -2;
  GstPad* pxSrc = gst_element_get_static_pad(pxMixer, "src");
  GstQuery* pxQuery = gst_query_new_position(GST_FORMAT_TIME);
  if (gst_pad_query(pxSrc, pxQuery)) gst_query_parse_position(pxQuery, NULL, &iPosition);
  gst_query_unref(pxQuery);
  gst_object_unref(pxSrc);
  return iPosition;
}

GstEvent* TimeSeek(gdouble dRate, GstSeekFlags eFlags, GstClockTime uStart, GstClockTime uStop) {
  return gst_event_new_seek(dRate, GST_FORMAT_TIME, eFlags, GST_SEEK_TYPE_SET,
                            static_cast<gint64>(uStart),
                            GST_CLOCK_TIME_IS_VALID(uStop) ? GST_SEEK_TYPE_SET : GST_SEEK_TYPE_NONE,
                            GST_CLOCK_TIME_IS_VALID(uStop) ? static_cast<gint64>(uStop) : -1);
}

/* Pads, children and the property */

TEST(MixPads, TypePropertyTakesTwoExactValuesAndReadsVideoWallWithCapitalW) {
  GstElement* pxMixer = gst_element_factory_make("qvcudamix", NULL);
  auto Type = [&] {
    gchar* sz = NULL;
    g_object_get(pxMixer, "type", &sz, NULL);
    std::string s = sz ? sz : "";
    g_free(sz);
    return s;
  };
  EXPECT_EQ("selector", Type());
  testing::internal::CaptureStdout();
  g_object_set(pxMixer, "type", "videowall", NULL);
  EXPECT_EQ("videoWall", Type());
  g_object_set(pxMixer, "type", "selector", NULL);
  g_object_set(pxMixer, "type", "videoWall", NULL);  // what reading gives, yet no mode
  EXPECT_EQ("selector", Type());
  EXPECT_EQ(
      "Setting Mixer Type to: videowall\nSetting Mixer Type to: MixType_VideoWall \n"
      "Setting Mixer Type to: selector\nSetting Mixer Type to: videoWall\n",
      testing::internal::GetCapturedStdout());
  gst_object_unref(pxMixer);
}

/* Negotiation */

// Pushes one frame per input and returns the caps the output got with it.
GstCaps* NegotiatedCaps(CMixerRig& xRig, const std::vector<const char*>& xCaps) {
  std::vector<CMixInput*> xIns = xRig.AddInputs(xCaps.size());
  for (size_t i = 0; i < xCaps.size(); ++i) {
    CMixInput& xIn = *xIns[i];
    xIn.Caps(xCaps[i]);
    xIn.Push(TimedBuffer(0, 40 * kMs));
  }
  EXPECT_TRUE(xRig.Out().WaitForBuffers(1));
  return LastCaps(xRig.Out());
}

TEST(MixCaps, OutputTakesTheLargestSizeAndRateOrTheWallSize) {
  const std::vector<const char*> xCaps = {
      "video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1",
      "video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1",
      "video/x-raw,format=GRAY8,width=1280,height=720,framerate=15/1"};
  for (const char* szType : {"selector", "videowall"}) {
    testing::internal::CaptureStdout();
    CMixerRig xRig(szType);
    xRig.Play();
    GstCaps* pxCaps = NegotiatedCaps(xRig, xCaps);
    const bool bWall = std::string(szType) == "videowall";
    EXPECT_EQ("GRAY8", CapsString(pxCaps, "format"));
    EXPECT_EQ(bWall ? 3840 : 1280, CapsInt(pxCaps, "width")) << szType;
    EXPECT_EQ(bWall ? 2676 : 720, CapsInt(pxCaps, "height")) << szType;
    EXPECT_EQ(std::make_pair(30, 1), CapsFraction(pxCaps, "framerate")) << szType;
    testing::internal::GetCapturedStdout();
  }

  CMixerRig xRig;
  xRig.Play();
  GstCaps* pxCaps =
      NegotiatedCaps(xRig, {"video/x-raw,format=GRAY8,width=64,height=48,framerate=0/1"});
  EXPECT_EQ(std::make_pair(25, 1), CapsFraction(pxCaps, "framerate"));

  // A raw mosaic under bayer caps goes out as GRAY8, the label of a raw device image.
  CMixerRig xBayer;
  xBayer.Play();
  pxCaps = NegotiatedCaps(xBayer, {"video/x-bayer,format=grbg,width=64,height=48,framerate=30/1"});
  EXPECT_TRUE(gst_structure_has_name(gst_caps_get_structure(pxCaps, 0), "video/x-raw"));
  EXPECT_EQ("GRAY8", CapsString(pxCaps, "format"));
  EXPECT_EQ(64, CapsInt(pxCaps, "width"));
  EXPECT_EQ(48, CapsInt(pxCaps, "height"));
  EXPECT_EQ(std::make_pair(30, 1), CapsFraction(pxCaps, "framerate"));
}

TEST(MixTimeline, IntervalsEndOnTheRoundedNanosecond) {
  // At 30/1 the second interval ends at 2/30 s = 66666666.67 ns, rounded up.
  CMixerRig xRig;
  xRig.Play();
  CMixInput& xIn = xRig.AddInput();
  xIn.Caps("video/x-raw,format=GRAY8,width=16,height=8,framerate=30/1");
  xIn.Push(TimedBuffer(0, 33333333));
  xIn.Push(TimedBuffer(33333333, 33333334));
  ASSERT_TRUE(xRig.Out().WaitForBuffers(2));
  EXPECT_EQ(66666667, Position(xRig.Mixer()));
}

TEST(MixCaps, RateChangeGoesOnFromThePositionWithoutAJump) {
  CMixerRig xRig;
  xRig.Play();
  CMixInput& xIn = xRig.AddInput();
  xIn.Caps(kGray25);
  for (int i = 0; i < 3; ++i) xIn.Push(TimedBuffer(i * 40 * kMs, 40 * kMs));
  ASSERT_TRUE(xRig.Out().WaitForBuffers(3));
  EXPECT_EQ(static_cast<gint64>(120 * kMs), Position(xRig.Mixer()));
  // At 50/1 the next interval ends one 20 ms frame after 120 ms, not at 4 x 20 ms.
  EXPECT_EQ(GST_FLOW_OK,
            xIn.Wait(xIn.Caps("video/x-raw,format=GRAY8,width=16,height=8,framerate=50/1", false)));
  xIn.Push(TimedBuffer(120 * kMs, 20 * kMs));
  ASSERT_TRUE(xRig.Out().WaitForBuffers(4));
  EXPECT_EQ(static_cast<gint64>(140 * kMs), Position(xRig.Mixer()));
  EXPECT_EQ(std::make_pair(50, 1), CapsFraction(LastCaps(xRig.Out()), "framerate"));
}

/* The output time line */

struct STwoPads {
  CMixerRig xRig;
  CMixInput& a;
  CMixInput& b;
  std::map<const GstBuffer*, std::string> xNames;
  explicit STwoPads(int iCamera) : a((xRig.Play(), xRig.AddInput())), b(xRig.AddInput()) {
    EXPECT_TRUE(xRig.SelectCamera(iCamera));
    a.Caps(kGray25);
    b.Caps(kGray25);
  }
  void Push(CMixInput& xIn, const std::string& sName, GstClockTime uPts, GstClockTime uDur) {
    xIn.Push(TimedBuffer(uPts, uDur));
    xNames[xIn.Last()] = sName;
  }
  std::vector<std::string> Out() { return Labels(xRig.Out().Buffers(), xNames); }
};

// One step of a worked example: a buffer on pad A or B (duration 0 for none), or EOS.
struct SStep {
  char cPad;
  const char* szName = nullptr;  // null: end of stream
  int iPtsMs = 0, iDurMs = 0;
};

TEST(MixTimeline, WorkedExamplesGiveTheExpectedFrames) {
  struct {
    const char* szCase;
    int iCamera;
    std::vector<SStep> xSteps;
    std::vector<std::string> xExpected;
  } const xTable[] = {
      // A at 0 and 40 ms, B at 50 ms: [0,40) takes A and keeps B, [40,80) takes both.
      {"take and keep",
       0,
       {{'a', "a0", 0, 40}, {'b', "b50", 50, 40}, {'a', "a40", 40, 40}, {'a'}, {'b'}},
       {"a0", "a40"}},
      {"take and keep, camera B",
       1,
       {{'a', "a0", 0, 40}, {'b', "b50", 50, 40}, {'a', "a40", 40, 40}, {'a'}, {'b'}},
       {"pool", "b50"}},
      // B's buffer at 200 ms waits through five intervals and is taken in [200,240).
      {"running ahead",
       1,
       {{'a', "a", 0, 40},
        {'a', "a", 40, 40},
        {'a', "a", 80, 40},
        {'a', "a", 120, 40},
        {'a', "a", 160, 40},
        {'a', "a", 200, 40},
        {'a', "a", 240, 40},
        {'b', "b200", 200, 40},
        {'a'},
        {'b'}},
       {"pool", "pool", "pool", "pool", "pool", "b200", "pool"}},
      // Without duration a buffer waits for its successor; the last is still queued at EOS.
      {"no duration",
       0,
       {{'b'}, {'a', "a0", 0, -1}, {'a', "a40", 40, -1}, {'a', "a80", 80, -1}, {'a'}},
       {"a0", "a40"}},
      {"all at EOS", 0, {{'a'}, {'b'}}, {}},
      // Alone at EOS, a current buffer of 200 ms doesn't hold the stream open.
      {"EOS with a long buffer", 0, {{'b'}, {'a', "a0", 0, 200}, {'a'}}, {"a0"}},
      // Beside a live pad, B's last buffer stays current until the position reaches its end.
      {"EOS beside a live pad",
       1,
       {{'b', "b0", 0, 120},
        {'b'},
        {'a', "a", 0, 40},
        {'a', "a", 40, 40},
        {'a', "a", 80, 40},
        {'a', "a", 120, 40},
        {'a', "a", 160, 40},
        {'a'}},
       {"b0", "b0", "b0", "pool", "pool"}},
  };
  for (const auto& x : xTable) {
    SCOPED_TRACE(x.szCase);
    testing::internal::CaptureStdout();
    STwoPads xPads(x.iCamera);
    for (const SStep& xStep : x.xSteps) {
      CMixInput& xIn = xStep.cPad == 'a' ? xPads.a : xPads.b;
      if (!xStep.szName)
        xIn.Eos();
      else
        xPads.Push(xIn, xStep.szName, xStep.iPtsMs * kMs,
                   xStep.iDurMs < 0 ? GST_CLOCK_TIME_NONE : xStep.iDurMs * kMs);
    }
    ASSERT_TRUE(xPads.xRig.Out().WaitForEos());
    EXPECT_EQ(x.xExpected, xPads.Out());
    testing::internal::GetCapturedStdout();
  }
}

TEST(MixTimeline, SegmentStopEndsTheStreamOrWithTheFlagShortensTheLastInterval) {
  for (bool bFlag : {false, true}) {
    STwoPads x(0);
    // B has ended before the seek: a seek without flush must not wait for it again.
    EXPECT_EQ(GST_FLOW_OK, x.b.Wait(x.b.Eos()));
    EXPECT_TRUE(x.xRig.Out().SendUpstream(
        TimeSeek(1.0, bFlag ? GST_SEEK_FLAG_SEGMENT : GST_SEEK_FLAG_NONE, 0, 100 * kMs)));
    for (int i = 0; i < 5; ++i) x.Push(x.a, "a" + std::to_string(i * 40), i * 40 * kMs, 40 * kMs);
    x.a.Eos();
    ASSERT_TRUE(x.xRig.Out().WaitForEos());
    const GstSegment* pxSegment = LastSegment(x.xRig.Out());
    ASSERT_NE(nullptr, pxSegment);
    EXPECT_EQ(100 * kMs, pxSegment->stop);
    if (!bFlag) {
      // E = 120 ms reaches the stop: EOS instead of a third frame.
      EXPECT_EQ((std::vector<std::string>{"a0", "a40"}), x.Out());
      EXPECT_EQ(0u, CountEvents(x.xRig.Out(), GST_EVENT_SEGMENT_DONE));
      continue;
    }
    // [80,100) is the last interval; then SEGMENT_DONE once and nothing more from behind the stop.
    EXPECT_EQ((std::vector<std::string>{"a0", "a40", "a80"}), x.Out());
    EXPECT_EQ(static_cast<gint64>(100 * kMs), Position(x.xRig.Mixer()));
    EXPECT_EQ(1u, CountEvents(x.xRig.Out(), GST_EVENT_SEGMENT_DONE));
    std::vector<GstMessage*> xDone = x.xRig.Messages(GST_MESSAGE_SEGMENT_DONE);
    ASSERT_EQ(1u, xDone.size());
    GstFormat eFormat;
    gint64 iPosition;
    gst_message_parse_segment_done(xDone[0], &eFormat, &iPosition);
    EXPECT_EQ(GST_FORMAT_TIME, eFormat);
    EXPECT_EQ(static_cast<gint64>(100 * kMs), iPosition);
    EXPECT_EQ(GST_EVENT_EOS, x.xRig.Out().EventTypes().back());
  }
}

TEST(MixTimeline, OutputRateTwoCountsInputTimeDouble) {
  // A buffer at 100 ms counts as [200,280) at rate 2.0, as [100,140) at rate 1.0.
  for (gdouble dRate : {1.0, 2.0}) {
    STwoPads x(0);
    EXPECT_EQ(GST_FLOW_OK, x.b.Wait(x.b.Eos()));
    EXPECT_TRUE(
        x.xRig.Out().SendUpstream(TimeSeek(dRate, GST_SEEK_FLAG_NONE, 0, GST_CLOCK_TIME_NONE)));
    x.Push(x.a, "a100", 100 * kMs, 40 * kMs);
    x.a.Eos();
    ASSERT_TRUE(x.xRig.Out().WaitForEos());
    EXPECT_EQ(Concat({Repeat("pool", dRate == 2.0 ? 5 : 2), {"a100"}}), x.Out()) << dRate;
    EXPECT_EQ(dRate, LastSegment(x.xRig.Out())->rate);
  }
}

TEST(MixTimeline, BufferWithoutTimestampIsRefusedAndTheNextOnePasses) {
  STwoPads x(0);
  x.b.Eos();
  const size_t uBad = x.a.Push(TimedBuffer(GST_CLOCK_TIME_NONE, 40 * kMs));
  EXPECT_EQ(GST_FLOW_ERROR, x.a.Wait(uBad));
  x.Push(x.a, "a0", 0, 40 * kMs);
  x.a.Eos();
  ASSERT_TRUE(x.xRig.Out().WaitForEos());
  EXPECT_EQ((std::vector<std::string>{"a0"}), x.Out());
}

/* Selector */

TEST(MixSelector, HandsOnTheCamerasOwnBufferWithMetaAndTimes) {
  STwoPads x(1);
  x.b.Eos();
  // camID 0 picks the first pad; an event without camID leaves the choice alone.
  EXPECT_TRUE(x.xRig.SelectCamera(0));
  EXPECT_FALSE(x.xRig.Out().SendUpstream(
      gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM, gst_structure_new_empty("eventStruct"))));
  GstBuffer* pxIn = TimedBuffer(0, 40 * kMs);
  auto* pxMeta = reinterpret_cast<MyMetaInfo*>(gst_buffer_add_meta(pxIn, my_meta_get_info(), NULL));
  pxMeta->exposure = 0.02f;
  pxMeta->gain = 2.5f;
  x.a.Push(pxIn);
  x.a.Eos();
  ASSERT_TRUE(x.xRig.Out().WaitForEos());
  const std::vector<SOutBuffer> xOut = x.xRig.Out().Buffers();
  ASSERT_EQ(1u, xOut.size());
  EXPECT_EQ(pxIn, xOut[0].pxBuffer);
  EXPECT_EQ(0u, xOut[0].uPts);
  EXPECT_EQ(40 * kMs, xOut[0].uDuration);
  auto* pxOutMeta =
      reinterpret_cast<MyMetaInfo*>(gst_buffer_get_meta(xOut[0].pxBuffer, MY_META_INFO_API_TYPE));
  ASSERT_NE(nullptr, pxOutMeta);
  EXPECT_EQ(0.02f, pxOutMeta->exposure);
  EXPECT_EQ(2.5f, pxOutMeta->gain);
  // The selection stays with the mixer: no camera hears of it.
  for (GstEventType e : x.a.UpstreamEventTypes()) EXPECT_NE(GST_EVENT_CUSTOM_UPSTREAM, e);
}

TEST(MixSelector, CameraBeyondThePadsGivesUnwrittenPoolBuffersOfTheOutputSize) {
  STwoPads x(3);
  for (int i = 0; i < 3; ++i) {
    x.Push(x.a, "a", i * 40 * kMs, 40 * kMs);
    x.Push(x.b, "b", i * 40 * kMs, 40 * kMs);
  }
  x.a.Eos();
  x.b.Eos();
  ASSERT_TRUE(x.xRig.Out().WaitForEos());
  const std::vector<SOutBuffer> xOut = x.xRig.Out().Buffers();
  ASSERT_EQ(3u, xOut.size());
  for (const SOutBuffer& xBuf : xOut) {
    EXPECT_TRUE(xBuf.bFromPool);
    EXPECT_TRUE(xBuf.bSysMem);
    EXPECT_EQ(128u, xBuf.uSize);  // GRAY8 16x8
    EXPECT_EQ(GST_CLOCK_TIME_NONE, xBuf.uPts);
  }
}

/* Video wall */

TEST(MixWall, TilesFollowThePadsWithACurrentBufferAndRefusedImagesAreSaidOncePerPad) {
  // Pad 0 keeps its buffer at 200 ms and has no current one: its tile stays a gap, so pad 1's
  // image lands in tile 1. Pad 2 gives no device image and pad 3 one too small for a tile.
  testing::internal::CaptureStdout();
  CMixerRig xRig("videowall");
  xRig.Play();
  const std::vector<uint8_t> xTile = FrameBytes(1280 * 1338, 71), xSmall = FrameBytes(64 * 48, 72);
  std::vector<CMixInput*> xIns = xRig.AddInputs(4);
  for (CMixInput* pxIn : xIns) pxIn->Caps(kGray25);
  xIns[0]->Push(TimedBuffer(200 * kMs, 40 * kMs));
  for (int f = 0; f < 2; ++f) {
    xIns[1]->Push(DeviceImageBuffer(1280, 1338, xTile, f * 40 * kMs, 40 * kMs));
    xIns[2]->Push(TimedBuffer(f * 40 * kMs, 40 * kMs));
    xIns[3]->Push(DeviceImageBuffer(64, 48, xSmall, f * 40 * kMs, 40 * kMs));
  }
  for (CMixInput* pxIn : xIns) pxIn->Eos();
  ASSERT_TRUE(xRig.Out().WaitForEos());
  testing::internal::GetCapturedStdout();
  const std::vector<SOutBuffer> xOut = xRig.Out().Buffers();
  ASSERT_LE(2u, xOut.size());
  EXPECT_TRUE(xOut[0].bDeviceImage);
  EXPECT_EQ(GST_CLOCK_TIME_NONE, xOut[0].uPts);
  const Qv::CQvImage xWall = DownloadBufferImage(xOut[1].pxBuffer);
  ASSERT_EQ(Qv::CQvImageFormat(3840, 2676, Qv::EPixelType::BayerGR, Qv::EDataType::UByte),
            xWall.GetFormat());
  const auto* pWall = static_cast<const uint8_t*>(xWall.GetDataPtr());
  int iBadRows = 0;
  for (size_t y = 0; y < 1338; ++y)
    iBadRows += std::memcmp(pWall + y * 3840 + 1280, &xTile[y * 1280], 1280) != 0;
  EXPECT_EQ(0, iBadRows) << "tile 1";
  EXPECT_NE(0, std::memcmp(pWall, xTile.data(), 1280)) << "tile 0 is a gap";
  std::vector<std::string> xTexts;
  for (GstMessage* pxMessage : xRig.Messages(GST_MESSAGE_WARNING)) {
    GError* pxError = NULL;
    gst_message_parse_warning(pxMessage, &pxError, NULL);
    xTexts.push_back(pxError->message);
    g_error_free(pxError);
  }
  EXPECT_EQ((std::vector<std::string>{
                "The image of sink_2 carries no device image; its tile stays unwritten.",
                "The image of sink_3 is 64x48, BayerGR, UByte, smaller than a tile of 1280 "
                "bytes by 1338 rows; its tile stays unwritten.",
                "The image of sink_0 carries no device image; its tile stays unwritten."}),
            xTexts);
  EXPECT_TRUE(xRig.Messages(GST_MESSAGE_ERROR).empty());
}

/* Events and queries */

TEST(MixEvents, FlushingSeekClearsCurrentBuffersAndPlainSeekKeepsThem) {
  // B holds b0 over [0,400) and keeps b1 at 400 ms. After the seek to 0 the intervals start
  // again: the plain seek keeps handing on b0, the flushing one has no current buffer.
  for (bool bFlush : {false, true}) {
    STwoPads x(1);
    x.Push(x.a, "a0", 0, 40 * kMs);
    x.Push(x.a, "a40", 40 * kMs, 40 * kMs);
    x.Push(x.b, "b0", 0, 400 * kMs);
    x.Push(x.b, "b1", 400 * kMs, 40 * kMs);
    ASSERT_TRUE(x.xRig.Out().WaitForBuffers(2));
    EXPECT_TRUE(x.xRig.Out().SendUpstream(
        TimeSeek(1.0, bFlush ? GST_SEEK_FLAG_FLUSH : GST_SEEK_FLAG_NONE, 0, GST_CLOCK_TIME_NONE)));
    EXPECT_EQ(-1, Position(x.xRig.Mixer()));
    if (bFlush) {
      // As sources do on a flushing seek: what was queued goes, and b1 comes again.
      for (CMixInput* pxIn : {&x.a, &x.b}) {
        pxIn->Event(gst_event_new_flush_start());
        pxIn->Event(gst_event_new_flush_stop(TRUE));
        pxIn->Segment();
      }
      x.Push(x.b, "b1", 400 * kMs, 40 * kMs);
    }
    x.Push(x.a, "a80", 80 * kMs, 40 * kMs);
    x.a.Eos();
    x.b.Eos();
    ASSERT_TRUE(x.xRig.Out().WaitForEos());
    EXPECT_EQ(Concat({{"b0", "b0"}, Repeat(bFlush ? "pool" : "b0", 10), {"b1"}}), x.Out());
    EXPECT_EQ(2u, CountEvents(x.xRig.Out(), GST_EVENT_SEGMENT));
    for (CMixInput* pxIn : {&x.a, &x.b}) {
      const auto xTypes = pxIn->UpstreamEventTypes();
      EXPECT_EQ(1, std::count(xTypes.begin(), xTypes.end(), GST_EVENT_SEEK));
    }
  }
}

/* Quality of service */

struct SQosRun {
  std::vector<SOutBuffer> xOut;
  std::vector<GstMessage*> xQos;
  std::string sStdout;
};

// One pad with a buffer over [0,2 s) and a kept one at 2 s: one pass per 40 ms interval.
template <class FReport>
void RunQos(CMixerRig& xRig, SQosRun& xRun, FReport fnReport) {
  testing::internal::CaptureStdout();
  xRig.Play();
  CMixInput& xIn = xRig.AddInput();
  xIn.Caps(kGray25, false);
  EXPECT_EQ(GST_FLOW_OK, xIn.Wait(xIn.Segment()));
  fnReport(xRig);
  xIn.Push(TimedBuffer(0, 2 * GST_SECOND));
  xIn.Push(TimedBuffer(2 * GST_SECOND, 40 * kMs));
  xIn.Eos();
  EXPECT_TRUE(xRig.Out().WaitForEos());
  xRun.sStdout = testing::internal::GetCapturedStdout();
  xRun.xOut = xRig.Out().Buffers();
  xRun.xQos = xRig.Messages(GST_MESSAGE_QOS);
}

size_t CountLines(const std::string& s, const std::string& sLine) {
  size_t n = 0;
  for (size_t i = s.find(sLine); i != std::string::npos; i = s.find(sLine, i + 1)) ++n;
  return n;
}

TEST(MixQos, LateReportDropsUntilTwiceTheLatenessAndOneFramePastIt) {
  // diff +40 ms at 1 s: earliest 1 s + 80 ms + 40 ms = 1.12 s; frames from 0 to 1.08 s go.
  // diff -40 ms: earliest 0.96 s.
  for (GstClockTimeDiff iDiff : {40 * GST_MSECOND, -40 * GST_MSECOND}) {
    CMixerRig xRig;
    SQosRun xRun;
    RunQos(xRig, xRun, [&](CMixerRig& r) {
      EXPECT_TRUE(
          r.Out().SendUpstream(gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 0.8, iDiff, GST_SECOND)));
    });
    const GstClockTime uEarliest = iDiff > 0 ? 1120 * kMs : 960 * kMs;
    const size_t uDrops = uEarliest / (40 * kMs);
    ASSERT_EQ(uDrops, xRun.xQos.size());
    EXPECT_EQ(uDrops, CountLines(xRun.sStdout, "Have jitter, dropping frames!\n"));
    // The frame at the earliest time itself has jitter 0 and is made; so are the 2 s buffer's.
    EXPECT_EQ(50 - uDrops + 1, xRun.xOut.size());
    // The first and the last drop, each with its jitter and running count.
    for (size_t i : {size_t{0}, uDrops - 1}) {
      const GstClockTime uS = i * 40 * kMs;
      guint64 uRunning, uProcessed, uDropped;
      gst_message_parse_qos(xRun.xQos[i], NULL, &uRunning, NULL, NULL, NULL);
      gint64 iJitter;
      gdouble dProportion;
      gst_message_parse_qos_values(xRun.xQos[i], &iJitter, &dProportion, NULL);
      gst_message_parse_qos_stats(xRun.xQos[i], NULL, &uProcessed, &uDropped);
      EXPECT_EQ(
          (std::vector<gint64>{static_cast<gint64>(uS), static_cast<gint64>(uEarliest - uS), 0,
                               static_cast<gint64>(i + 1)}),
          (std::vector<gint64>{static_cast<gint64>(uRunning), iJitter,
                               static_cast<gint64>(uProcessed), static_cast<gint64>(uDropped)}));
      EXPECT_EQ(0.8, dProportion);
    }
  }
}

TEST(MixQos, NothingIsDroppedWithoutALateReport) {
  // No report; a report without timestamp; an early report reaching back before 0 (its
  // earliest time is 0; nothing may be dropped).
  for (int iCase : {0, 1, 2}) {
    CMixerRig xRig;
    SQosRun xRun;
    RunQos(xRig, xRun, [&](CMixerRig& r) {
      if (iCase == 0) return;
      GstEvent* pxQos = gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 0.8, GST_SECOND,
                                          iCase == 1 ? GST_CLOCK_TIME_NONE : GST_SECOND);
      // GStreamer makes no event earlier than its own timestamp: one is edited into it.
      if (iCase == 2) {
        gst_structure_set(gst_event_writable_structure(pxQos), "diff", G_TYPE_INT64,
                          static_cast<gint64>(-2 * GST_SECOND), NULL);
      }
      EXPECT_TRUE(r.Out().SendUpstream(pxQos));
    });
    EXPECT_TRUE(xRun.xQos.empty()) << "case " << iCase;
    EXPECT_EQ(51u, xRun.xOut.size()) << "case " << iCase;
    EXPECT_EQ(0u, CountLines(xRun.sStdout, "Have jitter"));
  }
}

}  // namespace
