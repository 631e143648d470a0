// SPDX-License-Identifier: Apache-2.0
// The signature of a plain firmware image and its info.json: a file of its own beside them,
// laid out as in docs/formats/image-signature.md. It states what both are, and ends with the
// trailer that every package has. Any thread.
#ifndef FW_PLATFORM_IMAGE_SIGNATURE_H
#define FW_PLATFORM_IMAGE_SIGNATURE_H

#include <array>
#include <cstddef>

#include "package-signature.h"

namespace fwpackage {

inline constexpr char kImageSignatureSuffix[] = ".sig";  // behind the image's whole name

using Sha256 = std::array<unsigned char, 32>;
// Of the image, then of info.json.
using ImageStatement = std::array<unsigned char, 2 * std::tuple_size<Sha256>::value>;

inline constexpr std::size_t kImageSignatureSize = std::tuple_size<ImageStatement>::value + kTrailerSize;

// Of all bytes of a file; where its descriptor stands is neither used nor changed. Throws
// std::runtime_error when it cannot be read.
Sha256 sha256Of(int file);

ImageStatement statementOf(const Sha256& image, const Sha256& information);

// Whether the file signature is one of this image and this info.json, as expected. All are
// descriptors of regular files. Throws as PackageCheck does.
SignatureReport checkImageSignature(int signature, int image, int information, const Trust& trust,
                                    const Expectation& expected);

}  // namespace fwpackage

#endif
