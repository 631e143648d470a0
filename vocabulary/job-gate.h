// SPDX-License-Identifier: Apache-2.0
// Where a job of the update service and the wish to cancel it meet: one word in a file that both
// have mapped. Whoever is first has it, so that a job that was cancelled never reaches a module,
// and one that has reached a module is never said to be cancelled. Any process, any thread.
#ifndef JOB_GATE_H
#define JOB_GATE_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>

namespace fwjobs {

// In the environment of fw-update when it works for the service: the file, and the number of
// the user who asked.
inline constexpr char kGateVariable[] = "FW_UPDATE_JOB_GATE";
inline constexpr char kAskedByVariable[] = "FW_UPDATE_ASKED_BY";

// In that of one which is only to begin its entry in the history and to end: the command of the
// job was killed before it could. The number of the service's process.
inline constexpr char kOnlyEntryVariable[] = "FW_UPDATE_ONLY_ENTRY";

class Gate {
 public:
  // A new file: nobody has been there. There is no gate when the file cannot be used.
  static Gate make(const std::string& path) { return Gate(path, O_CREAT | O_TRUNC); }
  static Gate open(const std::string& path) { return Gate(path, 0); }

  Gate() = default;
  Gate(Gate&& other) noexcept : word_(std::exchange(other.word_, nullptr)) {}
  Gate& operator=(Gate&& other) noexcept {
    std::swap(word_, other.word_);
    return *this;
  }
  ~Gate() {
    if (word_ != nullptr) {
      munmap(word_, sizeof *word_);
    }
  }

  explicit operator bool() const { return word_ != nullptr; }
  // Both: whether this one has it.
  bool reachModule() { return take(kReached); }
  bool cancel() { return take(kCancelled); }
  bool isCancelled() const { return word_ != nullptr && word_->load() == kCancelled; }

 private:
  using Word = std::atomic<std::uint32_t>;
  static_assert(Word::is_always_lock_free, "shared between processes");

  static constexpr std::uint32_t kNobody = 0;
  static constexpr std::uint32_t kReached = 1;
  static constexpr std::uint32_t kCancelled = 2;

  Gate(const std::string& path, int flags) {
    const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | flags, 0600);
    void* memory = MAP_FAILED;
    // With its room: who writes to mapped memory that finds none is killed.
    if (file >= 0 && ((flags & O_CREAT) == 0 || posix_fallocate(file, 0, sizeof(Word)) == 0)) {
      memory = mmap(nullptr, sizeof(Word), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    }
    if (memory != MAP_FAILED) {
      word_ = static_cast<Word*>(memory);
    }
    if (file >= 0) {
      close(file);
    }
  }

  bool take(std::uint32_t mine) {
    std::uint32_t before = kNobody;
    return word_ != nullptr && (word_->compare_exchange_strong(before, mine) || before == mine);
  }

  Word* word_ = nullptr;
};

}  // namespace fwjobs

#endif
