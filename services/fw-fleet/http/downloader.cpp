// SPDX-License-Identifier: Apache-2.0
#include "downloader.h"

#include <ctime>
#include <utility>

#include "schedule.h"
#include "trouble.h"
#include "url.h"

namespace fleet {
namespace {

constexpr int kMostRedirects = 5;
constexpr int kPartialContent = 206;

// What came is another artifact, or the rest of another: all of it has to come.
struct OtherArtifact {};
// Something between set and server answered.
struct NoArtifact {};

class IntoPart : public transfer::Receiver {
 public:
  IntoPart(PartialArtifact& part, std::int64_t size, const Downloader::GoOn& goOn)
      : part_(part), size_(size), goOn_(goOn) {}

  void begin(const transfer::Response& response) override {
    if (response.contentType.rfind("text/html", 0) == 0) {
      throw NoArtifact();
    }
    if (response.code == kPartialContent) {
      requireRest(response);
    } else {
      part_.restart();
    }
    if (response.length != transfer::kUnknownLength && response.length != part_.missing()) {
      throw StoreFailure(StoreTrouble::Wrong, "The server has " +
                                                  std::to_string(part_.received() + response.length) +
                                                  " bytes, and had announced " + std::to_string(size_) + ".");
    }
    part_.mark(transfer::validatorOf(response));
  }

  void take(const char* bytes, std::size_t count) override { part_.append(bytes, count); }
  void goOn() override { goOn_(); }

 private:
  void requireRest(const transfer::Response& response) const {
    const auto range = transfer::parseContentRange(response.contentRange);
    if (!range || range->first != part_.received() || range->last != size_ - 1 || range->total != size_) {
      throw OtherArtifact();
    }
  }

  PartialArtifact& part_;
  const std::int64_t size_;
  const Downloader::GoOn& goOn_;
};

constexpr struct {
  Meaning meaning;
  Download end;
} kEnds[] = {
    {Meaning::Good, Download::Whole},      {Meaning::Missing, Download::Missing},
    {Meaning::Mistake, Download::Missing}, {Meaning::Refused, Download::Refused},
    {Meaning::Changed, Download::Missing},
};

Download endOf(Meaning meaning) {
  for (const auto& row : kEnds) {
    if (row.meaning == meaning) {
      return row.end;
    }
  }
  return Download::Later;
}

// By StoreTrouble.
constexpr Download kEndsOfStore[] = {Download::NoSpace, Download::Wrong, Download::Later, Download::Later};

Downloaded endOf(const transfer::Answer& answer, const std::string& address) {
  Downloaded downloaded;
  downloaded.end = endOf(meaningOf(Asked::Artifact, answer.code));
  if (downloaded.end != Download::Whole) {
    downloaded.sentence = "The server does not give out " + transfer::shown(address) + ": it answered " +
                          std::to_string(answer.code) + ".";
    downloaded.retryAfter = parseRetryAfter(answer.response.retryAfter, std::time(nullptr));
  }
  return downloaded;
}

bool isSecure(const std::string& address) {
  return address.rfind("https:", 0) == 0;
}

transfer::Answer followed(const std::string& first,
                          const std::function<transfer::Answer(const std::string&)>& ask) {
  std::string address = first;
  for (int redirects = 0;; ++redirects) {
    const transfer::Answer answer = ask(address);
    if (answer.redirectedTo.empty()) {
      return answer;
    }
    if (redirects == kMostRedirects) {
      throw transfer::Failure(transfer::Trouble::Protocol,
                              "The server redirects more than " + std::to_string(kMostRedirects) + " times.");
    }
    if (isSecure(address) && !isSecure(answer.redirectedTo)) {
      throw transfer::Failure(
          transfer::Trouble::Protocol,
          "The server redirects to " + transfer::shown(answer.redirectedTo) + ", which is not protected.");
    }
    address = answer.redirectedTo;
  }
}

void askForRest(transfer::Request& request, const PartialArtifact& part) {
  if (part.received() == 0) {
    return;
  }
  request.headers.push_back("Range: bytes=" + std::to_string(part.received()) + "-");
  if (!part.marked().empty()) {
    request.headers.push_back("If-Match: " + part.marked());
  }
}

}  // namespace

std::string refusalOfSize(const ddi::Artifact& artifact, const Configuration& configuration) {
  return *artifact.size <= configuration.largestArtifact
             ? ""
             : artifact.fileName + " is larger than the " + std::to_string(configuration.largestArtifact) +
                   " bytes that are allowed.";
}

Downloader::Downloader(Configuration configuration, std::string token, const ArtifactStore& store)
    : configuration_(std::move(configuration)), token_(std::move(token)), store_(store) {}

Downloaded Downloader::receiveOnce(const ddi::Artifact& artifact, PartialArtifact& part,
                                   const GoOn& goOn) const {
  IntoPart receiver(part, *artifact.size, goOn);
  const transfer::Answer answer = followed(artifact.address, [&](const std::string& address) {
    if (const std::string refusal = refusalOf(address, configuration_); !refusal.empty()) {
      throw transfer::Failure(transfer::Trouble::Protocol, refusal);
    }
    transfer::Request request = requestTo(address, configuration_, token_);
    request.what = "artifact";
    askForRest(request, part);
    transfer::Connection connection = connectionTo(address, configuration_);
    connection.bytesPerSecond = configuration_.bytesPerSecond;
    return transfer::perform(request, connection, receiver);
  });
  if (meaningOf(Asked::Artifact, answer.code) == Meaning::Changed && part.received() > 0) {
    throw OtherArtifact();
  }
  return endOf(answer, artifact.address);
}

Downloaded Downloader::receive(const ddi::Artifact& artifact, PartialArtifact& part, const GoOn& goOn) const {
  if (part.missing() == 0) {
    return {Download::Whole, "", std::nullopt};
  }
  store_.requireSpace(part.missing());
  try {
    return receiveOnce(artifact, part, goOn);
  } catch (const OtherArtifact&) {
    part.restart();
  }
  try {
    return receiveOnce(artifact, part, goOn);
  } catch (const OtherArtifact&) {
    return {Download::Later, "The server sends a part of the artifact although all of it was asked for.",
            std::nullopt};
  }
}

Downloaded Downloader::download(const ddi::Artifact& artifact, const GoOn& goOn) const {
  if (const std::string refusal = refusalOf(artifact.address, configuration_); !refusal.empty()) {
    return {Download::Never, refusal, std::nullopt};
  }
  if (const std::string refusal = refusalOfSize(artifact, configuration_); !refusal.empty()) {
    return {Download::Never, refusal, std::nullopt};
  }
  try {
    PartialArtifact part(store_, artifact.sha256, *artifact.size);
    Downloaded downloaded = receive(artifact, part, goOn);
    if (downloaded.end == Download::Whole) {
      part.finish();
    }
    return downloaded;
  } catch (const StoreFailure& failure) {
    return {kEndsOfStore[static_cast<std::size_t>(failure.trouble())], failure.what(), std::nullopt};
  } catch (const transfer::Failure& failure) {
    return {Download::Later, failure.what(), std::nullopt};
  } catch (const NoArtifact&) {
    return {Download::Later, "Something between the set and the server answered instead of it.",
            std::nullopt};
  }
}

}  // namespace fleet
