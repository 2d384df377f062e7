#include "nativewindow_glx.h"

#include <algorithm>
#include <cstdio>

#include "QvDevice.h"
#include "QvException.h"
#include "QvMessage.h"
#include "QvOperatorTexts.h"
#include "Texture2D.h"

// clang-format off
// After the image code: X11 defines None, Status and Bool as macros; GLEW before GL.
#include <GL/glew.h>
#include <GL/glx.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
// clang-format on

namespace {

const char* vertShaderText =
    "#version 100 \n"
    "attribute vec4 InVertex;\n"
    "attribute vec2 InTexCoord0;\n"
    "uniform mat4 uMatTransform;\n"
    "varying vec2 texture_coordinate;\n"
    "void main() {\n"
    "   gl_Position = uMatTransform * InVertex;\n"
    "   texture_coordinate = vec2(InTexCoord0);\n"
    "}\n";

const char* fragShaderText =
    "#version 100 \n"
    "precision mediump float;\n"
    "uniform sampler2D uTexSource;\n"
    "varying vec2 texture_coordinate;\n"
    "void main() {\n"
    "   gl_FragColor = vec4(texture2D( uTexSource, texture_coordinate).xyz, 1.0);\n"
    "}\n";

const GLfloat afQuadPositions[] = {-1.0f, 1.0f, -1.0f, -1.0f, 1.0f, -1.0f, 1.0f, 1.0f};
const GLfloat afQuadTexCoords[] = {0.0f, 1.0f, 0.0f, 0.0f, 1.0f, 0.0f, 1.0f, 1.0f};
const GLubyte auQuadIndices[] = {0, 1, 2, 0, 2, 3};

constexpr int kWindowWidth = 800;
constexpr int kWindowHeight = 600;
constexpr int32_t kPassMs = 25;

Display* AsDisplay(_XDisplay* p) {
  return reinterpret_cast<Display*>(p);
}

GLXContext AsContext(__GLXcontextRec* p) {
  return reinterpret_cast<GLXContext>(p);
}

// The shader, or 0 and the compiler's log.
GLuint CompileShader(GLenum eKind, const char* szSource, std::string& sLog) {
  const GLuint uShader = glCreateShader(eKind);
  glShaderSource(uShader, 1, &szSource, nullptr);
  glCompileShader(uShader);
  GLint iStatus = 0;
  glGetShaderiv(uShader, GL_COMPILE_STATUS, &iStatus);
  if (iStatus) return uShader;
  char szLog[2048] = {};
  glGetShaderInfoLog(uShader, sizeof(szLog), nullptr, szLog);
  sLog = szLog;
  return 0;
}

// Xlib's error handlers are the process's: the errors of a window's connection, which only its
// thread reads, end that window; all others go to the handlers found at installation.
thread_local CNativeWindowX11GLX* t_pxWindow = nullptr;
std::mutex g_xHandlerLock;
int g_iWindows = 0;
std::atomic<XErrorHandler> g_pfnOtherErrors{nullptr};
std::atomic<XIOErrorHandler> g_pfnOtherIOErrors{nullptr};

bool Own(Display* pxDpy) {
  return t_pxWindow && AsDisplay(t_pxWindow->pxDisplay) == pxDpy;
}

int OnXError(Display* pxDpy, XErrorEvent* pxEvent) {
  if (!Own(pxDpy)) return g_pfnOtherErrors ? g_pfnOtherErrors(pxDpy, pxEvent) : 0;
  char szText[160] = {};
  XGetErrorText(pxDpy, pxEvent->error_code, szText, sizeof(szText));
  return t_pxWindow->Fail(std::string(QV_TEXT_X_ERROR) + szText + "\n");
}

int OnXIOError(Display* pxDpy) {
  if (!Own(pxDpy)) return g_pfnOtherIOErrors ? g_pfnOtherIOErrors(pxDpy) : 0;
  return t_pxWindow->Fail(QV_TEXT_X_CONNECTION_LOST);
}

// Installs, or puts back where ours is still the present one: a later handler may chain to it.
template <class H>
void Hook(H (*pfnSet)(H), H pfnOurs, std::atomic<H>& pfnOther, bool bInstall) {
  if (bInstall && !pfnOther) pfnOther = pfnSet(pfnOurs);
  if (bInstall) return;
  const H pfnNow = pfnSet(pfnOther);
  if (pfnNow == pfnOurs)
    pfnOther = nullptr;
  else
    pfnSet(pfnNow);
}

void WatchXErrors(CNativeWindowX11GLX* pxWindow) {
  std::lock_guard<std::mutex> xLock(g_xHandlerLock);
  t_pxWindow = pxWindow;
  if (pxWindow ? ++g_iWindows > 1 : --g_iWindows > 0) return;
  Hook(XSetErrorHandler, OnXError, g_pfnOtherErrors, pxWindow);
  Hook(XSetIOErrorHandler, OnXIOError, g_pfnOtherIOErrors, pxWindow);
}

}  // namespace

