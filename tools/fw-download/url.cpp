#include "url.h"

#include <curl/curl.h>

#include <memory>

namespace fwdownload {
namespace {

struct FreeUrl {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using Handle = std::unique_ptr<CURLU, FreeUrl>;

// Null for what is no address.
Handle Parse(const std::string& text) {
  Handle url(curl_url());
  if (url && curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) {
    url.reset();
  }
  return url;
}

// Empty when the address has no such part.
std::string Part(const Handle& url, CURLUPart part, unsigned int flags = 0) {
  char* text = nullptr;
  if (curl_url_get(url.get(), part, &text, flags) != CURLUE_OK) {
    return "";
  }
  std::string result = text;
  curl_free(text);
  return result;
}

void Remove(const Handle& url, std::initializer_list<CURLUPart> parts) {
  for (const CURLUPart part : parts) {
    curl_url_set(url.get(), part, nullptr, 0);
  }
}

}  // namespace

std::optional<Url> ParseUrl(const std::string& text) {
  const Handle url = Parse(text);
  if (!url) {
    return std::nullopt;
  }
  Url result;
  result.scheme = Part(url, CURLUPART_SCHEME);
  result.host = Part(url, CURLUPART_HOST);
  result.port = Part(url, CURLUPART_PORT, CURLU_DEFAULT_PORT);
  result.user = Part(url, CURLUPART_USER, CURLU_URLDECODE);
  result.password = Part(url, CURLUPART_PASSWORD, CURLU_URLDECODE);
  Remove(url, {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_OPTIONS});
  result.text = Part(url, CURLUPART_URL);
  return result;
}

std::string Shown(const std::string& url) {
  const Handle parsed = Parse(url);
  if (!parsed) {
    return "an address that is not valid";
  }
  Remove(parsed,
         {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_OPTIONS, CURLUPART_QUERY, CURLUPART_FRAGMENT});
  return Part(parsed, CURLUPART_URL);
}

bool SameServer(const std::string& url, const std::string& other) {
  const auto first = ParseUrl(url);
  const auto second = ParseUrl(other);
  return first && second && first->scheme == second->scheme && first->host == second->host &&
         first->port == second->port;
}

}  // namespace fwdownload
