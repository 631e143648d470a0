// SPDX-License-Identifier: Apache-2.0
// Brings artifacts from their addresses into the store, going on where an earlier download stopped. Only
// the SHA-256 of the whole decides what is taken. One thread.
#ifndef FW_FLEET_DOWNLOADER_H
#define FW_FLEET_DOWNLOADER_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "artifact-store.h"
#include "client.h"
#include "configuration.h"
#include "documents.h"

namespace fleet {

enum class Download {
  Whole,
  Later,    // asked again after a pause, it may come
  Refused,  // the server does not know the set, or its token
  Missing,  // it is not there
  Wrong,    // what came is not what was announced, and is gone
  NoSpace,
  Never,  // it is not to be asked for
};

struct Downloaded {
  Download end = Download::Later;
  std::string sentence;  // when it is not Whole
  std::optional<std::chrono::seconds> retryAfter;
};

// Why the artifact, which has a size, is not asked for; empty when it may be.
std::string refusalOfSize(const ddi::Artifact& artifact, const Configuration& configuration);

class Downloader {
 public:
  // Called while bytes come, once a second at least; what it throws ends the download and comes out of it.
  using GoOn = std::function<void()>;

  Downloader(Configuration configuration, std::string token, const ArtifactStore& store);

  // The artifact has a size, a hash and an address.
  Downloaded download(const ddi::Artifact& artifact, const GoOn& goOn) const;

 private:
  Downloaded receive(const ddi::Artifact& artifact, PartialArtifact& part, const GoOn& goOn) const;
  Downloaded receiveOnce(const ddi::Artifact& artifact, PartialArtifact& part, const GoOn& goOn) const;

  const Configuration configuration_;
  const std::string token_;
  const ArtifactStore& store_;
};

}  // namespace fleet

#endif
