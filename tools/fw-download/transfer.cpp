// SPDX-License-Identifier: Apache-2.0
#include "transfer.h"

#include <curl/curl.h>

#include <chrono>
#include <exception>
#include <memory>

#include "failure.h"
#include "speed-watch.h"
#include "url.h"

namespace fwdownload {
namespace {

using Clock = std::chrono::steady_clock;

// A server that does not hang up after its last byte is not waited for any longer.
constexpr std::chrono::seconds kHangUpPatience{1};
constexpr long kHttpOk = 200;
constexpr long kHttpPartial = 206;

struct CloseCurl {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct FreeList {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlHandle = std::unique_ptr<CURL, CloseCurl>;
using HeaderList = std::unique_ptr<curl_slist, FreeList>;

std::string size(std::int64_t bytes) {
  return std::to_string(bytes) + " bytes";
}

// The state of one request while libcurl calls back. An exception must not pass
// through libcurl: it is kept and thrown again afterwards.
class Exchange {
 public:
  Exchange(const Request& request, const Configuration& configuration, Receiver& receiver)
      : request_(request),
        configuration_(configuration),
        receiver_(receiver),
        curl_(curl_easy_init()),
        speed_(std::chrono::seconds(configuration.stallTimeoutSeconds)) {
    if (!curl_) {
      throw Failure(Reason::Internal, "libcurl cannot be started.");
    }
    SetUp();
  }

  Answer perform();

 private:
  void SetUp();
  void setCredentials();
  void addHeader(const std::string& line);
  void checkResult(CURLcode result);
  void checkLength() const;
  [[noreturn]] void fail(CURLcode result);

  template <typename Function>
  bool guarded(Function function) noexcept;
  void readHeader(const std::string& line);
  void receive(const char* bytes, std::size_t count);
  void beginOnce();
  bool isWhole() const { return response_.length != kUnknownLength && received_ == response_.length; }
  // An answer with another code carries a text for people.
  bool hasImage() const { return response_.code == kHttpOk || response_.code == kHttpPartial; }
  bool isFile() const { return request_.url.rfind("file:", 0) == 0; }

  static std::size_t onHeader(char* bytes, std::size_t, std::size_t count, void* self);
  static std::size_t onBytes(char* bytes, std::size_t, std::size_t count, void* self);
  static int onProgress(void* self, curl_off_t, curl_off_t received, curl_off_t, curl_off_t);
  bool isConnected() const;
  void checkSpeed(std::int64_t received);
  [[noreturn]] void failStalled() const;

  const Request& request_;
  const Configuration& configuration_;
  Receiver& receiver_;
  CurlHandle curl_;
  HeaderList headers_;
  char errorText_[CURL_ERROR_SIZE] = {};
  Response response_;
  bool begun_ = false;
  bool hungUp_ = false;
  SpeedWatch speed_;
  std::int64_t received_ = 0;
  Clock::time_point lastByte_ = Clock::now();
  std::exception_ptr thrown_;
};

void Exchange::addHeader(const std::string& line) {
  if (!isHeaderText(line)) {
    throw Failure(Reason::Internal, "A header to be sent has a control character in it.");
  }
  curl_slist* const list = curl_slist_append(headers_.get(), line.c_str());
  if (list == nullptr) {
    throw Failure(Reason::Internal, "There is no memory.");
  }
  static_cast<void>(headers_.release());  // the list holds them now
  headers_.reset(list);
}

void Exchange::SetUp() {
  CURL* const curl = curl_.get();
  // libcurl would stop at the announced length and not notice more; so it reads on
  // to the end of the connection, and lengths are compared here.
  addHeader("Connection: close");
  if (request_.first > 0) {
    addHeader("Range: bytes=" + std::to_string(request_.first) + "-");
    addHeader("If-Range: " + request_.validator);
  }
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers_.get());
  curl_easy_setopt(curl, CURLOPT_IGNORE_CONTENT_LENGTH, isFile() ? 0L : 1L);
  curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(curl, CURLOPT_URL, request_.url.c_str());
  setCredentials();
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https,http,file");
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(curl, CURLOPT_PROXY, "");
  curl_easy_setopt(curl, CURLOPT_USERAGENT, "fw-download");
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(curl, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  if (!configuration_.caFile.empty()) {
    curl_easy_setopt(curl, CURLOPT_CAINFO, configuration_.caFile.c_str());
    curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr);
  }
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, configuration_.connectTimeoutSeconds);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, configuration_.stallTimeoutSeconds);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText_);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &Exchange::onHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Exchange::onBytes);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &Exchange::onProgress);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, this);
}

