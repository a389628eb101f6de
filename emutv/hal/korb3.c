/* Stand-in of the board video HAL library. Its DRM work is done by the emulator. */
extern int emutv_hal_drm_init(int card_id);
extern int emutv_hal_get_drm_device_id(int card_id);

#if defined(KORB3_FULL) || defined(KORB3_NO_GET)
__attribute__((visibility("default"))) int Hal_Video_DrmInit(int cardID) {
    return emutv_hal_drm_init(cardID);
}
#endif

#if defined(KORB3_FULL) || defined(KORB3_NO_INIT)
__attribute__((visibility("default"))) int Hal_Video_Get_DrmDeviceId(int cardID) {
    return emutv_hal_get_drm_device_id(cardID);
}
#endif

/* Keeps every variant a non-empty translation unit. */
__attribute__((visibility("default"))) int korb3_stand_in_variant(void) {
    return 0;
}
