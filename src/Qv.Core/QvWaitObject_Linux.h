// Waitable objects: one thread can sleep on any number of events at once, with a time-out.
// The sleeper owns a condition variable; each object keeps the list of sleepers that wait on
// it and wakes them all when it is signalled, and every sleeper then looks at the state again.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>

namespace Qv {

class CQvWaitObject {
 public:
  // One per wait, on the stack of the waiting thread.
  struct ConditionalWaiter {
    std::condition_variable condition;
    std::mutex mutex;
  };

  CQvWaitObject() = default;
  virtual ~CQvWaitObject();
  CQvWaitObject(const CQvWaitObject&) = delete;
  CQvWaitObject& operator=(const CQvWaitObject&) = delete;

  bool IsValid() const { return true; }

  // Waits until one object (bAll false) or all of them (bAll true) are signalled: the index of
  // the first signalled object, 0 when all were wanted, -1 after iTimeoutMs. A time-out of -1
  // stands for one hour, not for ever. The time-out follows the wall clock.
  static int Wait(CQvWaitObject* const* ppxObjects, uint32_t uCount, int32_t iTimeoutMs, bool bAll);
  bool Wait(int32_t iTimeoutMs) const;
  // Wait(0): takes the signal of an auto-reset event.
  bool IsSignaled() const;

  static int WaitAny(CQvWaitObject* a, CQvWaitObject* b, int32_t iTimeoutMs);
  static int WaitAny(CQvWaitObject* a, CQvWaitObject* b, CQvWaitObject* c, int32_t iTimeoutMs);
  static int WaitAny(CQvWaitObject* a, CQvWaitObject* b, CQvWaitObject* c, CQvWaitObject* d,
                     int32_t iTimeoutMs);
  static int WaitAny(CQvWaitObject* const* ppxObjects, uint32_t uCount, int32_t iTimeoutMs);
  static int WaitAll(CQvWaitObject* a, CQvWaitObject* b, int32_t iTimeoutMs);
  static int WaitAll(CQvWaitObject* a, CQvWaitObject* b, CQvWaitObject* c, int32_t iTimeoutMs);
  static int WaitAll(CQvWaitObject* a, CQvWaitObject* b, CQvWaitObject* c, CQvWaitObject* d,
                     int32_t iTimeoutMs);

  // Takes the lock of each object (1 to 6 of them) without blocking: -1 when all are held
  // afterwards, else the index of the one that was busy, with none held. Unlock gives back
  // what a successful TryLock took.
  static int TryLock(CQvWaitObject* const* ppxObjects, uint32_t uCount);
  static void Unlock(CQvWaitObject* const* ppxObjects, uint32_t uCount);
  // One look at all objects: accepts every signal when the wait is satisfied, else rejects
  // those that were offered. Index as Wait, or -1.
  static int TryGetSignalState(CQvWaitObject* const* ppxObjects, uint32_t uCount, bool bAll);

  void AddConditionalWaiter(ConditionalWaiter* pxWaiter);
  void RemoveConditionalWaiter(ConditionalWaiter* pxWaiter);

 protected:
  virtual bool TryGetSignal() = 0;
  virtual bool AcceptSignal() = 0;
  virtual bool RejectSignal() = 0;

  std::list<ConditionalWaiter*> waiters;
  std::recursive_timed_mutex mutex;
};

class CQvEvent : public CQvWaitObject {
 public:
  // Manual reset, not signalled.
  CQvEvent() { Create(true, false); }
  CQvEvent(bool bManualReset, bool bInitial) { Create(bManualReset, bInitial); }
  ~CQvEvent() override { Destroy(); }

  void Create(bool bManualReset, bool bInitial);
  void Destroy() {}
  void Set();
  void Signal() { Set(); }
  // Wakes nobody.
  void Reset() { signaled.store(false); }
  // The state, without taking the signal (unlike the base's IsSignaled).
  bool IsSignaled() const { return signaled.load(); }

 protected:
  bool TryGetSignal() override { return signaled.load(); }
  bool AcceptSignal() override;
  bool RejectSignal() override { return true; }

  bool manualReset = true;
  // Written outside every lock; atomic so that a reader on another thread sees a whole value.
  std::atomic<bool> signaled{false};
};

class CQvAutoResetEvent : public CQvEvent {
 public:
  CQvAutoResetEvent() : CQvEvent(false, false) {}
  explicit CQvAutoResetEvent(bool bInitial) : CQvEvent(false, bInitial) {}
  void Create(bool bInitial) { CQvEvent::Create(false, bInitial); }
};

}  // namespace Qv
