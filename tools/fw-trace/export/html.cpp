// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <random>
#include <string_view>

#include "export/format.h"
#include "printable-text.h"
#include "text-layout.h"

extern "C" {
// timeline-page.S
extern const char fwTracePage[];
extern const char fwTracePageEnd[];
extern const char fwTraceD3[];
extern const char fwTraceD3End[];
}

namespace tracetool {
namespace {

std::string_view between(const char* begin, const char* end) {
  return {begin, static_cast<std::size_t>(end - begin)};
}

// What the page's own scripts have and no message can: nobody knew it when the messages
// were written.
std::string newNonce() {
  std::random_device random;
  char text[33];
  std::snprintf(text, sizeof text, "%08x%08x%08x%08x", random(), random(), random(), random());
  return text;
}

// JSON that no message can end the script with.
std::string scriptSafe(const std::string& json) {
  std::string safe;
  safe.reserve(json.size());
  for (const char c : json) {
    if (c == '<') {
      safe += "\\u003c";
    } else {
      safe += c;
    }
  }
  return safe;
}

}  // namespace

std::string exportHtml(const Timeline& timeline) {
  const std::string nonce = newNonce();
  // In the order of the page.
  const struct {
    std::string_view mark;
    std::string text;
  } parts[] = {
      {"@NONCE@", nonce},  // the policy's for scripts
      {"@NONCE@", nonce},  // and for styles
      {"@NONCE@", nonce},  // the style
      {"@NONCE@", nonce},  // D3
      {"@D3@", std::string(between(fwTraceD3, fwTraceD3End))},
      {"@DATA@", scriptSafe(tool::onOneLine(tool::withTexts(jsonOf(timeline), base::printableText)))},
      {"@NONCE@", nonce},  // what draws
  };
  std::string_view page = between(fwTracePage, fwTracePageEnd);
  std::string document;
  for (const auto& part : parts) {
    const std::size_t at = page.find(part.mark);
    document.append(page.substr(0, at)).append(part.text);
    page.remove_prefix(at + part.mark.size());
  }
  return document.append(page);
}

}  // namespace tracetool
