#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "QvException.h"
#include "QvWaitObject_Linux.h"

using namespace Qv;
using Clock = std::chrono::steady_clock;

namespace {

long MsSince(Clock::time_point t0) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count());
}

TEST(WaitObject, ZeroWaitConsumesOnlyAutoResetSignals) {
  struct SRow {
    bool bManual, bInitial, bThroughBase, bExpectResult, bExpectAfter;
  } aRows[] = {
      {true, true, true, true, true},    {false, true, true, true, false},
      {true, false, true, false, false}, {false, false, true, false, false},
      {false, true, false, true, true},  // CQvEvent::IsSignaled only looks
  };
  for (const SRow& r : aRows) {
    CQvEvent xEvent(r.bManual, r.bInitial);
    const CQvWaitObject& xBase = xEvent;
    const bool bResult = r.bThroughBase ? xBase.IsSignaled() : xEvent.IsSignaled();
    EXPECT_EQ(r.bExpectResult, bResult) << "manual " << r.bManual << " initial " << r.bInitial;
    EXPECT_EQ(r.bExpectAfter, xEvent.IsSignaled()) << "manual " << r.bManual;
  }
}

TEST(WaitObject, WaitAllAndWaitAnyAcceptOnlyWhenSatisfied) {
  struct SRow {
    bool bAll, bA, bB, bAutoA, bAutoB;
    int iExpect;
    bool bAAfter, bBAfter;
  } aRows[] = {
      {true, true, false, true, true, -1, true, false},    // nothing accepted: a keeps its signal
      {true, true, false, false, true, -1, true, false},   // manual a untouched
      {true, true, true, true, true, 0, false, false},     //
      {true, true, true, false, true, 0, true, false},     // manual stays, auto goes
      {false, false, true, true, true, 1, false, false},   //
      {false, true, true, true, true, 0, false, false},    // both auto signals consumed
      {false, true, true, true, false, 0, false, true},    //
      {false, false, false, true, true, -1, false, false}  //
  };
  for (const SRow& r : aRows) {
    CQvEvent a(!r.bAutoA, r.bA), b(!r.bAutoB, r.bB);
    const int iGot = r.bAll ? CQvWaitObject::WaitAll(&a, &b, 0) : CQvWaitObject::WaitAny(&a, &b, 0);
    EXPECT_EQ(r.iExpect, iGot) << "all " << r.bAll << " a " << r.bA << " b " << r.bB;
    EXPECT_EQ(r.bAAfter, a.IsSignaled()) << "all " << r.bAll << " a " << r.bA << " b " << r.bB;
    EXPECT_EQ(r.bBAfter, b.IsSignaled()) << "all " << r.bAll << " a " << r.bA << " b " << r.bB;
  }
}

TEST(WaitObject, TimeOutsAndWakeUps) {
  CQvEvent a, b, c, d;
  auto t0 = Clock::now();
  EXPECT_EQ(-1, CQvWaitObject::WaitAny(&a, &b, &c, &d, 60));
  EXPECT_GE(MsSince(t0), 60);

  // A Set on another thread ends each kind of wait long before its time-out.
  for (int iKind = 0; iKind < 3; ++iKind) {
    CQvAutoResetEvent x, y, z;
    std::thread xSetter([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
      z.Set();
      if (iKind == 2) y.Set(), x.Set();
    });
    t0 = Clock::now();
    int iGot = -2;
    if (iKind == 0) iGot = z.Wait(-1) ? 0 : -1;
    if (iKind == 1) iGot = CQvWaitObject::WaitAny(&x, &y, &z, 10000);
    if (iKind == 2) iGot = CQvWaitObject::WaitAll(&x, &y, &z, 10000);
    xSetter.join();
    EXPECT_EQ(iKind == 1 ? 2 : 0, iGot) << "kind " << iKind;
    EXPECT_LT(MsSince(t0), 5000) << "kind " << iKind;
    EXPECT_FALSE(z.IsSignaled()) << "kind " << iKind;
  }
}

TEST(WaitObject, TryLockTakesAllOrNone) {
  CQvEvent a, b;
  CQvWaitObject* apx[7] = {&a, &b, &a, &b, &a, &b, &a};
  for (uint32_t uCount : {0u, 7u})
    EXPECT_THROW(CQvWaitObject::TryLock(apx, uCount), CQvException) << uCount;

  CQvEvent xHeld, xRelease;
  std::thread xHolder([&] {
    CQvWaitObject* pxB = &b;
    EXPECT_EQ(-1, CQvWaitObject::TryLock(&pxB, 1));
    xHeld.Set();
    xRelease.Wait(-1);
    CQvWaitObject::Unlock(&pxB, 1);
  });
  xHeld.Wait(-1);
  EXPECT_EQ(1, CQvWaitObject::TryLock(apx, 2));
  int iFirstFree = -2;
  std::thread([&] {
    iFirstFree = CQvWaitObject::TryLock(apx, 1);
    if (iFirstFree == -1) CQvWaitObject::Unlock(apx, 1);
  }).join();
  EXPECT_EQ(-1, iFirstFree) << "the first object stayed locked";
  xRelease.Set();
  xHolder.join();
  EXPECT_EQ(-1, CQvWaitObject::TryLock(apx, 2));
  CQvWaitObject::Unlock(apx, 2);
}

TEST(WaitObject, PingPongLosesNoWakeUp) {
  // The hand-over of the display: two threads, each waking the other, many times over.
  CQvAutoResetEvent xPing, xPong;
  constexpr int kRounds = 2000;
  int iReturned = 0;
  std::thread xOther([&] {
    for (int i = 0; i < kRounds; ++i) {
      if (!xPing.Wait(10000)) return;
      xPong.Set();
      ++iReturned;
    }
  });
  int iServed = 0;
  for (int i = 0; i < kRounds; ++i) {
    xPing.Set();
    if (!xPong.Wait(10000)) break;
    ++iServed;
  }
  xOther.join();
  EXPECT_EQ(kRounds, iServed);
  EXPECT_EQ(kRounds, iReturned);
}

}  // namespace
