#include "log/log-text.h"

#include <cstddef>
#include <cstdint>

namespace fwplatform {
namespace {

// One row per form of a UTF-8 sequence. The range of the second byte is what
// keeps out overlong forms, surrogates and values above U+10FFFF.
struct SequenceForm {
  std::uint8_t firstLow, firstHigh;
  std::uint8_t secondLow, secondHigh;
  std::size_t length;
};

constexpr SequenceForm kSequenceForms[] = {
    // C2 80 to C2 9F are left out: the control characters U+0080 to U+009F.
    {0xC2, 0xC2, 0xA0, 0xBF, 2}, {0xC3, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3},
    {0xE1, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3},
    {0xF0, 0xF0, 0x90, 0xBF, 4}, {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
};

std::uint8_t ByteAt(std::string_view text, std::size_t index) {
  return static_cast<std::uint8_t>(text[index]);
}

bool HoldsSequence(std::string_view text, const SequenceForm& form) {
  if (text.size() < form.length) {
    return false;
  }
  if (ByteAt(text, 1) < form.secondLow || ByteAt(text, 1) > form.secondHigh) {
    return false;
  }
  for (std::size_t i = 2; i < form.length; ++i) {
    if ((ByteAt(text, i) & 0xC0) != 0x80) {
      return false;
    }
  }
  return true;
}

// The number of bytes at the start of a text that may be shown as they are: one
// character, or 0.
std::size_t PrintableLength(std::string_view text) {
  const std::uint8_t first = ByteAt(text, 0);
  if (first < 0x80) {
    return first >= 0x20 && first != 0x7F ? 1 : 0;
  }
  for (const SequenceForm& form : kSequenceForms) {
    if (first >= form.firstLow && first <= form.firstHigh) {
      return HoldsSequence(text, form) ? form.length : 0;
    }
  }
  return 0;
}

void AppendEscaped(std::string& out, std::uint8_t byte) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  out += "\\x";
  out += kDigits[byte >> 4];
  out += kDigits[byte & 0x0F];
}

}  // namespace

std::string PrintableText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = PrintableLength(text);
    if (length == 0) {
      AppendEscaped(out, ByteAt(text, 0));
      text.remove_prefix(1);
      continue;
    }
    out.append(text.substr(0, length));
    text.remove_prefix(length);
  }
  return out;
}

}  // namespace fwplatform
