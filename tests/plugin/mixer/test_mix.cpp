// The mixer between test pads whose buffers and times each test sets: the property,
// negotiation, the output time line, the two modes, events and quality of service. Expected
// frames are worked out by hand from the 40 ms intervals of a 25/1 output.
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "GstTestUtil.h"
#include "MixerRig.h"
#include "QvMessage.h"
#include "mixer/gstqvCudaMixPriv.h"

using namespace QvTest;

namespace {

const std::vector<const char*> kTwoPads = {kGray25, kGray25};

std::string Repeat(const std::string& s, size_t n) {
  std::string x;
  for (size_t i = 0; i < n; ++i) x += s + " ";
  return x;
}

GstEvent* TimeSeek(gdouble dRate, GstSeekFlags eFlags, GstClockTime uStart, GstClockTime uStop) {
  return gst_event_new_seek(dRate, GST_FORMAT_TIME, eFlags, GST_SEEK_TYPE_SET,
                            static_cast<gint64>(uStart),
                            GST_CLOCK_TIME_IS_VALID(uStop) ? GST_SEEK_TYPE_SET : GST_SEEK_TYPE_NONE,
                            GST_CLOCK_TIME_IS_VALID(uStop) ? static_cast<gint64>(uStop) : -1);
}

const GstSegment* LastSegment(CMixerRig& x) {
  const GstSegment* pxSegment = NULL;
  gst_event_parse_segment(x.Events(GST_EVENT_SEGMENT).back(), &pxSegment);
  return pxSegment;
}

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
  Qv::CMessageCapture xMessages;
  g_object_set(pxMixer, "type", "videowall", NULL);
  EXPECT_EQ("videoWall", Type());
  g_object_set(pxMixer, "type", "selector", NULL);
  g_object_set(pxMixer, "type", "videoWall", NULL);  // what reading gives, yet no mode
  EXPECT_EQ("selector", Type());
  EXPECT_EQ(
      "Setting Mixer Type to: videowall\nSetting Mixer Type to: MixType_VideoWall \n"
      "Setting Mixer Type to: selector\nSetting Mixer Type to: videoWall\n",
      xMessages.Text());
  gst_object_unref(pxMixer);
}

TEST(MixPads, AutomaticNamesGoOnWithFreeNumbersAfterTheLargestOne) {
  GstElement* pxMixer = gst_element_factory_make("qvcudamix", NULL);
  std::string sNames;
  for (const char* szName : {"sink_%u", "sink_4294967295", "sink_%u", "sink_%u", "sink_0"}) {
    GstPad* pxPad = gst_element_request_pad_simple(pxMixer, szName);
    sNames += pxPad ? GST_PAD_NAME(pxPad) + std::string(" ") : "none ";
    if (pxPad) gst_object_unref(pxPad);
  }
  EXPECT_EQ("sink_0 sink_4294967295 sink_1 sink_2 none ", sNames);
  gst_object_unref(pxMixer);
}

struct SCapsRow {
  const char* szType;
  std::vector<const char*> xCaps;
  const char* szExpected;
};
class MixCaps : public testing::TestWithParam<SCapsRow> {};
const std::vector<const char*> kThree = {
    "video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1",
    "video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1",
    "video/x-raw,format=GRAY8,width=1280,height=720,framerate=15/1"};
INSTANTIATE_TEST_SUITE_P(
    Rows, MixCaps,
    testing::Values(SCapsRow{"selector", kThree, "video/x-raw GRAY8 1280x720 30/1"},
                    SCapsRow{"videowall", kThree, "video/x-raw GRAY8 3840x2676 30/1"},
                    SCapsRow{"selector",
                             {"video/x-raw,format=GRAY8,width=64,height=48,framerate=0/1"},
                             "video/x-raw GRAY8 64x48 25/1"},
                    // A raw mosaic under bayer caps goes out as GRAY8, the label of a raw
                    // device image.
                    SCapsRow{"selector",
                             {"video/x-bayer,format=grbg,width=64,height=48,framerate=30/1"},
                             "video/x-raw GRAY8 64x48 30/1"}));

