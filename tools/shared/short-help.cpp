// SPDX-License-Identifier: Apache-2.0
#include "short-help.h"

#include <algorithm>
#include <sstream>
#include <utility>

namespace tool {

std::string ShortHelp::make_group(std::string /*group*/, bool positional,
                                  std::vector<const CLI::Option*> options) const {
  std::string lines;
  for (const CLI::Option* option : options) {
    lines += make_option(option, positional);
  }
  return lines;
}

std::string ShortHelp::make_option_opts(const CLI::Option* option) const {
  return option->get_type_name().empty() ? "" : " " + option->get_type_name();
}

std::string ShortHelp::make_subcommands(const CLI::App* app, CLI::AppFormatMode mode) const {
  std::string text = Formatter::make_subcommands(app, mode);
  const std::string heading = "Subcommands:\n";
  if (const auto at = text.find(heading); at != std::string::npos) {
    text.erase(at, heading.size());
  }
  return text;
}

std::string ShortHelp::make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const {
  std::string text = Formatter::make_help(app, std::move(name), mode);
  text.erase(std::unique(text.begin(), text.end(), [](char a, char b) { return a == '\n' && b == '\n'; }),
             text.end());
  return text;
}

void ShortHelp::share(const std::string& names, const std::string& summary) {
  shared_[names.substr(0, names.find(','))] = {names, summary};
}

std::string ShortHelp::make_subcommand(const CLI::App* command) const {
  const auto found =
      command->get_parent()->get_parent() == nullptr ? shared_.find(command->get_name()) : shared_.end();
  if (found == shared_.end()) {
    return Formatter::make_subcommand(command);
  }
  std::ostringstream line;
  CLI::detail::format_help(line, found->second.names, found->second.summary, get_column_width());
  return line.str();
}

std::string ShortHelp::make_footer(const CLI::App* app) const {
  return app->get_footer();
}

}  // namespace tool
