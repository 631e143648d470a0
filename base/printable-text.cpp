// SPDX-License-Identifier: Apache-2.0
#include "printable-text.h"

#include <algorithm>
#include <cstdint>

namespace base {
namespace {

// One row per form of a UTF-8 sequence. The range of the second byte is what
// keeps out overlong forms, surrogates and values above U+10FFFF.
struct SequenceForm {
  std::uint8_t firstLow, firstHigh;
  std::uint8_t secondLow, secondHigh;
  std::size_t length;
};

constexpr SequenceForm kSequenceForms[] = {
    {0x00, 0x7F, 0x00, 0x00, 1}, {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3},
    {0xE1, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3},
    {0xF0, 0xF0, 0x90, 0xBF, 4}, {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
};

constexpr std::size_t kLongestSequence = 4;

struct Range {
  char32_t first, last;
};

// Valid characters that no terminal is to see.
constexpr Range kUnsafe[] = {
    {0x0000, 0x001F}, {0x007F, 0x009F},  // control characters
    {0x061C, 0x061C}, {0x200E, 0x200F},  // marks of direction
    {0x2028, 0x2029},                    // separators of lines and paragraphs
    {0x202A, 0x202E}, {0x2066, 0x2069},  // embeddings, overrides and isolates
};

std::uint8_t byteAt(std::string_view text, std::size_t index) {
  return static_cast<std::uint8_t>(text[index]);
}

// Null when no sequence begins with the byte.
const SequenceForm* formOf(std::uint8_t first) {
  for (const SequenceForm& form : kSequenceForms) {
    if (first >= form.firstLow && first <= form.firstHigh) {
      return &form;
    }
  }
  return nullptr;
}

// As far as the text goes.
bool follows(std::string_view text, const SequenceForm& form) {
  const std::size_t length = std::min(text.size(), form.length);
  if (length > 1 && (byteAt(text, 1) < form.secondLow || byteAt(text, 1) > form.secondHigh)) {
    return false;
  }
  for (std::size_t i = 2; i < length; ++i) {
    if ((byteAt(text, i) & 0xC0) != 0x80) {
      return false;
    }
  }
  return true;
}

// The number of bytes of the character at the start of a text; 0 when there is none.
std::size_t characterLength(std::string_view text) {
  const SequenceForm* const form = formOf(byteAt(text, 0));
  return form != nullptr && text.size() >= form->length && follows(text, *form) ? form->length : 0;
}

char32_t codePointOf(std::string_view character) {
  constexpr std::uint8_t kFirstByteMasks[] = {0x7F, 0x1F, 0x0F, 0x07};
  char32_t value = byteAt(character, 0) & kFirstByteMasks[character.size() - 1];
  for (std::size_t i = 1; i < character.size(); ++i) {
    value = value << 6U | (byteAt(character, i) & 0x3FU);
  }
  return value;
}

bool isSafe(std::string_view character) {
  const char32_t value = codePointOf(character);
  return std::none_of(std::begin(kUnsafe), std::end(kUnsafe),
                      [value](const Range& range) { return value >= range.first && value <= range.last; });
}

bool isSafeInLines(std::string_view character) {
  return character == "\n" || character == "\t" || isSafe(character);
}

void appendEscaped(std::string& out, std::string_view bytes) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    out += "\\x";
    out += kDigits[byteAt(bytes, i) >> 4U];
    out += kDigits[byteAt(bytes, i) & 0x0FU];
  }
}

// Most texts are nothing else; it need not be looked at one by one.
std::size_t lengthOfPlainAscii(std::string_view text) {
  const auto* const end = std::find_if(text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; });
  return static_cast<std::size_t>(end - text.begin());
}

template <typename Keeps>
std::string escaped(std::string_view text, Keeps keeps) {
  std::string out;
  out.reserve(text.size());
  for (;;) {
    const std::size_t plain = lengthOfPlainAscii(text);
    out += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) {
      break;
    }
    const std::size_t length = characterLength(text);
    const std::string_view character = text.substr(0, std::max<std::size_t>(length, 1));
    if (length > 0 && keeps(character)) {
      out += character;
    } else {
      appendEscaped(out, character);
    }
    text.remove_prefix(character.size());
  }
  return out;
}

}  // namespace

std::string printableText(std::string_view text) {
  return escaped(text, isSafe);
}

std::string printableLines(std::string_view text) {
  return escaped(text, isSafeInLines);
}

std::string validText(std::string_view text) {
  return escaped(text, [](std::string_view) { return true; });
}

std::size_t unfinishedLength(std::string_view text) {
  for (std::size_t length = 1; length < kLongestSequence && length <= text.size(); ++length) {
    const std::string_view end = text.substr(text.size() - length);
    const SequenceForm* const form = formOf(byteAt(end, 0));
    if (form != nullptr) {
      return form->length > length && follows(end, *form) ? length : 0;
    }
  }
  return 0;
}

}  // namespace base