TEST_P(MixCaps, OutputTakesTheLargestSizeAndRateOrTheWallSize) {
  const SCapsRow& xRow = GetParam();
  Qv::CMessageCapture xMessages;
  CMixerRig x(xRow.szType, xRow.xCaps);
  for (size_t i = 0; i < xRow.xCaps.size(); ++i) x.Push(i, TimedBuffer(0, 40 * kMs));
  ASSERT_TRUE(x.WaitForBuffers(1));
  GstCaps* pxCaps = NULL;
  gst_event_parse_caps(x.Events(GST_EVENT_CAPS).back(), &pxCaps);
  const GstStructure* s = gst_caps_get_structure(pxCaps, 0);
  int w = 0, h = 0, n = 0, d = 0;
  gst_structure_get(s, "width", G_TYPE_INT, &w, "height", G_TYPE_INT, &h, "framerate",
                    GST_TYPE_FRACTION, &n, &d, NULL);
  EXPECT_EQ(xRow.szExpected, std::string(gst_structure_get_name(s)) + " " +
                                 gst_structure_get_string(s, "format") + " " + std::to_string(w) +
                                 "x" + std::to_string(h) + " " + std::to_string(n) + "/" +
                                 std::to_string(d))
      << xRow.szType << " " << xRow.xCaps[0];
}

TEST(MixTimeline, IntervalsEndOnTheRoundedNanosecondAndARateChangeGoesOnWithoutAJump) {
  {
    // At 30/1 the second interval ends at 2/30 s = 66666666.67 ns, rounded up.
    CMixerRig x(nullptr, {"video/x-raw,format=GRAY8,width=16,height=8,framerate=30/1"});
    EXPECT_EQ(GST_FLOW_OK, x.PushNow(0, TimedBuffer(0, 33333333)));
    EXPECT_EQ(GST_FLOW_OK, x.PushNow(0, TimedBuffer(33333333, 33333334)));
    EXPECT_EQ(66666667, x.Position());
  }
  CMixerRig x(nullptr, {kGray25});
  for (int i = 0; i < 3; ++i) x.PushNow(0, TimedBuffer(i * 40 * kMs, 40 * kMs));
  EXPECT_EQ(static_cast<gint64>(120 * kMs), x.Position());
  // 50/1 holds from the first buffer under it, [120,160) at 25/1: then the next interval ends
  // one 20 ms frame later, not at 4 x 20 ms.
  x.Event(0, CapsEvent("video/x-raw,format=GRAY8,width=16,height=8,framerate=50/1"));
  x.Push(0, TimedBuffer(120 * kMs, 20 * kMs));
  x.Push(0, TimedBuffer(140 * kMs, 20 * kMs));
  x.Settle();
  EXPECT_EQ(static_cast<gint64>(180 * kMs), x.Position());
  GstCaps* pxCaps = NULL;
  gst_event_parse_caps(x.Events(GST_EVENT_CAPS).back(), &pxCaps);
  int n = 0, d = 0;
  gst_structure_get_fraction(gst_caps_get_structure(pxCaps, 0), "framerate", &n, &d);
  EXPECT_EQ(std::pair(50, 1), std::pair(n, d));
}

struct SExampleRow {
  const char* szCase;
  int iCamera;
  const char* szSteps;
  const char* szExpected;
};
class MixExamples : public testing::TestWithParam<SExampleRow> {};
INSTANTIATE_TEST_SUITE_P(
    Rows, MixExamples,
    testing::ValuesIn(std::vector<SExampleRow>{
        // [0,40) takes a0 and keeps b50, [40,80) takes both.
        {"take and keep", 0, "a0@0+40 b50@50+40 a40@40+40 a. b.", "a0 a40"},
        {"take and keep, camera B", 1, "a0@0+40 b50@50+40 a40@40+40 a. b.", "b50"},
        // B's buffer at 200 ms waits through five intervals and is taken in [200,240).
        {"running ahead", 1,
         "a@0+40 a@40+40 a@80+40 a@120+40 a@160+40 a@200+40 a@240+40 b200@200+40 a. b.", "b200"},
        // Without duration a buffer waits for its successor; the last is still queued at EOS.
        {"no duration", 0, "b. a0@0 a40@40 a80@80 a.", "a0 a40"},
        {"all at EOS", 0, "a. b.", ""},
        // Alone at EOS, a current buffer of 200 ms doesn't hold the stream open.
        {"EOS with a long buffer", 0, "b. a0@0+200 a.", "a0"},
        // Beside a live pad, B's last buffer stays current until the position reaches its end.
        {"EOS beside a live pad", 1, "b0@0+120 b. a@0+40 a@40+40 a@80+40 a@120+40 a@160+40 a.",
         "b0 b0 b0"},
    }));

