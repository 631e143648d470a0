// SPDX-License-Identifier: Apache-2.0
// All checks, in the order in which they are made.
#ifndef FW_PLATFORM_CHECK_CHECKS_H
#define FW_PLATFORM_CHECK_CHECKS_H

#include "check.h"

namespace conformance {

// What a check needs to know of the set. For the thread that makes the checks.
struct SetFacts {
  std::string unsignedPackage;  // that the set's server offers without a signature; empty: none
  int patienceSeconds = 20;     // then a check is given up
};
SetFacts& setFacts();

Finding logKeepsErrno();
Finding logReturnsLength();
Finding logFormatsErrorText();
Finding logTakesNulls();
Finding logTakesLongMessages();
Finding logTakesThreads();

Finding systemVersionHasModel();
Finding systemRefusesUnknownKey();

Finding directoriesAreThere();

Finding mountIsReadOnly();
Finding mountRefusesMissingImage();
Finding unmountTakesLength();
Finding unmountDetachesLoopDevice();
Finding nodeTakesText();

Finding powerIsGivenBack();
Finding powerCountsHolds();
Finding powerEndsByItself();

Finding eventStaysDone();
Finding eventWakesAnotherProcess();
Finding eventWaitsNoLonger();

Finding traceKeepsErrno();
Finding traceNumbersDiffer();
Finding traceBuffersAreApart();
Finding traceGoesOnInChild();

Finding downloadReturnsAtOnce();
Finding downloadRefusesBadName();
Finding downloadTellsWhatItKnows();
Finding downloadRefusesUnsigned();

Finding verifierRefusesUnsigned();
Finding verifierRefusesMissing();

Finding secureVerifierJudgesContent();
Finding secureSetHasKey();
Finding secureKeysSignNewFormatAlone();
Finding secureOnlyRootWrites();
Finding securePackageKeyIsSecret();
Finding secureDownloadsAreSigned();
Finding secureDrivesAreReadOnly();

inline constexpr Check kChecks[] = {
    {"log", "leaves errno as it was", logKeepsErrno},
    {"log", "returns the length of the message", logReturnsLength},
    {"log", "formats %m as the error text of errno", logFormatsErrorText},
    {"log", "takes a null tag and a null format", logTakesNulls},
    {"log", "takes messages of any length", logTakesLongMessages},
    {"log", "takes calls from several threads at once", logTakesThreads},
    {"system", "gives a software version with a model before its last \"-\"", systemVersionHasModel},
    {"system", "refuses another key and leaves the value alone", systemRefusesUnknownKey},
    {"system", "has the directories that updates need", directoriesAreThere},
    {"mount", "mounts a package read-only, without devices and set-user-ID", mountIsReadOnly},
    {"mount", "refuses an image that is not there", mountRefusesMissingImage},
    {"mount", "unmounts a directory that is given without a NUL", unmountTakesLength},
    {"mount", "detaches the loop device with the unmount", unmountDetachesLoopDevice},
    {"mount", "takes the library's text for a loop node", nodeTakesText},
    {"power", "gives back what it holds, and no more", powerIsGivenBack},
    {"power", "counts every hold", powerCountsHolds},
    {"power", "ends a hold by itself after its time", powerEndsByItself},
    {"event", "keeps a done event done, also for other processes", eventStaysDone},
    {"event", "wakes a process that waits", eventWakesAnotherProcess},
    {"event", "ends a wait after its time", eventWaitsNoLonger},
    {"trace", "leaves errno as it was", traceKeepsErrno},
    {"trace", "numbers every place differently, and none 0", traceNumbersDiffer},
    {"trace", "gives each thread a buffer of its own", traceBuffersAreApart},
    {"trace", "goes on in a forked child", traceGoesOnInChild},
    {"download", "returns at once", downloadReturnsAtOnce},
    {"download", "refuses a name that is no identifier", downloadRefusesBadName},
    {"download", "tells how a download goes, or that it is not known", downloadTellsWhatItKnows},
    {"download", "refuses a package without a signature", downloadRefusesUnsigned},
    {"verifier", "refuses a file without a signature", verifierRefusesUnsigned},
    {"verifier", "refuses a file that is not there", verifierRefusesMissing},
};

// What a set must have set up so that nothing unsigned is used; not of the library, but
// of the set.
inline constexpr Check kSecurityChecks[] = {
    {"secure", "refuses a package without a signature", verifierRefusesUnsigned},
    {"secure", "judges the bytes that are used, not only the file", secureVerifierJudgesContent},
    {"secure", "knows the key of a maker", secureSetHasKey},
    {"secure", "takes no package that fits every component", secureKeysSignNewFormatAlone},
    {"secure", "lets only root write what updates rely on", secureOnlyRootWrites},
    {"secure", "keeps the packages' key to root", securePackageKeyIsSecret},
    {"secure", "downloads only what is signed, over safe connections", secureDownloadsAreSigned},
    {"secure", "downloads no package without a signature", downloadRefusesUnsigned},
    {"secure", "mounts drives read-only, without programs and devices", secureDrivesAreReadOnly},
};

}  // namespace conformance

#endif
