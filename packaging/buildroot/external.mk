include $(sort $(wildcard $(BR2_EXTERNAL_FW_UPDATE_PATH)/package/*/*.mk))
