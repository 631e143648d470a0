// SPDX-License-Identifier: Apache-2.0
#include "module-name.h"

#include <algorithm>
#include <cctype>

#include "module-names.h"

namespace fwmodule {
namespace {

constexpr std::size_t kLongest = 100;  // with "empfw" well below the 127 characters of a text
constexpr char kExtension[] = "EXT-";

bool startsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

void requireUsable(const std::string& library) {
  if (endsWith(library, ".so")) {
    throw BadName("leave out \".so\": " + library.substr(0, library.size() - 3));
  }
  if (library.empty() || std::isalpha(static_cast<unsigned char>(library[0])) == 0) {
    throw BadName("a module's name begins with a letter, such as libdoor");
  }
  const bool plain = std::all_of(library.begin(), library.end(),
                                 [](char c) { return fwnames::isLetterOrDigit(c) || c == '-' || c == '_'; });
  if (!plain) {
    throw BadName("a module's name has only letters, digits, \"-\" and \"_\", such as libdoor");
  }
  if (library.size() > kLongest) {
    throw BadName("a module's name has at most " + std::to_string(kLongest) + " characters");
  }
}

// What follows "lib" and "EXT-".
std::string componentOf(const std::string& library, bool extension) {
  const std::string name = startsWith(library, "lib") ? library.substr(3) : library;
  if (!extension) {
    return name;
  }
  if (!startsWith(name, kExtension)) {
    throw BadName(
        "\"EXT-\", in any case and place, makes a module run a procedure of its own; if that is meant, "
        "write it in capitals at the beginning, such as libEXT-door");
  }
  return name.substr(sizeof kExtension - 1);
}

std::string identifierOf(const std::string& component, const std::string& firmware) {
  const std::string usual = component + "empfw";
  return fwnames::firmwareNameOf(usual) == firmware ? usual
                                                    : "emp" + firmware;  // the component has an "emp" itself
}

}  // namespace

ModuleName parseModuleName(const std::string& library) {
  requireUsable(library);
  ModuleName name;
  name.library = library;
  name.extension = fwnames::isExtensionModule(library);
  std::string component = componentOf(library, name.extension);
  component.erase(
      std::remove_if(component.begin(), component.end(), [](char c) { return !fwnames::isLetterOrDigit(c); }),
      component.end());
  if (component.empty()) {
    throw BadName("after \"lib\" and \"EXT-\" the name must go on with the component's, such as libdoor");
  }
  name.firmware = component + "fw";
  name.identifier = identifierOf(component, name.firmware);
  return name;
}

}  // namespace fwmodule
