// The system's operator texts (see QvMessage.h). Each is interface: tools and people read them
// as they stand, so their wording, spacing and spelling ("even", "catched") stay exactly as they
// are; a change here is a change of the system's output. An exception's own text and our own
// additions are written where they are made.
#pragma once

#define QV_TEXT_EXECUTE_COMMAND " execute command: %s\n"          // nativewindow_camctl.cpp
#define QV_TEXT_COMMAND_FAILED "Failed to run command\n"          // nativewindow_camctl.cpp
#define QV_TEXT_COMMAND_RESULT " got result %s\n"                 // nativewindow_camctl.cpp
#define QV_TEXT_MEMCPY_Y "memcpy Y%zu bytes \n"                   // QvNvBuffer.cpp
#define QV_TEXT_XOPENDISPLAY "XOpenDisplay success: \n"           // nativewindow_glx.cpp
#define QV_TEXT_VISUAL_SELECTED "\n\tvisual %p selected\n"        // nativewindow_glx.cpp
#define QV_TEXT_USING_GLEW "Status: Using GLEW %s\n"              // nativewindow_glx.cpp
#define QV_TEXT_SKIP_UPDATE "skip update \n"                      // nativewindow_glx.cpp
#define QV_TEXT_SENDING_NEWSEGMENT "Sending NEWSEGMENT even\n"    // gstqvCudaMixCollect.cpp
#define QV_TEXT_HAVE_JITTER "Have jitter, dropping frames!\n"     // gstqvCudaMixCollect.cpp
#define QV_TEXT_SETTING_MIXER_TYPE "Setting Mixer Type to: %s\n"  // gstqvCudaMix.cpp
#define QV_TEXT_MIXER_TYPE_VIDEOWALL \
  "Setting Mixer Type to: MixType_VideoWall \n"  // gstqvCudaMix.cpp
#define QV_TEXT_FPS "FPS: %g\n"                  // gstqvCudaJpegSink.cpp, gstqvCudaSink.cpp
#define QV_TEXT_NO_DEVICE_IMAGE "No device image embedded\n"  // gstqvCudaSink.cpp
#define QV_TEXT_EXCEPTION_CATCHED "exception catched: \n"     // gstUtil.cpp
#define QV_TEXT_EXCEPTION_LINE "%s : %d  :   %s\n"            // gstUtil.cpp
#define QV_TEXT_MAPPING_FAILED "MAPPING FAILED !!!\n"         // gstqvCudaDownload.cpp
#define QV_TEXT_DOWNLOAD_FORMAT "download format: %s\n"       // gstqvCudaDownload.cpp
#define QV_TEXT_HEIGHT_BEFORE "Height before transform %d\n"  // rgb2bayer.cpp
#define QV_TEXT_SINK_FINALIZE " sink finalize \n"             // gstqvCudaJpegSink.cpp
// The window's failures, printed before the element error that carries them.
#define QV_TEXT_X_ERROR "X error: "                                   // nativewindow_glx.cpp
#define QV_TEXT_X_CONNECTION_LOST "\n\tX server connection lost\n\n"  // nativewindow_glx.cpp
#define QV_TEXT_NO_X_SERVER "\n\tcannot connect to X server\n\n"      // nativewindow_glx.cpp
#define QV_TEXT_NO_VISUAL "\n\tno appropriate visual found\n\n"       // nativewindow_glx.cpp
#define QV_TEXT_NO_CURRENT_CONTEXT \
  "Cannot make context current on create context"                            // nativewindow_glx.cpp
#define QV_TEXT_FRAGMENT_SHADER "Error: fragment shader did not compile!\n"  // nativewindow_glx.cpp
#define QV_TEXT_VERTEX_SHADER "Error: vertex shader did not compile!\n"      // nativewindow_glx.cpp
#define QV_TEXT_LINKING "Error: linking:\n"                                  // nativewindow_glx.cpp
