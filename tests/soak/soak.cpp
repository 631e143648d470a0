// SPDX-License-Identifier: Apache-2.0
// Many updates by several processes at once, over several modules, with random failures
// and kills (docs/testing.md). Exit code 0: all promises were kept; 77: no device here.
#include <fcntl.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "device-namespace.h"
#include "mount-table.h"
#include "soak-device.h"
#include "soak-journal.h"
#include "soak-worker.h"

namespace {

using namespace soak;
using Clock = std::chrono::steady_clock;

constexpr int kSkipped = 77;
constexpr const char* kPackageMounts = "/opt/usr/apps/appbinarymanager/emps";
// Requests of a process before its use is measured: first uses allocate for good.
constexpr long kWarmUp = 20;
// What the C library's caches may hold more or less of; a leak of a few bytes an
// update comes to more in a long run.
constexpr long kHeapNoise = 48L * 1024;
constexpr int kSilence = 300;  // milliseconds after which a recovery is tried again

struct Settings {
  long updates = 10000;
  int processes = 4;
  unsigned int seed = 1;
  long updatesPerKill = 100;
};

// Of one worker process, from its warm-up to its last word.
struct Life {
  long requests = 0;
  Use first;
  Use latest;
  bool ended = false;

  bool isMeasured() const { return requests > kWarmUp; }
  long heapGrowth() const {
    return static_cast<long>(latest.heapBytes) - static_cast<long>(first.heapBytes) -
           (static_cast<long>(latest.keptBytes) - static_cast<long>(first.keptBytes));
  }
};

struct Figures {
  long byKind[kKindCount] = {};
  long unexpected = 0;
  long lateNotices = 0;
  long kills = 0;
  long workersFailed = 0;
  std::map<int, long> recoveries;  // by exit code of the command
};

int countEntries(const char* directory) {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(directory)) {
    ++count;
  }
  return count;
}

