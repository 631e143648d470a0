// SPDX-License-Identifier: Apache-2.0
#include "update-all/update-plan.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>

#include "device-paths.h"
#include "fw-update-symbol.h"
#include "isolation/supervised.h"
#include "library-messages.h"
#include "library/library-log.h"
#include "library/log-meanings.h"
#include "mount-table.h"

namespace tool {
namespace {

bool isMounted(const std::string& directory) {
  const std::vector<std::string> places = base::mountPoints();
  return std::find(places.begin(), places.end(), directory) != places.end();
}

// Puts an extension package's mount point back to how it was.
class MountTrace {
 public:
  MountTrace(FWUpdateSymbol& module, bool restore)
      : record_(module),
        directory_(fwpaths::kPackageMounts + module.getEMPName()),
        active_(restore && !module.getEMPName().empty()),
        wasThere_(std::filesystem::exists(directory_)),
        wasMounted_(isMounted(directory_)) {}
  ~MountTrace() {
    if (!active_ || wasMounted_ || !isMounted(directory_)) {
      return;
    }
    record_.unmountEMPImage();
    if (!wasThere_) {
      rmdir(directory_.c_str());
    }
  }
  MountTrace(const MountTrace&) = delete;
  MountTrace& operator=(const MountTrace&) = delete;

 private:
  FWUpdateSymbol& record_;
  const std::string directory_;
  const bool active_;
  const bool wasThere_;
  const bool wasMounted_;
};

Finding reasonOf(const Library& library, const std::string& module, const LogMessages& messages) {
  if (const auto problem = bindingProblem(library, module)) {
    return *problem;
  }
  if (kindOf(module) == std::string("EXT")) {
    return {Outcome::NothingToDo, "It runs its own procedure, and only on request.", ""};
  }
  if (const auto finding = strongestMeaning(messages, module)) {
    return *finding;
  }
  return {Outcome::ModuleFailed, module + " answered neither yes nor no.", ""};
}

// A record of its own: the registry shows neither marks nor times.
PlannedModule ask(const Library& library, const FWUpdateItem& item, bool leaveNoTrace) {
  PlannedModule planned{item.file_name, item.fw_name, item.version, false, 0, {}};
  FWUpdateSymbol record(planned.library);
  supervised::tellStep(Step::Load, planned.library, planned.firmware);
  record.loadSymbol(planned.library);
  const std::size_t mark = LibraryLog::instance().mark();
  {
    const MountTrace trace(record, leaveNoTrace);
    char noData[] = "";
    record.isNeedUpdate(CALLER_QUERY, noData);
  }
  planned.due = record.getNeedUpdate();
  if (planned.due) {
    planned.expectedSeconds = record.getExpectedUpdateTime();
  } else {
    planned.reason = reasonOf(library, planned.library, LibraryLog::instance().since(mark));
  }
  return planned;
}

// The run would ask it too, and break off there.
Finding brokeOff(const Library& library, const std::string& module, const std::exception& error) {
  return bindingProblem(library, module).value_or(tool::brokeOff(module, error));
}

}  // namespace

std::vector<PlannedModule> UpdatePlan::due() const {
  std::vector<PlannedModule> selected;
  for (const PlannedModule& module : modules) {
    if (module.due) {
      selected.push_back(module);
    }
  }
  return selected;
}

double UpdatePlan::expectedSeconds() const {
  double total = 0;
  for (const PlannedModule& module : due()) {
    total += module.expectedSeconds;
  }
  return total;
}

int UpdatePlan::powerHoldMs() const {
  std::uint32_t total = 0;
  for (const PlannedModule& module : due()) {
    total += module.expectedSeconds * std::uint32_t{1000} + fwmessages::kPowerMarginMs;
  }
  return static_cast<int>(total);
}

UpdatePlan makePlan(const Library& library, bool leaveNoTrace) {
  UpdatePlan plan;
  for (const FWUpdateItem& item : library.items) {
    try {
      plan.modules.push_back(ask(library, item, leaveNoTrace));
    } catch (const std::exception& error) {
      plan.problem = brokeOff(library, item.file_name, error);
      return plan;
    }
  }
  return plan;
}

std::string powerHoldText(const UpdatePlan& plan) {
  const int milliseconds = plan.powerHoldMs();
  if (milliseconds <= 0) {
    return "until the run is over (the expected times are beyond counting)";
  }
  return "for at most " + std::to_string((milliseconds + 999LL) / 1000) + " s";
}

}  // namespace tool
