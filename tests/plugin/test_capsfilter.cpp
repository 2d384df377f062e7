// The relabelling filters in use: the buffer that goes in comes out, untouched, and a source
// upstream is offered pinned memory.
#include <gst/check/gstharness.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "GstTestUtil.h"
#include "gstqvHostElements.h"
#include "plugin.h"

namespace {

struct SFilterCase {
  const char* szName;
  const char* szInCaps;
  const char* szOutCaps;
};

class CapsFilterTest : public ::testing::TestWithParam<SFilterCase> {
 protected:
  void SetUp() override { ASSERT_TRUE(qv_register_host_elements()); }
};

TEST_P(CapsFilterTest, TheVeryBufferGoesOnWithItsMetaMemoriesAndTimes) {
  const SFilterCase& c = GetParam();
  GstHarness* pxHarness = gst_harness_new(c.szName);
  gst_harness_set_src_caps_str(pxHarness, c.szInCaps);
  testing::internal::CaptureStdout();
  for (bool bShared : {false, true}) {
    GstBuffer* pxIn = QvTest::BufferFromBytes(QvTest::FrameBytes(24, 3));
    gst_buffer_append_memory(pxIn, gst_allocator_alloc(NULL, 8, NULL));
    GST_BUFFER_PTS(pxIn) = 5 * GST_MSECOND;
    GST_BUFFER_DTS(pxIn) = 4 * GST_MSECOND;
    GST_BUFFER_DURATION(pxIn) = 40 * GST_MSECOND;
    GST_BUFFER_OFFSET(pxIn) = 17;
    auto* pxMeta =
        reinterpret_cast<MyMetaInfo*>(gst_buffer_add_meta(pxIn, my_meta_get_info(), NULL));
    pxMeta->exposure = 0.01f;
    pxMeta->gain = 1.5f;
    GstMemory* pxFirst = gst_buffer_peek_memory(pxIn, 0);
    // A buffer held elsewhere too is not writable; it still goes on as it is.
    if (bShared) gst_buffer_ref(pxIn);
    GstBuffer* pxOut = gst_harness_push_and_pull(pxHarness, pxIn);
    ASSERT_EQ(pxIn, pxOut) << c.szName << (bShared ? " shared" : "");
    ASSERT_EQ(2u, gst_buffer_n_memory(pxOut));
    EXPECT_EQ(pxFirst, gst_buffer_peek_memory(pxOut, 0));
    EXPECT_EQ(5 * GST_MSECOND, GST_BUFFER_PTS(pxOut));
    EXPECT_EQ(4 * GST_MSECOND, GST_BUFFER_DTS(pxOut));
    EXPECT_EQ(40 * GST_MSECOND, GST_BUFFER_DURATION(pxOut));
    EXPECT_EQ(17u, GST_BUFFER_OFFSET(pxOut));
    EXPECT_EQ(pxMeta,
              reinterpret_cast<MyMetaInfo*>(gst_buffer_get_meta(pxOut, MY_META_INFO_API_TYPE)));
    std::vector<uint8_t> xBytes(24);
    gst_buffer_extract(pxOut, 0, xBytes.data(), 24);
    EXPECT_EQ(QvTest::FrameBytes(24, 3), xBytes);
    gst_buffer_unref(pxOut);
    if (bShared) gst_buffer_unref(pxIn);
  }
  testing::internal::GetCapturedStdout();
  GstCaps* pxCaps = gst_pad_get_current_caps(pxHarness->sinkpad);
  EXPECT_TRUE(QvTest::CapsEqualString(pxCaps, c.szOutCaps));
  gst_caps_unref(pxCaps);
  gst_harness_teardown(pxHarness);
}

TEST_P(CapsFilterTest, SourceIsOfferedAPinnedPool) {
  const SFilterCase& c = GetParam();
  GstHarness* pxHarness = gst_harness_new(c.szName);
  testing::internal::CaptureStdout();
  gst_harness_set_src_caps_str(pxHarness, c.szInCaps);
  GstCaps* pxCaps = gst_caps_from_string(c.szInCaps);
  GstQuery* pxQuery = gst_query_new_allocation(pxCaps, TRUE);
  EXPECT_TRUE(gst_pad_peer_query(pxHarness->srcpad, pxQuery));
  testing::internal::GetCapturedStdout();
  ASSERT_EQ(1u, gst_query_get_n_allocation_params(pxQuery));
  GstAllocator* pxAllocator = NULL;
  gst_query_parse_nth_allocation_param(pxQuery, 0, &pxAllocator, NULL);
  ASSERT_NE(nullptr, pxAllocator);
  EXPECT_STREQ("MySysMem", pxAllocator->mem_type);
  EXPECT_EQ(1u, gst_query_get_n_allocation_pools(pxQuery));
  gst_object_unref(pxAllocator);
  gst_query_unref(pxQuery);
  gst_caps_unref(pxCaps);
  gst_harness_teardown(pxHarness);
}

// Sizes chosen so that each filter's height rule takes the frame's own size at the first ask.
INSTANTIATE_TEST_SUITE_P(
    Filters, CapsFilterTest,
    ::testing::Values(
        SFilterCase{"qvbayer2rgb", "video/x-bayer,format=grbg,width=4,height=6,framerate=30/1",
                    "video/x-raw,format=RGB,width=4,height=2,framerate=30/1"},
        SFilterCase{"qvrgb2bayer", "video/x-raw,format=RGB,width=4,height=2,framerate=30/1",
                    "video/x-bayer,format=bggr,width=4,height=6,framerate=30/1"},
        SFilterCase{"qvbayer2lum", "video/x-bayer,format=rggb,width=6,height=4,framerate=30/1",
                    "video/x-raw,format=GRAY8,width=6,height=4,framerate=30/1"}),
    [](const ::testing::TestParamInfo<SFilterCase>& x) { return std::string(x.param.szName); });

}  // namespace
