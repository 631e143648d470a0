// SPDX-License-Identifier: Apache-2.0
// Says on standard error that a module keeps the command waiting, once, when it does so for long:
// while this lives. The command is not ended by it. For one thread, with one of its own.
#ifndef FW_UPDATE_TOOL_HANG_NOTICE_H
#define FW_UPDATE_TOOL_HANG_NOTICE_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace tool {

class HangNotice {
 public:
  // module: the one that is asked; empty when it may be any. A process that another one watches
  // says nothing: the other one will.
  explicit HangNotice(const std::string& module);
  ~HangNotice();
  HangNotice(const HangNotice&) = delete;
  HangNotice& operator=(const HangNotice&) = delete;

 private:
  void watch(const std::string& module);

  std::mutex mutex_;
  std::condition_variable ended_;
  bool isOver_ = false;
  std::thread watcher_;
};

}  // namespace tool

#endif
