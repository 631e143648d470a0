// SPDX-License-Identifier: Apache-2.0
// What the number of an answer means for what was asked. Stateless.
#ifndef FW_FLEET_STATUS_MEANING_H
#define FW_FLEET_STATUS_MEANING_H

namespace fleet {

enum class Asked { Poll, Document, Feedback, Artifact };

enum class Meaning {
  Good,
  NotChanged,
  Gone,     // the action is over for this set; an end that was told had arrived
  Missing,  // an artifact that is not there
  Changed,  // an artifact that is another one by now, or shorter: from its first byte
  Refused,  // the server does not know the set, or its token
  Later,    // asked again after a pause, it may be another answer
  Mistake,  // asked again as it is, it will be the same
};

Meaning meaningOf(Asked asked, int status);

}  // namespace fleet

#endif
