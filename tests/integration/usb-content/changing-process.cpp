// SPDX-License-Identifier: Apache-2.0
#include "changing-process.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

namespace {

constexpr char kPrepare = 'p';
constexpr char kWrite = 'w';
constexpr char kMap = 'm';

void require(bool done) {
  if (!done) {
    throw std::runtime_error("the second process failed");
  }
}

// The file that it has hold of.
struct Held {
  int file = -1;
  volatile unsigned char* mapping = nullptr;
  std::size_t size = 0;

  void take(const std::string& path) {
    if (file >= 0) {
      munmap(const_cast<unsigned char*>(mapping), size);
      close(file);
    }
    file = open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct stat status = {};
    require(file >= 0 && fstat(file, &status) == 0);
    size = static_cast<std::size_t>(status.st_size);
    void* const start = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    require(start != MAP_FAILED);
    mapping = static_cast<unsigned char*>(start);
    for (std::size_t at = 0; at < size; at += 4096) {
      mapping[at] = static_cast<unsigned char>(mapping[at]);
    }
  }

  void write(off_t offset) const {
    unsigned char byte = 0;
    require(pread(file, &byte, 1, offset) == 1);
    byte ^= 1U;
    require(pwrite(file, &byte, 1, offset) == 1);
  }

  void map(off_t offset) const { mapping[offset] = static_cast<unsigned char>(mapping[offset] ^ 1U); }
};

}  // namespace

ChangingProcess::ChangingProcess(const std::string& path) {
  require(pipe2(orders_, O_CLOEXEC) == 0 && pipe2(answers_, O_CLOEXEC) == 0);
  process_ = std::make_unique<ChildProcess>([this, path] {
    close(orders_[1]);
    return obey(path, orders_[0], answers_[1]);
  });
  close(orders_[0]);
  close(answers_[1]);
}

ChangingProcess::~ChangingProcess() {
  close(orders_[1]);
  process_->wait();
  close(answers_[0]);
}

void ChangingProcess::prepare() {
  give({kPrepare, 0});
}

void ChangingProcess::changeByWrite(off_t offset) {
  give({kWrite, offset});
}

void ChangingProcess::changeInMapping(off_t offset) {
  give({kMap, offset});
}

int ChangingProcess::obey(const std::string& path, int orders, int answers) {
  Held held;
  Order order{};
  while (::read(orders, &order, sizeof order) == static_cast<ssize_t>(sizeof order)) {
    if (order.what == kPrepare) {
      held.take(path);
    } else if (order.what == kWrite) {
      held.write(order.offset);
    } else {
      held.map(order.offset);
    }
    require(::write(answers, &order.what, 1) == 1);
  }
  return 0;
}

void ChangingProcess::give(Order order) {
  char answer = 0;
  require(::write(orders_[1], &order, sizeof order) == static_cast<ssize_t>(sizeof order) &&
          ::read(answers_[0], &answer, 1) == 1 && answer == order.what);
}
