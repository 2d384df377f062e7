#include "QvMessage.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace Qv {

EMessageTarget MessageTarget() {
  const char* szTarget = std::getenv("QV_MESSAGES");
  if (!szTarget) return EMessageTarget::Stdout;
  if (std::strcmp(szTarget, "stderr") == 0) return EMessageTarget::Stderr;
  if (std::strcmp(szTarget, "off") == 0) return EMessageTarget::Off;
  return EMessageTarget::Stdout;
}

void OperatorMessage(const char* szFormat, ...) {
  const EMessageTarget eTarget = MessageTarget();
  if (eTarget == EMessageTarget::Off) return;
  va_list xArgs;
  va_start(xArgs, szFormat);
  va_list xCopy;
  va_copy(xCopy, xArgs);
  const int iLength = std::vsnprintf(nullptr, 0, szFormat, xCopy);
  va_end(xCopy);
  std::string sText(iLength > 0 ? static_cast<size_t>(iLength) : 0, '\0');
  if (iLength > 0) std::vsnprintf(sText.data(), sText.size() + 1, szFormat, xArgs);
  va_end(xArgs);
  static std::mutex xLock;
  std::lock_guard<std::mutex> xGuard(xLock);
  FILE* pxStream = eTarget == EMessageTarget::Stderr ? stderr : stdout;
  std::fwrite(sText.data(), 1, sText.size(), pxStream);
  std::fflush(pxStream);
}

}  // namespace Qv
