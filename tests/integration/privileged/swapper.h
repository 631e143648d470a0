// SPDX-License-Identifier: Apache-2.0
// Keeps exchanging files for others while it lives, as somebody does who may write to
// their directories and hopes to do so between a check and what follows it.
#ifndef TESTS_INTEGRATION_PRIVILEGED_SWAPPER_H
#define TESTS_INTEGRATION_PRIVILEGED_SWAPPER_H

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

class Swapper {
 public:
  using Pair = std::pair<std::string, std::string>;

  // Exchanges the two of each pair, one pair after the other, and back again.
  explicit Swapper(std::vector<Pair> pairs)
      : thread_([this, pairs = std::move(pairs)] {
          while (!stop_) {
            for (const Pair& pair : pairs) {
              swapAndBack(pair);
            }
          }
        }) {}
  Swapper(const Swapper&) = delete;
  Swapper& operator=(const Swapper&) = delete;
  ~Swapper() {
    stop_ = true;
    thread_.join();
  }

  int swaps() const { return swaps_; }

 private:
  static bool exchange(const Pair& pair) {
    return renameat2(AT_FDCWD, pair.first.c_str(), AT_FDCWD, pair.second.c_str(), RENAME_EXCHANGE) == 0;
  }

  // What is mounted on can't be renamed for a while.
  void swapAndBack(const Pair& pair) {
    if (!exchange(pair)) {
      return;
    }
    ++swaps_;
    linger(pair);
    while (!exchange(pair) && !stop_) {
    }
    linger(pair);
  }

  // Each has to be there long enough to be met, too.
  void linger(const Pair& pair) const {
    for (int i = 0; i < 20 && !stop_; ++i) {
      access(pair.first.c_str(), F_OK);
    }
  }

  std::atomic<bool> stop_ = false;
  std::atomic<int> swaps_ = 0;
  std::thread thread_;
};

#endif
