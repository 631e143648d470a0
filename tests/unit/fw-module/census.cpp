// SPDX-License-Identifier: Apache-2.0
#include "census.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace {

using fwmodule::Census;
using fwmodule::openedSince;
using fwmodule::takeCensus;
using fwmodule::takeCensusAfter;

TEST(Census, NamesWhatWasOpenedSince) {
  const Census before = takeCensus();
  const int one = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const int other = open("/dev/zero", O_RDONLY | O_CLOEXEC);
  const Census with = takeCensus();
  close(one);
  close(other);

  EXPECT_EQ(openedSince(before, with), "/dev/null, /dev/zero");
  EXPECT_EQ(openedSince(before, takeCensus()), "");
}

TEST(Census, DoesNotCountTheReadingOfTheListItself) {
  EXPECT_EQ(openedSince(takeCensus(), takeCensus()), "");
  for (const auto& [descriptor, target] : takeCensus().descriptors) {
    EXPECT_NE(target.find("/proc/"), 0U) << descriptor << ": " << target;
  }
}

TEST(Census, CountsThreads) {
  const Census before = takeCensus();
  std::atomic<bool> end{false};
  std::thread thread([&] {
    while (!end) {
      std::this_thread::yield();
    }
  });
  const Census with = takeCensus();
  end = true;
  thread.join();

  EXPECT_EQ(with.threads, before.threads + 1);
}

TEST(Census, WaitsForThreadsThatAreOnTheirWayOut) {
  const Census before = takeCensus();
  std::atomic<bool> running{false};
  std::thread([&] {
    running = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(30));  // is seen, mostly
  }).detach();
  while (!running) {
    std::this_thread::yield();
  }

  EXPECT_EQ(takeCensusAfter(before).threads, before.threads);
}

}  // namespace
