// Buffers that carry device images, and the helpers every transform shares.
#include <gst/base/gstbasetransform.h>
#include <gtest/gtest.h>

#include "GstTestUtil.h"
#include "QvDeviceImage2D.h"
#include "QvException.h"
#include "gstUtil.h"
#include "gstqvCudaMemory.h"
#include "plugin.h"

using namespace Qv;

namespace {

GstBuffer* NewDeviceBuffer() {
  GstBuffer* pxBuffer = NULL;
  EXPECT_EQ(GST_FLOW_OK, PrepareOutputBufferCuda(NULL, NULL, &pxBuffer));
  return pxBuffer;
}

CQvDeviceImage2D* ImageOf(GstBuffer* pxBuffer) {
  GstMapInfo xMap;
  EXPECT_TRUE(gst_buffer_map(pxBuffer, &xMap, GST_MAP_READ));
  auto* pxImage = reinterpret_cast<CQvDeviceImage2D*>(xMap.data);
  gst_buffer_unmap(pxBuffer, &xMap);
  return pxImage;
}

TEST(DeviceMemory, PrepareOutputBufferRegistersTheAllocatorWhenNoUploadDid) {
  // Nothing has made an upload element in this process yet.
  GstBuffer* pxBuffer = NewDeviceBuffer();
  ASSERT_NE(nullptr, pxBuffer);
  GstAllocator* pxAllocator = gst_allocator_find("QvCudaDevImage");
  ASSERT_NE(nullptr, pxAllocator);
  gst_object_unref(pxAllocator);
  gst_buffer_unref(pxBuffer);
}

TEST(DeviceMemory, FreshBufferMapsToAnEmptyImageOfSizeOne) {
  GstBuffer* pxBuffer = NewDeviceBuffer();
  EXPECT_EQ(1u, gst_buffer_get_size(pxBuffer));
  GstMapInfo xMap;
  ASSERT_TRUE(gst_buffer_map(pxBuffer, &xMap, GST_MAP_WRITE));
  EXPECT_EQ(1u, xMap.size);
  auto* pxImage = reinterpret_cast<CQvDeviceImage2D*>(xMap.data);
  ASSERT_NE(nullptr, pxImage);
  EXPECT_FALSE(pxImage->IsValid());
  gst_buffer_unmap(pxBuffer, &xMap);
  EXPECT_TRUE(gst_memory_is_type(gst_buffer_peek_memory(pxBuffer, 0), "QvCudaDevImage"));
  // Freeing a memory whose image was never created is fine.
  const gint iLive = my_memory_get_live_count();
  gst_buffer_unref(pxBuffer);
  EXPECT_EQ(iLive - 1, my_memory_get_live_count());
}

TEST(DeviceMemory, ImageLivesUntilTheLastReferenceGoes) {
  GstBuffer* pxBuffer = NewDeviceBuffer();
  ImageOf(pxBuffer)->Create(CQvImageFormat(8, 8, EPixelType::Lum, EDataType::UByte));
  const gint iLive = my_memory_get_live_count();
  GstBuffer* pxSecond = gst_buffer_ref(pxBuffer);
  gst_buffer_unref(pxBuffer);
  EXPECT_TRUE(ImageOf(pxSecond)->IsValid());
  EXPECT_EQ(iLive, my_memory_get_live_count());
  gst_buffer_unref(pxSecond);
  EXPECT_EQ(iLive - 1, my_memory_get_live_count());
}

TEST(DeviceMemory, SharesAndCopiesNeverReleaseTheImageTwice) {
  const gint iLive = my_memory_get_live_count();
  GstBuffer* pxBuffer = NewDeviceBuffer();
  CQvDeviceImage2D* pxImage = ImageOf(pxBuffer);
  const uint8_t aPixels[6] = {1, 2, 3, 4, 5, 6};
  CQvImageMoniker xMoniker;
  xMoniker.Create(3, 2, EPixelType::Lum, EDataType::UByte, const_cast<uint8_t*>(aPixels));
  pxImage->Create(xMoniker);

  // A shallow region copy shares the memory; it sees the same image and frees nothing.
  GstBuffer* pxShared = gst_buffer_copy_region(pxBuffer, GST_BUFFER_COPY_MEMORY, 0, 1);
  GstMemory* pxShare = gst_memory_share(gst_buffer_peek_memory(pxBuffer, 0), 0, -1);
  EXPECT_EQ(pxImage, ImageOf(pxShared));
  // A deep copy makes a new image with the same pixels.
  GstBuffer* pxDeep = gst_buffer_copy_deep(pxBuffer);
  CQvDeviceImage2D* pxCopy = ImageOf(pxDeep);
  EXPECT_NE(pxImage, pxCopy);
  CQvImage xBack;
  pxCopy->CopyTo(xBack);
  EXPECT_EQ(5, static_cast<const uint8_t*>(xBack.GetDataPtr())[4]);

  gst_buffer_unref(pxBuffer);  // the share and the shared buffer keep the image alive
  EXPECT_TRUE(ImageOf(pxShared)->IsValid());
  gst_memory_unref(pxShare);
  gst_buffer_unref(pxShared);
  gst_buffer_unref(pxDeep);
  EXPECT_EQ(iLive, my_memory_get_live_count());
}

TEST(CopyMetData, CopiesTimestampsAlwaysAndTheMetaOnlyWhenPresent) {
  GstBuffer* pxIn = gst_buffer_new();
  GstBuffer* pxOut = gst_buffer_new();
  GST_BUFFER_PTS(pxIn) = 5;
  GST_BUFFER_DURATION(pxIn) = 7;
  CopyMetData(pxOut, pxIn);
  EXPECT_EQ(5u, GST_BUFFER_PTS(pxOut));
  EXPECT_EQ(7u, GST_BUFFER_DURATION(pxOut));
  EXPECT_EQ(nullptr, gst_buffer_get_meta(pxOut, MY_META_INFO_API_TYPE));

  auto* pxMeta = reinterpret_cast<MyMetaInfo*>(gst_buffer_add_meta(pxIn, my_meta_get_info(), NULL));
  pxMeta->exposure = 0.5f;
  pxMeta->gain = 1.25f;
  GstBuffer* pxOut2 = gst_buffer_new();
  CopyMetData(pxOut2, pxIn);
  auto* pxCopied =
      reinterpret_cast<MyMetaInfo*>(gst_buffer_get_meta(pxOut2, MY_META_INFO_API_TYPE));
  ASSERT_NE(nullptr, pxCopied);
  EXPECT_EQ(0.5f, pxCopied->exposure);
  EXPECT_EQ(1.25f, pxCopied->gain);
  gst_buffer_unref(pxIn);
  gst_buffer_unref(pxOut);
  gst_buffer_unref(pxOut2);
}

TEST(MetaInfo, RegistersOnceUnderItsNames) {
  EXPECT_EQ(my_meta_info_api_get_type(), my_meta_info_api_get_type());
  EXPECT_STREQ("MyMetaInfoAPI", g_type_name(my_meta_info_api_get_type()));
  EXPECT_TRUE(
      gst_meta_api_type_has_tag(my_meta_info_api_get_type(), g_quark_from_string("buffer")));
  EXPECT_TRUE(gst_meta_api_type_has_tag(my_meta_info_api_get_type(), g_quark_from_string("meta")));
  EXPECT_EQ(my_meta_get_info(), gst_meta_get_info("MyMetaInfo"));
}

TEST(DefaultNegotiation, CopiesSizeAndRateIntoTheOtherSide) {
  const char* szSink =
      "video/x-bayer,format=grbg,width=(int)[1,MAX],height=(int)[1,MAX],framerate=(fraction)[0/"
      "1,MAX]";
  const char* szSrc =
      "video/x-raw,format=RGBA,width=(int)[1,MAX],height=(int)[1,MAX],framerate=(fraction)[0/"
      "1,MAX]";
  GstCaps* pxIn =
      gst_caps_from_string("video/x-bayer,format=grbg,width=640,height=480,framerate=30/1");
  GstCaps* x = defaultNegotiation(szSink, szSrc, GST_PAD_SINK, pxIn, NULL);
  EXPECT_TRUE(
      QvTest::CapsEqualString(x, "video/x-raw,format=RGBA,width=640,height=480,framerate=30/1"));
  gst_caps_unref(x);
  x = defaultNegotiation(szSink, szSrc, GST_PAD_SRC, pxIn, NULL);
  EXPECT_TRUE(
      QvTest::CapsEqualString(x, "video/x-bayer,format=grbg,width=640,height=480,framerate=30/1"));
  gst_caps_unref(x);
  gst_caps_unref(pxIn);
  // A list goes across unchanged, and a filter that excludes everything leaves nothing.
  pxIn = gst_caps_from_string("video/x-bayer,width={320,640},height=[2,4]");
  x = defaultNegotiation(szSink, szSrc, GST_PAD_SINK, pxIn, NULL);
  EXPECT_TRUE(QvTest::CapsEqualString(
      x, "video/x-raw,format=RGBA,width={320,640},height=[2,4],framerate=(fraction)[0/1,MAX]"));
  gst_caps_unref(x);
  GstCaps* pxFilter = gst_caps_from_string("video/x-raw,format=RGBA,width=1000");
  x = defaultNegotiation(szSink, szSrc, GST_PAD_SINK, pxIn, pxFilter);
  EXPECT_TRUE(gst_caps_is_empty(x));
  gst_caps_unref(x);
  gst_caps_unref(pxFilter);
  gst_caps_unref(pxIn);
  // A caps text that does not parse gives empty caps, not a crash.
  pxIn = gst_caps_from_string("video/x-raw,width=4");
  x = defaultNegotiation("not caps ((", szSrc, GST_PAD_SRC, pxIn, NULL);
  ASSERT_NE(nullptr, x);
  EXPECT_TRUE(gst_caps_is_empty(x));
  gst_caps_unref(x);
  gst_caps_unref(pxIn);
}

TEST(HandleException, PrintsTheHeadlineAndOneLinePerException) {
  const CQvException xInner = CQvException::CreateFirst("innermost", "a.cpp", "f", 3);
  const CQvException xMiddle = CQvException::Create("middle", "b.cpp", "g", 20, xInner);
  const CQvException xOuter = CQvException::Create("Error demosaicing", "c.cu", "h", 100, xMiddle);
  testing::internal::CaptureStdout();
  HandleException(xOuter);
  EXPECT_EQ(
      "exception catched: \n"
      "c.cu : 100  :   Error demosaicing\n"
      "b.cpp : 20  :   middle\n"
      "a.cpp : 3  :   innermost\n",
      testing::internal::GetCapturedStdout());
}

}  // namespace
