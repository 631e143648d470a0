// SPDX-License-Identifier: Apache-2.0
#include "text-layout.h"

#include <json/writer.h>

#include <algorithm>
#include <cmath>
#include <sstream>

#include "printable-text.h"

namespace tool {
namespace {

std::string write(const Json::Value& document, const char* indentation) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = indentation;
  builder["precision"] = 3;
  builder["precisionType"] = "decimal";
  std::string text = Json::writeString(builder, withTexts(document, base::validText)) + "\n";
  constexpr char kDeleted = '\x7f';  // the one control character that the writer lets through
  for (std::size_t at = 0; (at = text.find(kDeleted, at)) != std::string::npos;) {
    text.replace(at, 1, "\\u007f");
  }
  return text;
}

}  // namespace

Json::Value withTexts(const Json::Value& document, std::string (*changed)(std::string_view)) {
  if (document.isString()) {
    return changed(document.asString());
  }
  if (document.isArray()) {
    Json::Value array(Json::arrayValue);
    for (const Json::Value& element : document) {
      array.append(withTexts(element, changed));
    }
    return array;
  }
  if (!document.isObject()) {
    return document;
  }
  Json::Value object(Json::objectValue);
  for (const std::string& member : document.getMemberNames()) {
    object[changed(member)] = withTexts(document[member], changed);
  }
  return object;
}

std::string indented(const Json::Value& document) {
  return write(document, "  ");
}

std::string onOneLine(const Json::Value& document) {
  return write(document, "");
}

std::string wrapped(const std::string& text, std::size_t width, std::size_t indent) {
  std::istringstream words(base::printableText(text));
  std::string result;
  std::size_t column = 0;
  for (std::string word; words >> word;) {
    if (column > indent && column + 1 + word.size() > width) {
      result += "\n" + std::string(indent, ' ');
      column = indent;
    } else if (column > 0) {
      result += ' ';
      ++column;
    } else {
      column = indent;  // the caller has written what stands before
    }
    result += word;
    column += word.size();
  }
  return result;
}

std::string table(const std::vector<std::vector<std::string>>& rows, std::size_t width) {
  std::vector<std::vector<std::string>> shown = rows;
  std::vector<std::size_t> widths;
  for (auto& row : shown) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) {
      row[i] = base::printableText(row[i]);
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  std::string text;
  for (const auto& row : shown) {
    std::string line;
    for (std::size_t i = 0; i + 1 < row.size(); ++i) {
      line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
    }
    line += wrapped(row.back(), width, line.size());
    text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  }
  return text;
}

double rounded(double seconds) {
  return std::round(seconds * 1000) / 1000;
}

}  // namespace tool
