// A timeline as one HTML file that needs nothing else: the library that draws it
// is packed into it.
#ifndef FW_TRACE_EXPORT_HTML_H
#define FW_TRACE_EXPORT_HTML_H

#include <string>

#include "timeline.h"

namespace tracetool {

std::string exportHtml(const Timeline& timeline);

}  // namespace tracetool

#endif
