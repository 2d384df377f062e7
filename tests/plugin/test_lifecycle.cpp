// Every element type of the plugin goes through the state changes ten times and is destroyed,
// under GStreamer's leaks tracer: nothing created on the way may stay alive.
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "gstqvHostElements.h"

namespace {

GstTracer* FindLeaksTracer() {
  GList* pxTracers = gst_tracing_get_active_tracers();
  GstTracer* pxFound = NULL;
  for (GList* l = pxTracers; l; l = l->next) {
    if (!pxFound && g_str_equal(G_OBJECT_TYPE_NAME(l->data), "GstLeaksTracer"))
      pxFound = GST_TRACER(gst_object_ref(l->data));
  }
  g_list_free_full(pxTracers, gst_object_unref);
  return pxFound;
}

// The plugin's factories, then the types without a factory that a host application registers
// (they belong to no plugin, so the plugin's feature list does not name them).
std::vector<std::string> PluginElementNames() {
  std::vector<std::string> xNames;
  GList* pxFeatures = gst_registry_get_feature_list_by_plugin(gst_registry_get(), "qvvideoproc");
  for (GList* l = pxFeatures; l; l = l->next)
    if (GST_IS_ELEMENT_FACTORY(l->data)) xNames.push_back(GST_OBJECT_NAME(l->data));
  gst_plugin_feature_list_free(pxFeatures);
  if (qv_register_host_elements())
    for (const char* szName : {"qvcudanormalize", "qvcudayuv", "qvcudadownload", "qvbayer2rgb",
                               "qvrgb2bayer", "qvbayer2lum", "qvautoadapt", "qvcudajpegsink"})
      xNames.push_back(szName);
  return xNames;
}

void CycleStates(GstElement* pxElement) {
  static const GstState aStates[] = {GST_STATE_READY,  GST_STATE_PAUSED, GST_STATE_PLAYING,
                                     GST_STATE_PAUSED, GST_STATE_READY,  GST_STATE_NULL};
  for (int i = 0; i < 10; ++i) {
    for (GstState eState : aStates) {
      ASSERT_NE(GST_STATE_CHANGE_FAILURE, gst_element_set_state(pxElement, eState))
          << GST_OBJECT_NAME(pxElement) << " to " << gst_element_state_get_name(eState);
      gst_element_get_state(pxElement, NULL, NULL, 0);
    }
  }
}

// Types whose objects the plugin keeps on purpose for the life of the process.
bool IsProcessWide(const gchar* szTypeName) {
  return g_str_equal(szTypeName, "MyMemoryAllocator") ||
         g_str_equal(szTypeName, "MySysMemAllocator");
}

// Addresses and type names of every object the tracer sees alive.
std::map<std::string, std::string> LiveObjects(GstTracer* pxTracer) {
  std::map<std::string, std::string> xLive;
  GstStructure* pxInfo = NULL;
  g_signal_emit_by_name(pxTracer, "get-live-objects", &pxInfo);
  if (!pxInfo) return xLive;
  const GValue* pxList = gst_structure_get_value(pxInfo, "objects-list");
  for (guint i = 0; pxList && i < gst_value_list_get_size(pxList); ++i) {
    const GstStructure* pxEntry = gst_value_get_structure(gst_value_list_get_value(pxList, i));
    const GValue* pxObject = gst_structure_get_value(pxEntry, "object");
    gchar* szAddress = pxObject ? gst_value_serialize(pxObject) : g_strdup("?");
    const gchar* szType = gst_structure_get_string(pxEntry, "type-name");
    xLive[szAddress] = szType ? szType : "?";
    g_free(szAddress);
  }
  gst_structure_free(pxInfo);
  return xLive;
}

TEST(Lifecycle, EveryElementCyclesItsStatesWithoutLeaking) {
  GstTracer* pxTracer = FindLeaksTracer();
  if (!pxTracer) GTEST_SKIP() << "run with GST_TRACERS=leaks";
  const std::vector<std::string> xNames = PluginElementNames();
  ASSERT_FALSE(xNames.empty());

  for (const std::string& sName : xNames) {
    // A first instance registers what lives for the whole process (allocators).
    GstElement* pxWarm = gst_element_factory_make(sName.c_str(), NULL);
    ASSERT_NE(nullptr, pxWarm) << sName;
    CycleStates(pxWarm);
    gst_object_unref(pxWarm);

    const auto xBefore = LiveObjects(pxTracer);
    GstElement* pxElement = gst_element_factory_make(sName.c_str(), NULL);
    CycleStates(pxElement);
    gst_object_unref(pxElement);
    const auto xAfter = LiveObjects(pxTracer);

    std::string sLeaks;
    for (const auto& x : xAfter)
      if (!xBefore.count(x.first) && !IsProcessWide(x.second.c_str()))
        sLeaks += x.second + " " + x.first + "\n";
    EXPECT_TRUE(sLeaks.empty()) << sName << " leaked:\n" << sLeaks;
  }
  gst_object_unref(pxTracer);
}

}  // namespace
