// Every element type of the plugin goes through the state changes ten times and is destroyed,
// under GStreamer's leaks tracer: nothing created on the way may stay alive.
#include "FileIO.h"
#include "GstTestUtil.h"

void CycleStates(GstElement* pxElement) {
  for (int i = 0; i < 10; ++i)
    for (GstState eState : {GST_STATE_READY, GST_STATE_PAUSED, GST_STATE_PLAYING, GST_STATE_PAUSED,
                            GST_STATE_READY, GST_STATE_NULL}) {
      ASSERT_NE(GST_STATE_CHANGE_FAILURE, gst_element_set_state(pxElement, eState))
          << GST_OBJECT_NAME(pxElement) << " to " << gst_element_state_get_name(eState);
      gst_element_get_state(pxElement, NULL, NULL, 0);
    }
}

// Addresses and type names of every object the tracer sees alive.
std::map<std::string, std::string> LiveObjects(GstTracer* pxTracer) {
  std::map<std::string, std::string> xLive;
  GstStructure* pxInfo = NULL;
  g_signal_emit_by_name(pxTracer, "get-live-objects", &pxInfo);
  const GValue* pxList = gst_structure_get_value(pxInfo, "objects-list");
  for (guint i = 0; pxList && i < gst_value_list_get_size(pxList); ++i) {
    const GstStructure* pxEntry = gst_value_get_structure(gst_value_list_get_value(pxList, i));
    gchar* szAddress = gst_value_serialize(gst_structure_get_value(pxEntry, "object"));
    xLive[szAddress] = gst_structure_get_string(pxEntry, "type-name");
    g_free(szAddress);
  }
  gst_structure_free(pxInfo);
  return xLive;
}

TEST(Lifecycle, EveryElementCyclesItsStatesWithoutLeaking) {
  GstTracer* pxTracer = NULL;
  GList* pxTracers = gst_tracing_get_active_tracers();
  for (GList* l = pxTracers; l; l = l->next)
    if (!pxTracer && g_str_equal(G_OBJECT_TYPE_NAME(l->data), "GstLeaksTracer"))
      pxTracer = GST_TRACER(gst_object_ref(l->data));
  g_list_free_full(pxTracers, gst_object_unref);
  if (!pxTracer) GTEST_SKIP() << "run with GST_TRACERS=leaks";
  // The types a host application registers, then the plugin's factories.
  std::vector<std::string> xNames = {"qvcudanormalize", "qvcudayuv",     "qvcudadownload",
                                     "qvbayer2rgb",     "qvrgb2bayer",   "qvbayer2lum",
                                     "qvautoadapt",     "qvcudajpegsink"};
  // The normalize element starts only with a reference to read (each start reads it again).
  const std::string sGray = ::testing::TempDir() + "qv-lifecycle-gray.png";
  Qv::FileIO::CImage::WritePNG(
      Qv::CQvImage(Qv::CQvImageFormat(2, 2, Qv::EPixelType::Lum, Qv::EDataType::UByte)),
      sGray.c_str());
  setenv("QV_GRAY_REFERENCE", sGray.c_str(), 1);
  ASSERT_TRUE(qv_register_host_elements());
  GList* pxFeatures = gst_registry_get_feature_list_by_plugin(gst_registry_get(), "qvvideoproc");
  for (GList* l = pxFeatures; l; l = l->next)
    if (GST_IS_ELEMENT_FACTORY(l->data)) xNames.push_back(GST_OBJECT_NAME(l->data));
  gst_plugin_feature_list_free(pxFeatures);
  ASSERT_GT(xNames.size(), 8u);
  for (const std::string& sName : xNames) {
    // A first instance registers what lives for the whole process (allocators).
    std::map<std::string, std::string> xBefore;
    for (int iRun = 0; iRun < 2; ++iRun) {
      xBefore = LiveObjects(pxTracer);
      GstElement* pxElement = gst_element_factory_make(sName.c_str(), NULL);
      ASSERT_NE(nullptr, pxElement) << sName;
      CycleStates(pxElement);
      gst_object_unref(pxElement);
    }
    std::string sLeaks;
    for (const auto& [sAddress, sType] : LiveObjects(pxTracer))
      if (!xBefore.count(sAddress) && sType != "MyMemoryAllocator" && sType != "MySysMemAllocator")
        sLeaks += sType + " " + sAddress + "\n";
    EXPECT_EQ("", sLeaks) << sName << " leaked";
  }
  gst_object_unref(pxTracer);
}
