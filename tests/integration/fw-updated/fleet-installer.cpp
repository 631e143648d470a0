// SPDX-License-Identifier: Apache-2.0
// usage: fleet-installer versions | version COMPONENT | ended COMPONENT | follow COMPONENT MILLISECONDS
// [AFTER] |
//        ask COMPONENT package|usb|image NAME=FILE...
//   One operation of the fleet's way to the update service, on the bus that the environment names.
#include <fcntl.h>

#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "file-descriptor.h"
#include "update-service.h"

namespace {

using Words = std::vector<std::string>;

const char* nameOf(const fleet::Followed& followed) {
  if (!followed.end) {
    return "at work";
  }
  switch (*followed.end) {
    case fleet::JobEnd::Updated:
      return "updated";
    case fleet::JobEnd::NotNeeded:
      return "not needed";
    case fleet::JobEnd::Failed:
      return "failed";
    case fleet::JobEnd::Unknown:
      break;
  }
  return "unknown";
}

void showVersions(fleet::UpdateService& service, const Words&) {
  for (const auto& [component, version] : service.versions()) {
    std::cout << component << " " << version << "\n";
  }
}

void showVersion(fleet::UpdateService& service, const Words& words) {
  std::cout << service.versionOf(words.at(1)).value_or("none") << "\n";
}

void ask(fleet::UpdateService& service, const Words& words) {
  static const std::map<std::string, fleet::Kind> kKinds = {
      {"package", fleet::Kind::Package}, {"usb", fleet::Kind::Usb}, {"image", fleet::Kind::Image}};
  std::vector<base::FileDescriptor> opened;
  std::vector<fleet::InstallFile> files;
  for (std::size_t i = 3; i < words.size(); ++i) {
    const std::size_t end = words[i].find('=');
    opened.emplace_back(open(words[i].substr(end + 1).c_str(), O_RDONLY | O_CLOEXEC));
    files.push_back({words[i].substr(0, end), opened.back().get()});
  }
  const fleet::HandedOver answer = service.ask(words.at(1), kKinds.at(words.at(2)), files);
  std::cout << (answer.sentence.empty() ? "taken" : answer.sentence + "\n" + answer.remedy) << "\n";
}

void showLastEnded(fleet::UpdateService& service, const Words& words) {
  std::cout << service.lastEnded(words.at(1)) << "\n";
}

void follow(fleet::UpdateService& service, const Words& words) {
  const fleet::Followed followed = service.follow(words.at(1), words.size() > 3 ? std::stoull(words[3]) : 0,
                                                  std::chrono::milliseconds(std::stol(words.at(2))));
  std::cout << nameOf(followed) << "\n" << followed.sentence << "\n" << followed.remedy << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  static const std::map<std::string, void (*)(fleet::UpdateService&, const Words&)> kOperations = {
      {"versions", showVersions},
      {"version", showVersion},
      {"ask", ask},
      {"ended", showLastEnded},
      {"follow", follow}};
  const Words words(argv + 1, argv + argc);
  try {
    fleet::UpdateService service;
    kOperations.at(words.at(0))(service, words);
  } catch (const fleet::InstallerAway& away) {
    std::cout << "away: " << away.what() << "\n";
    return 1;
  }
  return 0;
}
