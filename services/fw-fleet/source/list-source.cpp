// SPDX-License-Identifier: Apache-2.0
#include "list-source.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "installer.h"
#include "list-signature.h"
#include "text-digest.h"

namespace fleet {
namespace {

using image::timeText;

// A set whose clock is not set begins with an earlier day.
constexpr std::int64_t kEarliest = 1767225600;  // 2026-01-01

// Why no list is used now. what() is a sentence.
struct NotUsed : std::runtime_error {
  explicit NotUsed(const std::string& sentence, Reply why = {})
      : std::runtime_error(sentence), reply(std::move(why)) {}
  Reply reply;
};

std::string hashOf(const std::string& list) {
  std::string hash = sha256Of(list);
  return !hash.empty() ? hash : throw NotUsed("The release list's SHA-256 cannot be computed.");
}

std::string artifactAddress(const std::string& list, const std::string& sha256) {
  return list.substr(0, list.rfind('/') + 1) + image::kArtifactDirectory + "/" + sha256;
}

Reply nobody() {
  return {Meaning::Good, 0, "", std::nullopt, ""};
}

}  // namespace

ListSource::ListSource(const Configuration& configuration, const std::string& token, ListParts parts)
    : address_(configuration.list), client_(configuration, token), parts_(std::move(parts)) {}

std::string ListSource::fetch(const std::string& address, std::size_t most) const {
  Reply reply = client_.get(Asked::Poll, address, most);
  if (reply.meaning != Meaning::Good) {
    throw NotUsed(reply.sentence, reply);
  }
  return std::move(reply.body);
}

void ListSource::requireClock(const std::optional<SeenList>& seen) const {
  const std::int64_t earliest = std::max(kEarliest, seen ? seen->issued : 0);
  const std::int64_t now = parts_.clock();
  if (now < earliest) {
    throw NotUsed("The set's clock is not set: it says " + timeText(now) +
                  ". No release list is used until it is.");
  }
}

image::ReleaseList ListSource::readList(const std::string& text, const std::string& signature) const {
  const auto report = fwpackage::checkListSignature(text, signature, parts_.trust);
  if (report.verdict != fwpackage::Verdict::Valid) {
    throw NotUsed(std::string("The release list is refused: ") + fwpackage::infoOf(report.verdict).sentence +
                  ".");
  }
  image::ReleaseListRead read = image::parseReleaseList(text);
  if (!read.list) {
    throw NotUsed("The release list is refused: " + read.problem + ".");
  }
  return std::move(*read.list);
}

void ListSource::requireNewest(const image::ReleaseList& list, const std::string& hash,
                               const std::optional<SeenList>& seen) const {
  const std::string name = "The release list " + std::to_string(list.number);
  if (list.issued > parts_.clock()) {
    throw NotUsed(name + " was issued at " + timeText(list.issued) + ", and the set's clock says " +
                  timeText(parts_.clock()) + ": the clock is not set, or the list is not to be used yet.");
  }
  if (!seen) {
    return;
  }
  if (list.number < seen->number || list.issued < seen->issued) {
    throw NotUsed(name + " of " + timeText(list.issued) + " is refused: " + std::to_string(seen->number) +
                  " of " + timeText(seen->issued) + " was seen before, and is newer.");
  }
  if (list.number == seen->number && hash != seen->sha256) {
    throw NotUsed(name + " is refused: another list with this number was seen before.");
  }
}

ddi::Deployment ListSource::deploymentOf(const image::ReleaseList& list,
                                         const std::map<std::string, std::string>& versions) const {
  ddi::Deployment deployment;
  deployment.id = "list-" + std::to_string(list.number);
  deployment.download = deployment.update = ddi::Handling::Attempt;
  for (const image::ReleaseComponent& component : list.components) {
    if (versions.count(component.name) == 0 ||
        (!component.model.empty() && component.model != parts_.model)) {
      continue;
    }
    ddi::Chunk chunk{"", component.name, component.version, {}};
    for (const image::ReleaseArtifact& artifact : component.artifacts) {
      chunk.artifacts.push_back(
          {artifact.file, artifact.size, artifact.sha256, artifactAddress(address_, artifact.sha256)});
    }
    deployment.chunks.push_back(std::move(chunk));
  }
  return deployment;
}

// What is the same needs no write.
void ListSource::note(const SeenList& now, const std::optional<SeenList>& before) const {
  if (!before || !(*before == now)) {
    writeSeen(parts_.directory, now);
  }
}

// An action that has begun stays what it is when the first of its components has its version: what was
// offered once is offered as a whole.
Answered<ddi::Poll> ListSource::offered() const {
  const std::optional<SeenList> seen = readSeen(parts_.directory);
  requireClock(seen);
  const std::string text = fetch(address_, image::kLargestReleaseList);
  const std::string signature = fetch(address_ + fwpackage::kListSignatureSuffix, fwpackage::kTrailerSize);
  const image::ReleaseList list = readList(text, signature);
  SeenList now{list.number, list.issued, hashOf(text), false};
  requireNewest(list, now.sha256, seen);
  wanted_.reset();
  if (list.expires <= parts_.clock()) {
    return {ddi::Poll(), Meaning::Good, std::nullopt,
            "The release list " + std::to_string(list.number) + " is not used: it expired at " +
                timeText(list.expires) + "."};
  }
  const std::map<std::string, std::string> versions = parts_.versions();
  ddi::Deployment wanted = deploymentOf(list, versions);
  const bool differs = std::any_of(wanted.chunks.begin(), wanted.chunks.end(), [&](const ddi::Chunk& chunk) {
    return versions.at(chunk.name) != chunk.version;
  });
  now.isOffered =
      !wanted.chunks.empty() && (differs || (seen && seen->number == now.number && seen->isOffered));
  note(now, seen);
  ddi::Poll poll;
  if (now.isOffered) {
    poll.deployment = wanted.id;
    wanted_ = std::move(wanted);
    expires_ = list.expires;
  }
  return {poll, Meaning::Good, std::nullopt, ""};
}

// Who keeps the list from the set cannot have what it wanted installed once it expired.
bool ListSource::stands(const std::string& id) const {
  return wanted_ && wanted_->id == id && parts_.clock() < expires_;
}

Answered<ddi::Poll> ListSource::poll() const {
  try {
    return offered();
  } catch (const NotUsed& why) {
    return {std::nullopt, why.reply.meaning, why.reply.retryAfter, why.what()};
  } catch (const SeenUnusable& why) {
    return {std::nullopt, Meaning::Later, std::nullopt, why.what()};
  } catch (const InstallerAway& away) {
    return {std::nullopt, Meaning::Later, std::nullopt, away.what()};
  }
}

Answered<ddi::Deployment> ListSource::deployment(const std::string& address) const {
  if (!wanted_ || wanted_->id != address) {
    return {std::nullopt, Meaning::Gone, std::nullopt, "The release list does not want this any more."};
  }
  return {wanted_, Meaning::Good, std::nullopt, ""};
}

Answered<ddi::Deployment> ListSource::confirmation(const std::string&) const {
  return {std::nullopt, Meaning::Gone, std::nullopt, "A release list asks for nothing."};
}

Answered<std::string> ListSource::cancel(const std::string&) const {
  return {std::nullopt, Meaning::Gone, std::nullopt, "A release list takes nothing back."};
}

Reply ListSource::installed(const std::string&) const {
  return nobody();
}

Reply ListSource::attributes(const std::string&, const std::map<std::string, std::string>&) const {
  return nobody();
}

Reply ListSource::tell(const std::string&, const ddi::Feedback&) const {
  return nobody();
}

Reply ListSource::answerCancel(const std::string&, const ddi::Feedback&) const {
  return nobody();
}

Reply ListSource::confirm(const std::string&, bool, const std::vector<std::string>&) const {
  return nobody();
}

}  // namespace fleet
