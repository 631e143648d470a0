// SPDX-License-Identifier: Apache-2.0
// Why the service refuses what it was asked: errors on the bus, with one sentence each.
#ifndef FW_UPDATED_REFUSAL_H
#define FW_UPDATED_REFUSAL_H

#include <sdbus-c++/Error.h>

#include <string>

namespace updated {

inline constexpr char kInvalidArgument[] = "org.fwupdate.Update1.Error.InvalidArgument";
inline constexpr char kNotPermitted[] = "org.fwupdate.Update1.Error.NotPermitted";
inline constexpr char kTooMany[] = "org.fwupdate.Update1.Error.TooMany";
inline constexpr char kTooLate[] = "org.fwupdate.Update1.Error.TooLate";
inline constexpr char kNotAsked[] = "org.fwupdate.Update1.Error.NotAsked";
inline constexpr char kRefused[] = "org.fwupdate.Update1.Error.Refused";
inline constexpr char kFailed[] = "org.fwupdate.Update1.Error.Failed";

inline sdbus::Error refusal(const char* name, const std::string& sentence) {
  return sdbus::Error(name, sentence);
}

}  // namespace updated

#endif
