// SPDX-License-Identifier: Apache-2.0
#include "download.h"

#include <algorithm>
#include <cstdint>

#include "failure.h"
#include "package-check.h"
#include "partial-image.h"
#include "response.h"
#include "transfer.h"
#include "url.h"

namespace fwdownload {
namespace {

using transfer::kUnknownLength;
using transfer::parseContentRange;
using transfer::parseUrl;
using transfer::shown;
using transfer::Url;
using transfer::validatorOf;

// Stays free for the rest of the system.
constexpr std::int64_t kSpaceReserve = std::int64_t{1} * 1024 * 1024;
constexpr int kPartialContent = 206;
constexpr int kRangeNotSatisfiable = 416;

std::string size(std::int64_t bytes) {
  return std::to_string(bytes) + " bytes";
}

// The server answered a request for the rest with the rest of another file.
struct OtherFile {};

class ImageReceiver : public Receiver {
 public:
  ImageReceiver(PartialImage& image, const Configuration& configuration, std::string url, std::int64_t first,
                const Progress& progress)
      : image_(image),
        configuration_(configuration),
        url_(std::move(url)),
        first_(first),
        progress_(progress) {}

  void begin(const Response& response) override {
    if (response.code == kPartialContent) {
      checkContinues(response);
    } else {
      image_.begin({url_, validatorOf(response), response.length});
      total_ = response.length;
    }
    checkSize(total_);
    checkSpace(total_ - image_.size());
    progress_(image_.size(), total_);
  }

  void take(const char* bytes, std::size_t count) override {
    checkSize(image_.size() + static_cast<std::int64_t>(count));
    image_.append(bytes, count);
    progress_(image_.size(), total_);
  }

 private:
  void checkContinues(const Response& response) {
    if (first_ == 0) {
      throw Failure(Reason::Protocol,
                    "The server sent a part of the package although all of it was asked for.");
    }
    const auto range = parseContentRange(response.contentRange);
    const std::int64_t total = image_.origin().total;
    const bool rightRange =
        range && range->first == first_ && range->last == total - 1 && range->total == total;
    const bool sameMark = response.etag.empty() || response.etag == image_.origin().validator ||
                          image_.origin().validator[0] != '"';
    const bool rightLength = response.length == kUnknownLength || response.length == total - first_;
    if (!rightRange || !sameMark || !rightLength) {
      throw OtherFile();
    }
    total_ = total;
  }

  void checkSize(std::int64_t total) const {
    if (total > configuration_.maximumSize) {
      throw Failure(Reason::TooBig, "The package is larger than the " + size(configuration_.maximumSize) +
                                        " that are allowed.");
    }
  }

  void checkSpace(std::int64_t needed) const {
    const std::int64_t free = image_.freeSpace() - kSpaceReserve;
    if (needed > free) {
      throw Failure(Reason::NoSpace, "There is no room for the package: it needs " + size(needed) + ", and " +
                                         size(std::max<std::int64_t>(free, 0)) + " are free.");
    }
  }

