// SPDX-License-Identifier: Apache-2.0
// Fuzz target: a release list, as a set reads it. It is signed, and so comes from its maker; but who made it
// may have erred, and what is not right must not get through.
#include "release-list.h"

#include <string>
#include <vector>

#include "fuzz-target.h"

void fuzz::prepare(const std::vector<std::string>&) {}

bool fuzz::accepts(std::string_view input) {
  const image::ReleaseListRead read = image::parseReleaseList(std::string(input));
  require(read.list.has_value() == read.problem.empty(), "what is refused has a problem, and nothing else");
  if (!read.list) {
    return false;
  }
  require(image::isReleaseList(std::string(input)), "what is read is recognised");
  for (const image::ReleaseComponent& component : read.list->components) {
    for (const image::ReleaseArtifact& artifact : component.artifacts) {
      require(image::isArtifactName(artifact.file) && artifact.size > 0 && artifact.sha256.size() == 64,
              "an artifact can be asked for");
    }
  }
  const std::string text = toText(*read.list);
  const image::ReleaseListRead again = image::parseReleaseList(text);
  require(again.list && toText(*again.list) == text, "it is read as it was written");
  return true;
}
