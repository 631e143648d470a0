// Something that one thread opens and others wait for.
#ifndef TESTS_SUPPORT_GATE_H
#define TESTS_SUPPORT_GATE_H

#include <condition_variable>
#include <mutex>

class Gate {
 public:
  void open() {
    const std::lock_guard<std::mutex> lock(mutex);
    isOpen = true;
    changed.notify_all();
  }
  void wait() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return isOpen; });
  }

 private:
  std::mutex mutex;
  std::condition_variable changed;
  bool isOpen = false;
};

#endif
