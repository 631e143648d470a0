// The library's messages that mark the way of an update. The texts are the
// library's interface, kept to the letter.
#ifndef FW_TRACE_KNOWN_MESSAGES_H
#define FW_TRACE_KNOWN_MESSAGES_H

namespace tracetool::known {

inline constexpr const char* kNeedTry = "%s Firmware isNeedUpdateModules Try(%s)";
inline constexpr const char* kUpdateTime = "%s update time %d ms";
inline constexpr const char* kUpdateTry = "%s Firmware Update Try";
inline constexpr const char* kRunProcessTry = "%s Firmware runProcess Try";
inline constexpr const char* kUpdateStart = "========== [ %s update start ] ==========";
inline constexpr const char* kUpdateSucceeded = "========== [ %s update succeeded ] ==========";
inline constexpr const char* kDoUpdateFail = "Error: %s Firmware doUpdate Fail %d (%d:%m)";
inline constexpr const char* kRunProcessFail = "Error: %s runProcess Fail (%d:%m)";
inline constexpr const char* kNotNeeded = "Error: %s not need update, version is %s";
inline constexpr const char* kNoLongerNeeded = "Error: %s Firmware not need update";
inline constexpr const char* kRequestEnds = "fw_update from Caller Type [%d] STATE [%d] DATA [%s]";
inline constexpr const char* kTimedOutText = "%s";
inline constexpr const char* kTimedOutFunction = "update_timeout_wrapper";
inline constexpr const char* kTimedOutSuffix = " update timeout";

}  // namespace tracetool::known

#endif
