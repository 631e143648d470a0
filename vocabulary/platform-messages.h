// SPDX-License-Identifier: Apache-2.0
// What the platform of ordinary Linux says in the form of the library's messages, for those
// who read it again. Macros, as in library-messages.h.
#ifndef PLATFORM_MESSAGES_H
#define PLATFORM_MESSAGES_H

// The package's identifier, and why.
#define PLATFORM_MESSAGE_NOT_DOWNLOADED "%s is not downloaded: %s"

#endif
