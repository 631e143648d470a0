// SPDX-License-Identifier: Apache-2.0
#include "url.h"

#include <curl/curl.h>

#include <memory>

namespace transfer {
namespace {

struct FreeUrl {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using Handle = std::unique_ptr<CURLU, FreeUrl>;

// Null for what is no address.
Handle parse(const std::string& text) {
  Handle url(curl_url());
  if (url && curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) {
    url.reset();
  }
  return url;
}

// Empty when the address has no such part.
std::string part(const Handle& url, CURLUPart part, unsigned int flags = 0) {
  char* text = nullptr;
  if (curl_url_get(url.get(), part, &text, flags) != CURLUE_OK) {
    return "";
  }
  std::string result = text;
  curl_free(text);
  return result;
}

void remove(const Handle& url, std::initializer_list<CURLUPart> parts) {
  for (const CURLUPart part : parts) {
    curl_url_set(url.get(), part, nullptr, 0);
  }
}

}  // namespace

std::optional<Url> parseUrl(const std::string& text) {
  const Handle url = parse(text);
  if (!url) {
    return std::nullopt;
  }
  Url result;
  result.scheme = part(url, CURLUPART_SCHEME);
  result.host = part(url, CURLUPART_HOST);
  result.port = part(url, CURLUPART_PORT, CURLU_DEFAULT_PORT);
  result.user = part(url, CURLUPART_USER, CURLU_URLDECODE);
  result.password = part(url, CURLUPART_PASSWORD, CURLU_URLDECODE);
  remove(url, {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_OPTIONS});
  result.text = part(url, CURLUPART_URL);
  return result;
}

std::string shown(const std::string& url) {
  const Handle parsed = parse(url);
  if (!parsed) {
    return "an address that is not valid";
  }
  remove(parsed,
         {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_OPTIONS, CURLUPART_QUERY, CURLUPART_FRAGMENT});
  return part(parsed, CURLUPART_URL);
}

bool sameServer(const std::string& url, const std::string& other) {
  const auto first = parseUrl(url);
  const auto second = parseUrl(other);
  return first && second && first->scheme == second->scheme && first->host == second->host &&
         first->port == second->port;
}

}  // namespace transfer
