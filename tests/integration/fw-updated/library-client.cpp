// SPDX-License-Identifier: Apache-2.0
// usage: library-client MODULE [WAIT]: an application that uses the library itself. With WAIT it
// goes on afterwards, until it is killed.
#include <fw-update-control.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
  const int result = FWUpdateContorl::getInstance()->fw_update_from_upgrade_app(argv[1], "");
  std::printf("%d\n", result);
  std::fflush(stdout);
  while (argc > 2) {
    pause();
  }
  return 0;
}
