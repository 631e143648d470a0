// SPDX-License-Identifier: Apache-2.0
#include "short-help.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

TEST(ShortHelp, HasNoHeadingsAndNoEmptyLines) {
  CLI::App app("Does something.", "program");
  app.formatter(std::make_shared<tool::ShortHelp>(12));
  int number = 0;
  app.add_option("--number", number, "how many")->type_name("N");
  app.add_flag("--quiet", "says nothing");
  app.footer("The last line.");

  EXPECT_EQ(app.help(),
            "Does something.\n"
            "Usage: program [OPTIONS]\n"
            "  -h,--help Print this help message and exit\n"
            "  --number N\n"
            "            how many\n"
            "  --quiet   says nothing\n"
            "The last line.");
}

TEST(ShortHelp, HasNoHeadingOfSubcommandsEither) {
  CLI::App app("Does something.", "program");
  app.formatter(std::make_shared<tool::ShortHelp>(12));
  app.add_subcommand("work", "Works");

  EXPECT_EQ(app.help().find("Subcommands"), std::string::npos);
  EXPECT_NE(app.help().find("  work "), std::string::npos);
}

}  // namespace
