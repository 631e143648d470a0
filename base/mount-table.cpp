// SPDX-License-Identifier: Apache-2.0
#include "mount-table.h"

#include <fstream>
#include <sstream>
#include <utility>

namespace base {
namespace {

bool isOctalEscape(const std::string& text, std::size_t at) {
  const auto digits = text.substr(at + 1, 3);
  return text[at] == '\\' && digits.size() == 3 && digits.find_first_not_of("01234567") == std::string::npos;
}

// The kernel writes blanks, tabs, newlines and backslashes as \ooo.
std::string unescape(const std::string& text) {
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (!isOctalEscape(text, at)) {
      result += text[at];
      continue;
    }
    result += static_cast<char>(std::stoi(text.substr(at + 1, 3), nullptr, 8));
    at += 3;
  }
  return result;
}

// A line that has no place is none.
bool parse(const std::string& line, Mount& mount) {
  std::istringstream words(line);
  if (!(words >> mount.number >> mount.parent >> mount.fileSystem >> mount.root >> mount.place)) {
    return false;
  }
  words >> mount.options;
  for (std::string word; words >> word && word != "-";) {  // how it is shared, in any number of words
  }
  words >> mount.type >> mount.source >> mount.fileSystemOptions;
  for (std::string* const path : {&mount.root, &mount.place, &mount.source}) {
    *path = unescape(*path);
  }
  return true;
}

}  // namespace

std::vector<Mount> mounts(const std::string& process) {
  std::vector<Mount> found;
  std::ifstream table(process + "/mountinfo");
  for (std::string line; std::getline(table, line);) {
    if (Mount mount; parse(line, mount)) {
      found.push_back(std::move(mount));
    }
  }
  return found;
}

std::vector<std::string> mountPoints() {
  std::vector<std::string> places;
  for (Mount& mount : mounts()) {
    places.push_back(std::move(mount.place));
  }
  return places;
}

bool hasOption(const std::string& options, const std::string& option) {
  return ("," + options + ",").find("," + option + ",") != std::string::npos;
}

bool isWithin(const std::string& path, const std::string& parent) {
  return path == parent || isBelow(path, parent);
}

bool isBelow(const std::string& path, const std::string& parent) {
  return path.size() > parent.size() + 1 && path.compare(0, parent.size(), parent) == 0 &&
         path[parent.size()] == '/';
}

}  // namespace base
