// SPDX-License-Identifier: Apache-2.0
// The end of a run, of the library's use and of the process.
#include <cstdlib>

#include "trials.h"

namespace fwmodule {

void tryAllDone(const Stage& stage) {
  Transcript& transcript = stage.transcript;
  if (!stage.module.has(EntryPoint::AllUpdateDone)) {
    transcript.notChecked(Check::AllDone, "it does not export allUpdateDone");
    return;
  }
  stage.module.setContext(CALLER_QUERY, "", "before the end of a run");
  for (const char* const situation : {"at the end of a run", "at the end of a second run"}) {
    const int result = stage.module.allUpdateDone(situation);
    transcript.judge(result == 0, Check::AllDone, EntryPoint::AllUpdateDone,
                     answered(EntryPoint::AllUpdateDone, result) + " " + situation + ".");
  }
}

void tryUnloading(const Stage& stage) {
  stage.module.setContext(CALLER_QUERY, "", "before unloading");
  stage.module.getActiveVersion("before unloading");
  stage.module.unload();
}

// With the module still loaded, as most processes end.
void tryProcessEnd(const Stage& stage) {
  stage.module.setContext(CALLER_QUERY, "", "before the end of the process");
  stage.module.getActiveVersion("before the end of the process");
  stage.transcript.enter(EntryPoint::ProcessEnd, "with the module loaded");
  std::exit(0);
}

}  // namespace fwmodule
