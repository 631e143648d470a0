// No fault at all.
#include "sound-module.h"