CNativeWindowX11GLX::CNativeWindowX11GLX() = default;

CNativeWindowX11GLX::~CNativeWindowX11GLX() {
  CloseWindow();
}

void InvokeCreateWindow(CNativeWindowX11GLX* window, int x, int y, int width, int height) {
  if (window->CreateNativeWindow(x, y, width, height) == 0) window->MainLoop();
  window->DestroyContext();
}

void CNativeWindowX11GLX::CreateNativeThreaded(int x, int y, int width, int height) {
  std::lock_guard<std::mutex> xLock(xThreadLock);
  if (pxThread) return;
  bStop = false;
  pxThread = new std::thread(InvokeCreateWindow, this, x, y, width, height);
}

bool CNativeWindowX11GLX::Fail(const std::string& sText) {
  if (bClosed) return false;  // the first failure, or the user's close, is the cause
  Qv::OperatorMessage("%s", sText.c_str());
  const size_t uFirst = sText.find_first_not_of("\n\t");
  sError = sText.substr(uFirst, sText.find_last_not_of("\n\t") + 1 - uFirst);
  bClosed = true;
  return false;
}

void CNativeWindowX11GLX::CloseWindow() {
  std::thread* pxOld = nullptr;
  {
    std::lock_guard<std::mutex> xLock(xThreadLock);
    bStop = true;
    std::swap(pxOld, pxThread);
  }
  if (!pxOld) return;
  if (pxOld->joinable()) pxOld->join();
  delete pxOld;
}

int CNativeWindowX11GLX::CreateContext() {
  // Several windows, each on its own thread with its own connection.
  XInitThreads();
  // A plugin never ends its host: each failure ends this thread, and the sink reports it.
  Display* pxDpy = XOpenDisplay(nullptr);
  if (!pxDpy) return Fail(QV_TEXT_NO_X_SERVER), -1;
  pxDisplay = reinterpret_cast<_XDisplay*>(pxDpy);
  WatchXErrors(this);
  // Where the server goes away, Xlib's default exit here would end the process.
  XSetIOErrorExitHandler(
      pxDpy, [](Display*, void*) {}, nullptr);
  Qv::OperatorMessage(QV_TEXT_XOPENDISPLAY);
  GLint aiAttributes[] = {GLX_RGBA, None};
  XVisualInfo* pxVi = glXChooseVisual(pxDpy, DefaultScreen(pxDpy), aiAttributes);
  if (!pxVi) return Fail(QV_TEXT_NO_VISUAL), -1;
  pxVisual = pxVi;
  Qv::OperatorMessage(QV_TEXT_VISUAL_SELECTED, reinterpret_cast<void*>(pxVi->visualid));
  const Window xRoot = RootWindow(pxDpy, pxVi->screen);
  xColormap = XCreateColormap(pxDpy, xRoot, pxVi->visual, AllocNone);
  XSetWindowAttributes xAttributes = {};
  xAttributes.colormap = xColormap;
  xAttributes.event_mask = KeyPressMask | ExposureMask;
  xWindow = XCreateWindow(pxDpy, xRoot, 0, 0, kWindowWidth, kWindowHeight, 0, pxVi->depth,
                          InputOutput, pxVi->visual, CWColormap | CWEventMask, &xAttributes);
  // The window manager's close button asks instead of killing the connection.
  Atom xDelete = XInternAtom(pxDpy, "WM_DELETE_WINDOW", False);
  XSetWMProtocols(pxDpy, xWindow, &xDelete, 1);
  uDeleteAtom = xDelete;
  XMapWindow(pxDpy, xWindow);
  XStoreName(pxDpy, xWindow, "QvCudaSink");
  xContext = reinterpret_cast<__GLXcontextRec*>(glXCreateContext(pxDpy, pxVi, nullptr, True));
  // Without a current context the GL calls that follow would crash.
  if (!xContext || !glXMakeCurrent(pxDpy, xWindow, AsContext(xContext)))
    return Fail(QV_TEXT_NO_CURRENT_CONTEXT), -1;
  ReshapeWindow(kWindowWidth, kWindowHeight);
  XSelectInput(pxDpy, xWindow,
               KeyPressMask | EnterWindowMask | LeaveWindowMask | PointerMotionMask |
                   Button1MotionMask | ButtonMotionMask);
  return 0;
}

