// SPDX-License-Identifier: Apache-2.0
// The power is cut at every write of an update: its files lie on a disk whose writes are
// recorded, and the module is asked what it finds on each disk that could be left.
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "counted-version.h"
#include "cut-disk.h"
#include "device-paths.h"
#include "disk-log.h"
#include "disk-states.h"
#include "program-start.h"
#include "recorded-disk.h"
#include "system-error.h"
#include "tree-digest.h"
#include "trials.h"

namespace fwmodule {
namespace fs = std::filesystem;
namespace {

constexpr char kComponents[] = "/var/lib/fw-components";
constexpr char kWork[] = "/tmp/power-cut";
constexpr char kBegin[] = "begin";
constexpr std::size_t kStates = 400;
constexpr std::uintmax_t kDiskSize = std::uintmax_t{32} * 1024 * 1024;
// Without what ext4 does for programs that do not wait for the disk.
const powercut::FileSystem& fileSystem() {
  static const powercut::FileSystem kSystem{"ext4", "noauto_da_alloc"};
  return kSystem;
}

std::string inWork(const std::string& name) {
  return std::string(kWork) + "/" + name;
}

int statusOf(pid_t child) {
  const int status = base::waitForEnd(child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// What body gives, from a process of its own; -1 when a signal ended it.
pid_t started(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child < 0) {
    base::throwErrno("fork");
  }
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int code = 1;
    try {
      code = body();
    } catch (const std::exception&) {
    }
    _exit(code);
  }
  return child;
}

void mountAt(const powercut::LoopDisk& disk, const std::string& directory) {
  const auto& system = fileSystem();
  if (mount(disk.path().c_str(), directory.c_str(), system.kind.c_str(), MS_NOATIME,
            system.options.c_str()) != 0) {
    base::throwErrno("cannot mount " + disk.path());
  }
}

// A kernel thread or the module may still look at it for a moment.
void unmount(const std::string& directory) {
  constexpr int kAttempts = 500;
  for (int attempt = 0; umount2(directory.c_str(), 0) != 0; ++attempt) {
    if (errno != EBUSY || attempt == kAttempts) {
      base::throwErrno("cannot unmount " + directory);
    }
    usleep(10'000);
  }
}

// ---- The record ---------------------------------------------------------------------------

// An empty disk with what the component has now.
void makeDisk(const std::string& image) {
  std::ofstream(image).close();
  fs::resize_file(image, kDiskSize);
  pid_t maker = 0;
  const int error = base::ProgramStart().run(
      {"/sbin/mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0,nodiscard", image}, {},
      maker);
  if (error != 0 || statusOf(maker) != 0) {
    throw std::runtime_error("mkfs.ext4 made no disk for the power cut; is e2fsprogs installed?");
  }
  const std::string directory = inWork("filled");
  fs::create_directories(directory);
  const powercut::LoopDisk disk(image);
  mountAt(disk, directory);
  fs::copy(kComponents, directory, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  unmount(directory);
}

// The component's files lie on a recorded disk as long as it lives.
class RecordedComponents {
 public:
  explicit RecordedComponents(const std::string& image) {
    fs::create_directories(inWork("fuse"));
    recorder_ = started([&] { return powercut::recordDisk(image, inWork("log"), inWork("fuse"), [] {}); });
    constexpr int kAttempts = 1000;
    for (int attempt = 0; !fs::exists(inWork("fuse/disk")); ++attempt) {
      if (attempt == kAttempts || waitpid(recorder_, nullptr, WNOHANG) != 0) {
        throw std::runtime_error("the disk of the power cut cannot be recorded");
      }
      usleep(10'000);
    }
    disk_ = std::make_unique<powercut::LoopDisk>(inWork("fuse/disk"));
    mountAt(*disk_, kComponents);
    sync();
    mark(kBegin);
  }

  RecordedComponents(const RecordedComponents&) = delete;
  RecordedComponents& operator=(const RecordedComponents&) = delete;
  // What the kernel still has to write goes nowhere when the recorder has gone.
  ~RecordedComponents() {
    if (recorder_ > 0) {
      umount2(kComponents, MNT_DETACH);
      disk_.reset();
      kill(recorder_, SIGKILL);
      base::waitForEnd(recorder_);
    }
  }

  void mark(const std::string& text) const { std::ofstream(inWork("fuse/mark")) << text; }

  void end() {
    unmount(kComponents);
    disk_.reset();
    unmount(inWork("fuse"));
    statusOf(std::exchange(recorder_, 0));
  }

 private:
  pid_t recorder_ = 0;
  std::unique_ptr<powercut::LoopDisk> disk_;
};

// ---- What is left -------------------------------------------------------------------------

// Whether one of the component's files has these bytes in it.
bool holds(const std::string& bytes) {
  for (const auto& entry : fs::recursive_directory_iterator(kComponents)) {
    if (!fs::is_regular_file(entry.symlink_status())) {
      continue;
    }
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    if (content.find(bytes) != std::string::npos) {
      return true;
    }
  }
  return false;
}

struct Firmware {
  std::string version;
  std::string bytes;
  bool visible = false;  // its bytes stand in a file, where they can be looked for
};

struct Ages {
  Firmware before;
  Firmware after;
};

enum Verdict { Old, New, Torn, Stuck };

bool isWhole(const Firmware& firmware) {
  return !firmware.visible || holds(firmware.bytes);
}

Verdict ageOf(const Stage& stage, const Ages& ages) {
  const std::string active = stage.module.getActiveVersion("after a power cut").text;
  if (active == ages.after.version && isWhole(ages.after)) {
    return New;
  }
  return active == ages.before.version && isWhole(ages.before) ? Old : Torn;
}

// In a process that has not seen the module before.
Verdict verdictOn(const Stage& stage, const Ages& ages) {
  LoadedModule module(stage.transcript, fwpaths::kControls + stage.subject.library + ".so",
                      stage.subject.library, stage.subject.broken);
  const Stage fresh{stage.subject, stage.transcript, module};
  module.setContext(CALLER_UPGRADE_APP, "", "after a power cut");
  const Verdict age = ageOf(fresh, ages);
  if (age == Torn) {
    return Torn;
  }
  const std::string next = countedUp(ages.after.version);
  const int result =
      update(fresh, next, placeGoodImage(stage.subject, next), "with a good image after a power cut");
  return result == 0 && module.getActiveVersion("after the next update").text == next ? age : Stuck;
}

struct Counts {
  std::size_t states = 0;
  std::size_t torn = 0;
  std::size_t stuck = 0;
  std::size_t lost = 0;
};

class Cuts {
 public:
  Cuts(const Stage& stage, const Ages& ages, const std::string& base)
      : stage_(stage),
        ages_(ages),
        epochs_(powercut::epochsOf(powercut::readDiskLog(inWork("log")), kBegin)),
        disk_(base, epochs_, inWork("state")) {}

  Counts make() {
    const auto shares = powercut::sharesOf(epochs_, kStates);
    for (std::size_t epoch = 0; epoch < epochs_.size(); ++epoch) {
      disk_.beginEpoch(epoch);
      for (const auto& selection : powercut::selectionsOf(epochs_[epoch], shares[epoch], 1)) {
        count(verdict(selection), epochs_[epoch].marks > 1);
      }
    }
    return counts_;
  }

 private:
  // Most disks hold the same as another one.
  int verdict(const powercut::Selection& selection) {
    int found = Torn;
    disk_.withState(selection, fileSystem(), kComponents, [&] {
      const powercut::Tree tree = powercut::lookAtTree(kComponents);
      const auto known = verdicts_.find(tree.digest);
      if (known != verdicts_.end()) {
        found = known->second;
        return;
      }
      found = statusOf(started([&] { return static_cast<int>(verdictOn(stage_, ages_)); }));
      verdicts_[tree.digest] = found;
    });
    return found;
  }

  void count(int verdict, bool reported) {
    ++counts_.states;
    counts_.lost += verdict == Old && reported ? 1 : 0;
    counts_.torn += verdict == Torn ? 1 : 0;
    counts_.stuck += verdict != Old && verdict != New && verdict != Torn ? 1 : 0;
  }

  const Stage& stage_;
  const Ages& ages_;
  const std::vector<powercut::Epoch> epochs_;
  powercut::CutDisk disk_;
  std::map<std::string, int> verdicts_;
  Counts counts_;
};

std::string sentenceAbout(const Counts& counts) {
  const std::pair<std::size_t, const char*> kinds[] = {
      {counts.torn, "have neither the old nor the new firmware"},
      {counts.lost, "have the old one although doUpdate had answered 0"},
      {counts.stuck, "cannot be updated again"}};
  std::string found;
  for (const auto& [count, what] : kinds) {
    if (count > 0) {
      found += (found.empty() ? "" : "; ") + std::to_string(count) + " " + what;
    }
  }
  return "Of " + std::to_string(counts.states) + " disks that a power cut can leave of an update, " + found +
         ".";
}

Firmware firmwareOf(const Subject& subject, const std::string& version) {
  const std::string bytes = imageBytes(subject, version);
  return {version, bytes, holds(bytes)};
}

}  // namespace

void tryPowerCut(const Stage& stage) {
  Ages ages;
  const std::string& before = stage.subject.newerVersion;
  if (update(stage, before, placeGoodImage(stage.subject, before), "with a good image") != 0) {
    return;
  }
  ages.before = firmwareOf(stage.subject, before);
  fs::create_directories(kWork);
  makeDisk(inWork("base"));
  fs::copy_file(inWork("base"), inWork("disk"));

  const std::string after = countedUp(before);
  const Image image = placeGoodImage(stage.subject, after);
  RecordedComponents components(inWork("disk"));
  const int result = update(stage, after, image, "with a good image on a recorded disk");
  if (result == 0) {
    components.mark("success");
    ages.after = firmwareOf(stage.subject, after);
  }
  stage.module.unload();
  components.end();
  if (result != 0) {
    stage.transcript.notChecked(Check::PowerCut, "no image could be written on a recorded disk");
    return;
  }
  const Counts counts = Cuts(stage, ages, inWork("base")).make();
  stage.transcript.judge(counts.torn + counts.lost + counts.stuck == 0, Check::PowerCut, EntryPoint::DoUpdate,
                         sentenceAbout(counts));
}

}  // namespace fwmodule
