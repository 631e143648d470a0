// SPDX-License-Identifier: Apache-2.0
#include "soak-worker.h"

#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "fw-update-control.h"
#include "fw-update-symbol-manager.h"
#include "soak-device.h"
#include "usb-package.h"

namespace soak {
namespace {

constexpr int kTimedOut = 1;

// In a thousand requests.
constexpr struct {
  Kind kind;
  int share;
} kShares[] = {{Kind::Update, 696}, {Kind::Fail, 110},   {Kind::Throw, 50},     {Kind::Current, 80},
               {Kind::Late, 2},     {Kind::Package, 40}, {Kind::Procedure, 12}, {Kind::Usb, 10}};

std::size_t countEntries(const char* directory) {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(directory)) {
    ++count;
  }
  return count;
}

std::size_t residentKib() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word == "VmRSS:") {
      std::size_t kib = 0;
      status >> kib;
      return kib;
    }
  }
  return 0;
}

// What an allocation of this size takes from the heap.
std::size_t chunk(std::size_t bytes) {
  constexpr std::size_t kAlignment = 2 * sizeof(std::size_t);
  return (bytes + sizeof(std::size_t) + kAlignment - 1) / kAlignment * kAlignment;
}

class Worker {
 public:
  Worker(int slot, unsigned int seed, int channel) : slot_(slot), random_(seed), channel_(channel) {}

  void run(Orders& orders) {
    while (orders.left-- > 0) {
      tell(request(chosenKind()));
    }
    // So that no package is left mounted: only a success unmounts.
    Word last = request(Kind::Package, true);
    while (countEntries("/proc/self/task") > 1) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));  // late modules come to their end
    }
    last.use = use();
    last.last = true;
    tell(last);
  }

 private:
  int upTo(int greatest) { return std::uniform_int_distribution<int>(0, greatest)(random_); }

  Kind chosenKind() {
    int point = upTo(999);
    for (const auto& [kind, share] : kShares) {
      point -= share;
      if (point < 0) {
        return kind;
      }
    }
    return Kind::Update;
  }

  Word request(Kind kind, bool succeed = false) {
    Word word;
    word.slot = slot_;
    word.process = getpid();
    word.kind = kind;
    if (kind == Kind::Usb) {
      fromUsb(word);
    } else {
      ordinary(word, succeed);
    }
    word.use = use();
    return word;
  }

  void ordinary(Word& word, bool succeed) {
    FWUpdateContorl& control = *FWUpdateContorl::getInstance();
    const std::string module = "libsoak" + std::to_string(upTo(kModules - 1));
    const std::string time = " " + std::to_string(4 + upTo(6));
    const auto ask = [&](const std::string& library, const std::string& data) {
      return control.fw_update_from_upgrade_app(library.c_str(), data.c_str());
    };
    int wanted = 0;
    switch (word.kind) {
      case Kind::Update:
        word.result = ask(module, "update" + time);
        break;
      case Kind::Fail:
        word.result = ask(module, "fail" + time);
        wanted = -EIO;
        break;
      case Kind::Throw:
        word.result = ask(module, "throw" + time);
        wanted = -1;
        break;
      case Kind::Current:
        word.result = ask(module, "current");
        break;
      case Kind::Late:
        word.result = ask(kSlowModule, "late 2600");
        wanted = kTimedOut;
        break;
      case Kind::Package: {
        const bool fails = !succeed && upTo(3) == 0;
        putPackageImage(slot_);
        word.result = control.fw_update_from_debug(packageModule(slot_).c_str(),
                                                   ((fails ? "fail" : "update") + time).c_str());
        wanted = fails ? -EIO : 0;
        break;
      }
      case Kind::Procedure:
        word.result = ask(kProcedureModule, "update" + time);
        break;
      case Kind::Usb:
        break;
    }
    word.lateNotice = word.kind != Kind::Late && word.result == kTimedOut;
    word.expected = word.result == wanted || word.lateNotice;
  }

  // Each decryption's buffer is kept on purpose: of the whole file when the package is
  // looked at, of all but the first block when it is applied.
  void fromUsb(Word& word) {
    char version[128];
    FWUpdateContorl::getInstance()->fw_getVersion("libsoak0",
                                                  version);  // nothing is left of an older request
    FWUpdateSymbolManager& manager = *FWUpdateSymbolManager::getInstance();
    int seconds = 0;
    const int found = manager.getFirmwareUpdateTime(usb::bytesOf(usb::key()), kUsbDirectory, seconds);
    word.result = manager.doUpdateUSB(usb::bytesOf(usb::key()), kUsbDirectory);
    kept_ += chunk(usbPackageSize()) + chunk(usbPackageSize() - usb::kIvSize);
    word.expected = found == 0 && seconds == 1 && word.result == 0;
  }

  Use use() const {
    Use now;
    now.heapBytes = mallinfo2().uordblks + mallinfo2().hblkhd;
    now.keptBytes = kept_;
    now.residentKib = residentKib();
    now.descriptors = static_cast<int>(countEntries("/proc/self/fd"));
    now.threads = static_cast<int>(countEntries("/proc/self/task"));
    return now;
  }

  void tell(const Word& word) const { send(channel_, &word, sizeof word, 0); }

  const int slot_;
  std::mt19937 random_;
  const int channel_;
  std::size_t kept_ = 0;
};

}  // namespace

void work(int slot, unsigned int seed, Orders& orders, int channel) {
  try {
    Worker(slot, seed, channel).run(orders);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "worker %d: %s\n", slot, error.what());
    std::exit(1);
  }
  std::exit(0);
}

}  // namespace soak
