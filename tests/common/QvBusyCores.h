#pragma once
// Load for tests of threads: races show when the cores are busy.
#include <atomic>
#include <thread>

namespace QvTest {

// Two threads that keep both cores busy while it lives: races show under load.
class CBusyCores {
 public:
  CBusyCores() {
    for (std::thread& x : m_axThreads)
      x = std::thread([this] {
        while (!m_bStop) continue;
      });
  }
  ~CBusyCores() {
    m_bStop = true;
    for (std::thread& x : m_axThreads) x.join();
  }

 private:
  std::atomic<bool> m_bStop{false};
  std::thread m_axThreads[2];
};

}  // namespace QvTest
