// SPDX-License-Identifier: Apache-2.0
// Fuzz target: the note beside a part of an image, which says how a download goes on. A
// header of the next request is made of it.
#include <algorithm>
#include <string>

#include "fuzz-target.h"
#include "part-note.h"

namespace {

using fwdownload::noteText;
using fwdownload::parseNote;
using fwdownload::PartNote;

bool isPrintable(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char byte) { return byte >= 32 && byte < 127; });
}

void holdAgainstTheRules(const PartNote& note) {
  fuzz::require(!note.origin.validator.empty() && isPrintable(note.origin.validator),
                "a mark is printable text");
  fuzz::require(note.synced >= 0 && note.synced <= note.origin.total && note.origin.total > 0,
                "what is on the disk is a part of the whole");
}

void holdAgainstWriting(const PartNote& note) {
  const auto again = parseNote(noteText(note));
  fuzz::require(again.has_value(), "a note that was taken is taken when it is written anew");
  // Bytes that are no UTF-8 are replaced: such an address is compared and never matches.
  fuzz::require(again->origin.validator == note.origin.validator &&
                    again->origin.total == note.origin.total && again->synced == note.synced,
                "and says the same");
  fuzz::require(!isPrintable(note.origin.url) || again->origin.url == note.origin.url,
                "and is of the same address");
}

}  // namespace

namespace fuzz {

void prepare(const std::vector<std::string>&) {}

bool accepts(std::string_view input) {
  const auto note = parseNote(std::string(input));
  if (!note) {
    return false;
  }
  holdAgainstTheRules(*note);
  holdAgainstWriting(*note);
  return true;
}

}  // namespace fuzz
