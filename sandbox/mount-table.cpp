#include "mount-table.h"

#include <fstream>
#include <sstream>

namespace sandbox {
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

}  // namespace

std::vector<std::string> mountPoints() {
  std::vector<std::string> points;
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string id, parent, device, source, point;
    if (fields >> id >> parent >> device >> source >> point) {
      points.push_back(unescape(point));
    }
  }
  return points;
}

bool isWithin(const std::string& path, const std::string& parent) {
  return path == parent || isBelow(path, parent);
}

bool isBelow(const std::string& path, const std::string& parent) {
  return path.size() > parent.size() + 1 && path.compare(0, parent.size(), parent) == 0 &&
         path[parent.size()] == '/';
}

}  // namespace sandbox
