// GStreamer's bayer plugin names its type GstBayer2RGB too: where that name is taken first, the
// host elements come without qvbayer2rgb, and without an invalid type.

#include "GstTestUtil.h"

TEST(HostElements, ATakenBayer2RgbNameLeavesOnlyThatElementOut) {
  const GTypeInfo xInfo = {sizeof(GstBaseTransformClass), NULL, NULL, NULL, NULL, NULL,
                           sizeof(GstBaseTransform),      0,    NULL, NULL};
  const GType xForeign = g_type_register_static(GST_TYPE_BASE_TRANSFORM, "GstBayer2RGB", &xInfo,
                                                static_cast<GTypeFlags>(0));
  ASSERT_NE(0u, xForeign);
  EXPECT_FALSE(qv_register_host_elements());
  EXPECT_FALSE(qv_register_host_elements());  // again: the same answer, nothing new
  for (const char* szName : {"qvcudanormalize", "qvcudayuv", "qvcudadownload", "qvrgb2bayer",
                             "qvbayer2lum", "qvbayer2rgb"}) {
    GstElement* pxElement = gst_element_factory_make(szName, NULL);
    EXPECT_EQ(std::string(szName) != "qvbayer2rgb", pxElement != nullptr) << szName;
    if (pxElement) gst_object_unref(pxElement);
  }
  EXPECT_EQ(xForeign, g_type_from_name("GstBayer2RGB"));
}
