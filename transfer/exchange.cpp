// SPDX-License-Identifier: Apache-2.0
#include "exchange.h"

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <memory>

#include "speed-watch.h"
#include "trouble.h"

namespace transfer {
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

// sentence: a "$" stands for what comes.
std::string filled(std::string sentence, const char* what) {
  const std::size_t at = sentence.find('$');
  return at == std::string::npos ? sentence : sentence.replace(at, 1, what);
}

// The state of one request while libcurl calls back. An exception must not pass
// through libcurl: it is kept and thrown again afterwards.
class Exchange {
 public:
  Exchange(const Request& request, const Connection& connection, Receiver& receiver)
      : request_(request),
        connection_(connection),
        receiver_(receiver),
        curl_(curl_easy_init()),
        speed_(std::chrono::seconds(connection.stallTimeoutSeconds)) {
    if (!curl_) {
      throw Failure(Trouble::Internal, "libcurl cannot be started.");
    }
    setUpRequest();
    setUpConnection();
    setUpCallbacks();
  }

  Answer perform();

 private:
  void setUpRequest();
  void setUpBody();
  void setUpConnection();
  void setUpCallbacks();
  void setCertificates();
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
  bool hasContent() const { return response_.code == kHttpOk || response_.code == kHttpPartial; }
  bool isFile() const { return request_.url.rfind("file:", 0) == 0; }

  static std::size_t onHeader(char* bytes, std::size_t, std::size_t count, void* self);
  static std::size_t onBytes(char* bytes, std::size_t, std::size_t count, void* self);
  static int onProgress(void* self, curl_off_t, curl_off_t received, curl_off_t, curl_off_t);
  bool isConnected() const;
  void checkSpeed(std::int64_t received);
  [[noreturn]] void failStalled() const;

  const Request& request_;
  const Connection& connection_;
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
    throw Failure(Trouble::Internal, "A header to be sent has a control character in it.");
  }
  curl_slist* const list = curl_slist_append(headers_.get(), line.c_str());
  if (list == nullptr) {
    throw Failure(Trouble::Internal, "There is no memory.");
  }
  static_cast<void>(headers_.release());  // the list holds them now
  headers_.reset(list);
}

void Exchange::setUpRequest() {
  CURL* const curl = curl_.get();
  // libcurl would stop at the announced length and not notice more; so it reads on
  // to the end of the connection, and lengths are compared here.
  addHeader("Connection: close");
  for (const std::string& header : request_.headers) {
    addHeader(header);
  }
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers_.get());
  curl_easy_setopt(curl, CURLOPT_IGNORE_CONTENT_LENGTH, isFile() ? 0L : 1L);
  curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(curl, CURLOPT_URL, request_.url.c_str());
  if (!request_.user.empty() || !request_.password.empty()) {
    curl_easy_setopt(curl, CURLOPT_USERNAME, request_.user.c_str());
    curl_easy_setopt(curl, CURLOPT_PASSWORD, request_.password.c_str());
  }
  curl_easy_setopt(curl, CURLOPT_USERAGENT, connection_.userAgent);
  setUpBody();
}

void Exchange::setUpBody() {
  if (std::strcmp(request_.method, "GET") == 0) {
    return;
  }
  curl_easy_setopt(curl_.get(), CURLOPT_CUSTOMREQUEST, request_.method);
  curl_easy_setopt(curl_.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request_.body.size()));
  curl_easy_setopt(curl_.get(), CURLOPT_POSTFIELDS, request_.body.c_str());
}

void Exchange::setUpConnection() {
  CURL* const curl = curl_.get();
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, connection_.protocols);
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(curl, CURLOPT_PROXY, "");
  setCertificates();
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, connection_.connectTimeoutSeconds);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, connection_.timeoutSeconds);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, connection_.stallTimeoutSeconds);
  if (connection_.bytesPerSecond > 0) {
    curl_easy_setopt(curl, CURLOPT_MAX_RECV_SPEED_LARGE, static_cast<curl_off_t>(connection_.bytesPerSecond));
    // libcurl looks at its limit after up to a hundred reads: these are to be a second's bytes.
    curl_easy_setopt(
        curl, CURLOPT_BUFFERSIZE,
        static_cast<long>(std::clamp<std::int64_t>(connection_.bytesPerSecond / 100, 1024, 16384)));
  }
}

void Exchange::setCertificates() {
  CURL* const curl = curl_.get();
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(curl, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  if (!connection_.caFile.empty()) {
    curl_easy_setopt(curl, CURLOPT_CAINFO, connection_.caFile.c_str());
    curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr);
  }
  if (!connection_.clientCertificate.empty()) {
    curl_easy_setopt(curl, CURLOPT_SSLCERT, connection_.clientCertificate.c_str());
    curl_easy_setopt(curl, CURLOPT_SSLKEY, connection_.clientKey.c_str());
  }
}

void Exchange::setUpCallbacks() {
  CURL* const curl = curl_.get();
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText_);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &Exchange::onHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Exchange::onBytes);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &Exchange::onProgress);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, this);
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
  if (!brought || *brought >= connection_.minimumSpeed * connection_.stallTimeoutSeconds) {
    return;
  }
  if (*brought == 0) {
    failStalled();
  }
  throw Failure(Trouble::TooSlow, "The server sent less than " + size(connection_.minimumSpeed) +
                                      " a second for " + std::to_string(connection_.stallTimeoutSeconds) +
                                      " s.");
}

