// SPDX-License-Identifier: Apache-2.0
// fw-download: downloads one package for the platform's application-binary manager.
// Started by the platform library it answers at once and goes on by itself; started
// by hand it stays until the download has ended.
#include <curl/curl.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include "configuration.h"
#include "dlog.h"
#include "download-status.h"
#include "download.h"
#include "failure.h"
#include "file-descriptor.h"
#include "frame/program.h"
#include "module-names.h"
#include "partial-image.h"
#include "system-error.h"

namespace {

using base::errnoText;
using base::FileDescriptor;
using fwdownload::Failure;
using fwdownload::Reason;
using fwplatform::DownloadState;
using fwplatform::DownloadStatus;

enum class Outcome { Done, Failed, Usage };

constexpr frame::OutcomeInfo kOutcomes[] = {
    {"ok", 0, "downloaded, or going on in the background", frame::Tone::Answer},
    {"failed", 1, "failed", frame::Tone::Failure},
    {"usage", 2, "usage", frame::Tone::Failure},
};

constexpr const frame::OutcomeInfo& infoOf(Outcome outcome) {
  return kOutcomes[static_cast<std::size_t>(outcome)];
}

constexpr char kAccepted[] = "accepted\n";
// A reader sees movement, and the disk is left alone.
constexpr std::chrono::milliseconds kStatusPause{100};

struct Options {
  bool json = false;
  std::string package;
  int answer = -1;  // a descriptor

  bool answers() const { return answer >= 0; }
};

// One download, from the moment on that it holds the package's lock.
class Job {
 public:
  explicit Job(std::string package) : package_(std::move(package)) {}

  // False when another process downloads the package already. Throws Failure.
  bool prepare();
  frame::Report run();

 private:
  void tell(std::int64_t received, std::int64_t total);
  void note(const std::string& sentence) const;
  void write() const;
  frame::Report fail(Reason reason, const std::string& sentence);
  Json::Value details() const;