int CNativeWindowX11GLX::CreateNativeWindow(int /*x*/, int /*y*/, int width, int height) {
  if (CreateContext() < 0) return -1;
  glewExperimental = GL_TRUE;
  const GLenum eGlew = glewInit();
  if (eGlew != GLEW_OK)
    std::fprintf(stderr, "Error: %s\n", reinterpret_cast<const char*>(glewGetErrorString(eGlew)));
  Qv::OperatorMessage(QV_TEXT_USING_GLEW,
                      reinterpret_cast<const char*>(glewGetString(GLEW_VERSION)));
  if (!CreateShaders()) return -1;
  ReshapeWindow(width, height);
  pxTexture = new Qv::OpenGL::CTexture2D();
  try {
    pxStream = Qv::Device::CreateStream();
  } catch (const Qv::CQvException& e) {
    return Fail(std::string(e.ToString(true).ToCString()) + "\n"), -1;
  }
  return 0;
}

bool CNativeWindowX11GLX::CreateShaders() {
  std::string sLog;
  const GLuint uFragment = CompileShader(GL_FRAGMENT_SHADER, fragShaderText, sLog);
  if (!uFragment) return Fail(QV_TEXT_FRAGMENT_SHADER + sLog + "\n");
  const GLuint uVertex = CompileShader(GL_VERTEX_SHADER, vertShaderText, sLog);
  if (!uVertex) return Fail(QV_TEXT_VERTEX_SHADER + sLog + "\n");
  uProgram = glCreateProgram();
  glAttachShader(uProgram, uFragment);
  glAttachShader(uProgram, uVertex);
  glLinkProgram(uProgram);
  GLint iStatus = 0;
  glGetProgramiv(uProgram, GL_LINK_STATUS, &iStatus);
  if (!iStatus) {
    char szLog[1000] = {};
    glGetProgramInfoLog(uProgram, sizeof(szLog), nullptr, szLog);
    return Fail(QV_TEXT_LINKING + std::string(szLog) + "\n");
  }
  // They go with the program.
  glDeleteShader(uFragment);
  glDeleteShader(uVertex);
  glUseProgram(uProgram);
  return true;
}

void CNativeWindowX11GLX::MainLoop() {
  while (!bStop && !bClosed) {
    if (xUpdateRequest.Wait(kPassMs)) {
      xReady.Reset();
      xUpdateRequest.Reset();
      UpdateTexture(pxPendingImage);
      xUpdateDone.Set();
    }
    Process(pxTexture->GetId());
    if (!bClosed) xReady.Set();
  }
}

void CNativeWindowX11GLX::UpdateTextureThreaded(Qv::CQvDeviceImage2D* image) {
  pxPendingImage = image;
  if (xReady.IsSignaled()) {
    xUpdateRequest.Set();
    xUpdateDone.Wait(-1);
    xUpdateDone.Reset();
    return;
  }
  ++uSkipped;
  Qv::OperatorMessage(QV_TEXT_SKIP_UPDATE);
}

void CNativeWindowX11GLX::UpdateTexture(Qv::CQvDeviceImage2D* image) {
  try {
    if (!image) QV_THROW("No image handed to the window");
    const Qv::CQvImageFormat& xFormat = image->GetFormat();
    fImageAspect = static_cast<float>(xFormat.iWidth) / static_cast<float>(xFormat.iHeight);
    MakeCurrent();
    GLint iMax = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &iMax);
    if (std::max(xFormat.iWidth, xFormat.iHeight) > iMax)
      return void(Fail("frame " + std::to_string(xFormat.iWidth) + " x " +
                       std::to_string(xFormat.iHeight) + " is larger than the GL texture limit " +
                       std::to_string(iMax) + "\n"));
    pxTexture->Set(*image, bMipMap, true, pxStream);
    ++uShown;
    Process(pxTexture->GetId());
  } catch (const Qv::CQvException& e) {
    Qv::OperatorMessage("%s\n", e.ToString(true).ToCString());
  }
}

