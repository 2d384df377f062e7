#include "QvMessage.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace Qv {
namespace {

std::mutex g_xLock;
std::string* g_psCapture = nullptr;  // the innermost CMessageCapture's text

}  // namespace

EMessageTarget MessageTarget() {
  const char* szTarget = std::getenv("QV_MESSAGES");
  if (!szTarget) return EMessageTarget::Stdout;
  if (std::strcmp(szTarget, "stderr") == 0) return EMessageTarget::Stderr;
  if (std::strcmp(szTarget, "off") == 0) return EMessageTarget::Off;
  return EMessageTarget::Stdout;
}

void OperatorMessage(const char* szFormat, ...) {
  const EMessageTarget eTarget = MessageTarget();
  {
    std::lock_guard<std::mutex> xGuard(g_xLock);
    if (eTarget == EMessageTarget::Off && !g_psCapture) return;
  }
  va_list xArgs;
  va_start(xArgs, szFormat);
  va_list xCopy;
  va_copy(xCopy, xArgs);
  const int iLength = std::vsnprintf(nullptr, 0, szFormat, xCopy);
  va_end(xCopy);
  std::string sText(iLength > 0 ? static_cast<size_t>(iLength) : 0, '\0');
  if (iLength > 0) std::vsnprintf(sText.data(), sText.size() + 1, szFormat, xArgs);
  va_end(xArgs);
  std::lock_guard<std::mutex> xGuard(g_xLock);
  if (g_psCapture) {
    *g_psCapture += sText;
    return;
  }
  if (eTarget == EMessageTarget::Off) return;
  FILE* pxStream = eTarget == EMessageTarget::Stderr ? stderr : stdout;
  std::fwrite(sText.data(), 1, sText.size(), pxStream);
  std::fflush(pxStream);
}

CMessageCapture::CMessageCapture() {
  std::lock_guard<std::mutex> xGuard(g_xLock);
  m_psOuter = g_psCapture;
  g_psCapture = &m_sText;
}

CMessageCapture::~CMessageCapture() {
  std::lock_guard<std::mutex> xGuard(g_xLock);
  g_psCapture = m_psOuter;
}

std::string CMessageCapture::Text() const {
  std::lock_guard<std::mutex> xGuard(g_xLock);
  return m_sText;
}

}  // namespace Qv
