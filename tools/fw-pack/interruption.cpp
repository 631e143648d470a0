// SPDX-License-Identifier: Apache-2.0
#include "interruption.h"

#include <csignal>
#include <initializer_list>

#include "signal-guards.h"

namespace fwpack {
namespace {

volatile std::sig_atomic_t came = 0;

void remember(int signal) {
  came = signal;
}

}  // namespace

void catchInterruptions() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    action.sa_handler = remember;  // without SA_RESTART: a wait ends
    if (!base::isIgnored(signal)) {
      sigaction(signal, &action, nullptr);
    }
  }
}

void endIfInterrupted() {
  if (came != 0) {
    throw tool::Interrupted(came);
  }
}

}  // namespace fwpack
