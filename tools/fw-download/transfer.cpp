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

std::string Size(std::int64_t bytes) {
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
      throw Failure(Reason::kInternal, "libcurl cannot be started.");
    }
    SetUp();
  }

  Answer Perform();

 private:
  void SetUp();
  void SetCredentials();
  void AddHeader(const std::string& line);
  void CheckResult(CURLcode result);
  void CheckLength() const;
  [[noreturn]] void Fail(CURLcode result);

  template <typename Function>
  bool Guarded(Function function) noexcept;
  void ReadHeader(const std::string& line);
  void Receive(const char* bytes, std::size_t count);
  void BeginOnce();
  bool IsWhole() const { return response_.length != kUnknownLength && received_ == response_.length; }
  // An answer with another code carries a text for people.
  bool HasImage() const { return response_.code == kHttpOk || response_.code == kHttpPartial; }
  bool IsFile() const { return request_.url.rfind("file:", 0) == 0; }

  static std::size_t OnHeader(char* bytes, std::size_t, std::size_t count, void* self);
  static std::size_t OnBytes(char* bytes, std::size_t, std::size_t count, void* self);
  static int OnProgress(void* self, curl_off_t, curl_off_t received, curl_off_t, curl_off_t);
  bool IsConnected() const;
  void CheckSpeed(std::int64_t received);
  [[noreturn]] void FailStalled() const;

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

void Exchange::AddHeader(const std::string& line) {
  if (!IsHeaderText(line)) {
    throw Failure(Reason::kInternal, "A header to be sent has a control character in it.");
  }
  curl_slist* const list = curl_slist_append(headers_.get(), line.c_str());
  if (list == nullptr) {
    throw Failure(Reason::kInternal, "There is no memory.");
  }
  static_cast<void>(headers_.release());  // the list holds them now
  headers_.reset(list);
}

void Exchange::SetUp() {
  CURL* const curl = curl_.get();
  // libcurl would stop at the announced length and not notice more; so it reads on
  // to the end of the connection, and lengths are compared here.
  AddHeader("Connection: close");
  if (request_.first > 0) {
    AddHeader("Range: bytes=" + std::to_string(request_.first) + "-");
    AddHeader("If-Range: " + request_.validator);
  }
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers_.get());
  curl_easy_setopt(curl, CURLOPT_IGNORE_CONTENT_LENGTH, IsFile() ? 0L : 1L);
  curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(curl, CURLOPT_URL, request_.url.c_str());
  SetCredentials();
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
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &Exchange::OnHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Exchange::OnBytes);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &Exchange::OnProgress);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, this);
}

// A server that was redirected to does not get them.
void Exchange::SetCredentials() {
  const bool given = !configuration_.user.empty() || !configuration_.password.empty();
  if (given && SameServer(request_.url, configuration_.url)) {
    curl_easy_setopt(curl_.get(), CURLOPT_USERNAME, configuration_.user.c_str());
    curl_easy_setopt(curl_.get(), CURLOPT_PASSWORD, configuration_.password.c_str());
  }
}

template <typename Function>
bool Exchange::Guarded(Function function) noexcept {
  try {
    function();
    return true;
  } catch (...) {
    thrown_ = std::current_exception();
    return false;
  }
}

std::size_t Exchange::OnHeader(char* bytes, std::size_t, std::size_t count, void* self) {
  auto& exchange = *static_cast<Exchange*>(self);
  return exchange.Guarded([&] { exchange.ReadHeader(std::string(bytes, count)); }) ? count : 0;
}

std::size_t Exchange::OnBytes(char* bytes, std::size_t, std::size_t count, void* self) {
  auto& exchange = *static_cast<Exchange*>(self);
  return exchange.Guarded([&] { exchange.Receive(bytes, count); }) ? count : 0;
}

// The time that connecting takes has a limit of its own.
bool Exchange::IsConnected() const {
  double seconds = 0;
  curl_easy_getinfo(curl_.get(), CURLINFO_PRETRANSFER_TIME, &seconds);
  return seconds > 0;
}

void Exchange::CheckSpeed(std::int64_t received) {
  if (IsFile() || IsWhole() || !IsConnected()) {
    return;
  }
  const auto brought = speed_.PeriodOver(received, Clock::now());
  if (!brought || *brought >= configuration_.minimumSpeed * configuration_.stallTimeoutSeconds) {
    return;
  }
  if (*brought == 0) {
    FailStalled();
  }
  throw Failure(Reason::kTooSlow, "The server sent less than " + Size(configuration_.minimumSpeed) +
                                      " a second for " + std::to_string(configuration_.stallTimeoutSeconds) +
                                      " s.");
}

void Exchange::FailStalled() const {
  throw Failure(Reason::kStalled,
                "The server sent nothing for " + std::to_string(configuration_.stallTimeoutSeconds) + " s.");
}