TEST_P(MixExamples, WorkedExamplesGiveTheExpectedFrames) {
  const SExampleRow& xRow = GetParam();
  SCOPED_TRACE(xRow.szCase);
  Qv::CMessageCapture xMessages;
  CMixerRig x(nullptr, kTwoPads);
  EXPECT_TRUE(x.SelectCamera(xRow.iCamera));
  x.Feed(xRow.szSteps);
  ASSERT_TRUE(x.WaitForEos());
  EXPECT_EQ(xRow.szExpected, x.Labels());
}

TEST(MixTimeline, SegmentStopEndsTheStreamOrWithTheFlagShortensTheLastInterval) {
  for (bool bFlag : {false, true}) {
    CMixerRig x(nullptr, kTwoPads);
    // B has ended before the seek: a seek without flush must not wait for it again.
    x.Feed("b.");
    x.Settle();
    EXPECT_TRUE(x.Upstream(
        TimeSeek(1.0, bFlag ? GST_SEEK_FLAG_SEGMENT : GST_SEEK_FLAG_NONE, 0, 100 * kMs)));
    x.Feed("a0@0+40 a40@40+40 a80@80+40 a120@120+40 a160@160+40 a.");
    ASSERT_TRUE(x.WaitForEos());
    EXPECT_EQ(100 * kMs, LastSegment(x)->stop);
    // Without the flag E = 120 ms reaches the stop: EOS instead of a third frame. With it
    // [80,100) is the last interval; then SEGMENT_DONE once and nothing from behind the stop.
    EXPECT_EQ(bFlag ? "a0 a40 a80" : "a0 a40", x.Labels());
    EXPECT_EQ(bFlag ? 1u : 0u, x.Events(GST_EVENT_SEGMENT_DONE).size());
    EXPECT_EQ(GST_EVENT_EOS, x.LastEventType());
    if (!bFlag) continue;
    EXPECT_EQ(static_cast<gint64>(100 * kMs), x.Position());
    std::vector<GstMessage*> xDone = x.RawMessages(GST_MESSAGE_SEGMENT_DONE);
    ASSERT_EQ(1u, xDone.size());
    GstFormat eFormat;
    gint64 iPosition;
    gst_message_parse_segment_done(xDone[0], &eFormat, &iPosition);
    EXPECT_EQ(std::pair(GST_FORMAT_TIME, static_cast<gint64>(100 * kMs)),
              std::pair(eFormat, iPosition));
  }
}

TEST(MixTimeline, APadsNextBufferIsTakenKeptOrDroppedByItsRunningTime) {
  // A segment [100, 300) ms, the output interval [40, 80) ms of running time; times in ms.
  GstSegment xSegment;
  gst_segment_init(&xSegment, GST_FORMAT_TIME);
  xSegment.start = 100 * kMs;
  xSegment.stop = 300 * kMs;
  const ECandidate T = ECandidate::Take, K = ECandidate::Keep, D = ECandidate::Drop;
  const struct {
    gdouble dRate;
    int iStart, iEnd, iCurrentEnd;  // -1: no current buffer
    ECandidate eWhat;
    int iRunStart, iRunEnd;
  } xTable[] = {{1.0, 140, 180, -1, T, 40, 80},   {1.0, 90, 150, -1, T, 0, 50},
                {1.0, 180, 220, -1, K, 80, 120},  {1.0, 100, 130, -1, D, 0, 30},
                {1.0, 300, 340, -1, D, 300, 340}, {1.0, 40, 90, -1, D, 40, 90},
                {1.0, 150, 170, 100, D, 50, 70},  {2.0, 120, 140, -1, T, 40, 80}};
  for (const auto& r : xTable) {
    const SCandidate x = gst_cudamixer2_place_candidate(
        xSegment, r.dRate, r.iStart * kMs, r.iEnd * kMs,
        r.iCurrentEnd < 0 ? GST_CLOCK_TIME_NONE : r.iCurrentEnd * kMs, 40 * kMs, 80 * kMs);
    EXPECT_EQ(std::tuple(r.eWhat, r.iRunStart * kMs, r.iRunEnd * kMs),
              std::tuple(x.eWhat, x.uStart, x.uEnd))
        << r.iStart << " " << r.iEnd << " at rate " << r.dRate;
  }
}

