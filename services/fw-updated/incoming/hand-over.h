// SPDX-License-Identifier: Apache-2.0
// What clients hand over to be updated from: of which kind, by which descriptors, and for which
// component. Plain values and functions.
#ifndef FW_UPDATED_HAND_OVER_H
#define FW_UPDATED_HAND_OVER_H

#include <cstdint>
#include <map>
#include <string>

#include "file-descriptor.h"

namespace updated {

enum class HandOverKind { Package, Usb, Image };

struct HandOver {
  HandOverKind kind = HandOverKind::Package;
  std::map<std::string, base::FileDescriptor> files;  // by what each is, as the kind says
  std::string package;                                // the component's package identifier

  std::string firmware() const;
};

// The parts of hand-overs.
inline constexpr char kPackagePart[] = "package";
inline constexpr char kImagePart[] = "image";
inline constexpr char kInformationPart[] = "info.json";
inline constexpr char kSignaturePart[] = "signature";

// How large a part may be, in bytes; 0: no kind has such a part.
std::int64_t largestOf(const std::string& part);

// Of the kind that is named, with these parts and no others. Throws sdbus::Error.
HandOver handOverOf(const std::string& kind, std::map<std::string, base::FileDescriptor> files);

}  // namespace updated

#endif