class Soak {
 public:
  explicit Soak(const Settings& wanted) : settings_(wanted), random_(wanted.seed), slots_(slotCount(), 0) {
    void* const memory =
        mmap(nullptr, sizeof(Orders), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    int ends[2];
    if (memory == MAP_FAILED || socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::runtime_error("no memory or socket to share");
    }
    orders_ = new (memory) Orders;
    orders_->left = settings_.updates;
    inbox_ = ends[0];
    outbox_ = ends[1];
  }

  void run() {
    for (int slot = 0; slot < settings_.processes; ++slot) {
      start(slot);
    }
    while (std::any_of(slots_.begin(), slots_.end(), [](pid_t process) { return process != 0; })) {
      step();
    }
  }

  Figures figures;
  std::map<pid_t, Life> lives;

 private:
  std::size_t slotCount() const { return static_cast<std::size_t>(settings_.processes); }

  void start(int slot) {
    std::fflush(nullptr);
    const unsigned int seed = static_cast<unsigned int>(random_());
    const pid_t process = fork();
    if (process == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      close(inbox_);
      work(slot, seed, *orders_, outbox_);
    }
    slots_[static_cast<std::size_t>(slot)] = process;
  }

  void step() {
    pollfd polled{inbox_, POLLIN, 0};
    if (poll(&polled, 1, kSilence) == 0 && recoveryIsOpen_) {
      recover();
    }
    Word word;
    while (recv(inbox_, &word, sizeof word, MSG_DONTWAIT) == static_cast<ssize_t>(sizeof word)) {
      hear(word);
    }
    takeEnded();
  }

  void hear(const Word& word) {
    Life& life = lives[word.process];
    if (++life.requests == kWarmUp) {
      life.first = word.use;
    }
    life.latest = word.use;
    life.ended = word.last;
    if (word.last) {
      return;
    }
    ++figures.byKind[static_cast<std::size_t>(word.kind)];
    figures.unexpected += word.expected ? 0 : 1;
    figures.lateNotices += word.lateNotice ? 1 : 0;
    if (--untilKill_ <= 0 && orders_->left > settings_.processes) {
      killOne();
    }
  }

  // The first process lives from the beginning to the end, so that it is measured over
  // as many updates as can be.
  void killOne() {
    untilKill_ = 1 + std::uniform_int_distribution<long>(0, 2 * settings_.updatesPerKill)(random_);
    if (settings_.processes < 2) {
      return;
    }
    // Some time later, so that it is not always at the same point.
    std::this_thread::sleep_for(
        std::chrono::microseconds(std::uniform_int_distribution<int>(0, 12000)(random_)));
    const int slot = chosenSlot();
    const pid_t process = slots_[static_cast<std::size_t>(slot)];
    if (process == 0 || waitpid(process, nullptr, WNOHANG) != 0) {
      return;
    }
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
    journal("killed", process);
    ++figures.kills;
    recoveryIsOpen_ = true;
    recover();
    start(slot);
  }

  // Any, or the one that updates.
  int chosenSlot() {
    const auto updating = std::find(slots_.begin() + 1, slots_.end(), updatingProcess());
    if (updating != slots_.end() && random_() % 2 == 0) {
      return static_cast<int>(updating - slots_.begin());
    }
    return std::uniform_int_distribution<int>(1, settings_.processes - 1)(random_);
  }

  // Until it is given back or free: while others look as if they could be holding it, it
  // is refused, and tried again when nothing happens.
  void recover() {
    const pid_t process = fork();
    if (process == 0) {
      const int nowhere = open("/dev/null", O_WRONLY);
      dup2(nowhere, STDOUT_FILENO);
      dup2(nowhere, STDERR_FILENO);
      execl(FW_UPDATE_TOOL, "fw-update", "lock", "recover", static_cast<char*>(nullptr));
      _exit(127);
    }
    int status = 0;
    waitpid(process, &status, 0);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    ++figures.recoveries[code];
    recoveryIsOpen_ = code != 0 && code != 3;
  }

  void takeEnded() {
    for (pid_t& process : slots_) {
      int status = 0;
      if (process == 0 || waitpid(process, &status, WNOHANG) != process) {
        continue;
      }
      figures.workersFailed += WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
      process = 0;
    }
  }

  const Settings settings_;
  std::mt19937 random_;
  Orders* orders_ = nullptr;
  int inbox_ = -1;
  int outbox_ = -1;
  std::vector<pid_t> slots_;
  long untilKill_ = 30;
  bool recoveryIsOpen_ = false;
};

// ---- What must hold at the end --------------------------------------------------

int lockValue() {
  sem_t* const lock = sem_open("/SEM_UPDATE_CONTROL", 0);
  int value = -1;
  if (lock != SEM_FAILED) {
    sem_getvalue(lock, &value);
    sem_close(lock);
  }
  return value;
}

int leftMounts() {
  const auto mounts = base::mountPoints();
  return static_cast<int>(std::count_if(mounts.begin(), mounts.end(), [](const std::string& mount) {
    return base::isBelow(mount, kPackageMounts);
  }));
}

int leftLoopDevices() {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/sys/block")) {
    std::string image;
    std::getline(std::ifstream(entry.path() / "loop/backing_file"), image);
    count += image.find(packageName()) != std::string::npos ? 1 : 0;
  }
  return count;
}

// Prints a line, and counts the promises that were not kept.
class Verdict {
 public:
  void promise(bool kept, const char* format, long value) {
    std::printf("%-6s ", kept ? "ok" : "FAILED");
    std::printf(format, value);
    std::printf("\n");
    broken_ += kept ? 0 : 1;
  }
  int exitCode() const { return broken_ == 0 ? 0 : 1; }

 private:
  int broken_ = 0;
};

void printFigures(const Figures& figures, double seconds) {
  long requests = 0;
  for (const long count : figures.byKind) {
    requests += count;
  }
  std::printf("%ld updates came to their result in %.1f s:", requests, seconds);
  for (std::size_t kind = 0; kind < kKindCount; ++kind) {
    std::printf("%s %ld %s", kind == 0 ? "" : ",", figures.byKind[kind], kKindNames[kind]);
  }
  std::printf("\n%ld ends were noticed late by the library, as it does on purpose\n", figures.lateNotices);
  std::printf("%ld processes were killed; recoveries: ", figures.kills);
  const std::map<int, const char*> names{{0, "given back"}, {3, "free"}, {12, "refused, tried again"}};
  for (const auto& [code, count] : figures.recoveries) {
    std::printf("%ld %s; ", count, names.count(code) != 0 ? names.at(code) : "FAILED");
  }
  std::printf("\n");
}

