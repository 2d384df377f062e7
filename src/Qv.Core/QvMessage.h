// Operator messages: the texts the system prints for whoever watches it run ("FPS: ",
// "download format: ", "skip update \n", "exception catched: ", the window's start-up lines).
// Their wording is interface and stays as it is; where they go is not. Every such text goes
// through OperatorMessage, which writes to standard output by default and follows
// QV_MESSAGES=stdout|stderr|off, read at each call, so that a pipeline that writes video to
// standard output (fdsink fd=1) stays clean.
#pragma once

#include <string>

namespace Qv {

enum class EMessageTarget { Stdout, Stderr, Off };

// The target QV_MESSAGES names now; an unknown value keeps standard output.
EMessageTarget MessageTarget();

// printf-style; the text is written whole and flushed, so that lines of several threads do
// not mix.
void OperatorMessage(const char* szFormat, ...) __attribute__((format(printf, 1, 2)));

// While one exists, every operator message goes into it instead of its target, whatever
// QV_MESSAGES says: how a test or a host application reads what the system says. Captures nest;
// the innermost one receives.
class CMessageCapture {
 public:
  CMessageCapture();
  ~CMessageCapture();
  CMessageCapture(const CMessageCapture&) = delete;
  CMessageCapture& operator=(const CMessageCapture&) = delete;
  std::string Text() const;  // everything received so far

 private:
  std::string m_sText;
  std::string* m_psOuter;
};

}  // namespace Qv
