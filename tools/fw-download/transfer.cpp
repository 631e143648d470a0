#include "transfer.h"

#include <curl/curl.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <exception>
#include <iterator>
#include <memory>

#include "failure.h"

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

bool SameHeader(const std::string& name, const char* other) {
  return strcasecmp(name.c_str(), other) == 0;
}

struct HeaderField {
  const char* name;
  std::string Response::*value;
};

constexpr HeaderField kHeaders[] = {
    {"ETag", &Response::etag},
    {"Last-Modified", &Response::lastModified},
    {"Date", &Response::date},
    {"Content-Range", &Response::contentRange},
};

// The state of one request while libcurl calls back. An exception must not pass
// through libcurl: it is kept and thrown again afterwards.
class Exchange {
 public:
  Exchange(const Request& request, const Configuration& configuration, Receiver& receiver)
      : request_(request), configuration_(configuration), receiver_(receiver), curl_(curl_easy_init()) {
    if (!curl_) {
      throw Failure(Reason::kInternal, "libcurl cannot be started.");
    }
    SetUp();
  }

  Answer Perform();

 private:
  void SetUp();
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
  static int OnProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t);

  const Request& request_;
  const Configuration& configuration_;
  Receiver& receiver_;
  CurlHandle curl_;
  HeaderList headers_;
  char errorText_[CURL_ERROR_SIZE] = {};
  Response response_;
  bool begun_ = false;
  bool hungUp_ = false;
  std::int64_t received_ = 0;
  Clock::time_point lastByte_ = Clock::now();
  std::exception_ptr thrown_;
};

void Exchange::AddHeader(const std::string& line) {
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

int Exchange::OnProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  auto& exchange = *static_cast<Exchange*>(self);
  exchange.hungUp_ = exchange.IsWhole() && Clock::now() - exchange.lastByte_ > kHangUpPatience;
  return exchange.hungUp_ ? 1 : 0;
}

std::int64_t ParseLength(const std::string& text) {
  std::int64_t length = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, length);
  if (parsed.ec != std::errc() || parsed.ptr != end || length < 0) {
    throw Failure(Reason::kProtocol, "The server announced a length that is no number.");
  }
  return length;
}

void Exchange::ReadHeader(const std::string& line) {
  if (line.rfind("HTTP/", 0) == 0) {
    response_ = {};  // what came before was an interim answer
    return;
  }
  const std::size_t colon = line.find(':');
  if (colon == std::string::npos) {
    return;
  }
  const std::string name = line.substr(0, colon);
  const std::size_t begin = line.find_first_not_of(" \t", colon + 1);
  const std::size_t end = line.find_last_not_of(" \t\r\n");
  const std::string value = begin > end ? "" : line.substr(begin, end - begin + 1);
  for (const HeaderField& header : kHeaders) {
    if (SameHeader(name, header.name)) {
      response_.*header.value = value;
    }
  }
  if (SameHeader(name, "Content-Length")) {
    response_.length = ParseLength(value);
    response_.hasEnd = true;
  } else if (SameHeader(name, "Transfer-Encoding")) {
    response_.hasEnd = true;  // libcurl understands it, or refuses it
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
    double connected = 0;
    curl_easy_getinfo(curl_.get(), CURLINFO_PRETRANSFER_TIME, &connected);
    throw connected > 0
        ? Failure(Reason::kStalled,
                  "The server sent nothing for " + std::to_string(configuration_.stallTimeoutSeconds) + " s.")
        : Failure(Reason::kUnreachable, "The server cannot be reached" + details);
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
