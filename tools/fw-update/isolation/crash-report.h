// How a watched command ended that did not come to its result, in words. Pure.
#ifndef FW_UPDATE_TOOL_CRASH_REPORT_H
#define FW_UPDATE_TOOL_CRASH_REPORT_H

#include "isolation/child-story.h"
#include "outcomes.h"

namespace tool {

// status: as waitpid gives it.
Finding explainCrash(const ChildStory& story, int status);
Finding explainHang(const ChildStory& story, ChildStory::Seconds silence);

// "SIGSEGV"
std::string signalName(int signal);

}  // namespace tool

#endif
