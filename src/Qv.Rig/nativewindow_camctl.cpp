// Camera control from the display window: number keys pick the camera, letter keys step focus,
// gain and exposure through v4l2-ctl, the pointer pans and zooms. Runs on the window thread.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "QvMessage.h"
#include "QvOperatorTexts.h"
#include "nativewindow_glx.h"

// clang-format off
// After the image code: X11 defines None as a macro.
#include <X11/Xlib.h>
// clang-format on

namespace {

// Camera number to video device number, as the rig is wired.
const int aiVideoDevice[6] = {0, 4, 1, 3, 2, 5};

}  // namespace

std::string execCommand(std::string command) {
  Qv::OperatorMessage(QV_TEXT_EXECUTE_COMMAND, command.c_str());
  FILE* pxPipe = popen(command.c_str(), "r");
  if (!pxPipe) {
    Qv::OperatorMessage(QV_TEXT_COMMAND_FAILED);
    return std::string();
  }
  std::string sResult;
  char szLine[1024];
  while (std::fgets(szLine, 1023, pxPipe)) sResult = szLine;
  pclose(pxPipe);
  Qv::OperatorMessage(QV_TEXT_COMMAND_RESULT, sResult.c_str());
  return sResult;
}

void CNativeWindowX11GLX::IncreaseIOCTL_Value(int camera, int delta, std::string control) {
  if (camera < 0 || camera > 5) return;
  const std::string sDevice = "/dev/video" + std::to_string(aiVideoDevice[camera]);
  const std::string sAnswer = execCommand("v4l2-ctl -d " + sDevice + " -C " + control);
  // A missing tool or camera answers with nothing, or with something else than the control.
  const std::string sPrefix = control + ": ";
  if (sAnswer.compare(0, sPrefix.size(), sPrefix) != 0) {
    Qv::OperatorMessage(" %s of %s left as it is: the answer holds no \"%s\"\n", control.c_str(),
                        sDevice.c_str(), sPrefix.c_str());
    return;
  }
  const int iValue =
      static_cast<int>(std::strtol(sAnswer.c_str() + sPrefix.size(), nullptr, 10)) + delta;
  execCommand("v4l2-ctl -d " + sDevice + " -c " + control + "=" + std::to_string(iValue));
}

void CNativeWindowX11GLX::SetControl(int delta, const char* szControl) {
  const int iSelected = iCamera;
  if (iSelected > 5) {
    for (int i = 0; i < 6; ++i) IncreaseIOCTL_Value(i, delta, szControl);
  } else {
    IncreaseIOCTL_Value(iSelected, delta, szControl);
  }
}

void CNativeWindowX11GLX::SetFocus(int delta) {
  SetControl(delta, "focus_absolute");
}

void CNativeWindowX11GLX::SetGain(int delta) {
  SetControl(delta, "gain");
}

void CNativeWindowX11GLX::SetExposure(int delta) {
  SetControl(delta, "coarse_time");
}

void CNativeWindowX11GLX::OnKey(char cKey) {
  if (cKey >= '1' && cKey <= '9') {
    iCamera = cKey - '1';
    return;
  }
  switch (cKey) {
    case 'q':
      SetFocus(100);
      break;
    case 'a':
      SetFocus(-100);
      break;
    case 't':
      SetFocus(10);
      break;
    case 'g':
      SetFocus(-10);
      break;
    case 'w':
      SetGain(50);
      break;
    case 's':
      SetGain(-50);
      break;
    case 'e':
      SetExposure(250);
      break;
    case 'd':
      SetExposure(-250);
      break;
    case 'z':
      SetExposure(25);
      break;
    case 'h':
      SetExposure(-25);
      break;
    case 'm':
      bMipMap = !bMipMap;
      break;
    case 'r':
      fPanX = 0.0f;
      fPanY = 0.0f;
      fZoom = 1.0f;
      break;
    default:
      break;
  }
}

void CNativeWindowX11GLX::OnMotion(int iX, int iY) {
  if (iLastMouseX != -1) {
    const int dx = iLastMouseX - iX;
    const int dy = iLastMouseY - iY;
    Window xRoot, xChild;
    int iRootX, iRootY, iWinX, iWinY;
    unsigned int uMask = 0;
    XQueryPointer(reinterpret_cast<Display*>(pxDisplay), xWindow, &xRoot, &xChild, &iRootX, &iRootY,
                  &iWinX, &iWinY, &uMask);
    iLeftDown = (uMask & Button1Mask) ? 1 : 0;
    iRightDown = (uMask & Button3Mask) ? 1 : 0;
    processMouseMove(static_cast<float>(dx), static_cast<float>(dy));
  }
  iLastMouseX = iX;
  iLastMouseY = iY;
}

void CNativeWindowX11GLX::processMouseMove(float dx, float dy) {
  XWindowAttributes xAttributes;
  XGetWindowAttributes(reinterpret_cast<Display*>(pxDisplay), xWindow, &xAttributes);
  const float w = static_cast<float>(xAttributes.width);
  const float h = static_cast<float>(xAttributes.height);
  if (iLeftDown) {
    dy = dy / h;
    fPanY = fPanY + (dy + dy) / fZoom;
    // Before the first image there is no aspect to pan by.
    if (fImageAspect > 0.0f) {
      const float x = (fWindowAspect / fImageAspect) * dx / w;
      fPanX = fPanX - (x + x) / fZoom;
    }
  }
  if (iRightDown) {
    // With both buttons held this is the reduced step of the pan, so the zoom goes slower.
    const double d = dy;
    if (d > 0)
      fZoom = static_cast<float>(fZoom / std::pow(1.01, d));
    else
      fZoom = static_cast<float>(fZoom * std::pow(1.01, -d));
  }
}
