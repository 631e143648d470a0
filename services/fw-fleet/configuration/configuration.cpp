// SPDX-License-Identifier: Apache-2.0
#include "configuration.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <iterator>
#include <system_error>

#include "file-descriptor.h"
#include "printable-text.h"
#include "system-error.h"
#include "url.h"
#include "whole-file.h"

namespace fleet {
namespace {

constexpr std::size_t kLargestFile = std::size_t{64} * 1024;
constexpr std::size_t kLongestName = 128;
constexpr int kLargestArtifactsInAction = 4;  // where it has no limit of its own
constexpr char kHttps[] = "https://";
constexpr char kHttp[] = "http://";

// Each gives what is wrong with the value, behind the name of the setting; empty when it was taken.
using Set = std::string (*)(Configuration& configuration, const std::string& value);

bool startsWith(const std::string& text, const char* start) {
  return text.rfind(start, 0) == 0;
}

bool isPlain(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char byte) { return byte > ' ' && byte <= '~'; });
}

std::string setServer(Configuration& configuration, const std::string& value) {
  if (!startsWith(value, kHttps) && !startsWith(value, kHttp)) {
    return " must begin with https:// or http://";
  }
  const std::string rest = value.substr(value.find("//") + 2);
  if (rest.empty() || rest[0] == '/' || !isPlain(rest) || rest.find_first_of("?#@") != std::string::npos ||
      !transfer::parseUrl(value)) {
    return " must be an address such as https://updates.example.org, without a user, \"?\" or \"#\"";
  }
  configuration.server = value.substr(0, value.find_last_not_of('/') + 1);
  return "";
}

std::string setList(Configuration& configuration, const std::string& value) {
  if (!startsWith(value, kHttps) && !startsWith(value, kHttp)) {
    return " must begin with https:// or http://";
  }
  const std::string rest = value.substr(value.find("//") + 2);
  const std::size_t directory = rest.find('/');
  if (directory == std::string::npos || directory == 0 || rest.back() == '/' || !isPlain(rest) ||
      rest.find_first_of("?#@") != std::string::npos || !transfer::parseUrl(value)) {
    return " must be the address of a file such as https://updates.example.org/tv/releases.json, without a "
           "user, \"?\" or \"#\"";
  }
  configuration.list = value;
  return "";
}

// What becomes a part of an address.
template <std::string Configuration::*Place>
std::string setName(Configuration& configuration, const std::string& value) {
  const bool isName = !value.empty() && value.size() <= kLongestName && value[0] != '.' && isPlain(value) &&
                      value.find_first_of("/?#%\\") == std::string::npos;
  if (!isName) {
    return " must be a name of 1 to 128 characters without \"/\", \"?\", \"#\" and \"%\"";
  }
  configuration.*Place = value;
  return "";
}

// A server takes no longer value of an attribute.
std::string setSerial(Configuration& configuration, const std::string& value) {
  const bool isPrintable =
      std::all_of(value.begin(), value.end(), [](char byte) { return byte >= ' ' && byte <= '~'; });
  if (value.empty() || value.size() > kLongestName || !isPrintable) {
    return " must be 1 to 128 printable characters of ASCII";
  }
  configuration.serial = value;
  return "";
}

template <std::string Configuration::*Place>
std::string setPath(Configuration& configuration, const std::string& value) {
  if (value.empty() || value[0] != '/') {
    return " must be an absolute path";
  }
  configuration.*Place = value;
  return "";
}

std::string setAllowInsecure(Configuration& configuration, const std::string& value) {
  if (value != "yes" && value != "no") {
    return " must be yes or no";
  }
  configuration.allowInsecure = value == "yes";
  return "";
}

template <typename Enum>
struct Word {
  const char* name;
  Enum value;
};

constexpr Word<SourceType> kSources[] = {{"server", SourceType::Server}, {"list", SourceType::List}};
constexpr Word<TokenType> kTokenTypes[] = {
    {"none", TokenType::None}, {"target", TokenType::Target}, {"gateway", TokenType::Gateway}};
