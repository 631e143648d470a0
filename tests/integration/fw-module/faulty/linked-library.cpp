// It links the update library; the build does that.
#include "sound-module.h"
