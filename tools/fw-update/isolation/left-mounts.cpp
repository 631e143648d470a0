#include "isolation/left-mounts.h"

#include <fstream>
#include <sstream>

namespace tool {
namespace {

constexpr const char* kPackages = "/opt/usr/apps/appbinarymanager/emps/";

}  // namespace

std::set<std::string> mountedPackages() {
  std::set<std::string> directories;
  std::ifstream mounts("/proc/self/mounts");
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream words(line);
    std::string source, target;
    words >> source >> target;
    if (target.rfind(kPackages, 0) == 0) {
      directories.insert(target);
    }
  }
  return directories;
}

std::vector<std::string> leftMounts(const std::vector<std::string>& told,
                                    const std::set<std::string>& before) {
  const std::set<std::string> now = mountedPackages();
  std::set<std::string> left;
  for (const std::string& directory : told) {
    if (now.count(directory) != 0 && before.count(directory) == 0) {
      left.insert(directory);
    }
  }
  return {left.begin(), left.end()};
}

}  // namespace tool
