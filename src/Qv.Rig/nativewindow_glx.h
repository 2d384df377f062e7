#pragma once
// The display window of qvcudasink: one X11 window with a GLX context, owned by a thread of its
// own that draws one textured quad, serves the keyboard and pointer and takes device images
// from the streaming thread through three events. X11 and GL headers stay out of here: their
// macros (None, Status, Bool) collide with the image code.
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "QvCudaDefs.h"
#include "QvDeviceImage2D.h"
#include "QvWaitObject_Linux.h"

struct _XDisplay;
struct __GLXcontextRec;

namespace Qv {
namespace OpenGL {
class CTexture2D;
}
}  // namespace Qv

class CNativeWindowX11GLX {
 public:
  // The defaults of a new window record; nothing runs until CreateNativeThreaded.
  CNativeWindowX11GLX();
  // Closes the window.
  ~CNativeWindowX11GLX();
  CNativeWindowX11GLX(const CNativeWindowX11GLX&) = delete;
  CNativeWindowX11GLX& operator=(const CNativeWindowX11GLX&) = delete;

  // Starts the window thread and returns at once. The window is always 800 x 600.
  void CreateNativeThreaded(int x, int y, int width, int height);
  // Hands an image to the window thread and waits until it is in the texture, or drops it
  // with "skip update" when the window is busy. The image must stay valid until this returns.
  void UpdateTextureThreaded(Qv::CQvDeviceImage2D* image);
  // Ends the window thread, which releases the texture, context, stream, window and X11
  // connection before it ends. From any thread but the window's.
  void CloseWindow();
  void SetWindowTitle(const char* title);

  // Window thread.
  int CreateNativeWindow(int x, int y, int width, int height);
  int CreateContext();
  bool CreateShaders();
  void MainLoop();
  void UpdateTexture(Qv::CQvDeviceImage2D* image);
  void Process(unsigned int texture);
  void Draw(int width, int height);
  void ReshapeWindow(int width, int height);
  void MakeCurrent();
  void SwapBuffer();
  // Releases what the thread made; runs on the window thread when its loop ends.
  void DestroyContext();

  // Camera control from the keyboard and pointer, on the window thread.
  void processMouseMove(float dx, float dy);
  void SetFocus(int delta);
  void SetGain(int delta);
  void SetExposure(int delta);
  void IncreaseIOCTL_Value(int camera, int delta, std::string control);

  // True once the thread has ended by itself: the window manager closed the window, or X11,
  // GL or the device failed it (GetError).
  bool IsClosed() const { return bClosed.load(); }
  // Ends the thread, not the process, at its first failure: prints the text, keeps it trimmed
  // for GetError, which is valid once IsClosed, and returns false. On the window thread.
  bool Fail(const std::string& sText);
  const std::string& GetError() const { return sError; }
  // Frames taken into the texture, and frames dropped because the window was busy.
  uint64_t GetShownCount() const { return uShown.load(); }
  uint64_t GetSkippedCount() const { return uSkipped.load(); }

  unsigned long xWindow = 0;
  _XDisplay* pxDisplay = nullptr;
  uint32_t uProgram = 0;
  uint32_t uTexture = 0;
  float fImageAspect = 0.0f;
  float fWindowAspect = 0.0f;
  std::atomic<bool> bStop{false};
  std::thread* pxThread = nullptr;
  Qv::CQvEvent xUpdateRequest;
  Qv::CQvEvent xUpdateDone;
  Qv::CQvEvent xReady;
  Qv::CQvDeviceImage2D* pxPendingImage = nullptr;
  cudaStream_t pxStream = nullptr;
  // Read by the streaming thread and by the sink's properties.
  std::atomic<bool> bMipMap{false};
  __GLXcontextRec* xContext = nullptr;
  Qv::OpenGL::CTexture2D* pxTexture = nullptr;
  int iLastMouseX = -1;
  int iLastMouseY = -1;
  int iLeftDown = 0;
  int iRightDown = 0;
  float fZoom = 1.0f;
  float fPanX = 0.0f;
  float fPanY = 0.0f;
  bool bFlipY = true;
  bool bFlipX = false;
  // 0 to 5 one camera, 6 and up all of them (and the mixer's tours), -1 none.
  std::atomic<int> iCamera{0};

 private:
  void OnKey(char cKey);
  void OnMotion(int iX, int iY);
  void SetControl(int delta, const char* szControl);

  std::mutex xThreadLock;
  std::atomic<bool> bClosed{false};
  std::string sError;
  std::atomic<uint64_t> uShown{0};
  std::atomic<uint64_t> uSkipped{0};
  void* pxVisual = nullptr;  // XVisualInfo
  unsigned long xColormap = 0;
  unsigned long uDeleteAtom = 0;
};

// The window thread's body: start-up, the loop, the tidy-up.
void InvokeCreateWindow(CNativeWindowX11GLX* window, int x, int y, int width, int height);
// Runs a shell command and gives back the last line of its output, line end included.
std::string execCommand(std::string command);