TEST(MixTimeline, OutputRateTwoCountsInputTimeDouble) {
  // A buffer at 100 ms counts as [200,280) at rate 2.0, as [100,140) at rate 1.0.
  for (gdouble dRate : {1.0, 2.0}) {
    CMixerRig x(nullptr, kTwoPads);
    x.Feed("b.");
    x.Settle();
    EXPECT_TRUE(x.Upstream(TimeSeek(dRate, GST_SEEK_FLAG_NONE, 0, GST_CLOCK_TIME_NONE)));
    x.Feed("a100@100+40 a.");
    ASSERT_TRUE(x.WaitForEos());
    EXPECT_EQ("a100", x.Labels()) << dRate;
    EXPECT_EQ(static_cast<gint64>((dRate == 2.0 ? 240 : 120) * kMs), x.Position()) << dRate;
    EXPECT_EQ(dRate, LastSegment(x)->rate);
  }
}

TEST(MixTimeline, BufferWithoutTimestampIsRefusedAndTheNextOnePasses) {
  CMixerRig x(nullptr, kTwoPads);
  x.Feed("b.");
  x.Settle();
  EXPECT_EQ(GST_FLOW_ERROR, x.PushNow(0, TimedBuffer(GST_CLOCK_TIME_NONE, 40 * kMs)));
  EXPECT_EQ(1u, x.Messages(GST_MESSAGE_ERROR).size());
  EXPECT_EQ(GST_FLOW_OK, x.PushNow(0, TimedBuffer(0, 40 * kMs), "a0"));
  x.Feed("a.");
  ASSERT_TRUE(x.WaitForEos());
  EXPECT_EQ("a0", x.Labels());
}

TEST(MixSelector, HandsOnTheCamerasOwnBufferWithMetaAndTimes) {
  CMixerRig x(nullptr, kTwoPads);
  x.Feed("b.");
  x.Settle();
  // camID 0 picks the first pad; an event without camID leaves the choice alone.
  EXPECT_TRUE(x.SelectCamera(1));
  EXPECT_TRUE(x.SelectCamera(0));
  EXPECT_FALSE(x.Upstream(
      gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM, gst_structure_new_empty("eventStruct"))));
  EXPECT_EQ(GST_FLOW_OK, x.PushNow(0, WithMeta(TimedBuffer(0, 0), 0, 0.02f, 2.5f), "a0"));
  x.Feed("a.");
  ASSERT_TRUE(x.WaitForEos());
  ASSERT_EQ("a0", x.Labels());
  ExpectMeta(x.Out()[0].pxBuffer, 0, 0.02f, 2.5f);
  // The selection stays with the mixer: no camera hears of it.
  for (GstEventType e : x.UpstreamTypes(0)) EXPECT_NE(GST_EVENT_CUSTOM_UPSTREAM, e);
}

TEST(MixSelector, CameraWithoutPadOrFrameSkipsFramesAndSaysSoOncePerCamera) {
  // Camera 3 of two pads; camera 1 whose first frame comes at 80 ms. The time line goes on.
  for (auto [iCamera, szSteps, szOut, iEnd, szWarning] :
       {std::tuple{3, "a@0+40 b@0+40 a@40+40 b@40+40 a. b.", "", 80, "Camera 3 has no pad"},
        {1, "a@0+40 a@40+40 a@80+40 b80@80+40 a. b.", "b80", 120, "Camera 1 has no frame"}}) {
    CMixerRig x(nullptr, kTwoPads);
    EXPECT_TRUE(x.SelectCamera(iCamera));
    x.Feed(szSteps);
    ASSERT_TRUE(x.WaitForEos());
    EXPECT_EQ(szOut, x.Labels());
    EXPECT_EQ(static_cast<gint64>(iEnd * kMs), x.Position());
    EXPECT_EQ(std::vector<std::string>{std::string(szWarning) +
                                       "; output frames are skipped until it has one."},
              x.Messages(GST_MESSAGE_WARNING));
  }
}

