#include "QvString.h"

#include <cstdio>
#include <cstdlib>

namespace Qv {

CQvString::CQvString(const char* pText) : m_sText(pText != nullptr ? pText : "") {}

CQvString::CQvString(const std::string& sText) : m_sText(sText) {}

CQvString& CQvString::operator=(const char* pText) {
  if (pText == nullptr) {
    m_sText.clear();
  } else {
    m_sText.assign(pText);  // std::string handles aliasing of its own buffer
  }
  return *this;
}

CQvString& CQvString::operator<<(const char* pText) {
  if (pText != nullptr) m_sText.append(pText);
  return *this;
}

CQvString& CQvString::operator<<(const CQvString& sText) {
  if (&sText == this) {
    const std::string sCopy = sText.m_sText;
    m_sText.append(sCopy);
  } else {
    m_sText.append(sText.m_sText);
  }
  return *this;
}

CQvString& CQvString::operator<<(char cValue) {
  m_sText.push_back(cValue);
  return *this;
}

CQvString& CQvString::operator<<(int iValue) {
  m_sText.append(std::to_string(iValue));
  return *this;
}

CQvString& CQvString::operator<<(unsigned int uValue) {
  m_sText.append(std::to_string(uValue));
  return *this;
}

CQvString& CQvString::operator<<(long lValue) {
  m_sText.append(std::to_string(lValue));
  return *this;
}

CQvString& CQvString::operator<<(unsigned long ulValue) {
  m_sText.append(std::to_string(ulValue));
  return *this;
}

CQvString& CQvString::operator<<(long long llValue) {
  m_sText.append(std::to_string(llValue));
  return *this;
}

CQvString& CQvString::operator<<(unsigned long long ullValue) {
  m_sText.append(std::to_string(ullValue));
  return *this;
}

CQvString& CQvString::operator<<(double dValue) {
  char acBuffer[64];
  // Use the shortest precision that reads back as the same value.
  for (int iPrecision = 1; iPrecision <= 17; ++iPrecision) {
    std::snprintf(acBuffer, sizeof(acBuffer), "%.*g", iPrecision, dValue);
    if (std::strtod(acBuffer, nullptr) == dValue) break;
  }
  m_sText.append(acBuffer);
  return *this;
}

bool CQvString::operator==(const char* pText) const {
  return m_sText == (pText != nullptr ? pText : "");
}

CQvString operator+(const CQvString& sText, int iValue) {
  CQvString sResult(sText);
  sResult << iValue;
  return sResult;
}

CQvString operator+(const CQvString& sLeft, const CQvString& sRight) {
  CQvString sResult(sLeft);
  sResult << sRight;
  return sResult;
}

}  // namespace Qv
