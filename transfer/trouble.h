// SPDX-License-Identifier: Apache-2.0
// Why a request brought nothing, or not all of it. Plain values; any thread.
#ifndef TRANSFER_TROUBLE_H
#define TRANSFER_TROUBLE_H

#include <stdexcept>
#include <string>

namespace transfer {

enum class Trouble {
  Address,      // it is none
  Unreachable,  // no such name, or nobody there
  Certificate,
  NotFound,  // a file on this set
  Incomplete,
  Stalled,
  TooSlow,
  TooMuch,
  Protocol,
  Internal,
};

// what() is one sentence for people.
class Failure : public std::runtime_error {
 public:
  Failure(Trouble trouble, const std::string& sentence) : std::runtime_error(sentence), trouble_(trouble) {}
  Trouble trouble() const { return trouble_; }

 private:
  Trouble trouble_;
};

}  // namespace transfer

#endif