TEST(MixWall, TilesFollowThePadsWithACurrentBufferAndRefusedImagesAreSaidOncePerPad) {
  // Pad 0 keeps its buffer at 200 ms and has no current one: its tile stays a gap, so pad 1's
  // image lands in tile 1. Pad 2 gives no device image and pad 3 one too small for a tile.
  Qv::CMessageCapture xMessages;
  CMixerRig x("videowall", {kGray25, kGray25, kGray25, kGray25});
  const std::vector<uint8_t> xTile = FrameBytes(1280 * 1338, 71), xSmall = FrameBytes(64 * 48, 72);
  auto Image = [](int w, int h, const std::vector<uint8_t>& xBytes, int f) {
    Qv::CQvImageMoniker xMoniker;
    xMoniker.Create(w, h, Qv::EPixelType::BayerGR, Qv::EDataType::UByte,
                    const_cast<uint8_t*>(xBytes.data()));
    GstBuffer* pxBuffer = DeviceImageBuffer(xMoniker);
    GST_BUFFER_PTS(pxBuffer) = f * 40 * kMs;
    GST_BUFFER_DURATION(pxBuffer) = 40 * kMs;
    return pxBuffer;
  };
  x.Push(0, TimedBuffer(200 * kMs, 40 * kMs));
  for (int f = 0; f < 2; ++f) {
    x.Push(1, Image(1280, 1338, xTile, f));
    x.Push(2, TimedBuffer(f * 40 * kMs, 40 * kMs));
    x.Push(3, Image(64, 48, xSmall, f));
  }
  x.Feed("a. b. c. d.");
  ASSERT_TRUE(x.WaitForEos());
  const std::vector<SOutBuffer> xOut = x.Out();
  ASSERT_LE(2u, xOut.size());
  EXPECT_EQ("wall", xOut[0].sLabel);
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
  EXPECT_EQ((std::vector<std::string>{
                "The image of sink_2 carries no device image; its tile stays unwritten.",
                "The image of sink_3 is 64x48, BayerGR, UByte, smaller than a tile of 1280 "
                "bytes by 1338 rows; its tile stays unwritten.",
                "The image of sink_0 carries no device image; its tile stays unwritten."}),
            x.Messages(GST_MESSAGE_WARNING));
  EXPECT_TRUE(x.Messages(GST_MESSAGE_ERROR).empty());
}

TEST(MixEvents, FlushingSeekClearsCurrentBuffersAndPlainSeekKeepsThem) {
  // B holds b0 over [0,400) and keeps b1 at 400 ms. After the seek to 0 the intervals start
  // again: the plain seek keeps handing on b0, the flushing one has no current buffer.
  for (bool bFlush : {false, true}) {
    CMixerRig x(nullptr, kTwoPads);
    EXPECT_TRUE(x.SelectCamera(1));
    x.Feed("a0@0+40 a40@40+40 b0@0+400 b1@400+40");
    ASSERT_TRUE(x.WaitForBuffers(2));
    EXPECT_TRUE(x.Upstream(
        TimeSeek(1.0, bFlush ? GST_SEEK_FLAG_FLUSH : GST_SEEK_FLAG_NONE, 0, GST_CLOCK_TIME_NONE)));
    if (!bFlush) {
      EXPECT_EQ(-1, x.Position());  // a flushing seek waits for the flush
    } else {
      // As sources do on a flushing seek: what was queued goes, and b1 comes again.
      for (size_t i : {0, 1}) {
        x.Event(i, gst_event_new_flush_start());
        x.Event(i, gst_event_new_flush_stop(TRUE));
        x.Event(i, SegmentFromZero());
      }
      x.Feed("b1@400+40");
    }
    x.Feed("a80@80+40 a. b.");
    ASSERT_TRUE(x.WaitForEos());
    EXPECT_EQ("b0 b0 " + (bFlush ? "" : Repeat("b0", 10)) + "b1", x.Labels());
    EXPECT_EQ(2u, x.Events(GST_EVENT_SEGMENT).size());
    for (size_t i : {0, 1}) {
      const auto xTypes = x.UpstreamTypes(i);
      EXPECT_EQ(1, std::count(xTypes.begin(), xTypes.end(), GST_EVENT_SEEK));
    }
  }
}

