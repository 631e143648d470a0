// The device's signature-verification library, as a real library whose answer a
// test sets. Each call is noted in the recording platform's list as
// verifyFile(reserved, "path", "caller").
#ifndef SCRIPTED_VERIFIER_H
#define SCRIPTED_VERIFIER_H

#include <functional>
#include <string>

namespace scripted {

enum class Verifier { Complete, WithoutEntryPoint, NullEntryPoint };

// Copies it to the device. Its answer: non-zero for a file whose trailer begins
// with "SIGNED", unless setVerifierAnswer gave another.
void installVerifier(Verifier variant = Verifier::Complete);
void setVerifierAnswer(std::function<int(const std::string& path)> answer);

}  // namespace scripted

#endif
