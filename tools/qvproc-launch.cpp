// qvproc-launch: runs a pipeline description as gst-launch-1.0 does, after registering the
// plugin's element types that have no factory, so that a pipeline can name every element.
#include <glib-unix.h>
#include <gst/gst.h>

#include <csignal>
#include <cstdio>
#include <cstring>

#include "gstqvHostElements.h"

namespace {

struct SRun {
  GMainLoop* pxLoop = NULL;
  GstElement* pxPipeline = NULL;
  bool bQuiet = false;
  bool bEosOnShutdown = false;
  int iResult = 0;
  bool bInterrupted = false;
};

void Say(const SRun& x, const char* szText) {
  if (!x.bQuiet) std::printf("%s\n", szText);
  std::fflush(stdout);
}

// Prints an error or warning message as gst-launch-1.0 does, with its debug text.
void ReportProblem(GstMessage* pxMessage, const char* szKind,
                   void (*fnParse)(GstMessage*, GError**, gchar**)) {
  GError* pxError = NULL;
  gchar* szDebug = NULL;
  fnParse(pxMessage, &pxError, &szDebug);
  gchar* szName = gst_object_get_path_string(GST_MESSAGE_SRC(pxMessage));
  std::fprintf(stderr, "%s: from element %s: %s\n", szKind, szName, pxError->message);
  if (szDebug) std::fprintf(stderr, "Additional debug info:\n%s\n", szDebug);
  g_free(szName);
  g_free(szDebug);
  g_error_free(pxError);
}

// A property change inside the pipeline (-v), printed as gst-launch-1.0 prints it: values
// unescaped, caps in their own notation, and no line for caps that were cleared.
void ReportProperty(GstMessage* pxMessage) {
  GstObject* pxObject = NULL;
  const gchar* szName = NULL;
  const GValue* pxValue = NULL;
  gst_message_parse_property_notify(pxMessage, &pxObject, &szName, &pxValue);
  if (pxValue && G_VALUE_TYPE(pxValue) == GST_TYPE_CAPS && !gst_value_get_caps(pxValue)) return;
  gchar* szValue = NULL;
  if (!pxValue)
    szValue = g_strdup("(no value)");
  else if (G_VALUE_HOLDS_STRING(pxValue))
    szValue = g_value_dup_string(pxValue);
  else if (G_VALUE_TYPE(pxValue) == GST_TYPE_CAPS)
    szValue = gst_caps_to_string(gst_value_get_caps(pxValue));
  else if (G_VALUE_TYPE(pxValue) == GST_TYPE_STRUCTURE)
    szValue = gst_structure_to_string(gst_value_get_structure(pxValue));
  else if (!(szValue = gst_value_serialize(pxValue)))
    szValue = g_strdup_value_contents(pxValue);
  gchar* szPath = gst_object_get_path_string(pxObject);
  std::printf("%s: %s = %s\n", szPath, szName, szValue);
  std::fflush(stdout);
  g_free(szPath);
  g_free(szValue);
}

gboolean OnBusMessage(GstBus* /*bus*/, GstMessage* pxMessage, gpointer pData) {
  SRun& x = *static_cast<SRun*>(pData);
  switch (GST_MESSAGE_TYPE(pxMessage)) {
    case GST_MESSAGE_PROPERTY_NOTIFY:
      if (!x.bQuiet) ReportProperty(pxMessage);
      break;
    case GST_MESSAGE_ERROR:
      ReportProblem(pxMessage, "ERROR", gst_message_parse_error);
      x.iResult = 1;
      g_main_loop_quit(x.pxLoop);
      break;
    case GST_MESSAGE_WARNING:
      ReportProblem(pxMessage, "WARNING", gst_message_parse_warning);
      break;
    case GST_MESSAGE_EOS:
      Say(x, "Got EOS from element \"pipeline0\".");
      g_main_loop_quit(x.pxLoop);
      break;
    default:
      break;
  }
  return TRUE;
}

gboolean OnInterrupt(gpointer pData) {
  SRun& x = *static_cast<SRun*>(pData);
  if (x.bEosOnShutdown && !x.bInterrupted) {
    Say(x, "Interrupt: Stopping pipeline ...");
    Say(x, "EOS on shutdown enabled -- Forcing EOS on the pipeline");
    x.bInterrupted = true;
    gst_element_send_event(x.pxPipeline, gst_event_new_eos());
    return G_SOURCE_CONTINUE;
  }
  // An interrupt is how a live pipeline is meant to end: status 0, as gst-launch-1.0 gives.
  Say(x, "Interrupt: Stopping pipeline ...");
  g_main_loop_quit(x.pxLoop);
  // Stays installed: main removes it once the loop has ended.
  return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv) {
  SRun x;
  gboolean bVerbose = FALSE, bQuiet = FALSE, bEos = FALSE;
  GOptionEntry aEntries[] = {
      {"verbose", 'v', 0, G_OPTION_ARG_NONE, &bVerbose,
       "Print status information and property notifications", NULL},
      {"quiet", 'q', 0, G_OPTION_ARG_NONE, &bQuiet, "Do not print any progress information", NULL},
      {"eos-on-shutdown", 'e', 0, G_OPTION_ARG_NONE, &bEos,
       "Force an EOS on the pipeline on Ctrl-C", NULL},
      {NULL, 0, 0, G_OPTION_ARG_NONE, NULL, NULL, NULL}};
  GOptionContext* pxContext = g_option_context_new("PIPELINE-DESCRIPTION");
  g_option_context_set_summary(
      pxContext,
      "Runs a GStreamer pipeline like gst-launch-1.0, with every element of qvvideoproc,\n"
      "also those without a factory (qvcudanormalize, qvcudayuv, qvcudadownload,\n"
      "qvbayer2rgb, qvrgb2bayer, qvbayer2lum, qvautoadapt, qvcudajpegsink).");
  g_option_context_add_main_entries(pxContext, aEntries, NULL);
  g_option_context_add_group(pxContext, gst_init_get_option_group());
  GError* pxError = NULL;
  if (!g_option_context_parse(pxContext, &argc, &argv, &pxError)) {
    std::fprintf(stderr, "qvproc-launch: %s\n", pxError ? pxError->message : "bad options");
    g_clear_error(&pxError);
    g_option_context_free(pxContext);
    return 2;
  }
  g_option_context_free(pxContext);
  x.bQuiet = bQuiet;
  x.bEosOnShutdown = bEos;
  if (argc < 2) {
    std::fprintf(stderr, "usage: qvproc-launch [-v] [-q] [-e] PIPELINE-DESCRIPTION\n");
    return 2;
  }

  // The plugin this tool runs with, also when GST_PLUGIN_PATH does not name it.
  qv_scan_plugin_dir();
  // A pipeline that names an element left out fails below with GStreamer's own message.
  if (!qv_register_host_elements())
    std::fprintf(stderr,
                 "qvproc-launch: warning: not every qvvideoproc element type could be "
                 "registered (GST_DEBUG=2 tells which)\n");

  x.pxPipeline = gst_parse_launchv(const_cast<const gchar**>(argv + 1), &pxError);
  if (!x.pxPipeline) {
    std::fprintf(stderr, "qvproc-launch: could not construct pipeline: %s\n",
                 pxError ? pxError->message : "unknown error");
    g_clear_error(&pxError);
    return 1;
  }
  // Part of the description could not be made (an unknown element, a failed link): the rest
  // would run as something the user did not write, so nothing runs.
  if (pxError) {
    std::fprintf(stderr, "WARNING: erroneous pipeline: %s\n", pxError->message);
    g_clear_error(&pxError);
    gst_object_unref(x.pxPipeline);
    return 1;
  }
  if (!GST_IS_PIPELINE(x.pxPipeline)) {
    // A single element: put it into a pipeline of its own.
    GstElement* pxPipeline = gst_pipeline_new(NULL);
    gst_bin_add(GST_BIN(pxPipeline), x.pxPipeline);
    x.pxPipeline = pxPipeline;
  }
  gulong uNotify = 0;
  if (bVerbose) uNotify = gst_element_add_property_deep_notify_watch(x.pxPipeline, NULL, TRUE);

  x.pxLoop = g_main_loop_new(NULL, FALSE);
  GstBus* pxBus = gst_element_get_bus(x.pxPipeline);
  const guint uWatch = gst_bus_add_watch(pxBus, OnBusMessage, &x);
  const guint uSigInt = g_unix_signal_add(SIGINT, OnInterrupt, &x);

  Say(x, "Setting pipeline to PLAYING ...");
  if (gst_element_set_state(x.pxPipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    std::fprintf(stderr, "ERROR: pipeline doesn't want to play.\n");
    // The bus may say why.
    GstMessage* pxMessage = gst_bus_pop_filtered(pxBus, GST_MESSAGE_ERROR);
    if (pxMessage) {
      OnBusMessage(pxBus, pxMessage, &x);
      gst_message_unref(pxMessage);
    }
    x.iResult = 1;
  } else {
    g_main_loop_run(x.pxLoop);
  }

  Say(x, "Setting pipeline to NULL ...");
  gst_element_set_state(x.pxPipeline, GST_STATE_NULL);
  if (uNotify) gst_element_remove_property_notify_watch(x.pxPipeline, uNotify);
  g_source_remove(uSigInt);
  g_source_remove(uWatch);
  gst_object_unref(pxBus);
  gst_object_unref(x.pxPipeline);
  g_main_loop_unref(x.pxLoop);
  Say(x, "Freeing pipeline ...");
  gst_deinit();
  return x.iResult;
}
