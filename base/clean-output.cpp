// SPDX-License-Identifier: Apache-2.0
#include "clean-output.h"

#include <sys/random.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <streambuf>
#include <string_view>

#include "printable-text.h"

namespace base {
namespace {

constexpr std::array<const char*, 7> kSequences = {
    "\x1b[32m", "\x1b[33m", "\x1b[31m", "\x1b[1m", "\x1b[0m", "\r", "\x1b[K",
};

// Written but not flushed: more is passed on in pieces.
constexpr std::size_t kLargestPiece = 65536;

std::string newMark() {
  std::uint64_t number = 0;
  // Before the kernel has random numbers a program's own orders have to wait, too.
  while (getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number)) {
  }
  char text[20];
  std::snprintf(text, sizeof text, "\x1b%016llx", static_cast<unsigned long long>(number));
  return text;
}

// What orders begin with in this process. Never destroyed, as the gates.
const std::string& mark() {
  static const std::string* const kMark = new std::string(newMark());
  return *kMark;
}

// Every text in between as it may be shown, every order as the terminal knows it.
std::string translated(std::string_view text) {
  std::string out;
  for (std::size_t at = 0; (at = text.find(mark())) != std::string_view::npos;) {
    out += printableLines(text.substr(0, at));
    text.remove_prefix(at + mark().size());
    const std::size_t order = text.empty() ? kSequences.size() : static_cast<unsigned char>(text[0]) - 'A';
    if (order < kSequences.size()) {
      out += kSequences[order];
      text.remove_prefix(1);
    }
  }
  return out + printableLines(text);
}

class Gate : public std::streambuf {
 public:
  explicit Gate(std::ostream& stream) : target_(stream.rdbuf(this)) {}

 protected:
  int overflow(int character) override {
    if (character == traits_type::eof()) {
      return sync() == 0 ? 0 : traits_type::eof();
    }
    const char byte = traits_type::to_char_type(character);
    return xsputn(&byte, 1) == 1 ? character : traits_type::eof();
  }

  std::streamsize xsputn(const char* bytes, std::streamsize size) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    waiting_.append(bytes, static_cast<std::size_t>(size));
    return waiting_.size() < kLargestPiece || passOn(lengthToPass()) ? size : 0;
  }

  int sync() override {
    const std::lock_guard<std::mutex> lock(mutex_);
    return passOn(waiting_.size()) && target_->pubsync() == 0 ? 0 : -1;
  }

 private:
  // Neither a character nor an order is torn.
  std::size_t lengthToPass() const {
    const std::size_t order = waiting_.rfind('\x1b');
    if (order != std::string::npos && waiting_.size() - order <= mark().size()) {
      return order;
    }
    return waiting_.size() - unfinishedLength(waiting_);
  }

  bool passOn(std::size_t length) {
    const std::string text = translated(std::string_view(waiting_).substr(0, length));
    waiting_.erase(0, length);
    const auto size = static_cast<std::streamsize>(text.size());
    return target_->sputn(text.data(), size) == size;
  }

  std::mutex mutex_;
  std::string waiting_;
  std::streambuf* const target_;
};

}  // namespace

void cleanStandardOutput() {
  // Never destroyed: the streams are flushed through them at the very end.
  static Gate* const kOutput = new Gate(std::cout);
  static Gate* const kErrors = new Gate(std::cerr);
  (void)kOutput;
  (void)kErrors;
}

std::string terminalOrder(Order order) {
  return mark() + static_cast<char>('A' + static_cast<int>(order));
}

std::string emptyLine() {
  return terminalOrder(Order::LineStart) + terminalOrder(Order::EraseToEnd);
}

}  // namespace base