// One pad with a buffer over [0,2 s) and a kept one at 2 s: one pass per 40 ms interval. Returns
// how often the mixer printed that it drops a frame.
size_t RunQos(CMixerRig& x, GstEvent* pxReport) {
  Qv::CMessageCapture xMessages;
  if (pxReport) {
    EXPECT_TRUE(x.Upstream(pxReport));
  }
  x.Feed("a@0+2000 a@2000+40 a.");
  EXPECT_TRUE(x.WaitForEos());
  const std::string s = xMessages.Text(), sLine = "Have jitter, dropping frames!\n";
  size_t n = 0;
  for (size_t i = s.find(sLine); i != std::string::npos; i = s.find(sLine, i + 1)) ++n;
  return n;
}

TEST(MixQos, LateReportDropsUntilTwiceTheLatenessAndOneFramePastIt) {
  // diff +40 ms at 1 s: earliest 1 s + 80 ms + 40 ms = 1.12 s; frames from 0 to 1.08 s go.
  // diff -40 ms: earliest 0.96 s.
  for (GstClockTimeDiff iDiff : {40 * GST_MSECOND, -40 * GST_MSECOND}) {
    CMixerRig x(nullptr, {kGray25});
    const size_t uPrinted =
        RunQos(x, gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 0.8, iDiff, GST_SECOND));
    const GstClockTime uEarliest = iDiff > 0 ? 1120 * kMs : 960 * kMs;
    const size_t uDrops = uEarliest / (40 * kMs);
    const std::vector<GstMessage*> xQos = x.RawMessages(GST_MESSAGE_QOS);
    ASSERT_EQ(uDrops, xQos.size());
    EXPECT_EQ(uDrops, uPrinted);
    // The frame at the earliest time itself has jitter 0 and is made; so are the 2 s buffer's.
    EXPECT_EQ(50 - uDrops + 1, x.Out().size());
    // The first and the last drop: running time, jitter, proportion, processed, dropped.
    for (size_t i : {size_t{0}, uDrops - 1}) {
      guint64 uRunning, uProcessed, uDropped;
      gint64 iJitter;
      gdouble dProportion;
      gst_message_parse_qos(xQos[i], NULL, &uRunning, NULL, NULL, NULL);
      gst_message_parse_qos_values(xQos[i], &iJitter, &dProportion, NULL);
      gst_message_parse_qos_stats(xQos[i], NULL, &uProcessed, &uDropped);
      const GstClockTime uS = i * 40 * kMs;
      EXPECT_EQ((std::tuple<guint64, gint64, gdouble, guint64, guint64>{
                    uS, static_cast<gint64>(uEarliest - uS), 0.8, 0, i + 1}),
                std::tuple(uRunning, iJitter, dProportion, uProcessed, uDropped));
    }
  }
}

TEST(MixQos, NothingIsDroppedWithoutALateReport) {
  // No report; a report without timestamp; an early report reaching back before 0 (its
  // earliest time is 0; nothing may be dropped).
  for (int iCase : {0, 1, 2}) {
    CMixerRig x(nullptr, {kGray25});
    GstEvent* pxQos = iCase == 0 ? nullptr
                                 : gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 0.8, GST_SECOND,
                                                     iCase == 1 ? GST_CLOCK_TIME_NONE : GST_SECOND);
    // GStreamer makes no event earlier than its own timestamp: one is edited into it.
    if (iCase == 2)
      gst_structure_set(gst_event_writable_structure(pxQos), "diff", G_TYPE_INT64,
                        static_cast<gint64>(-2 * GST_SECOND), NULL);
    EXPECT_EQ(0u, RunQos(x, pxQos)) << "case " << iCase;
    EXPECT_TRUE(x.RawMessages(GST_MESSAGE_QOS).empty()) << "case " << iCase;
    EXPECT_EQ(51u, x.Out().size()) << "case " << iCase;
  }
}

}  // namespace