constexpr Word<ConsentPolicy> kConsents[] = {{"never", ConsentPolicy::Never},
                                             {"update", ConsentPolicy::Update},
                                             {"download", ConsentPolicy::Download}};
constexpr Word<ConfirmPolicy> kConfirms[] = {
    {"ask", ConfirmPolicy::Ask}, {"yes", ConfirmPolicy::Yes}, {"no", ConfirmPolicy::No}};

// "a, b or c"
template <typename Enum, std::size_t Count>
std::string setWord(const Word<Enum> (&words)[Count], Enum& place, const std::string& value) {
  std::string wrong = " must be ";
  for (std::size_t number = 0; number < Count; ++number) {
    if (value == words[number].name) {
      place = words[number].value;
      return "";
    }
    wrong += (number == 0 ? "" : number + 1 == Count ? " or " : ", ") + std::string(words[number].name);
  }
  return wrong;
}

std::string setNumber(std::int64_t& place, const std::string& value, std::int64_t least, std::int64_t most) {
  std::int64_t number = 0;
  const char* const end = value.data() + value.size();
  const auto parsed = std::from_chars(value.data(), end, number);
  if (parsed.ec != std::errc() || parsed.ptr != end || number < least || number > most) {
    return " must be a whole number from " + std::to_string(least) + " to " + std::to_string(most);
  }
  place = number;
  return "";
}

std::string setPoll(Configuration& configuration, const std::string& value) {
  std::int64_t seconds = configuration.poll.count();
  const std::string wrong = setNumber(seconds, value, 30, 86400);
  configuration.poll = std::chrono::seconds(seconds);
  return wrong;
}

template <std::int64_t Configuration::*Place>
std::string setSize(Configuration& configuration, const std::string& value, std::int64_t least, int shift) {
  std::int64_t number = configuration.*Place >> shift;
  const std::string wrong = setNumber(number, value, least, 1048576);
  configuration.*Place = number << shift;
  return wrong;
}

constexpr struct {
  const char* name;
  Set set;
} kSettings[] = {
    {"source", [](Configuration& c, const std::string& value) { return setWord(kSources, c.source, value); }},
    {"list", setList},
    {"server", setServer},
    {"tenant", setName<&Configuration::tenant>},
    {"controller", setName<&Configuration::controller>},
    {"serial", setSerial},
    {"token-type",
     [](Configuration& c, const std::string& value) { return setWord(kTokenTypes, c.tokenType, value); }},
    {"token-file", setPath<&Configuration::tokenFile>},
    {"ca-file", setPath<&Configuration::caFile>},
    {"client-certificate", setPath<&Configuration::clientCertificate>},
    {"client-key", setPath<&Configuration::clientKey>},
    {"allow-insecure", setAllowInsecure},
    {"poll", setPoll},
    {"consent",
     [](Configuration& c, const std::string& value) { return setWord(kConsents, c.consent, value); }},
    {"confirm",
     [](Configuration& c, const std::string& value) { return setWord(kConfirms, c.confirm, value); }},
    {"rate-limit",  // KiB a second
     [](Configuration& c, const std::string& value) {
       return setSize<&Configuration::bytesPerSecond>(c, value, 0, 10);
     }},
    {"max-size",  // MiB
     [](Configuration& c, const std::string& value) {
       return setSize<&Configuration::largestArtifact>(c, value, 1, 20);
     }},
    {"max-action",  // MiB
     [](Configuration& c, const std::string& value) {
       return setSize<&Configuration::largestAction>(c, value, 1, 20);
     }},
};

std::string set(Configuration& configuration, const base::SettingLine& line) {
  for (const auto& row : kSettings) {
    if (line.name == row.name) {
      const std::string wrong = row.set(configuration, line.value);
      return wrong.empty() ? "" : row.name + wrong;
    }
  }
  return "there is no setting " + base::printableText(line.name);
}

