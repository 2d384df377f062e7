// Text value used across the code base: a thin wrapper around std::string with stream-like
// appending of numbers and text.
#pragma once

#include <cstddef>
#include <string>

namespace Qv {

class CQvString {
 public:
  CQvString() = default;
  CQvString(const char* pText);         // NOLINT: implicit by design; null gives the empty text
  CQvString(const std::string& sText);  // NOLINT
  CQvString(const CQvString& sOther) = default;
  CQvString(CQvString&& sOther) noexcept = default;
  ~CQvString() = default;

  CQvString& operator=(const CQvString& sOther) = default;
  CQvString& operator=(CQvString&& sOther) noexcept = default;
  CQvString& operator=(const char* pText);

  // Appending; every overload returns *this for chaining. Numbers are written in decimal.
  CQvString& operator<<(const char* pText);
  CQvString& operator<<(const CQvString& sText);
  CQvString& operator<<(char cValue);
  CQvString& operator<<(int iValue);
  CQvString& operator<<(unsigned int uValue);
  CQvString& operator<<(long lValue);
  CQvString& operator<<(unsigned long ulValue);
  CQvString& operator<<(long long llValue);
  CQvString& operator<<(unsigned long long ullValue);
  CQvString& operator<<(double dValue);  // shortest form that reads back the same ("%.17g" trimmed)

  const char* ToCString() const { return m_sText.c_str(); }
  size_t GetLength() const { return m_sText.size(); }
  bool IsEmpty() const { return m_sText.empty(); }
  const std::string& GetStdString() const { return m_sText; }

  bool operator==(const CQvString& sOther) const { return m_sText == sOther.m_sText; }
  bool operator!=(const CQvString& sOther) const { return !(*this == sOther); }
  bool operator==(const char* pText) const;
  bool operator!=(const char* pText) const { return !(*this == pText); }

 private:
  std::string m_sText;
};

// Text followed by the decimal number.
CQvString operator+(const CQvString& sText, int iValue);
// Concatenation of two texts.
CQvString operator+(const CQvString& sLeft, const CQvString& sRight);

}  // namespace Qv
