// Pinned host memory, and the allocation answer of the elements that take frames from sources.

#include <tuple>

#include "GstTestUtil.h"
#include "gstqvHostElements.h"
#include "gstqvSysMemAlloc.h"

TEST(SysMem, ProposalNeedsVideoCapsAndAPoolButRegistersTheAllocatorAnyway) {
  for (auto [szCaps, bNeedPool, bAnswer] :
       {std::tuple{"video/x-raw,format=GRAY8,width=64,height=32", FALSE, TRUE},
        {"audio/x-raw", TRUE, FALSE}}) {
    GstCaps* pxCaps = gst_caps_from_string(szCaps);
    GstQuery* pxQuery = gst_query_new_allocation(pxCaps, bNeedPool);
    EXPECT_EQ(bAnswer, ProposeAllocation(NULL, NULL, pxQuery)) << szCaps;
    EXPECT_EQ(
        0u, gst_query_get_n_allocation_pools(pxQuery) + gst_query_get_n_allocation_params(pxQuery));
    gst_query_unref(pxQuery);
    gst_caps_unref(pxCaps);
  }
  GstAllocator* pxAllocator = gst_allocator_find("MySysMem");
  ASSERT_NE(nullptr, pxAllocator);
  // Memory of size N maps to N writable bytes; a share is a view into the same block.
  GstMemory* pxMem = gst_allocator_alloc(pxAllocator, 4097, NULL);
  GstMapInfo xMap;
  ASSERT_TRUE(gst_memory_map(pxMem, &xMap, GST_MAP_WRITE));
  EXPECT_EQ(4097u, xMap.size);
  std::memset(xMap.data, 0x5A, xMap.size);
  gst_memory_unmap(pxMem, &xMap);
  GstMemory* pxShare = gst_memory_share(pxMem, 4096, 1);
  gst_memory_unref(pxMem);  // the share keeps the block
  ASSERT_TRUE(gst_memory_map(pxShare, &xMap, GST_MAP_READ));
  EXPECT_EQ(1u, xMap.size);
  EXPECT_EQ(0x5A, xMap.data[0]);
  gst_memory_unmap(pxShare, &xMap);
  gst_memory_unref(pxShare);
  gst_object_unref(pxAllocator);
}

TEST(SysMem, ElementsOfferSourcesAPoolOfPinnedFrames) {
  ASSERT_TRUE(qv_register_host_elements());
  for (auto [szName, szCaps, uSize] :
       {std::tuple{"qvcudaupload", "video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1",
                   640u * 480u},
        {"qvbayer2rgb", "video/x-bayer,format=grbg,width=4,height=6,framerate=30/1", 24u},
        {"qvrgb2bayer", "video/x-raw,format=RGB,width=4,height=2,framerate=30/1", 24u},
        {"qvbayer2lum", "video/x-bayer,format=rggb,width=6,height=4,framerate=30/1", 24u}}) {
    SCOPED_TRACE(szName);
    GstHarness* h = gst_harness_new(szName);
    testing::internal::CaptureStdout();
    gst_harness_set_src_caps_str(h, szCaps);
    GstCaps* pxCaps = gst_caps_from_string(szCaps);
    GstQuery* pxQuery = gst_query_new_allocation(pxCaps, TRUE);
    EXPECT_TRUE(gst_pad_peer_query(h->srcpad, pxQuery));
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(1u, gst_query_get_n_allocation_pools(pxQuery));
    ASSERT_EQ(1u, gst_query_get_n_allocation_params(pxQuery));
    GstBufferPool* pxPool = NULL;
    guint uPoolSize = 0;
    gst_query_parse_nth_allocation_pool(pxQuery, 0, &pxPool, &uPoolSize, NULL, NULL);
    EXPECT_EQ(uSize, uPoolSize);
    GstAllocator* pxAllocator = NULL;
    gst_query_parse_nth_allocation_param(pxQuery, 0, &pxAllocator, NULL);
    ASSERT_NE(nullptr, pxAllocator);
    EXPECT_STREQ("MySysMem", pxAllocator->mem_type);
    // The pool's buffers are of that memory.
    GstBuffer* pxBuffer = NULL;
    ASSERT_TRUE(gst_buffer_pool_set_active(pxPool, TRUE));
    ASSERT_EQ(GST_FLOW_OK, gst_buffer_pool_acquire_buffer(pxPool, &pxBuffer, NULL));
    EXPECT_TRUE(gst_memory_is_type(gst_buffer_peek_memory(pxBuffer, 0), "MySysMem"));
    gst_buffer_unref(pxBuffer);
    gst_buffer_pool_set_active(pxPool, FALSE);
    gst_object_unref(pxPool);
    gst_object_unref(pxAllocator);
    gst_query_unref(pxQuery);
    gst_caps_unref(pxCaps);
    gst_harness_teardown(h);
  }
}