  PartialImage& image_;
  const Configuration& configuration_;
  const std::string url_;
  const std::int64_t first_;
  const Progress& progress_;
  std::int64_t total_ = kUnknownLength;
};

// From https to https, from http to either; and only to hosts that are known.
void checkRedirect(const std::string& from, const std::string& to, const Configuration& configuration) {
  const Url target = parseUrl(to).value_or(Url());
  const bool secure = target.scheme == "https";
  const bool wasSecure = parseUrl(from).value_or(Url()).scheme == "https";
  if (!secure && (wasSecure || target.scheme != "http")) {
    throw Failure(Reason::Redirect, "The server redirects to " + shown(to) + ", which is not as secure as " +
                                        shown(from) + ".");
  }
  const auto& hosts = configuration.redirectHosts;
  if (target.host != parseUrl(configuration.url).value_or(Url()).host &&
      std::find(hosts.begin(), hosts.end(), target.host) == hosts.end()) {
    throw Failure(Reason::Redirect, "The server redirects to another host, " +
                                        (target.host.empty() ? shown(to) : target.host) + ".");
  }
}

void checkCode(const std::string& url, int code) {
  constexpr int kOk = 200, kClientError = 400, kServerError = 500;
  if (code == kOk || code == kPartialContent) {
    return;
  }
  const Reason reason = code >= kServerError   ? Reason::ServerError
                        : code >= kClientError ? Reason::NotFound
                                               : Reason::Protocol;
  throw Failure(reason,
                "The server does not give out " + shown(url) + ": it answered " + std::to_string(code) + ".");
}

// Requests the image from its first missing byte, or from its beginning, and follows
// redirects. Returns the last answer's code.
int fetch(PartialImage& image, const Configuration& configuration, const std::string& url, std::int64_t first,
          const Progress& progress) {
  std::string address = url;
  for (long redirects = 0;; ++redirects) {
    ImageReceiver receiver(image, configuration, url, first, progress);
    const Answer answer = perform({address, first, image.origin().validator}, configuration, receiver);
    if (answer.redirectedTo.empty()) {
      return answer.code;
    }
    if (redirects == configuration.maximumRedirects) {
      throw Failure(Reason::Redirect, "The server redirects more than " +
                                          std::to_string(configuration.maximumRedirects) + " times.");
    }
    checkRedirect(address, answer.redirectedTo, configuration);
    address = answer.redirectedTo;
  }
}

// True when the rest of the same file came; false when all of it has to come.
bool goOn(PartialImage& image, const Configuration& configuration, const std::string& url,
          const Progress& progress) {
  try {
    const int code = fetch(image, configuration, url, image.size(), progress);
    if (code == kRangeNotSatisfiable) {
      return false;
    }
    checkCode(url, code);
    return true;
  } catch (const OtherFile&) {
    return false;
  }
}

void receiveOnce(PartialImage& image, const Configuration& configuration, const std::string& url,
                 const Progress& progress) {
  const bool isPart = image.size() > 0 && image.origin().canBeContinued();
  if (!isPart || !goOn(image, configuration, url, progress)) {
    checkCode(url, fetch(image, configuration, url, 0, progress));
  }
  if (image.size() == 0) {
    throw Failure(Reason::Protocol, "The server sent an empty package.");
  }
}

void receive(PartialImage& image, const Configuration& configuration, const std::string& url,
             const Listener& listener) {
  for (long retries = 0;; ++retries) {
    try {
      receiveOnce(image, configuration, url, listener.progress);
      return;
    } catch (const Failure& failure) {
      if (!infoOf(failure.reason()).isTakenUpAgain || retries == configuration.maximumRetries) {
        throw;
      }
      listener.notice(std::string(failure.what()) + " It is taken up again.");
    }
  }
}

// Where anybody on the way can change what comes.
void checkProtected(const std::string& url, const Configuration& configuration, const Notice& notice) {
  if (url.rfind("http://", 0) != 0) {
    return;
  }
  if (!configuration.allowInsecure) {
    throw Failure(Reason::Insecure, "The connection to " + shown(url) + " is not protected.");
  }
  notice("The connection is not protected; allow_insecure = true allows it.");
}

void accept(PartialImage& image, const std::string& package, const Configuration& configuration,
            const Notice& notice) {
  const fwpackage::SignatureReport report = checkPackage(image.finish(), package, configuration);
  if (report.verdict != fwpackage::Verdict::Valid) {
    notice("The package is not signed; allow_unsigned = true allows it.");
  }
  raiseMinimumVersion(report);
  image.publish();
}

}  // namespace

void download(const std::string& package, const Configuration& configuration, const Listener& listener) {
  const std::string url = configuration.url + package + ".img";
  checkProtected(url, configuration, listener.notice);
  PartialImage image(package, url);
  try {
    receive(image, configuration, url, listener);
    accept(image, package, configuration, listener.notice);
  } catch (const Failure& failure) {
    if (!infoOf(failure.reason()).keepsPart || !image.origin().canBeContinued() || image.size() == 0) {
      image.discard();
    }
    throw;
  } catch (...) {
    image.discard();
    throw;
  }
}

}  // namespace fwdownload
