#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "QvException.h"
#include "QvWaitObject_Linux.h"

using namespace Qv;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

TEST(WaitObject, ZeroWaitConsumesOnlyAutoResetSignals) {
  // manual, initial, through the base, result, signalled after
  const bool aRows[][5] = {
      {1, 1, 1, 1, 1}, {0, 1, 1, 1, 0}, {1, 0, 1, 0, 0},
      {0, 0, 1, 0, 0}, {0, 1, 0, 1, 1},  // CQvEvent::IsSignaled only looks
  };
  for (const auto& r : aRows) {
    CQvEvent xEvent(r[0], r[1]);
    const CQvWaitObject& xBase = xEvent;
    EXPECT_EQ(r[3], r[2] ? xBase.IsSignaled() : xEvent.IsSignaled()) << "row " << &r - aRows;
    EXPECT_EQ(r[4], xEvent.IsSignaled()) << "row " << &r - aRows;
  }
}

TEST(WaitObject, WaitAllAndWaitAnyAcceptOnlyWhenSatisfied) {
  // all (else any), a, b signalled, a, b auto-reset; result; a, b signalled after
  const int aRows[][8] = {
      {1, 1, 0, 1, 1, -1, 1, 0},                            // nothing accepted: a keeps its signal
      {1, 1, 0, 0, 1, -1, 1, 0},                            // manual a untouched
      {1, 1, 1, 1, 1, 0, 0, 0},  {1, 1, 1, 0, 1, 0, 1, 0},  // manual stays, auto goes
      {0, 0, 1, 1, 1, 1, 0, 0},  {0, 1, 1, 1, 1, 0, 0, 0},  // both auto signals consumed
      {0, 1, 1, 1, 0, 0, 0, 1},  {0, 0, 0, 1, 1, -1, 0, 0},
  };
  for (const auto& r : aRows) {
    SCOPED_TRACE("row " + std::to_string(&r - aRows));
    CQvEvent a(!r[3], r[1]), b(!r[4], r[2]);
    EXPECT_EQ(r[5], r[0] ? CQvWaitObject::WaitAll(&a, &b, 0) : CQvWaitObject::WaitAny(&a, &b, 0));
    EXPECT_EQ(r[6], a.IsSignaled());
    EXPECT_EQ(r[7], b.IsSignaled());
  }
}

TEST(WaitObject, TimeOutsAndWakeUps) {
  CQvEvent a, b, c, d;
  auto t0 = Clock::now();
  EXPECT_EQ(-1, CQvWaitObject::WaitAny(&a, &b, &c, &d, 60));
  EXPECT_GE(Clock::now() - t0, milliseconds(60));

  // A Set on another thread ends each kind of wait long before its time-out.
  for (int iKind = 0; iKind < 3; ++iKind) {
    CQvAutoResetEvent x, y, z;
    std::thread xSetter([&] {
      std::this_thread::sleep_for(milliseconds(30));
      z.Set();
      if (iKind == 2) y.Set(), x.Set();
    });
    t0 = Clock::now();
    const int iGot = iKind == 0   ? (z.Wait(-1) ? 0 : -1)
                     : iKind == 1 ? CQvWaitObject::WaitAny(&x, &y, &z, 10000)
                                  : CQvWaitObject::WaitAll(&x, &y, &z, 10000);
    xSetter.join();
    EXPECT_EQ(iKind == 1 ? 2 : 0, iGot) << "kind " << iKind;
    EXPECT_LT(Clock::now() - t0, milliseconds(5000)) << "kind " << iKind;
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
    EXPECT_EQ(-1, CQvWaitObject::TryLock(apx + 1, 1));
    xHeld.Set();
    xRelease.Wait(-1);
    CQvWaitObject::Unlock(apx + 1, 1);
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

}  // namespace
