// The platform's verification library, /usr/lib/libkZAQUser.so: says whether a USB
// package carries a valid signature of a key that the platform knows.
#include <openssl/err.h>

#include <exception>

#include "package-signature.h"
#include "public-keys.h"

// Non-zero when filePath is signed, 0 when it must be refused; whatever goes wrong
// refuses it. Safe from any thread. The other parameters belong to the interface.
extern "C" __attribute__((visibility("default"))) int verifyFile(int /*reserved*/, const char* filePath,
                                                                 const char* /*caller*/) {
  if (filePath == nullptr) {
    return 0;
  }
  bool valid = false;
  ERR_set_mark();  // the caller may use OpenSSL too and look at its error queue
  try {
    const auto keys = [](const fwpackage::KeyId& id) {
      return fwpackage::findPublicKey(fwpackage::keyDirectory, id);
    };
    valid = fwpackage::checkSignature(filePath, keys).verdict == fwpackage::Verdict::Valid;
  } catch (const std::exception&) {
    valid = false;
  }
  ERR_pop_to_mark();
  return valid ? 1 : 0;
}