// A server that was redirected to does not get them.
void Exchange::setCredentials() {
  const bool given = !configuration_.user.empty() || !configuration_.password.empty();
  if (given && sameServer(request_.url, configuration_.url)) {
    curl_easy_setopt(curl_.get(), CURLOPT_USERNAME, configuration_.user.c_str());
    curl_easy_setopt(curl_.get(), CURLOPT_PASSWORD, configuration_.password.c_str());
  }
}

template <typename Function>
bool Exchange::guarded(Function function) noexcept {
  try {
    function();
    return true;
  } catch (...) {
    thrown_ = std::current_exception();
    return false;
  }
}

std::size_t Exchange::onHeader(char* bytes, std::size_t, std::size_t count, void* self) {
  auto& exchange = *static_cast<Exchange*>(self);
  return exchange.guarded([&] { exchange.readHeader(std::string(bytes, count)); }) ? count : 0;
}

std::size_t Exchange::onBytes(char* bytes, std::size_t, std::size_t count, void* self) {
  auto& exchange = *static_cast<Exchange*>(self);
  return exchange.guarded([&] { exchange.receive(bytes, count); }) ? count : 0;
}

// The time that connecting takes has a limit of its own.
bool Exchange::isConnected() const {
  double seconds = 0;
  curl_easy_getinfo(curl_.get(), CURLINFO_PRETRANSFER_TIME, &seconds);
  return seconds > 0;
}

void Exchange::checkSpeed(std::int64_t received) {
  if (isFile() || isWhole() || !isConnected()) {
    return;
  }
  const auto brought = speed_.periodOver(received, Clock::now());
  if (!brought || *brought >= configuration_.minimumSpeed * configuration_.stallTimeoutSeconds) {
    return;
  }
  if (*brought == 0) {
    failStalled();
  }
  throw Failure(Reason::TooSlow, "The server sent less than " + size(configuration_.minimumSpeed) +
                                     " a second for " + std::to_string(configuration_.stallTimeoutSeconds) +
                                     " s.");
}

void Exchange::failStalled() const {
  throw Failure(Reason::Stalled,
                "The server sent nothing for " + std::to_string(configuration_.stallTimeoutSeconds) + " s.");
}

int Exchange::onProgress(void* self, curl_off_t, curl_off_t received, curl_off_t, curl_off_t) {
  auto& exchange = *static_cast<Exchange*>(self);
  exchange.hungUp_ = exchange.isWhole() && Clock::now() - exchange.lastByte_ > kHangUpPatience;
  const bool fastEnough = exchange.guarded([&] { exchange.checkSpeed(received); });
  return exchange.hungUp_ || !fastEnough ? 1 : 0;
}

// For a file libcurl makes up headers.
void Exchange::readHeader(const std::string& line) {
  if (!isFile()) {
    readHeaderLine(line, response_);
  }
}