void judgeLock(Verdict& verdict, const Figures& figures) {
  const JournalSummary journal = readJournal();
  std::printf("journal: %zu updates begun, %zu ended, %zu cut off by a kill\n", journal.begun, journal.ended,
              journal.cutOff);
  verdict.promise(journal.begun > 0 && journal.atOnce == 1, "%ld update at once, at most",
                  static_cast<long>(journal.atOnce));
  if (!journal.firstOverlap.empty()) {
    std::printf("       first: %s\n", journal.firstOverlap.c_str());
  }
  verdict.promise(journal.malformed == 0, "%ld lines of the journal that do not fit",
                  static_cast<long>(journal.malformed));
  verdict.promise(figures.unexpected == 0, "%ld results other than expected", figures.unexpected);
  verdict.promise(figures.workersFailed == 0, "%ld processes that failed", figures.workersFailed);
  verdict.promise(lockValue() == 1, "%ld is the lock's value at the end", lockValue());
  verdict.promise(countEntries("/dev/shm") == 1, "%ld semaphore in /dev/shm", countEntries("/dev/shm"));
}

void judgeUse(Verdict& verdict, const std::map<pid_t, Life>& lives) {
  const Life* longest = nullptr;
  long measured = 0, growth = 0, descriptors = 0, threads = 0;
  for (const auto& [process, life] : lives) {
    if (!life.isMeasured()) {
      continue;
    }
    ++measured;
    growth = std::max(growth, life.heapGrowth());
    descriptors = std::max<long>(descriptors, life.latest.descriptors - life.first.descriptors);
    threads = std::max<long>(threads, life.ended ? life.latest.threads : 0);
    if (longest == nullptr || life.requests > longest->requests) {
      longest = &life;
    }
  }
  verdict.promise(measured > 0, "%ld processes measured after their first 20 updates", measured);
  if (longest == nullptr) {
    return;
  }
  std::printf(
      "       the longest: %ld updates; heap %zu -> %zu bytes, %zu of it kept on purpose (buffers of USB "
      "packages), %ld more; resident %zu -> %zu KiB\n",
      longest->requests, longest->first.heapBytes, longest->latest.heapBytes,
      longest->latest.keptBytes - longest->first.keptBytes, longest->heapGrowth(), longest->first.residentKib,
      longest->latest.residentKib);
  verdict.promise(growth <= kHeapNoise, "%ld bytes of heap grown beyond what is kept on purpose, at most",
                  growth);
  verdict.promise(descriptors <= 0, "%ld descriptors leaked", descriptors);
  verdict.promise(threads == 1, "%ld thread left in a process at its end", threads);
}

int judge(const Soak& soak, const Settings& settings, int descriptorsBefore, double seconds) {
  Verdict verdict;
  std::printf("soak: %ld updates by %d processes, seed %u\n", settings.updates, settings.processes,
              settings.seed);
  printFigures(soak.figures, seconds);
  judgeLock(verdict, soak.figures);
  judgeUse(verdict, soak.lives);
  verdict.promise(leftMounts() == 0, "%ld mounts left", leftMounts());
  verdict.promise(leftLoopDevices() == 0, "%ld loop devices left", leftLoopDevices());
  const int leaked = countEntries("/proc/self/fd") - descriptorsBefore;
  verdict.promise(leaked == 0, "%ld descriptors left here", leaked);
  return verdict.exitCode();
}

int soakUpdates(const Settings& settings) {
  setenv("FW_UPDATE_LOG", "none", 1);
  try {
    sandbox::enterDevice({"", {TEST_SOURCE_TREE}, {}, {TEST_BINARY_TREE}});
  } catch (const std::exception& refused) {
    std::fprintf(stderr, "skipped, no device: %s\n", refused.what());
    return kSkipped;
  }
  layOut(settings.processes);
  const auto start = Clock::now();
  Soak soak(settings);
  const int descriptors = countEntries("/proc/self/fd");
  soak.run();
  return judge(soak, settings, descriptors, std::chrono::duration<double>(Clock::now() - start).count());
}

}  // namespace

int main(int argc, char** argv) {
  Settings settings;
  CLI::App app("Updates many times by several processes, kills some, and checks what must hold.");
  app.add_option("--updates", settings.updates, "How many updates are requested; default: 10000")
      ->check(CLI::PositiveNumber);
  app.add_option("--processes", settings.processes, "How many request them; default: 4")
      ->check(CLI::Range(1, 64));
  app.add_option("--seed", settings.seed, "Of what is random; default: 1");
  app.add_option("--updates-per-kill", settings.updatesPerKill, "On average; default: 100")
      ->check(CLI::PositiveNumber);
  CLI11_PARSE(app, argc, argv);
  try {
    return soakUpdates(settings);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "soak: %s\n", error.what());
    return 1;
  }
}
