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
using fwplatform::ErrnoText;
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

bool ParseDescriptor(const char* text, int& descriptor) {
  const char* const end = text + std::strlen(text);
  const auto parsed = std::from_chars(text, end, descriptor);
  return parsed.ec == std::errc() && parsed.ptr == end && descriptor > STDERR_FILENO;
}

Options ParseOptions(int argc, char** argv) {
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
    if (found != 'a' || !ParseDescriptor(optarg, options.answer)) {
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

void Complain(const std::string& package, const std::string& sentence) {
  std::cerr << "fw-download: " << package << ": " << sentence << std::endl;
}

// One download, from the moment on that it holds the package's lock.
class Job {
 public:
  explicit Job(std::string package) : package_(std::move(package)) {}

  // False when another process downloads the package already. Throws Failure.
  bool Prepare();
  // The exit code.
  int Run();

 private:
  void Tell(std::int64_t received, std::int64_t total);
  void Note(const std::string& sentence) const;
  void Write() const;
  int End(Reason reason, const std::string& sentence);

  std::string package_;
  fwdownload::Configuration configuration_;
  UniqueFd directory_;
  UniqueFd lock_;
  DownloadStatus status_;
  std::optional<unsigned int> toldPercent_;
  std::chrono::steady_clock::time_point told_;
};

[[noreturn]] void FailFor(const std::string& path, int error) {
  const bool denied = error == EACCES || error == EPERM || error == EROFS;
  throw Failure(denied ? Reason::kNotPermitted : Reason::kFileSystem,
                path + " cannot be used: " + ErrnoText(error) + ".");
}

bool Job::Prepare() {
  if (!fwplatform::IsPackageName(package_)) {
    throw Failure(Reason::kInternal, "The package identifier must be 1 to 127 letters and digits.");
  }
  configuration_ = fwdownload::ReadConfiguration();
  if (access(fwdownload::kPackagesDirectory, W_OK | X_OK) != 0) {
    FailFor(fwdownload::kPackagesDirectory, errno);
  }
  if (const int error = fwplatform::OpenDownloadStatusDirectory(directory_); error != 0) {
    FailFor(fwplatform::kDownloadStatusDirectory, error);
  }
  if (const int error = fwplatform::LockDownload(directory_.get(), package_, lock_); error != 0) {
    if (error == EAGAIN) {
      return false;
    }
    FailFor(fwplatform::kDownloadStatusDirectory, error);
  }
  if (const int error = fwplatform::WriteDownloadStatus(directory_.get(), package_, status_); error != 0) {
    FailFor(fwplatform::kDownloadStatusDirectory, error);
  }
  return true;
}

void Job::Write() const {
  if (const int error = fwplatform::WriteDownloadStatus(directory_.get(), package_, status_); error != 0) {
    Note("its status cannot be written: " + ErrnoText(error));
  }
}

void Job::Note(const std::string& sentence) const {
  __dlog_print(2, DLOG_WARN_PRIORITY, "FWUPDATE", "download of %s: %s", package_.c_str(), sentence.c_str());
}

void Job::Tell(std::int64_t received, std::int64_t total) {
  status_.received = received;
  status_.total = total;
  const auto percent = status_.Percent();
  const auto now = std::chrono::steady_clock::now();
  if (toldPercent_ && (percent == toldPercent_ || now - told_ < kStatusPause)) {
    return;
  }
  toldPercent_ = percent.value_or(0);
  told_ = now;
  Write();
}

int Job::End(Reason reason, const std::string& sentence) {
  const auto& info = fwdownload::InfoOf(reason);
  status_.state = DownloadState::kFailed;
  status_.reason = info.name;
  status_.message = sentence;
  status_.remedy = info.remedy;
  Write();
  __dlog_print(2, DLOG_ERROR_PRIORITY, "FWUPDATE", "download of %s failed: %s", package_.c_str(),
               sentence.c_str());
  Complain(package_, sentence);
  return kExitFailure;
}

int Job::Run() {
  try {
    fwdownload::Download(package_, configuration_,
                         {[this](std::int64_t received, std::int64_t total) { Tell(received, total); },
                          [this](const std::string& sentence) { Note(sentence); }});
  } catch (const Failure& failure) {
    return End(failure.reason(), failure.what());
  } catch (const std::exception& error) {
    return End(Reason::kInternal, std::string("The download broke off: ") + error.what() + ".");
  }
  status_.state = DownloadState::kDone;
  status_.total = status_.received;
  Write();
  __dlog_print(2, DLOG_INFO_PRIORITY, "FWUPDATE", "download of %s done", package_.c_str());
  return 0;
}

// A caller that has gone does not end the download.
void Answer(int descriptor, const std::string& text) {
  [[maybe_unused]] const ssize_t written = write(descriptor, text.data(), text.size());
}

// Leaves the caller's child behind: true in the process that goes on.
bool GoOnInBackground(int answer) {
  const pid_t child = fork();
  if (child == 0) {
    close(answer);
    return true;
  }
  Answer(answer, child > 0 ? kAccepted : "The download cannot be started: " + ErrnoText(errno) + ".");
  return false;
}

int Serve(const Options& options) {
  Job job(options.package);
  std::string refusal;
  try {
    if (!job.Prepare()) {
      refusal = options.answer >= 0 ? kAccepted : "Another process downloads it already.";
    }
  } catch (const std::exception& error) {
    refusal = error.what();
  }
  if (!refusal.empty()) {
    if (options.answer >= 0) {
      Answer(options.answer, refusal);
    }
    Complain(options.package, refusal);
    return kExitFailure;
  }
  if (options.answer >= 0 && !GoOnInBackground(options.answer)) {
    return 0;
  }
  return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK ? job.Run() : kExitFailure;
}

}  // namespace

int main(int argc, char** argv) {
  base::CleanStandardOutput();
  signal(SIGPIPE, SIG_IGN);
  umask(022);
  const Options options = ParseOptions(argc, argv);
  return options.exitCode ? *options.exitCode : Serve(options);
}
