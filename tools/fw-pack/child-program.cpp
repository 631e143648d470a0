// SPDX-License-Identifier: Apache-2.0
#include "child-program.h"

#include <unistd.h>

#include <cerrno>

#include "exit-code.h"
#include "interruption.h"
#include "live-line.h"
#include "program-start.h"
#include "system-error.h"

namespace fwpack {

bool runProgram(const std::vector<std::string>& arguments, const char* package,
                const std::function<void(std::string_view bytes)>& output) {
  tool::LiveLine line(STDERR_FILENO);
  line.show(arguments[0] + " is at work");
  int status = 0;
  const int error = base::ProgramStart()
                        .withNothingAt(STDIN_FILENO)
                        .withNothingAt(STDERR_FILENO)
                        .runToEnd(
                            arguments, base::environmentWithout("SOURCE_DATE_EPOCH"),  // see squashfsCommand
                            [&](std::string_view bytes) {
                              output(bytes);
                              endIfInterrupted();
                            },
                            status);
  if (error != 0) {
    throw Failure(ExitCode::Failed, arguments[0] + " cannot be run: " + base::errnoText(error) +
                                        (error == ENOENT ? std::string("; install ") + package : ""));
  }
  return status == 0;
}

}  // namespace fwpack
