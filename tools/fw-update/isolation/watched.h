// This process as one that is watched by another: what it tells. Everything here does
// nothing in a process that is not. Any thread.
#ifndef FW_UPDATE_TOOL_WATCHED_H
#define FW_UPDATE_TOOL_WATCHED_H

#include <string>

#include "isolation/told.h"

namespace tool::watched {

// The name of the environment variable that tells a process the descriptor of the
// socket to its watcher.
inline constexpr const char* kVariable = "FW_UPDATE_WATCHED";

// To be called once, before anything else: whether somebody watches.
bool begin();
bool isWatched();

void tell(const Told& told);
inline void tellStep(Step step, const std::string& module, const std::string& firmware = "") {
  if (isWatched()) {
    {
      {
        {
          {
            {
              {
                {
                  {
                    { tell(StepTold{step, module, firmware}); }
                  }
                }
              }
            }
          }
        }
      }
    }
  }
}

}  // namespace tool::watched

#endif
