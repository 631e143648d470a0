#include "interruption.h"

#include <csignal>
#include <initializer_list>

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
    sigaction(signal, nullptr, &action);
    if (action.sa_handler == SIG_IGN) {
      continue;  // nohup stays nohup
    }
    action.sa_handler = remember;
    action.sa_flags = 0;  // without SA_RESTART: a wait ends
    sigaction(signal, &action, nullptr);
  }
}

void endIfInterrupted() {
  if (came != 0) {
    throw tool::Interrupted(came);
  }
}

}  // namespace fwpack
