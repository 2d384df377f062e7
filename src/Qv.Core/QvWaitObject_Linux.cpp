#include "QvWaitObject_Linux.h"

#include <algorithm>
#include <chrono>
#include <vector>

#include "QvException.h"

namespace Qv {

namespace {

// An unbounded wait still ends, after one hour.
constexpr int32_t kUnboundedWaitMs = 3600000;

// Leaves the waiter's entries on every way out of a wait.
class CWaiterEntries {
 public:
  CWaiterEntries(CQvWaitObject* const* ppxObjects, uint32_t uCount,
                 CQvWaitObject::ConditionalWaiter* pxWaiter)
      : m_ppxObjects(ppxObjects), m_uCount(uCount), m_pxWaiter(pxWaiter) {
    for (uint32_t i = 0; i < uCount; ++i) ppxObjects[i]->AddConditionalWaiter(pxWaiter);
  }
  ~CWaiterEntries() {
    for (uint32_t i = 0; i < m_uCount; ++i) m_ppxObjects[i]->RemoveConditionalWaiter(m_pxWaiter);
  }
  CWaiterEntries(const CWaiterEntries&) = delete;
  CWaiterEntries& operator=(const CWaiterEntries&) = delete;

 private:
  CQvWaitObject* const* m_ppxObjects;
  uint32_t m_uCount;
  CQvWaitObject::ConditionalWaiter* m_pxWaiter;
};

}  // namespace

CQvWaitObject::~CQvWaitObject() = default;

void CQvWaitObject::AddConditionalWaiter(ConditionalWaiter* pxWaiter) {
  std::lock_guard<std::recursive_timed_mutex> xLock(mutex);
  waiters.push_back(pxWaiter);
}

void CQvWaitObject::RemoveConditionalWaiter(ConditionalWaiter* pxWaiter) {
  std::lock_guard<std::recursive_timed_mutex> xLock(mutex);
  waiters.remove(pxWaiter);
}

int CQvWaitObject::TryGetSignalState(CQvWaitObject* const* ppxObjects, uint32_t uCount, bool bAll) {
  std::vector<char> xOffered(uCount);
  for (uint32_t i = 0; i < uCount; ++i) xOffered[i] = ppxObjects[i]->TryGetSignal() ? 1 : 0;
  int iResult = -1;
  if (!bAll && uCount > 1) {
    const auto it = std::find(xOffered.begin(), xOffered.end(), 1);
    if (it != xOffered.end()) iResult = static_cast<int>(it - xOffered.begin());
  } else if (std::all_of(xOffered.begin(), xOffered.end(), [](char c) { return c != 0; })) {
    iResult = 0;
  }
  if (iResult != -1) {
    // Every object is told, also those that had nothing to offer or stand behind the winner:
    // two signalled auto-reset events of one WaitAny both lose their signal.
    for (uint32_t i = 0; i < uCount; ++i) ppxObjects[i]->AcceptSignal();
  } else {
    for (uint32_t i = 0; i < uCount; ++i)
      if (xOffered[i]) ppxObjects[i]->RejectSignal();
  }
  return iResult;
}

int CQvWaitObject::Wait(CQvWaitObject* const* ppxObjects, uint32_t uCount, int32_t iTimeoutMs,
                        bool bAll) {
  ConditionalWaiter xWaiter;
  CWaiterEntries xEntries(ppxObjects, uCount, &xWaiter);
  if (iTimeoutMs == -1) iTimeoutMs = kUnboundedWaitMs;
  // Held from before the first look until the thread sleeps: a Set takes this mutex after
  // storing its state, so either the look sees the state or the notification finds a sleeper.
  std::unique_lock<std::mutex> xLock(xWaiter.mutex);
  const auto tDeadline = std::chrono::system_clock::now() + std::chrono::milliseconds(iTimeoutMs);
  for (;;) {
    const int iResult = TryGetSignalState(ppxObjects, uCount, bAll);
    if (iResult != -1) return iResult;
    xWaiter.condition.wait_until(xLock, tDeadline);
    // A wake-up proves nothing; only the state and the clock count.
    if (std::chrono::system_clock::now() >= tDeadline)
      return TryGetSignalState(ppxObjects, uCount, bAll);
  }
}

bool CQvWaitObject::Wait(int32_t iTimeoutMs) const {
  CQvWaitObject* pxSelf = const_cast<CQvWaitObject*>(this);
  return Wait(&pxSelf, 1, iTimeoutMs, false) != -1;
}

bool CQvWaitObject::IsSignaled() const {
  return Wait(0);
}

int CQvWaitObject::WaitAny(CQvWaitObject* a, CQvWaitObject* b, int32_t iTimeoutMs) {
  CQvWaitObject* apx[] = {a, b};
  return Wait(apx, 2, iTimeoutMs, false);
}

int CQvWaitObject::WaitAny(CQvWaitObject* a, CQvWaitObject* b, CQvWaitObject* c,
                           int32_t iTimeoutMs) {
  CQvWaitObject* apx[] = {a, b, c};
  return Wait(apx, 3, iTimeoutMs, false);
}

int CQvWaitObject::WaitAny(CQvWaitObject* a, CQvWaitObject* b, CQvWaitObject* c, CQvWaitObject* d,
                           int32_t iTimeoutMs) {
  CQvWaitObject* apx[] = {a, b, c, d};
  return Wait(apx, 4, iTimeoutMs, false);
}

int CQvWaitObject::WaitAny(CQvWaitObject* const* ppxObjects, uint32_t uCount, int32_t iTimeoutMs) {
  return Wait(ppxObjects, uCount, iTimeoutMs, false);
}

int CQvWaitObject::WaitAll(CQvWaitObject* a, CQvWaitObject* b, int32_t iTimeoutMs) {
  CQvWaitObject* apx[] = {a, b};
  return Wait(apx, 2, iTimeoutMs, true);
}

int CQvWaitObject::WaitAll(CQvWaitObject* a, CQvWaitObject* b, CQvWaitObject* c,
                           int32_t iTimeoutMs) {
  CQvWaitObject* apx[] = {a, b, c};
  return Wait(apx, 3, iTimeoutMs, true);
}

int CQvWaitObject::WaitAll(CQvWaitObject* a, CQvWaitObject* b, CQvWaitObject* c, CQvWaitObject* d,
                           int32_t iTimeoutMs) {
  CQvWaitObject* apx[] = {a, b, c, d};
  return Wait(apx, 4, iTimeoutMs, true);
}

int CQvWaitObject::TryLock(CQvWaitObject* const* ppxObjects, uint32_t uCount) {
  if (uCount < 1 || uCount > 6) QV_THROW("Not implemented the specified amount of wait objects");
  for (uint32_t i = 0; i < uCount; ++i) {
    if (!ppxObjects[i]->mutex.try_lock()) {
      for (uint32_t j = i; j-- > 0;) ppxObjects[j]->mutex.unlock();
      return static_cast<int>(i);
    }
  }
  return -1;
}

void CQvWaitObject::Unlock(CQvWaitObject* const* ppxObjects, uint32_t uCount) {
  for (uint32_t j = uCount; j-- > 0;) ppxObjects[j]->mutex.unlock();
}

void CQvEvent::Create(bool bManualReset, bool bInitial) {
  Destroy();
  manualReset = bManualReset;
  signaled.store(bInitial);
}

void CQvEvent::Set() {
  signaled.store(true);
  std::lock_guard<std::recursive_timed_mutex> xLock(mutex);
  for (ConditionalWaiter* pxWaiter : waiters) {
    std::lock_guard<std::mutex> xWaiterLock(pxWaiter->mutex);
    pxWaiter->condition.notify_all();
  }
}

bool CQvEvent::AcceptSignal() {
  if (!manualReset) Reset();
  return true;
}

}  // namespace Qv
