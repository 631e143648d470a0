// SPDX-License-Identifier: Apache-2.0
#include "key-lists.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "whole-file.h"

namespace fwpackage {
namespace {

constexpr std::string_view kBlanks = " \t\r";

// Without the comment and the blanks around.
std::string identifierIn(std::string_view line) {
  line = line.substr(0, line.find('#'));
  const std::size_t first = line.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return "";
  }
  std::string text(line.substr(first, line.find_last_not_of(kBlanks) - first + 1));
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c; });
  return text;
}

bool isIdentifier(const std::string& text) {
  return text.size() == 2 * KeyId().size() && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// Every line is looked at: a wrong one may have been meant for this key.
Listed findInText(std::string_view text, const std::string& wanted) {
  Listed listed = Listed::No;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string identifier = identifierIn(text.substr(0, end));
    if (!identifier.empty() && !isIdentifier(identifier)) {
      return Listed::Unusable;
    }
    if (identifier == wanted) {
      listed = Listed::Yes;
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return listed;
}

// A link that leads nowhere is no missing list.
bool isMissing(const std::string& path) {
  struct stat status = {};
  return ::lstat(path.c_str(), &status) != 0 && errno == ENOENT;
}

}  // namespace

Listed findInList(const std::string& path, const KeyId& keyId) {
  std::string text;
  const int error = base::readFile(path, kLargestKeyFile, text);
  if (error == 0) {
    return findInText(text, toHex(keyId.data(), keyId.size()));
  }
  return error == ENOENT && isMissing(path) ? Listed::No : Listed::Unusable;
}

}  // namespace fwpackage
