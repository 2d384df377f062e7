// Builds the test registry once and checks that the plugin is in it.
#include <gst/gst.h>

#include <cstdio>

int main(int argc, char** argv) {
  gst_init(&argc, &argv);
  GstPlugin* pxPlugin = gst_registry_find_plugin(gst_registry_get(), "qvvideoproc");
  if (!pxPlugin) {
    std::fprintf(stderr, "plugin qvvideoproc not found on GST_PLUGIN_PATH\n");
    return 1;
  }
  std::printf("found %s\n", gst_plugin_get_filename(pxPlugin));
  gst_object_unref(pxPlugin);
  return 0;
}
