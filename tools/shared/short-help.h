// SPDX-License-Identifier: Apache-2.0
// Help texts that fit on one screen: no headings, no blank lines. For the parser of a
// command line, which owns it.
#ifndef TOOLS_SHARED_SHORT_HELP_H
#define TOOLS_SHARED_SHORT_HELP_H

#include <CLI/CLI.hpp>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace tool {

class ShortHelp : public CLI::Formatter {
 public:
  // Where the descriptions begin.
  explicit ShortHelp(std::size_t column) { column_width(column); }

  // The line of the first of these commands is one of all: "info, verify".
  void share(const std::string& names, const std::string& summary);

  std::string make_group(std::string group, bool positional,
                         std::vector<const CLI::Option*> options) const override;
  std::string make_option_opts(const CLI::Option* option) const override;
  std::string make_subcommands(const CLI::App* app, CLI::AppFormatMode mode) const override;
  std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override;
  std::string make_subcommand(const CLI::App* command) const override;
  std::string make_footer(const CLI::App* app) const override;

 private:
  struct Line {
    std::string names;
    std::string summary;
  };
  std::map<std::string, Line> shared_;  // by the first name
};

}  // namespace tool

#endif
