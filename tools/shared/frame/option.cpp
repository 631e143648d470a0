// SPDX-License-Identifier: Apache-2.0
#include "frame/option.h"

#include <sstream>

namespace frame {

std::vector<std::string> OptionInfo::names() const {
  const std::string declared = declaration;
  if (declared[0] != '-') {
    return {};
  }
  std::vector<std::string> found;
  std::istringstream text(declared.substr(0, declared.find(' ')));
  for (std::string name; std::getline(text, name, ',');) {
    found.push_back(name);
  }
  return found;
}

std::string OptionInfo::valueName() const {
  const std::string declared = declaration;
  if (declared[0] != '-') {
    return declared;
  }
  const auto blank = declared.find(' ');
  return blank == std::string::npos ? "" : declared.substr(blank + 1);
}

std::string OptionInfo::text() const {
  std::string said = summary;
  if (words == nullptr || (!said.empty() && said.back() != ' ')) {
    return said;
  }
  const std::vector<std::string> all = words();
  for (std::size_t i = 0; i < all.size(); ++i) {
    const bool last = i + 1 == all.size();
    said += (i == 0 ? "" : last ? " or " : ", ") + all[i];
  }
  return said;
}

}  // namespace frame
