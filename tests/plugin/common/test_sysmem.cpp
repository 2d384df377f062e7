// Pinned host memory, and the allocation answer of the elements that take frames from sources.
#include "GstTestUtil.h"
#include "common/gstqvSysMemAlloc.h"

TEST(SysMem, ProposalNeedsVideoCapsAndAPoolButRegistersTheAllocatorAnyway) {
  for (auto [szCaps, bNeedPool, bAnswer] :
       {std::tuple{"video/x-raw,format=GRAY8,width=64,height=32", FALSE, TRUE},
        {"audio/x-raw", TRUE, FALSE}}) {
    g_autoptr(GstCaps) pxCaps = gst_caps_from_string(szCaps);
    g_autoptr(GstQuery) pxQuery = gst_query_new_allocation(pxCaps, bNeedPool);
    EXPECT_EQ(bAnswer, ProposeAllocation(NULL, NULL, pxQuery)) << szCaps;
    EXPECT_EQ(0u, gst_query_get_n_allocation_pools(pxQuery)) << szCaps;
  }
  g_autoptr(GstAllocator) pxAllocator = gst_allocator_find("MySysMem");
  ASSERT_NE(nullptr, pxAllocator);
  // Memory of size N maps to N writable bytes; a share is a view that keeps the block.
  GstMemory* pxMem = gst_allocator_alloc(pxAllocator, 4097, NULL);
  GstMapInfo xMap;
  ASSERT_TRUE(gst_memory_map(pxMem, &xMap, GST_MAP_WRITE));
  EXPECT_EQ(4097u, xMap.size);
  std::memset(xMap.data, 0x5A, xMap.size);
  gst_memory_unmap(pxMem, &xMap);
  g_autoptr(GstMemory) pxShare = gst_memory_share(pxMem, 4096, 1);
  gst_memory_unref(pxMem);
  ASSERT_TRUE(gst_memory_map(pxShare, &xMap, GST_MAP_READ));
  EXPECT_EQ(std::pair(gsize{1}, 0x5A), std::pair(xMap.size, int{xMap.data[0]}));
  gst_memory_unmap(pxShare, &xMap);
}

TEST(SysMem, ElementsOfferSourcesAPoolOfPinnedFrames) {
  ASSERT_TRUE(qv_register_host_elements());
  for (auto [szName, szCaps, uSize] :
       {std::tuple{"qvcudaupload", "video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1",
                   640u * 480u},
        {"qvbayer2rgb", "video/x-bayer,format=grbg,width=4,height=6,framerate=30/1", 24u},
        {"qvrgb2bayer", "video/x-raw,format=RGB,width=4,height=2,framerate=30/1", 24u},
        {"qvbayer2lum", "video/x-bayer,format=rggb,width=6,height=4,framerate=30/1", 24u}}) {
    Qv::CMessageCapture xMessages;
    auto h = QvTest::Harness(szName, szCaps);
    g_autoptr(GstCaps) pxCaps = gst_caps_from_string(szCaps);
    g_autoptr(GstQuery) pxQuery = gst_query_new_allocation(pxCaps, TRUE);
    EXPECT_TRUE(gst_pad_peer_query(h->srcpad, pxQuery));
    ASSERT_EQ(1u, gst_query_get_n_allocation_pools(pxQuery)) << szName;
    ASSERT_EQ(1u, gst_query_get_n_allocation_params(pxQuery)) << szName;
    g_autoptr(GstBufferPool) pxPool = NULL;
    g_autoptr(GstAllocator) pxPinned = NULL;
    guint uPoolSize = 0;
    gst_query_parse_nth_allocation_pool(pxQuery, 0, &pxPool, &uPoolSize, NULL, NULL);
    gst_query_parse_nth_allocation_param(pxQuery, 0, &pxPinned, NULL);
    EXPECT_EQ(uSize, uPoolSize) << szName;
    EXPECT_STREQ("MySysMem", pxPinned ? pxPinned->mem_type : "") << szName;
  }
}
