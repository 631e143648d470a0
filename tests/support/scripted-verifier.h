// SPDX-License-Identifier: Apache-2.0
// The device's signature-verification library, as a real library whose answer a
// test sets. Each call is noted in the recording platform's list as
// verifyFile(reserved, "path", "caller").
#ifndef SCRIPTED_VERIFIER_H
#define SCRIPTED_VERIFIER_H

#include <functional>
#include <string>

namespace scripted {

enum class Verifier {
  Complete,
  WithoutEntryPoint,
  NullEntryPoint,
  WithContentCheck,
  WithoutEndOfContentCheck,
  WithoutNoteOfApplied,
};

// Copies it to the device. Its answer: non-zero for a file whose trailer begins
// with "SIGNED", unless setVerifierAnswer gave another.
void installVerifier(Verifier variant = Verifier::Complete);
void setVerifierAnswer(std::function<int(const std::string& path)> answer);

// What the content checks of a verifier that has them saw, and what they answer. All but
// the adding of bytes are noted in the recording platform's list.
struct ContentChecks {
  std::function<void()> beforeBegin;
  std::function<void()> afterBytes;  // after each addition
  std::function<void()> beforeEnd;
  bool begins = true;
  int verdict = 1;
  int noteResult = 0;
  std::string content;  // of the last check
  std::size_t largestAddition = 0;
  int unreleased = 0;
};
ContentChecks& contentChecks();

}  // namespace scripted

#endif
