// SPDX-License-Identifier: Apache-2.0
// An action as servers offer them, for tests.
#ifndef TEST_FW_FLEET_AN_ACTION_H
#define TEST_FW_FLEET_AN_ACTION_H

#include <initializer_list>
#include <string>

#include "action.h"

namespace anaction {

// Of version 2.0, with one artifact each.
inline fleet::ddi::Deployment deployment(std::initializer_list<const char*> components = {"tunerfw",
                                                                                          "panelfw"}) {
  fleet::ddi::Deployment offered;
  offered.id = "12";
  offered.download = offered.update = fleet::ddi::Handling::Forced;
  for (const char* const name : components) {
    offered.chunks.push_back(
        {"bApp", name, "2.0", {{std::string(name) + ".img", 4096, std::string(64, 'a'), "https://s/a"}}});
  }
  return offered;
}

inline fleet::Action action(fleet::Stage stage = fleet::Stage::Wanted) {
  fleet::Action offered = fleet::actionOf(deployment(), 1);
  for (fleet::Component& component : offered.components) {
    component.stage = stage;
  }
  return offered;
}

}  // namespace anaction

#endif