// Settings that name a file of certificates, or of the key for one.
constexpr const char* kFilesOfTls[] = {"ca-file", "client-certificate", "client-key"};

// Without them every connection fails, or is no longer that of this set.
std::string problemOfFile(const std::string& path) {
  const base::FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0) {
    return "cannot be read: " + base::errnoText(errno);
  }
  return S_ISREG(status.st_mode) ? "" : "is no regular file";
}

void requireFiles(const std::string& content, std::vector<ConfigurationProblem>& problems) {
  for (const base::SettingLine& line : base::settingLines(content)) {
    const bool isFile = std::any_of(std::begin(kFilesOfTls), std::end(kFilesOfTls),
                                    [&line](const char* name) { return line.name == name; });
    const std::string problem = isFile ? problemOfFile(line.value) : "";
    if (!problem.empty()) {
      problems.push_back({line.number, line.name + ": " + base::printableText(line.value) + " " + problem});
    }
  }
}

bool isOf(const Configuration& configuration, SourceType source) {
  return configuration.source == source;
}

// What is wrong with the settings together.
constexpr struct {
  bool (*isWrong)(const Configuration& configuration);
  const char* sentence;
} kTogether[] = {
    {[](const Configuration& c) { return isOf(c, SourceType::Server) && !c.list.empty(); },
     "list needs source = list"},
    {[](const Configuration& c) { return isOf(c, SourceType::Server) && c.server.empty(); },
     "it names no server"},
    {[](const Configuration& c) { return isOf(c, SourceType::List) && c.list.empty(); },
     "source = list needs a list: its address"},
    {[](const Configuration& c) { return isOf(c, SourceType::List) && !c.server.empty(); },
     "with source = list no server is asked: leave out server"},
    {[](const Configuration& c) { return startsWith(c.list, kHttp) && !c.allowInsecure; },
     "the connection to the list is not protected: use https://, or set allow-insecure = yes"},
    {[](const Configuration& c) { return isOf(c, SourceType::Server) && c.controller.empty(); },
     "it does not say who the set is: set controller"},
    {[](const Configuration& c) { return c.tokenType != TokenType::None && c.tokenFile.empty(); },
     "token-type needs a token-file"},
    {[](const Configuration& c) { return c.tokenType == TokenType::None && !c.tokenFile.empty(); },
     "token-file needs a token-type, target or gateway"},
    {[](const Configuration& c) { return c.clientCertificate.empty() != c.clientKey.empty(); },
     "client-certificate and client-key go together"},
    {[](const Configuration& c) { return startsWith(c.server, kHttp) && !c.allowInsecure; },
     "the connection to the server is not protected: use https://, or set allow-insecure = yes"},
};

}  // namespace

ConfigurationRead parseConfiguration(const std::string& content) {
  ConfigurationRead read;
  read.configuration.largestAction = 0;  // no value of its setting
  read.problems = base::takeSettings(
      content, [&read](const base::SettingLine& line) { return set(read.configuration, line); });
  if (read.configuration.largestAction == 0) {
    read.configuration.largestAction = kLargestArtifactsInAction * read.configuration.largestArtifact;
  }
  for (const auto& row : kTogether) {
    if (read.problems.empty() && row.isWrong(read.configuration)) {
      read.problems.push_back({0, row.sentence});
    }
  }
  if (read.configuration.source == SourceType::List) {
    const std::string& list = read.configuration.list;
    read.configuration.server = list.substr(0, list.find('/', list.find("//") + 2));
  }
  return read;
}

ConfigurationRead readConfiguration(const std::string& path) {
  std::string content;
  if (const int error = base::readFile(path, kLargestFile, content); error != 0) {
    ConfigurationRead read;
    read.problems.push_back(
        {0, error == EINVAL ? "it is no file" : "it cannot be read: " + base::errnoText(error)});
    return read;
  }
  ConfigurationRead read = parseConfiguration(content);
  if (read.problems.empty()) {
    requireFiles(content, read.problems);
  }
  return read;
}

}  // namespace fleet
