// fw-download: downloads one package for the platform's application-binary manager.
// Started by the platform library it answers at once and goes on by itself; started
// by hand it stays until the download has ended.
#include <curl/curl.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <utility>

#include "clean-output.h"
#include "configuration.h"
#include "dlog.h"
#include "download-status.h"
#include "download.h"
#include "errno-text.h"
#include "failure.h"
#include "partial-image.h"
#include "privileged/package-name.h"
#include "unique-fd.h"

namespace {

using fwdownload::Failure;
using fwdownload::Reason;
using fwplatform::DownloadState;
using fwplatform::DownloadStatus;
using fwplatform::errnoText;
using fwplatform::UniqueFd;

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr char kAccepted[] = "accepted\n";
// A reader sees movement, and the disk is left alone.
constexpr std::chrono::milliseconds kStatusPause{100};

constexpr char kUsage[] =
    "usage: fw-download PACKAGE\n"
    "  Downloads the extension package PACKAGE, such as wifiempfw, to\n"
    "  /opt/usr/apps/appbinarymanager/PACKAGE.img, from where\n"
    "  /etc/fw-update/download.conf says.\n"
    "  --answer-on=FD   says on this descriptor whether the download starts, and\n"
    "                   goes on in the background\n"
    "  --help           shows this\n";

struct Options {
  std::string package;
  int answer = -1;
  std::optional<int> exitCode;  // set when there is nothing to do
};

bool parseDescriptor(const char* text, int& descriptor) {
  const char* const end = text + std::strlen(text);
  const auto parsed = std::from_chars(text, end, descriptor);
  return parsed.ec == std::errc() && parsed.ptr == end && descriptor > STDERR_FILENO;
}

Options parseOptions(int argc, char** argv) {
  constexpr option kLong[] = {
      {"answer-on", required_argument, nullptr, 'a'},
      {"help", no_argument, nullptr, 'h'},
      {},
  };
  Options options;
  opterr = 0;  // getopt would write past the streams
  for (int found = 0; (found = getopt_long(argc, argv, "h", kLong, nullptr)) != -1;) {
    if (found == 'h') {
      std::cout << kUsage;
      options.exitCode = 0;
      return options;
    }
    if (found != 'a' || !parseDescriptor(optarg, options.answer)) {
      options.exitCode = kExitUsage;
    }
  }
  if (argc - optind != 1) {
    options.exitCode = kExitUsage;
  } else {
    options.package = argv[optind];
  }
  if (options.exitCode) {
    std::cerr << kUsage;
  }
  return options;
}

void complain(const std::string& package, const std::string& sentence) {
  std::cerr << "fw-download: " << package << ": " << sentence << std::endl;
}

// One download, from the moment on that it holds the package's lock.
class Job {
 public:
  explicit Job(std::string package) : package_(std::move(package)) {}

  // False when another process downloads the package already. Throws Failure.
  bool prepare();
  // The exit code.
  int run();

 private:
  void tell(std::int64_t received, std::int64_t total);
  void note(const std::string& sentence) const;
  void write() const;
  int end(Reason reason, const std::string& sentence);

  std::string package_;
  fwdownload::Configuration configuration_;
  UniqueFd directory_;
  UniqueFd lock_;
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
  if (!fwplatform::isPackageName(package_)) {
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

int Job::end(Reason reason, const std::string& sentence) {
  const auto& info = fwdownload::infoOf(reason);
  status_.state = DownloadState::Failed;
  status_.reason = info.name;
  status_.message = sentence;
  status_.remedy = info.remedy;
  write();
  __dlog_print(2, DLOG_ERROR_PRIORITY, "FWUPDATE", "download of %s failed: %s", package_.c_str(),
               sentence.c_str());
  complain(package_, sentence);
  return kExitFailure;
}

int Job::run() {
  try {
    fwdownload::download(package_, configuration_,
                         {[this](std::int64_t received, std::int64_t total) { tell(received, total); },
                          [this](const std::string& sentence) { note(sentence); }});
  } catch (const Failure& failure) {
    return end(failure.reason(), failure.what());
  } catch (const std::exception& error) {
    return end(Reason::Internal, std::string("The download broke off: ") + error.what() + ".");
  }
  status_.state = DownloadState::Done;
  status_.total = status_.received;
  write();
  __dlog_print(2, DLOG_INFO_PRIORITY, "FWUPDATE", "download of %s done", package_.c_str());
  return 0;
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

int serve(const Options& options) {
  Job job(options.package);
  std::string refusal;
  try {
    if (!job.prepare()) {
      refusal = options.answer >= 0 ? kAccepted : "Another process downloads it already.";
    }
  } catch (const std::exception& error) {
    refusal = error.what();
  }
  if (!refusal.empty()) {
    if (options.answer >= 0) {
      reply(options.answer, refusal);
    }
    complain(options.package, refusal);
    return kExitFailure;
  }
  if (options.answer >= 0 && !goOnInBackground(options.answer)) {
    return 0;
  }
  return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK ? job.run() : kExitFailure;
}

}  // namespace

int main(int argc, char** argv) {
  base::cleanStandardOutput();
  signal(SIGPIPE, SIG_IGN);
  umask(022);
  const Options options = parseOptions(argc, argv);
  return options.exitCode ? *options.exitCode : serve(options);
}
