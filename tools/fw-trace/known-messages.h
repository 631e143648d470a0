// The library's messages that mark the way of an update. The texts are the
// library's interface, kept to the letter.
#ifndef FW_TRACE_KNOWN_MESSAGES_H
#define FW_TRACE_KNOWN_MESSAGES_H

namespace tracetool::known {

inline constexpr const char* needTry = "%s Firmware isNeedUpdateModules Try(%s)";
inline constexpr const char* updateTime = "%s update time %d ms";
inline constexpr const char* updateTry = "%s Firmware Update Try";
inline constexpr const char* runProcessTry = "%s Firmware runProcess Try";
inline constexpr const char* updateStart = "========== [ %s update start ] ==========";
inline constexpr const char* updateSucceeded = "========== [ %s update succeeded ] ==========";
inline constexpr const char* doUpdateFail = "Error: %s Firmware doUpdate Fail %d (%d:%m)";
inline constexpr const char* runProcessFail = "Error: %s runProcess Fail (%d:%m)";
inline constexpr const char* notNeeded = "Error: %s not need update, version is %s";
inline constexpr const char* noLongerNeeded = "Error: %s Firmware not need update";
inline constexpr const char* requestEnds = "fw_update from Caller Type [%d] STATE [%d] DATA [%s]";
inline constexpr const char* timedOutText = "%s";
inline constexpr const char* timedOutFunction = "update_timeout_wrapper";
inline constexpr const char* timedOutSuffix = " update timeout";

}  // namespace tracetool::known

#endif
