// SPDX-License-Identifier: Apache-2.0
#include "configuration.h"

#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <iterator>
#include <sstream>

#include "failure.h"
#include "system-error.h"
#include "url.h"
#include "whole-file.h"

namespace fwdownload {
namespace {

constexpr std::size_t kLargestFile = std::size_t{64} * 1024;
constexpr const char* kSchemes[] = {"https://", "http://", "file:///"};

// Refuses a value by throwing std::string, the end of the sentence about its line.
using Setter = void (*)(Configuration& configuration, const std::string& value);

long number(const std::string& value, long smallest, long largest) {
  long number = 0;
  const char* const end = value.data() + value.size();
  const auto parsed = std::from_chars(value.data(), end, number);
  if (parsed.ec != std::errc() || parsed.ptr != end || number < smallest || number > largest) {
    throw "must be a whole number from " + std::to_string(smallest) + " to " + std::to_string(largest);
  }
  return number;
}

bool truth(const std::string& value) {
  if (value != "true" && value != "false") {
    throw std::string("must be true or false");
  }
  return value == "true";
}

std::vector<std::string> words(const std::string& value) {
  std::istringstream stream(value);
  return {std::istream_iterator<std::string>(stream), std::istream_iterator<std::string>()};
}

void setUrl(Configuration& configuration, const std::string& value) {
  const bool known = std::any_of(std::begin(kSchemes), std::end(kSchemes),
                                 [&](const std::string& scheme) { return value.rfind(scheme, 0) == 0; });
  if (!known) {
    throw std::string("must begin with https://, http:// or file:///");
  }
  if (value.find_first_of("?#") != std::string::npos) {
    throw std::string("must not have a \"?\" or \"#\": the image's name is put behind it");
  }
  const auto url = transfer::parseUrl(value);
  if (!url) {
    throw std::string(
        "is no valid address; in a user or password, write \"@\", \":\", \"/\" and the like as %40");
  }
  configuration.url = url->text.back() == '/' ? url->text : url->text + "/";
  configuration.user = url->user;
  configuration.password = url->password;
}

struct Key {
  const char* name;
  Setter set;
};

constexpr long kLargestMebibytes = 1024L * 1024;
constexpr long kLongestTimeout = 3600;
constexpr long kLargestSpeed = 1024L * 1024;  // KiB a second

constexpr Key kKeys[] = {
    {"url", setUrl},
    {"ca_file", [](Configuration& c, const std::string& value) { c.caFile = value; }},
    {"redirect_hosts", [](Configuration& c, const std::string& value) { c.redirectHosts = words(value); }},
    {"allow_unsigned", [](Configuration& c, const std::string& value) { c.allowUnsigned = truth(value); }},
    {"allow_insecure", [](Configuration& c, const std::string& value) { c.allowInsecure = truth(value); }},
    {"max_size_mib",
     [](Configuration& c, const std::string& value) {
       c.maximumSize = std::int64_t{number(value, 1, kLargestMebibytes)} * 1024 * 1024;
     }},
    {"max_redirects",
     [](Configuration& c, const std::string& value) { c.maximumRedirects = number(value, 0, 20); }},
    {"connect_timeout_s",
     [](Configuration& c, const std::string& value) {
       c.connectTimeoutSeconds = number(value, 1, kLongestTimeout);
     }},
    {"stall_timeout_s",
     [](Configuration& c, const std::string& value) {
       c.stallTimeoutSeconds = number(value, 1, kLongestTimeout);
     }},
    {"min_speed_kib_s",
     [](Configuration& c, const std::string& value) {
       c.minimumSpeed = std::int64_t{number(value, 0, kLargestSpeed)} * 1024;
     }},
    {"max_retries",
     [](Configuration& c, const std::string& value) { c.maximumRetries = number(value, 0, 20); }},
};

std::string trimmed(const std::string& text) {
  constexpr const char* kBlanks = " \t\r";
  const std::size_t begin = text.find_first_not_of(kBlanks);
  return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

// What stands in the place of a key may be an address with a password.
std::string shownKey(const std::string& name) {
  const bool isWord = std::all_of(name.begin(), name.end(),
                                  [](char byte) { return (byte >= 'a' && byte <= 'z') || byte == '_'; });
  return isWord ? ", \"" + name + "\"" : "";
}

void applyLine(Configuration& configuration, const std::string& line) {
  const std::size_t equals = line.find('=');
  if (equals == std::string::npos) {
    throw std::string("is not of the form \"key = value\"");
  }
  const std::string name = trimmed(line.substr(0, equals));
  const std::string value = trimmed(line.substr(equals + 1));
  const auto* const key =
      std::find_if(std::begin(kKeys), std::end(kKeys), [&](const Key& entry) { return name == entry.name; });
  if (key == std::end(kKeys)) {
    throw "has an unknown key" + shownKey(name);
  }
  if (value.empty()) {
    throw std::string("has no value");
  }
  try {
    key->set(configuration, value);
  } catch (const std::string& refusal) {
    throw "is refused: " + name + " " + refusal;
  }
}

}  // namespace

Configuration parseConfiguration(const std::string& text) {
  Configuration configuration;
  std::istringstream lines(text);
  int number = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    const std::string content = trimmed(line);
    if (content.empty() || content[0] == '#') {
      continue;
    }
    try {
      applyLine(configuration, content);
    } catch (const std::string& refusal) {
      throw Failure(Reason::Configuration, std::string(kConfigurationFile) + ": line " +
                                               std::to_string(number) + " " + refusal + ".");
    }
  }
  if (configuration.url.empty()) {
    throw Failure(Reason::Configuration, std::string(kConfigurationFile) + " gives no url.");
  }
  return configuration;
}

Configuration readConfiguration() {
  std::string text;
  if (const int error = base::readFileAt(AT_FDCWD, kConfigurationFile, kLargestFile, text); error != 0) {
    throw Failure(Reason::Configuration,
                  std::string(kConfigurationFile) + " cannot be read: " + base::errnoText(error) + ".");
  }
  return parseConfiguration(text);
}

}  // namespace fwdownload
