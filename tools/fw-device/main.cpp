// SPDX-License-Identifier: Apache-2.0
// fw-device: makes devices in directories, and runs programs as if on them.
#include "frame/program.h"
#include "initialise.h"
#include "options.h"
#include "outcome.h"
#include "run.h"

namespace {

using fwdevice::Options;
using fwdevice::Outcome;
using Option = frame::Option<Options>;

constexpr Option kDirectory[] = {
    Option("DIR", &Options::directory, "The device's directory").required(),
};

constexpr Option kInit[] = {
    {"--fresh", &Options::fresh, "Also forget the components' state, locks and lists"},
    {"--root ROOT", &Options::root, "Stand on this root file system (/: the host's)"},
    {"--build BUILD", &Options::build, "Take programs and modules from this build"},
};

constexpr Option kKeep[] = {
    {"--keep PATH", &Options::keepVisible, "Show this path of the host too, to read"},
    {"--writable PATH", &Options::keepWritable, "Show it, and let writes to it reach the host"},
};

std::string initRemark() {
  return "Again on the same DIR it renews modules and images; the state stays.\n";
}

std::string runRemark() {
  return "The programs of this build come first in the command's PATH.\n";
}

std::string shellRemark() {
  return "It is $SHELL, else /bin/sh.\n";
}

constexpr frame::Command<Options> kCommands[] = {
    {{"init", "Make a device with example modules and images", "fw-device init /tmp/tv", initRemark},
     {kDirectory, kInit},
     fwdevice::initialise},
    {{"run", "Run one command on a device", "fw-device run /tmp/tv -- fw-update list", runRemark},
     {kDirectory, kKeep},
     fwdevice::run,
     nullptr,
     &Options::program},
    {{"shell", "Open a shell on a device", "fw-device shell /tmp/tv", shellRemark},
     {kDirectory, kKeep},
     fwdevice::shell},
};

constexpr frame::Program<Options> kProgram = {
    {"fw-device", "Makes devices in directories, and runs programs as if on them.",
     "Example: fw-device init /tmp/tv && fw-device run /tmp/tv -- fw-update list", fwdevice::kOutcomes,
     Outcome::Usage, Outcome::Failed, 0, "run and shell give the command's own"},
    {},
    kCommands,
};

}  // namespace

int main(int argc, char** argv) {
  return frame::perform(kProgram, argc, argv);
}