void CNativeWindowX11GLX::Process(unsigned int texture) {
  Display* pxDpy = AsDisplay(pxDisplay);
  uTexture = texture;
  XWindowAttributes xAttributes;
  XGetWindowAttributes(pxDpy, xWindow, &xAttributes);
  glViewport(0, 0, xAttributes.width, xAttributes.height);
  Draw(xAttributes.width, xAttributes.height);
  SwapBuffer();
  while (XPending(pxDpy)) {
    XEvent xEvent;
    XNextEvent(pxDpy, &xEvent);
    switch (xEvent.type) {
      case MotionNotify:
        OnMotion(xEvent.xmotion.x, xEvent.xmotion.y);
        break;
      case EnterNotify:
        XGrabPointer(pxDpy, xWindow, False,
                     ButtonPressMask | ButtonReleaseMask | EnterWindowMask | LeaveWindowMask |
                         PointerMotionMask,
                     GrabModeAsync, GrabModeAsync, None, None, CurrentTime);
        break;
      case LeaveNotify:
        XUngrabPointer(pxDpy, CurrentTime);
        break;
      case KeyPress: {
        char acKey[1] = {0};
        KeySym xKeySym;
        if (XLookupString(&xEvent.xkey, acKey, 1, &xKeySym, nullptr) == 1) OnKey(acKey[0]);
        break;
      }
      case ClientMessage:
        // The window manager's close button: the thread ends, and the sink reports it.
        if (static_cast<unsigned long>(xEvent.xclient.data.l[0]) == uDeleteAtom) bClosed = true;
        break;
      default:
        break;
    }
  }
}

void CNativeWindowX11GLX::Draw(int width, int height) {
  fWindowAspect = static_cast<float>(width) / static_cast<float>(height);
  const GLint iVertex = glGetAttribLocation(uProgram, "InVertex");
  const GLint iTexCoord = glGetAttribLocation(uProgram, "InTexCoord0");
  const GLint iSampler = glGetUniformLocation(uProgram, "uTexSource");
  const GLint iMatrix = glGetUniformLocation(uProgram, "uMatTransform");
  glVertexAttribPointer(static_cast<GLuint>(iVertex), 2, GL_FLOAT, GL_FALSE, 0, afQuadPositions);
  glVertexAttribPointer(static_cast<GLuint>(iTexCoord), 2, GL_FLOAT, GL_FALSE, 0, afQuadTexCoords);
  glEnableVertexAttribArray(static_cast<GLuint>(iVertex));
  glEnableVertexAttribArray(static_cast<GLuint>(iTexCoord));
  glActiveTexture(GL_TEXTURE0);
  glBindTexture(GL_TEXTURE_2D, uTexture);
  glUniform1i(iSampler, 0);
  glClearColor(0.4f, 0.4f, 0.4f, 0.0f);
  glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
  GLfloat afMatrix[16] = {};
  afMatrix[0] = (1.0f / fWindowAspect) * fImageAspect * fZoom * (bFlipX ? -1.0f : 1.0f);
  afMatrix[5] = fZoom * (bFlipY ? -1.0f : 1.0f);
  afMatrix[10] = 1.0f;
  afMatrix[15] = 1.0f;
  afMatrix[12] = fPanX;
  afMatrix[13] = fPanY;
  glUniformMatrix4fv(iMatrix, 1, GL_FALSE, afMatrix);
  glDrawElements(GL_TRIANGLES, 6, GL_UNSIGNED_BYTE, auQuadIndices);
}

void CNativeWindowX11GLX::ReshapeWindow(int width, int height) {
  glViewport(0, 0, width, height);
}

void CNativeWindowX11GLX::MakeCurrent() {
  glXMakeCurrent(AsDisplay(pxDisplay), xWindow, AsContext(xContext));
}

void CNativeWindowX11GLX::SwapBuffer() {
  MakeCurrent();
  glXSwapBuffers(AsDisplay(pxDisplay), xWindow);
  // A single-buffered visual shows the picture on a flush, not on a swap.
  glFlush();
}

void CNativeWindowX11GLX::SetWindowTitle(const char* title) {
  if (pxDisplay && xWindow) XStoreName(AsDisplay(pxDisplay), xWindow, title);
}

void CNativeWindowX11GLX::DestroyContext() {
  // A frame that raced the end must not wait for a pass that never comes.
  xReady.Reset();
  bClosed = bClosed || !bStop;
  xUpdateDone.Set();
  Display* pxDpy = AsDisplay(pxDisplay);
  if (!pxDpy) return;
  if (xContext) {
    MakeCurrent();
    try {
      delete pxTexture;
    } catch (...) {
    }
    pxTexture = nullptr;
    if (uProgram) glDeleteProgram(uProgram);
    uProgram = 0;
    glXMakeCurrent(pxDpy, None, nullptr);
    glXDestroyContext(pxDpy, AsContext(xContext));
    xContext = nullptr;
  }
  delete pxTexture;
  pxTexture = nullptr;
  if (pxStream) Qv::Device::DestroyStream(pxStream);
  pxStream = nullptr;
  if (xWindow) XDestroyWindow(pxDpy, xWindow);
  if (xColormap) XFreeColormap(pxDpy, xColormap);
  if (pxVisual) XFree(pxVisual);
  xWindow = 0;
  xColormap = 0;
  pxVisual = nullptr;
  XCloseDisplay(pxDpy);
  pxDisplay = nullptr;
  WatchXErrors(nullptr);
}
