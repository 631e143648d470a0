#include "recovery-turn.h"

#include <fcntl.h>
#include <sys/file.h>

#include <thread>

namespace tool {
namespace {

constexpr const char* directory = "/dev/shm";
constexpr std::chrono::milliseconds pause{20};

}  // namespace

RecoveryTurn::RecoveryTurn(std::chrono::milliseconds patience)
    : file(open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (file && !taken && std::chrono::steady_clock::now() < end) {
    taken = flock(file.get(), LOCK_EX | LOCK_NB) == 0;
    if (!taken)
      std::this_thread::sleep_for(pause);
  }
}

int RecoveryTurn::keepForNextProgram() const {
  fcntl(file.get(), F_SETFD, 0);
  return file.get();
}

}  // namespace tool
