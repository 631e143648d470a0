// SPDX-License-Identifier: Apache-2.0
// Keeps the device powered while it must not be switched off. Any thread.
#ifndef PLATFORM_DEVICE_POWER_H
#define PLATFORM_DEVICE_POWER_H

// Holds a power state for at most timeout_ms milliseconds; released earlier by
// device_power_unlock_state with the same state, or by the end of the process.
// A time of 0 or less is that of a sum that ran over: the state is then held
// until it is unlocked or the process ends.
// Each call is a hold of its own and needs an unlock of its own.
// 0 on success, else a negative errno value: nothing is held then.
extern "C" __attribute__((visibility("default"))) int device_power_lock_state(int state, int timeout_ms);

// Gives back one hold of the state; of several the one that would end first.
// 0 on success, -ENOENT when this process holds none (also after its time).
extern "C" __attribute__((visibility("default"))) int device_power_unlock_state(int state);

#endif
