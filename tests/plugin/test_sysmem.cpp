// Pinned host memory and the allocation answer of the upload element.
#include <gst/check/gstharness.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <cstring>

#include "GstTestUtil.h"
#include "gstqvSysMemAlloc.h"

namespace {

TEST(SysMem, WithoutNeedPoolNothingIsProposedButTheAllocatorIsRegistered) {
  GstCaps* pxCaps =
      gst_caps_from_string("video/x-raw,format=GRAY8,width=64,height=32,framerate=30/1");
  GstQuery* pxQuery = gst_query_new_allocation(pxCaps, FALSE);
  EXPECT_TRUE(ProposeAllocation(NULL, NULL, pxQuery));
  EXPECT_EQ(0u, gst_query_get_n_allocation_pools(pxQuery));
  EXPECT_EQ(0u, gst_query_get_n_allocation_params(pxQuery));
  GstAllocator* pxAllocator = gst_allocator_find("MySysMem");
  ASSERT_NE(nullptr, pxAllocator);
  gst_object_unref(pxAllocator);
  gst_query_unref(pxQuery);
  gst_caps_unref(pxCaps);
}

TEST(SysMem, CapsThatAreNoVideoMakeTheProposalFail) {
  GstCaps* pxCaps = gst_caps_from_string("audio/x-raw");
  GstQuery* pxQuery = gst_query_new_allocation(pxCaps, TRUE);
  EXPECT_FALSE(ProposeAllocation(NULL, NULL, pxQuery));
  EXPECT_EQ(0u, gst_query_get_n_allocation_pools(pxQuery));
  gst_query_unref(pxQuery);
  gst_caps_unref(pxCaps);
}

TEST(SysMem, MemoryOfSizeNMapsToNWritableBytes) {
  my_SysMem_init();
  GstAllocator* pxAllocator = gst_allocator_find("MySysMem");
  ASSERT_NE(nullptr, pxAllocator);
  GstMemory* pxMem = gst_allocator_alloc(pxAllocator, 4097, NULL);
  ASSERT_NE(nullptr, pxMem);
  GstMapInfo xMap;
  ASSERT_TRUE(gst_memory_map(pxMem, &xMap, GST_MAP_WRITE));
  EXPECT_EQ(4097u, xMap.size);
  std::memset(xMap.data, 0x5A, xMap.size);
  gst_memory_unmap(pxMem, &xMap);
  // A share is a view into the same block and releases nothing of it.
  GstMemory* pxShare = gst_memory_share(pxMem, 4096, 1);
  ASSERT_TRUE(gst_memory_map(pxShare, &xMap, GST_MAP_READ));
  EXPECT_EQ(1u, xMap.size);
  EXPECT_EQ(0x5A, xMap.data[0]);
  gst_memory_unmap(pxShare, &xMap);
  gst_memory_unref(pxMem);
  gst_memory_unref(pxShare);
  gst_object_unref(pxAllocator);
}

TEST(SysMem, UploadAnswersAnAllocationQueryWithAPinnedPool) {
  GstHarness* pxHarness = gst_harness_new("qvcudaupload");
  gst_harness_set_src_caps_str(pxHarness,
                               "video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1");
  GstCaps* pxCaps =
      gst_caps_from_string("video/x-raw,format=GRAY8,width=640,height=480,framerate=30/1");
  GstQuery* pxQuery = gst_query_new_allocation(pxCaps, TRUE);
  ASSERT_TRUE(gst_pad_peer_query(pxHarness->srcpad, pxQuery));
  ASSERT_EQ(1u, gst_query_get_n_allocation_pools(pxQuery));
  GstBufferPool* pxPool = NULL;
  guint uSize = 0, uMin = 0, uMax = 0;
  gst_query_parse_nth_allocation_pool(pxQuery, 0, &pxPool, &uSize, &uMin, &uMax);
  EXPECT_EQ(640u * 480u, uSize);
  ASSERT_EQ(1u, gst_query_get_n_allocation_params(pxQuery));
  GstAllocator* pxAllocator = NULL;
  gst_query_parse_nth_allocation_param(pxQuery, 0, &pxAllocator, NULL);
  ASSERT_NE(nullptr, pxAllocator);
  EXPECT_STREQ("MySysMem", pxAllocator->mem_type);

  ASSERT_TRUE(gst_buffer_pool_set_active(pxPool, TRUE));
  GstBuffer* pxBuffer = NULL;
  ASSERT_EQ(GST_FLOW_OK, gst_buffer_pool_acquire_buffer(pxPool, &pxBuffer, NULL));
  EXPECT_TRUE(gst_memory_is_type(gst_buffer_peek_memory(pxBuffer, 0), "MySysMem"));
  GstMapInfo xMap;
  ASSERT_TRUE(gst_buffer_map(pxBuffer, &xMap, GST_MAP_WRITE));
  EXPECT_EQ(640u * 480u, xMap.size);
  std::memset(xMap.data, 7, xMap.size);
  gst_buffer_unmap(pxBuffer, &xMap);

  // The pinned buffer goes through the element like any other.
  GstBuffer* pxOut = gst_harness_push_and_pull(pxHarness, pxBuffer);
  ASSERT_NE(nullptr, pxOut);
  const Qv::CQvImage xImage = QvTest::DownloadBufferImage(pxOut);
  EXPECT_EQ(7, static_cast<const uint8_t*>(xImage.GetDataPtr())[640 * 480 - 1]);
  gst_buffer_unref(pxOut);

  gst_buffer_pool_set_active(pxPool, FALSE);
  gst_object_unref(pxPool);
  gst_object_unref(pxAllocator);
  gst_query_unref(pxQuery);
  gst_caps_unref(pxCaps);
  gst_harness_teardown(pxHarness);
}

}  // namespace