void Exchange::beginOnce() {
  if (begun_) {
    return;
  }
  begun_ = true;
  curl_off_t announced = kUnknownLength;
  if (isFile()) {
    response_.code = kHttpOk;
    curl_easy_getinfo(curl_.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    response_.length = announced;
    response_.hasEnd = true;
  } else {
    long code = 0;
    curl_easy_getinfo(curl_.get(), CURLINFO_RESPONSE_CODE, &code);
    response_.code = static_cast<int>(code);
  }
  if (!hasImage()) {
    return;
  }
  if (!response_.hasEnd) {
    throw Failure(Reason::Protocol, "The server does not say how long the package is.");
  }
  receiver_.begin(response_);
}

void Exchange::receive(const char* bytes, std::size_t count) {
  beginOnce();
  if (!hasImage()) {
    return;
  }
  received_ += static_cast<std::int64_t>(count);
  if (response_.length != kUnknownLength && received_ > response_.length) {
    throw Failure(Reason::TooMuch,
                  "The server sent more than the " + size(response_.length) + " that it had announced.");
  }
  receiver_.take(bytes, count);
  lastByte_ = Clock::now();
}

struct CurlFailure {
  CURLcode result;
  Reason reason;
  const char* sentence;
};

constexpr CurlFailure kCurlFailures[] = {
    {CURLE_COULDNT_RESOLVE_HOST, Reason::Unreachable, "The server's name is not known"},
    {CURLE_COULDNT_CONNECT, Reason::Unreachable, "The server cannot be reached"},
    {CURLE_PEER_FAILED_VERIFICATION, Reason::Certificate, "The server's certificate is not trusted"},
    {CURLE_SSL_CACERT_BADFILE, Reason::Certificate, "The file of trusted certificates cannot be read"},
    {CURLE_SSL_CONNECT_ERROR, Reason::Certificate, "No secure connection to the server could be made"},
    {CURLE_FILE_COULDNT_READ_FILE, Reason::NotFound, "The package's file cannot be read"},
    {CURLE_GOT_NOTHING, Reason::Incomplete, "The server hung up without an answer"},
    {CURLE_PARTIAL_FILE, Reason::Incomplete, "The server stopped before the end of the package"},
    {CURLE_RECV_ERROR, Reason::Incomplete, "The connection broke before the end of the package"},
    {CURLE_SEND_ERROR, Reason::Incomplete, "The connection broke"},
    {CURLE_URL_MALFORMAT, Reason::Configuration, "The url is not valid"},
    {CURLE_OUT_OF_MEMORY, Reason::Internal, "There is no memory"},
};

void Exchange::fail(CURLcode result) {
  const std::string details =
      std::string(" (") + (errorText_[0] != '\0' ? errorText_ : curl_easy_strerror(result)) + ").";
  if (result == CURLE_OPERATION_TIMEDOUT) {
    if (isConnected()) {
      failStalled();
    }
    throw Failure(Reason::Unreachable, "The server cannot be reached" + details);
  }
  for (const CurlFailure& failure : kCurlFailures) {
    if (failure.result == result) {
      throw Failure(failure.reason, failure.sentence + details);
    }
  }
  throw Failure(Reason::Protocol, "The transfer failed" + details);
}

void Exchange::checkLength() const {
  if (response_.length != kUnknownLength && received_ < response_.length) {
    throw Failure(Reason::Incomplete, "The server stopped after " + size(received_) + " of the " +
                                          size(response_.length) + " that it had announced.");
  }
}

void Exchange::checkResult(CURLcode result) {
  if (thrown_) {
    std::rethrow_exception(thrown_);
  }
  const bool endMissed = begun_ && hasImage() && isWhole();  // all that was announced is there
  if (result != CURLE_OK && !hungUp_ && !endMissed) {
    fail(result);
  }
}

Answer Exchange::perform() {
  const CURLcode result = curl_easy_perform(curl_.get());
  checkResult(result);
  beginOnce();  // nothing came after the headers
  if (hasImage()) {
    checkLength();
  }
  const char* target = nullptr;
  curl_easy_getinfo(curl_.get(), CURLINFO_REDIRECT_URL, &target);
  return {response_.code, target != nullptr ? target : ""};
}

}  // namespace

Answer perform(const Request& request, const Configuration& configuration, Receiver& receiver) {
  return Exchange(request, configuration, receiver).perform();
}

}  // namespace fwdownload
