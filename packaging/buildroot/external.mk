include $(sort $(wildcard $(BR2_EXTERNAL_VYHOTPLUGD_PATH)/package/*/*.mk))