  std::string package_;
  fwdownload::Configuration configuration_;
  FileDescriptor directory_;
  FileDescriptor lock_;
  DownloadStatus status_;
  std::optional<unsigned int> toldPercent_;
  std::chrono::steady_clock::time_point told_;
};

[[noreturn]] void failFor(const std::string& path, int error) {
  const bool denied = error == EACCES || error == EPERM || error == EROFS;
  throw Failure(denied ? Reason::NotPermitted : Reason::FileSystem,
                path + " cannot be used: " + errnoText(error) + ".");
}

bool Job::prepare() {
  if (!fwnames::isPackageName(package_)) {
    throw Failure(Reason::Internal, "The package identifier must be 1 to 127 letters and digits.");
  }
  configuration_ = fwdownload::readConfiguration();
  if (access(fwdownload::kPackagesDirectory, W_OK | X_OK) != 0) {
    failFor(fwdownload::kPackagesDirectory, errno);
  }
  if (const int error = fwplatform::openDownloadStatusDirectory(directory_); error != 0) {
    failFor(fwplatform::kDownloadStatusDirectory, error);
  }
  if (const int error = fwplatform::lockDownload(directory_.get(), package_, lock_); error != 0) {
    if (error == EAGAIN) {
      return false;
    }
    failFor(fwplatform::kDownloadStatusDirectory, error);
  }
  if (const int error = fwplatform::writeDownloadStatus(directory_.get(), package_, status_); error != 0) {
    failFor(fwplatform::kDownloadStatusDirectory, error);
  }
  return true;
}

void Job::write() const {
  if (const int error = fwplatform::writeDownloadStatus(directory_.get(), package_, status_); error != 0) {
    note("its status cannot be written: " + errnoText(error));
  }
}

void Job::note(const std::string& sentence) const {
  __dlog_print(2, DLOG_WARN_PRIORITY, "FWUPDATE", "download of %s: %s", package_.c_str(), sentence.c_str());
}

void Job::tell(std::int64_t received, std::int64_t total) {
  status_.received = received;
  status_.total = total;
  const auto percent = status_.percent();
  const auto now = std::chrono::steady_clock::now();
  if (toldPercent_ && (percent == toldPercent_ || now - told_ < kStatusPause)) {
    return;
  }
  toldPercent_ = percent.value_or(0);
  told_ = now;
  write();
}

Json::Value Job::details() const {
  Json::Value details;
  details["package"] = package_;
  details["received"] = Json::Int64{status_.received};
  return details;
}

void addReason(frame::Report& report, Reason reason) {
  const auto& info = fwdownload::infoOf(reason);
  report.details["reason"] = info.name;
  report.details["remedy"] = info.remedy;
}

frame::Report Job::fail(Reason reason, const std::string& sentence) {
  const auto& info = fwdownload::infoOf(reason);
  status_.state = DownloadState::Failed;
  status_.reason = info.name;
  status_.message = sentence;
  status_.remedy = info.remedy;
  write();
  __dlog_print(2, DLOG_ERROR_PRIORITY, "FWUPDATE", "download of %s failed: %s", package_.c_str(),
               sentence.c_str());
  frame::Report report(Outcome::Failed, package_ + ": " + sentence);
  report.details = details();
  addReason(report, reason);
  return report;
}

frame::Report Job::run() {
  try {
    fwdownload::download(package_, configuration_,
                         {[this](std::int64_t received, std::int64_t total) { tell(received, total); },
                          [this](const std::string& sentence) { note(sentence); }});
  } catch (const Failure& failure) {
    return fail(failure.reason(), failure.what());
  } catch (const std::exception& error) {
    return fail(Reason::Internal, std::string("The download broke off: ") + error.what() + ".");
  }
  status_.state = DownloadState::Done;
  status_.total = status_.received;
  write();
  __dlog_print(2, DLOG_INFO_PRIORITY, "FWUPDATE", "download of %s done", package_.c_str());
  frame::Report report(Outcome::Done);
  report.details = details();
  return report;
}

// A caller that has gone does not end the download.
void reply(int descriptor, const std::string& text) {
  [[maybe_unused]] const ssize_t written = write(descriptor, text.data(), text.size());
}

// Leaves the caller's child behind: true in the process that goes on.
bool goOnInBackground(int caller) {
  const pid_t child = fork();
  if (child == 0) {
    close(caller);
    return true;
  }
  reply(caller, child > 0 ? kAccepted : "The download cannot be started: " + errnoText(errno) + ".");
  return false;
}

struct Refusal {
  std::string sentence;
  std::optional<Reason> reason;
};

// Why the download does not begin; nothing when it does.
std::optional<Refusal> refusalOf(Job& job, const Options& options) {
  try {
    if (job.prepare()) {
      return std::nullopt;
    }
    return Refusal{options.answers() ? kAccepted : "Another process downloads it already.", std::nullopt};
  } catch (const Failure& failure) {
    return Refusal{failure.what(), failure.reason()};
  } catch (const std::exception& error) {
    return Refusal{error.what(), Reason::Internal};
  }
}

frame::Report reportOf(const Refusal& refusal, const std::string& package) {
  const std::string line = refusal.sentence.substr(0, refusal.sentence.find('\n'));
  frame::Report report(Outcome::Failed, package + ": " + line);
  if (refusal.reason) {
    addReason(report, *refusal.reason);
  }
  return report;
}

frame::Report serve(const Options& options) {
  Job job(options.package);
  if (const auto refusal = refusalOf(job, options)) {
    if (options.answers()) {
      reply(options.answer, refusal->sentence);
    }
    return reportOf(*refusal, options.package);
  }
  if (options.answers() && !goOnInBackground(options.answer)) {
    return frame::Report(Outcome::Done);
  }
  return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK ? job.run() : frame::Report(Outcome::Failed);
}

std::string remark() {
  return "PACKAGE, such as wifiempfw, becomes /opt/usr/apps/appbinarymanager/PACKAGE.img;\n"
         "/etc/fw-update/download.conf says where it comes from.\n";
}

using Option = frame::Option<Options>;

constexpr Option kOptions[] = {
    Option("PACKAGE", &Options::package, "The package identifier").required(),
    Option("--answer-on FD", &Options::answer, "Say there whether it starts; go on in the background")
        .within(STDERR_FILENO + 1, 1 << 20),
};

constexpr char kSummary[] = "Downloads an extension package.";

constexpr frame::Command<Options> kCommands[] = {
    {{"", kSummary, "fw-download wifiempfw", remark}, {kOptions}, serve},
};

constexpr frame::Program<Options> kProgram = {
    {"fw-download", kSummary, "", kOutcomes, Outcome::Usage, Outcome::Failed, 18},
    {},
    kCommands,
};

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  umask(022);
  return frame::perform(kProgram, argc, argv);
}
