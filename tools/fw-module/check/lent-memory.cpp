// SPDX-License-Identifier: Apache-2.0
#include "lent-memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstring>

#include "system-error.h"

namespace fwmodule {
namespace {

// A slot is lent once, so that one that was lent earlier stays unreadable; only after
// this many does the first one come again.
constexpr std::size_t kSlots = 2048;
constexpr std::size_t kFaultStackSize = std::size_t{64} * 1024;
constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS};

// A signal handler reads all of them while other threads lend theirs.
struct Slot {
  std::atomic<char*> begin;        // of the readable pages
  std::atomic<std::size_t> pages;  // the unreadable one follows
  std::atomic<const char*> what;
  std::atomic<bool> lent;
};

struct Arena {
  Slot slots[kSlots];
  std::atomic<std::size_t> next;
  const Transcript* transcript;
};
Arena arena;  // constant-initialised

std::size_t pageSize() {
  static const auto kSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return kSize;
}

void protect(const Slot& slot, int protection) {
  if (mprotect(slot.begin, slot.pages * pageSize(), protection) != 0) {
    base::throwErrno("mprotect");
  }
}

// A slot with enough pages; its memory stays for good.
std::size_t takeSlot(const char* what, std::size_t size) {
  std::size_t number = arena.next++ % kSlots;
  while (arena.slots[number].lent.exchange(true)) {
    number = arena.next++ % kSlots;
  }
  Slot& slot = arena.slots[number];
  const std::size_t pages = size / pageSize() + 1;
  if (slot.begin == nullptr || slot.pages < pages) {
    void* const mapped =
        mmap(nullptr, (pages + 1) * pageSize(), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) {
      base::throwErrno("mmap");
    }
    slot.begin = static_cast<char*>(mapped);
    slot.pages = pages;
  }
  slot.what = what;
  protect(slot, PROT_READ | PROT_WRITE);
  std::memset(slot.begin, kUnwritten, slot.pages * pageSize());
  return number;
}

char* endOf(const Slot& slot) {
  return slot.begin + slot.pages * pageSize();
}

const Slot* slotWith(const char* address) {
  for (const Slot& slot : arena.slots) {
    if (const char* const begin = slot.begin;
        begin != nullptr && address >= begin && address < endOf(slot) + pageSize()) {
      return &slot;
    }
  }
  return nullptr;
}

void tellFault(const Slot& slot, const char* address) {
  if (address >= endOf(slot)) {
    arena.transcript->fault(Check::Overrun, {"went beyond the end of ", slot.what});
  } else if (slot.lent) {
    arena.transcript->fault(Check::Overrun, {"wrote over ", slot.what});
  } else {
    arena.transcript->fault(Check::TextKept, {"used, after its call, ", slot.what});
  }
}

// The signal's own action follows when this returns.
void onFatalSignal(int number, siginfo_t* information, void* /*context*/) {
  const auto* const address = static_cast<const char*>(information->si_addr);
  const Slot* const slot = number == SIGSEGV || number == SIGBUS ? slotWith(address) : nullptr;
  if (slot == nullptr) {
    arena.transcript->signal(number);
    return;
  }
  tellFault(*slot, address);
  _exit(0);
}

}  // namespace

LentMemory::LentMemory(const char* what, std::size_t size)
    : slot_(takeSlot(what, size)), data_(endOf(arena.slots[slot_]) - size) {}

LentMemory::LentMemory(const char* what, const std::string& content, Content kind)
    : LentMemory(what, content.size() + (kind == Content::Bytes ? 0 : 1)) {
  std::memcpy(data_, content.c_str(), content.size() + (kind == Content::Bytes ? 0 : 1));
  if (kind != Content::WritableText) {
    protect(arena.slots[slot_], PROT_READ);
  }
}

LentMemory::~LentMemory() {
  Slot& slot = arena.slots[slot_];
  slot.lent = false;
  mprotect(slot.begin, slot.pages * pageSize(), PROT_NONE);
}

bool LentMemory::untouchedBefore() const {
  const Slot& slot = arena.slots[slot_];
  return std::all_of(slot.begin.load(), data_,
                     [](char c) { return static_cast<unsigned char>(c) == kUnwritten; });
}

void catchFaults(const Transcript& transcript) {
  arena.transcript = &transcript;
  struct sigaction action {};
  action.sa_sigaction = onFatalSignal;
  action.sa_flags = static_cast<int>(SA_SIGINFO | SA_ONSTACK | SA_RESETHAND);
  for (const int number : kFatalSignals) {
    if (sigaction(number, &action, nullptr) != 0) {
      base::throwErrno("sigaction");
    }
  }
}

FaultStack::FaultStack() : memory_(new char[kFaultStackSize]) {
  stack_t stack{};
  stack.ss_sp = memory_;
  stack.ss_size = kFaultStackSize;
  sigaltstack(&stack, nullptr);
}

FaultStack::~FaultStack() {
  stack_t off{};
  off.ss_flags = SS_DISABLE;
  sigaltstack(&off, nullptr);
  delete[] static_cast<char*>(memory_);
}

}  // namespace fwmodule
