#include "export-html.h"

#include <string_view>

#include "export-json.h"
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

// JSON that no message can end the script with.
std::string scriptSafe(const std::string& json) {
  std::string safe;
  safe.reserve(json.size());
  for (const char c : json) {
    if (c == '<')
      safe += "\\u003c";
    else
      safe += c;
  }
  return safe;
}

}  // namespace

std::string exportHtml(const Timeline& timeline) {
  const struct {
    std::string_view mark;
    std::string text;
  } parts[] = {
      {"@D3@", std::string(between(fwTraceD3, fwTraceD3End))},
      {"@DATA@", scriptSafe(tool::onOneLine(jsonOf(timeline)))},
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
