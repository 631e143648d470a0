#include "recovery-turn.h"

#include <fcntl.h>
#include <sys/file.h>

#include <thread>

#include "run-directory.h"

namespace tool {
namespace {

constexpr const char* lockFile = "recovery.lock";
constexpr const char* semaphores = "/dev/shm";
constexpr std::chrono::milliseconds pause{20};

// What everybody can open everybody can lock, and so keep recoveries away for ever. It
// serves only those who may not use the file that root has.
fwplatform::UniqueFd openTurn() {
  if (const fwplatform::UniqueFd directory = makeRunDirectory())
    if (fwplatform::UniqueFd file = openOwnLockFile(directory, lockFile))
      return file;
  return fwplatform::UniqueFd(open(semaphores, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace

RecoveryTurn::RecoveryTurn(std::chrono::milliseconds patience) : file(openTurn()) {
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
