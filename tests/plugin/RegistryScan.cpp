// Builds the test registry once and checks that both plugins are in it.
#include <gst/gst.h>

#include <cstdio>
#include <initializer_list>

int main(int argc, char** argv) {
  gst_init(&argc, &argv);
  for (const char* szName : {"qvvideoproc", "qvvideoprochost"}) {
    GstPlugin* pxPlugin = gst_registry_find_plugin(gst_registry_get(), szName);
    if (!pxPlugin) {
      std::fprintf(stderr, "plugin %s not found on GST_PLUGIN_PATH\n", szName);
      return 1;
    }
    std::printf("found %s\n", gst_plugin_get_filename(pxPlugin));
    gst_object_unref(pxPlugin);
  }
  return 0;
}