void Exchange::failStalled() const {
  throw Failure(Trouble::Stalled,
                "The server sent nothing for " + std::to_string(connection_.stallTimeoutSeconds) + " s.");
}

int Exchange::onProgress(void* self, curl_off_t, curl_off_t received, curl_off_t, curl_off_t) {
  auto& exchange = *static_cast<Exchange*>(self);
  exchange.hungUp_ = exchange.isWhole() && Clock::now() - exchange.lastByte_ > kHangUpPatience;
  const bool mayGoOn = exchange.guarded([&] {
    exchange.checkSpeed(received);
    exchange.receiver_.goOn();
  });
  return exchange.hungUp_ || !mayGoOn ? 1 : 0;
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
  if (!hasContent()) {
    return;
  }
  if (!response_.hasEnd) {
    throw Failure(Trouble::Protocol, filled("The server does not say how long the $ is.", request_.what));
  }
  receiver_.begin(response_);
}

void Exchange::receive(const char* bytes, std::size_t count) {
  beginOnce();
  if (!hasContent()) {
    return;
  }
  received_ += static_cast<std::int64_t>(count);
  if (response_.length != kUnknownLength && received_ > response_.length) {
    throw Failure(Trouble::TooMuch,
                  "The server sent more than the " + size(response_.length) + " that it had announced.");
  }
  receiver_.take(bytes, count);
  lastByte_ = Clock::now();
}

struct CurlFailure {
  CURLcode result;
  Trouble trouble;
  const char* sentence;
  const char* details = "";  // what libcurl says as well
};

constexpr CurlFailure kCurlFailures[] = {
    {CURLE_COULDNT_RESOLVE_HOST, Trouble::Unreachable, "The server's name is not known"},
    {CURLE_COULDNT_CONNECT, Trouble::Unreachable, "The server cannot be reached"},
    {CURLE_PEER_FAILED_VERIFICATION, Trouble::Certificate, "The server's certificate is not trusted"},
    {CURLE_SSL_CACERT_BADFILE, Trouble::Certificate, "The file of trusted certificates cannot be read"},
    {CURLE_SSL_CERTPROBLEM, Trouble::Certificate, "The set's own certificate or its key cannot be used"},
    // An alert that comes after the handshake, which TLS 1.3 has end without an answer to the client.
    {CURLE_RECV_ERROR, Trouble::Certificate, "The server wants a certificate of the set",
     "alert certificate required"},
    {CURLE_RECV_ERROR, Trouble::Certificate, "The server does not take the set's own certificate",
     "alert unknown ca"},
    {CURLE_SSL_CONNECT_ERROR, Trouble::Certificate, "No secure connection to the server could be made"},
    {CURLE_FILE_COULDNT_READ_FILE, Trouble::NotFound, "The $'s file cannot be read"},
    {CURLE_GOT_NOTHING, Trouble::Incomplete, "The server hung up without an answer"},
    {CURLE_PARTIAL_FILE, Trouble::Incomplete, "The server stopped before the end of the $"},
    {CURLE_RECV_ERROR, Trouble::Incomplete, "The connection broke before the end of the $"},
    {CURLE_SEND_ERROR, Trouble::Incomplete, "The connection broke"},
    {CURLE_URL_MALFORMAT, Trouble::Address, "The url is not valid"},
    {CURLE_OUT_OF_MEMORY, Trouble::Internal, "There is no memory"},
};

void Exchange::fail(CURLcode result) {
  const std::string details =
      std::string(" (") + (errorText_[0] != '\0' ? errorText_ : curl_easy_strerror(result)) + ").";
  if (result == CURLE_OPERATION_TIMEDOUT) {
    if (isConnected()) {
      failStalled();
    }
    throw Failure(Trouble::Unreachable, "The server cannot be reached" + details);
  }
  for (const CurlFailure& failure : kCurlFailures) {
    if (failure.result == result && details.find(failure.details) != std::string::npos) {
      throw Failure(failure.trouble, filled(failure.sentence, request_.what) + details);
    }
  }
  throw Failure(Trouble::Protocol, "The transfer failed" + details);
}

void Exchange::checkLength() const {
  if (response_.length != kUnknownLength && received_ < response_.length) {
    throw Failure(Trouble::Incomplete, "The server stopped after " + size(received_) + " of the " +
                                           size(response_.length) + " that it had announced.");
  }
}

void Exchange::checkResult(CURLcode result) {
  if (thrown_) {
    std::rethrow_exception(thrown_);
  }
  const bool endMissed = begun_ && hasContent() && isWhole();  // all that was announced is there
  if (result != CURLE_OK && !hungUp_ && !endMissed) {
    fail(result);
  }
}

Answer Exchange::perform() {
  const CURLcode result = curl_easy_perform(curl_.get());
  checkResult(result);
  beginOnce();  // nothing came after the headers
  if (hasContent()) {
    checkLength();
  }
  const char* target = nullptr;
  curl_easy_getinfo(curl_.get(), CURLINFO_REDIRECT_URL, &target);
  return {response_.code, target != nullptr ? target : "", response_};
}

}  // namespace

Answer perform(const Request& request, const Connection& connection, Receiver& receiver) {
  return Exchange(request, connection, receiver).perform();
}

}  // namespace transfer
