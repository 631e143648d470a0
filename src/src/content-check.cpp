// SPDX-License-Identifier: Apache-2.0
#include "content-check.h"

#include <dlfcn.h>

#include <atomic>

namespace {

struct EntryPoints {
  decltype(&beginContentCheck) begin = nullptr;
  decltype(&addCheckedContent) add = nullptr;
  decltype(&endContentCheck) end = nullptr;
  decltype(&releaseContentCheck) release = nullptr;
  decltype(&noteAppliedPackage) noteApplied = nullptr;  // may be missing alone
};

// Set once and kept for the process. Null when there is no content check.
std::atomic<const EntryPoints*>& entryPoints() {
  static std::atomic<const EntryPoints*> bound{nullptr};
  return bound;
}

template <typename Function>
void find(Function& entry, void* library, const char* name) {
  entry = reinterpret_cast<Function>(dlsym(library, name));
}

}  // namespace

void ContentCheck::bind(void* library) {
  if (entryPoints().load() != nullptr) {
    return;
  }
  auto found = std::make_unique<EntryPoints>();
  find(found->begin, library, "beginContentCheck");
  find(found->add, library, "addCheckedContent");
  find(found->end, library, "endContentCheck");
  find(found->release, library, "releaseContentCheck");
  find(found->noteApplied, library, "noteAppliedPackage");
  if (found->begin == nullptr || found->add == nullptr || found->end == nullptr ||
      found->release == nullptr) {
    return;
  }
  const EntryPoints* none = nullptr;
  if (entryPoints().compare_exchange_strong(none, found.get())) {
    static_cast<void>(found.release());
  }
}

void ContentCheck::Release::operator()(PackageContentCheck* done) const {
  entryPoints().load()->release(done);
}

ContentCheck::ContentCheck(const std::string& path, int descriptor) {
  if (const EntryPoints* const verifier = entryPoints().load()) {
    check_.reset(verifier->begin(path.c_str(), descriptor));
  }
}

void ContentCheck::add(const unsigned char* bytes, std::size_t size) {
  if (check_) {
    entryPoints().load()->add(check_.get(), bytes, size);
  }
}

bool ContentCheck::passes() {
  const EntryPoints* const verifier = entryPoints().load();
  return verifier == nullptr || (check_ && verifier->end(check_.get()) != 0);
}

bool ContentCheck::noteApplied() const {
  const EntryPoints* const verifier = entryPoints().load();
  return !check_ || verifier->noteApplied == nullptr || verifier->noteApplied(check_.get()) == 0;
}