int Exchange::OnProgress(void* self, curl_off_t, curl_off_t received, curl_off_t, curl_off_t) {
  auto& exchange = *static_cast<Exchange*>(self);
  exchange.hungUp_ = exchange.IsWhole() && Clock::now() - exchange.lastByte_ > kHangUpPatience;
  const bool fastEnough = exchange.Guarded([&] { exchange.CheckSpeed(received); });
  return exchange.hungUp_ || !fastEnough ? 1 : 0;
}

// For a file libcurl makes up headers.
void Exchange::ReadHeader(const std::string& line) {
  if (!IsFile()) {
    ReadHeaderLine(line, response_);
  }
}

void Exchange::BeginOnce() {
  if (begun_) {
    return;
  }
  begun_ = true;
  curl_off_t announced = kUnknownLength;
  if (IsFile()) {
    response_.code = kHttpOk;
    curl_easy_getinfo(curl_.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    response_.length = announced;
    response_.hasEnd = true;
  } else {
    long code = 0;
    curl_easy_getinfo(curl_.get(), CURLINFO_RESPONSE_CODE, &code);
    response_.code = static_cast<int>(code);
  }
  if (!HasImage()) {
    return;
  }
  if (!response_.hasEnd) {
    throw Failure(Reason::kProtocol, "The server does not say how long the package is.");
  }
  receiver_.Begin(response_);
}

void Exchange::Receive(const char* bytes, std::size_t count) {
  BeginOnce();
  if (!HasImage()) {
    return;
  }
  received_ += static_cast<std::int64_t>(count);
  if (response_.length != kUnknownLength && received_ > response_.length) {
    throw Failure(Reason::kTooMuch,
                  "The server sent more than the " + Size(response_.length) + " that it had announced.");
  }
  receiver_.Take(bytes, count);
  lastByte_ = Clock::now();
}

struct CurlFailure {
  CURLcode result;
  Reason reason;
  const char* sentence;
};

constexpr CurlFailure kCurlFailures[] = {
    {CURLE_COULDNT_RESOLVE_HOST, Reason::kUnreachable, "The server's name is not known"},
    {CURLE_COULDNT_CONNECT, Reason::kUnreachable, "The server cannot be reached"},
    {CURLE_PEER_FAILED_VERIFICATION, Reason::kCertificate, "The server's certificate is not trusted"},
    {CURLE_SSL_CACERT_BADFILE, Reason::kCertificate, "The file of trusted certificates cannot be read"},
    {CURLE_SSL_CONNECT_ERROR, Reason::kCertificate, "No secure connection to the server could be made"},
    {CURLE_FILE_COULDNT_READ_FILE, Reason::kNotFound, "The package's file cannot be read"},
    {CURLE_GOT_NOTHING, Reason::kIncomplete, "The server hung up without an answer"},
    {CURLE_PARTIAL_FILE, Reason::kIncomplete, "The server stopped before the end of the package"},
    {CURLE_RECV_ERROR, Reason::kIncomplete, "The connection broke before the end of the package"},
    {CURLE_SEND_ERROR, Reason::kIncomplete, "The connection broke"},
    {CURLE_URL_MALFORMAT, Reason::kConfiguration, "The url is not valid"},
    {CURLE_OUT_OF_MEMORY, Reason::kInternal, "There is no memory"},
};

void Exchange::Fail(CURLcode result) {
  const std::string details =
      std::string(" (") + (errorText_[0] != '\0' ? errorText_ : curl_easy_strerror(result)) + ").";
  if (result == CURLE_OPERATION_TIMEDOUT) {
    if (IsConnected()) {
      FailStalled();
    }
    throw Failure(Reason::kUnreachable, "The server cannot be reached" + details);
  }
  for (const CurlFailure& failure : kCurlFailures) {
    if (failure.result == result) {
      throw Failure(failure.reason, failure.sentence + details);
    }
  }
  throw Failure(Reason::kProtocol, "The transfer failed" + details);
}

void Exchange::CheckLength() const {
  if (response_.length != kUnknownLength && received_ < response_.length) {
    throw Failure(Reason::kIncomplete, "The server stopped after " + Size(received_) + " of the " +
                                           Size(response_.length) + " that it had announced.");
  }
}

void Exchange::CheckResult(CURLcode result) {
  if (thrown_) {
    std::rethrow_exception(thrown_);
  }
  const bool endMissed = begun_ && HasImage() && IsWhole();  // all that was announced is there
  if (result != CURLE_OK && !hungUp_ && !endMissed) {
    Fail(result);
  }
}

Answer Exchange::Perform() {
  const CURLcode result = curl_easy_perform(curl_.get());
  CheckResult(result);
  BeginOnce();  // nothing came after the headers
  if (HasImage()) {
    CheckLength();
  }
  const char* target = nullptr;
  curl_easy_getinfo(curl_.get(), CURLINFO_REDIRECT_URL, &target);
  return {response_.code, target != nullptr ? target : ""};
}

}  // namespace

Answer Perform(const Request& request, const Configuration& configuration, Receiver& receiver) {
  return Exchange(request, configuration, receiver).Perform();
}

}  // namespace fwdownload
