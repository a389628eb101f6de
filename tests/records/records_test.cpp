// The drivers' request records, request numbers and enumerations, checked at run time on
// the ABI the tests run on: the 32-bit numbers on the ARM target, what the host gives on
// x86-64 where a record holds pointers or longs.
#include <stddef.h>
#include <sys/ioctl.h>

#include <drm.h>
#include <drm_mode.h>
#include <linux/videodev2.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ruvo/driver/kdolby.h"
#include "ruvo/driver/qvk_converter.h"
#include "ruvo/driver/sdp_drm.h"
#include "ruvo/driver/v4l2_drm.h"
#include "ruvo/driver/vplt_ioctl.h"

namespace {

struct Decomposition {
    unsigned dir;
    unsigned size;
    unsigned type;
    unsigned nr;
};

Decomposition Decompose(unsigned long request) {
    return {static_cast<unsigned>(_IOC_DIR(request)), static_cast<unsigned>(_IOC_SIZE(request)),
            static_cast<unsigned>(_IOC_TYPE(request)), static_cast<unsigned>(_IOC_NR(request))};
}

constexpr unsigned kReadWrite = _IOC_READ | _IOC_WRITE;

void ExpectRequest(unsigned long request, unsigned long number, unsigned dir, unsigned size, unsigned type,
                   unsigned nr) {
    EXPECT_EQ(request, number) << std::hex << request;
    const Decomposition d = Decompose(request);
    EXPECT_EQ(d.dir, dir) << std::hex << request;
    EXPECT_EQ(d.size, size) << std::hex << request;
    EXPECT_EQ(d.type, type) << std::hex << request;
    EXPECT_EQ(d.nr, nr) << std::hex << request;
}

struct EnumEntry {
    long long value;
    long long expected;
    const char* name;
};

#define ENTRY(name, expected)                         \
    EnumEntry {                                       \
        static_cast<long long>(name), expected, #name \
    }

void ExpectEnumeration(const std::vector<EnumEntry>& entries) {
    for (const auto& e : entries)
        EXPECT_EQ(e.value, e.expected) << e.name;
}

struct FieldOffset {
    size_t offset;
    size_t expected;
    const char* name;
};

#define FIELD(type, member, expected)                        \
    FieldOffset {                                            \
        offsetof(type, member), expected, #type "::" #member \
    }

void ExpectOffsets(const std::vector<FieldOffset>& fields) {
    for (const auto& f : fields)
        EXPECT_EQ(f.offset, f.expected) << f.name;
}

// ---- Request numbers ---------------------------------------------------------------------

TEST(RequestNumbers, video_platform_command_is_read_write_36_bytes_type_V_number_4) {
    ExpectRequest(VPLT_IOC_CMD, 0xC0245604ul, kReadWrite, 36, 'V', 4);
}

TEST(RequestNumbers, video_platform_command_size_field_is_36_on_every_abi) {
    EXPECT_EQ(_IOC_SIZE(VPLT_IOC_CMD), 36u);
#if defined(__arm__)
    EXPECT_EQ(_IOC_SIZE(VPLT_IOC_CMD), sizeof(ST_VPLT_IOC_CMD));
#endif
}

TEST(RequestNumbers, extended_controls_request_carries_the_record_size_of_this_abi) {
    const Decomposition d = Decompose(VIDIOC_G_EXT_CTRLS);
    EXPECT_EQ(d.dir, kReadWrite);
    EXPECT_EQ(d.size, sizeof(v4l2_ext_controls));
    EXPECT_EQ(d.type, static_cast<unsigned>('V'));
    EXPECT_EQ(d.nr, 0x47u);
#if defined(__arm__)
    EXPECT_EQ(VIDIOC_G_EXT_CTRLS, 0xC0185647ul);
    EXPECT_EQ(sizeof(v4l2_ext_controls), 24u);
#elif defined(__x86_64__)
    EXPECT_EQ(VIDIOC_G_EXT_CTRLS, 0xC0205647ul);
#endif
}

TEST(RequestNumbers, hardware_gem_create_is_driver_private_1) {
    ExpectRequest(DRM_IOCTL_SDP_GEM_HW_CREATE, 0xC0186441ul, kReadWrite, 24, 'd', DRM_COMMAND_BASE + 0x01);
    EXPECT_EQ(_IOC_SIZE(DRM_IOCTL_SDP_GEM_HW_CREATE), sizeof(sdp_drm_gem_hw_create));
}

TEST(RequestNumbers, set_display_source_is_driver_private_0x11) {
    ExpectRequest(DRM_IOCTL_SDP_SET_DP_SOURCE, 0xC2406451ul, kReadWrite, 576, 'd', DRM_COMMAND_BASE + 0x11);
    EXPECT_EQ(_IOC_SIZE(DRM_IOCTL_SDP_SET_DP_SOURCE), sizeof(v4l2_drm));
}

TEST(RequestNumbers, set_on_off_is_driver_private_0x15) {
    ExpectRequest(DRM_IOCTL_SDP_SET_ONOFF, 0xC00C6455ul, kReadWrite, 12, 'd', DRM_COMMAND_BASE + 0x15);
    EXPECT_EQ(_IOC_SIZE(DRM_IOCTL_SDP_SET_ONOFF), sizeof(sdp_drm_onoff_param));
}

TEST(RequestNumbers, standard_drm_requests_have_their_kernel_numbers) {
    ExpectRequest(DRM_IOCTL_MODE_CREATE_DUMB, 0xC02064B2ul, kReadWrite, sizeof(drm_mode_create_dumb), 'd',
                  0xB2);
    ExpectRequest(DRM_IOCTL_MODE_DESTROY_DUMB, 0xC00464B4ul, kReadWrite, sizeof(drm_mode_destroy_dumb), 'd',
                  0xB4);
    ExpectRequest(DRM_IOCTL_MODE_RMFB, 0xC00464AFul, kReadWrite, sizeof(uint32_t), 'd', 0xAF);
    ExpectRequest(DRM_IOCTL_MODE_SETPLANE, 0xC03064B7ul, kReadWrite, sizeof(drm_mode_set_plane), 'd', 0xB7);
    ExpectRequest(DRM_IOCTL_PRIME_HANDLE_TO_FD, 0xC00C642Dul, kReadWrite, sizeof(drm_prime_handle), 'd',
                  0x2D);
    ExpectRequest(DRM_IOCTL_PRIME_FD_TO_HANDLE, 0xC00C642Eul, kReadWrite, sizeof(drm_prime_handle), 'd',
                  0x2E);
    ExpectRequest(DRM_IOCTL_GEM_CLOSE, 0x40086409ul, _IOC_WRITE, sizeof(drm_gem_close), 'd', 0x09);
}

TEST(RequestNumbers, converter_requests_carry_size_4_whatever_record_follows) {
    ExpectRequest(CONVERTER_IOCTL_CLOSE, 0xC004DD01ul, kReadWrite, 4, 0xDD, IOWR_NUM_CONVERTER_CLOSE);
    ExpectRequest(CONVERTER_IOCTL_INIT, 0xC004DD02ul, kReadWrite, 4, 0xDD, IOWR_NUM_CONVERTER_INIT);
    ExpectRequest(CONVERTER_IOCTL_DECOMPRESS, 0xC004DD03ul, kReadWrite, 4, 0xDD,
                  IOWR_NUM_CONVERTER_DECOMPRESS);
    EXPECT_EQ(sizeof(converter_decompress), 592u);
    EXPECT_NE(_IOC_SIZE(CONVERTER_IOCTL_DECOMPRESS), sizeof(converter_decompress));
}

TEST(RequestNumbers, dolby_vision_profile_request_is_read_write_type_0x60_number_0x10) {
    ExpectRequest(DOLBY_IOC_SET_DV_PROFILE, 0xD01B6010ul, kReadWrite, 0x101B, 0x60, 0x10);
}

// ---- Record layouts ----------------------------------------------------------------------

TEST(RecordLayout, video_platform_command_is_a_command_and_eight_addresses) {
    const size_t slot = sizeof(void*);
    ExpectOffsets({
        FIELD(ST_VPLT_IOC_CMD, enCmd, 0u),
        FIELD(ST_VPLT_IOC_CMD, arg1, 1 * slot),
        FIELD(ST_VPLT_IOC_CMD, arg2, 2 * slot),
        FIELD(ST_VPLT_IOC_CMD, arg3, 3 * slot),
        FIELD(ST_VPLT_IOC_CMD, arg4, 4 * slot),
        FIELD(ST_VPLT_IOC_CMD, arg5, 5 * slot),
        FIELD(ST_VPLT_IOC_CMD, arg6, 6 * slot),
        FIELD(ST_VPLT_IOC_CMD, arg7, 7 * slot),
        FIELD(ST_VPLT_IOC_CMD, ret, 8 * slot),
    });
    EXPECT_EQ(sizeof(ST_VPLT_IOC_CMD), 9 * slot);
#if defined(__arm__)
    EXPECT_EQ(sizeof(ST_VPLT_IOC_CMD), 36u);
    EXPECT_EQ(offsetof(ST_VPLT_IOC_CMD, ret), 32u);
#endif
}

TEST(RecordLayout, decoder_frame_descriptor_is_576_bytes) {
    EXPECT_EQ(sizeof(v4l2_drm), 576u);
    ExpectOffsets({
        FIELD(v4l2_drm, inputport, 0u),
        FIELD(v4l2_drm, plane, 4u),
        FIELD(v4l2_drm, u, 8u),
    });
    EXPECT_EQ(sizeof(v4l2_drm::u), 552u);
    EXPECT_EQ(offsetof(v4l2_drm, stereoscopic_info), 560u);
    EXPECT_EQ(offsetof(v4l2_drm, reserved), 568u);
    EXPECT_EQ(sizeof(v4l2_drm::reserved), 8u);
}

TEST(RecordLayout, decoded_input_information_is_552_bytes) {
    EXPECT_EQ(sizeof(v4l2_drm_dec_info), 552u);
    ExpectOffsets({
        FIELD(v4l2_drm_dec_info, aspectratio, 0u),
        FIELD(v4l2_drm_dec_info, hres, 4u),
        FIELD(v4l2_drm_dec_info, vres, 8u),
        FIELD(v4l2_drm_dec_info, effective_hres, 12u),
        FIELD(v4l2_drm_dec_info, effective_vres, 16u),
        FIELD(v4l2_drm_dec_info, framerate, 20u),
        FIELD(v4l2_drm_dec_info, scantype, 24u),
        FIELD(v4l2_drm_dec_info, bpp, 28u),
        FIELD(v4l2_drm_dec_info, pFrame, 32u),
    });
    EXPECT_EQ(sizeof(v4l2_drm_dec_info::pFrame), 480u);
    EXPECT_EQ(offsetof(v4l2_drm_dec_info, next_res), 512u);
    EXPECT_EQ(offsetof(v4l2_drm_dec_info, decoder_info), 544u);
}

TEST(RecordLayout, private_frame_information_is_120_bytes) {
    EXPECT_EQ(sizeof(v4l2_private_frame_info), 120u);
    ExpectOffsets({
        FIELD(v4l2_private_frame_info, chip_id, 0u),
        FIELD(v4l2_private_frame_info, instance_id, 4u),
        FIELD(v4l2_private_frame_info, display_index, 8u),
        FIELD(v4l2_private_frame_info, showframe, 12u),
        FIELD(v4l2_private_frame_info, y_viraddr, 16u),
        FIELD(v4l2_private_frame_info, u_viraddr, 24u),
        FIELD(v4l2_private_frame_info, v_viraddr, 32u),
        FIELD(v4l2_private_frame_info, width, 40u),
        FIELD(v4l2_private_frame_info, height, 44u),
        FIELD(v4l2_private_frame_info, y_linesize, 48u),
        FIELD(v4l2_private_frame_info, u_linesize, 52u),
        FIELD(v4l2_private_frame_info, v_linesize, 56u),
        FIELD(v4l2_private_frame_info, startline, 60u),
        FIELD(v4l2_private_frame_info, endline, 64u),
        FIELD(v4l2_private_frame_info, colorformat, 68u),
        FIELD(v4l2_private_frame_info, framedone, 72u),
        FIELD(v4l2_private_frame_info, Keyframe, 76u),
        FIELD(v4l2_private_frame_info, dimension, 80u),
        FIELD(v4l2_private_frame_info, y_phyaddr, 88u),
        FIELD(v4l2_private_frame_info, u_phyaddr, 96u),
        FIELD(v4l2_private_frame_info, v_phyaddr, 104u),
        FIELD(v4l2_private_frame_info, vsync_interval, 112u),
    });
}

TEST(RecordLayout, dynamic_resolution_information_is_32_bytes) {
    EXPECT_EQ(sizeof(v4l2_dynamic_res_info), 32u);
    ExpectOffsets({
        FIELD(v4l2_dynamic_res_info, next_frm_hres, 0u),
        FIELD(v4l2_dynamic_res_info, next_frm_vres, 4u),
        FIELD(v4l2_dynamic_res_info, max_hres, 8u),
        FIELD(v4l2_dynamic_res_info, max_vres, 12u),
        FIELD(v4l2_dynamic_res_info, crop_x, 16u),
        FIELD(v4l2_dynamic_res_info, crop_y, 20u),
        FIELD(v4l2_dynamic_res_info, crop_w, 24u),
        FIELD(v4l2_dynamic_res_info, crop_h, 28u),
    });
}

TEST(RecordLayout, external_input_information_is_72_bytes) {
    EXPECT_EQ(sizeof(v4l2_drm_extin_info), 72u);
    ExpectOffsets({
        FIELD(v4l2_drm_extin_info, src_info_send_flag, 0u),
        FIELD(v4l2_drm_extin_info, htotal, 4u),
        FIELD(v4l2_drm_extin_info, vtotal, 8u),
        FIELD(v4l2_drm_extin_info, hactive, 12u),
        FIELD(v4l2_drm_extin_info, vactive, 16u),
        FIELD(v4l2_drm_extin_info, hactive_size, 20u),
        FIELD(v4l2_drm_extin_info, vactive_size, 24u),
        FIELD(v4l2_drm_extin_info, scantype, 28u),
        FIELD(v4l2_drm_extin_info, oversampling, 32u),
        FIELD(v4l2_drm_extin_info, framerate, 36u),
        FIELD(v4l2_drm_extin_info, colorformat, 40u),
        FIELD(v4l2_drm_extin_info, syncmode, 44u),
        FIELD(v4l2_drm_extin_info, pcinput, 48u),
        FIELD(v4l2_drm_extin_info, vrrinput, 52u),
        FIELD(v4l2_drm_extin_info, freesync_max_framerate, 56u),
        FIELD(v4l2_drm_extin_info, ntscpal_type, 60u),
        FIELD(v4l2_drm_extin_info, dscinput, 64u),
        FIELD(v4l2_drm_extin_info, clone_mux, 68u),
    });
}

TEST(RecordLayout, hardware_gem_create_is_24_bytes_with_the_size_at_16) {
    EXPECT_EQ(sizeof(sdp_drm_gem_hw_create), 24u);
    ExpectOffsets({
        FIELD(sdp_drm_gem_hw_create, e_flag, 0u),
        FIELD(sdp_drm_gem_hw_create, userinfo, 4u),
        FIELD(sdp_drm_gem_hw_create, handle, 8u),
        FIELD(sdp_drm_gem_hw_create, pad, 12u),
        FIELD(sdp_drm_gem_hw_create, ret_size, 16u),
    });
    EXPECT_EQ(sizeof(sdp_drm_gem_hw_create::ret_size), 8u);
}

TEST(RecordLayout, on_off_parameter_is_12_bytes) {
    EXPECT_EQ(sizeof(sdp_drm_onoff_param), 12u);
    ExpectOffsets({
        FIELD(sdp_drm_onoff_param, plane_id, 0u),
        FIELD(sdp_drm_onoff_param, set_func, 4u),
        FIELD(sdp_drm_onoff_param, onoff_flag, 8u),
    });
}

TEST(RecordLayout, converter_records_hold_the_status_first) {
    EXPECT_EQ(sizeof(converter_retval), 4u);
    EXPECT_EQ(offsetof(converter_retval, u32Retval), 0u);
    EXPECT_EQ(sizeof(converter_decompress), 592u);
    EXPECT_EQ(offsetof(converter_decompress, u32Retval), 0u);
    EXPECT_EQ(offsetof(converter_decompress, outDrmFd), 4u);
    EXPECT_EQ(sizeof(converter_decompress::outDrmFd), 8u);
    EXPECT_EQ(offsetof(converter_decompress, stFbInfo), 16u);
}

TEST(RecordLayout, kernel_records_the_library_fills_have_their_kernel_sizes) {
    EXPECT_EQ(sizeof(drm_mode_create_dumb), 32u);
    EXPECT_EQ(offsetof(drm_mode_create_dumb, size), 24u);
    EXPECT_EQ(sizeof(drm_mode_destroy_dumb), 4u);
    EXPECT_EQ(sizeof(drm_prime_handle), 12u);
    EXPECT_EQ(sizeof(drm_gem_close), 8u);
    EXPECT_EQ(sizeof(drm_mode_set_plane), 48u);
}

// ---- Enumerations ------------------------------------------------------------------------

TEST(Enumerations, video_platform_commands_take_their_group_values) {
    ExpectEnumeration({
        ENTRY(EN_VPLT_IOC_API_START, 256),
        ENTRY(EN_VPLT_IOC_CAPABILITY, 257),
        ENTRY(EN_VPLT_IOC_SetPCTiming, 258),
        ENTRY(EN_VPLT_IOC_SCLR_START, 320),
        ENTRY(EN_VPLT_IOC_SCLR_Setup2Dto3D, 321),
        ENTRY(EN_VPLT_IOC_SCLR_SetWindowMuteOn, 322),
        ENTRY(EN_VPLT_IOC_SCLR_SetWindowOn, 323),
        ENTRY(EN_VPLT_IOC_SCLR_FB_GetFrameBufInfo, 324),
        ENTRY(EN_VPLT_IOC_SCLR_FB_SetLBMLayout, 325),
        ENTRY(EN_VPLT_IOC_SCLR_FB_GetCurLBMLayout, 326),
        ENTRY(EN_VPLT_IOC_SCLR_FB_MallocRemainderMem, 327),
        ENTRY(EN_VPLT_IOC_SCLR_FB_FreeRemainderMem, 328),
        ENTRY(EN_VPLT_IOC_SCLR_FB_QueryRemainderMemSize, 329),
        ENTRY(EN_VPLT_IOC_SCLR_FB_QueryTotalMemSize, 330),
        ENTRY(EN_VPLT_IOC_SCLR_FB_Alloc, 331),
        ENTRY(EN_VPLT_IOC_SCLR_FB_Free, 332),
        ENTRY(EN_VPLT_IOC_SCLR_FB_FreeAll, 333),
        ENTRY(EN_VPLT_IOC_SCLR_AllocODBuf, 334),
        ENTRY(EN_VPLT_IOC_SCLR_AllocBuffer, 335),
        ENTRY(EN_VPLT_IOC_SCLR_UpdateInputSrc, 336),
        ENTRY(EN_VPLT_IOC_SCLR_Update_ScalingWithFrameBuffer, 337),
        ENTRY(EN_VPLT_IOC_SCLR_OD_LoadTable, 338),
        ENTRY(EN_VPLT_IOC_SCLR_SetCSCmode, 339),
        ENTRY(EN_VPLT_IOC_SCLR_SetHPos, 340),
        ENTRY(EN_VPLT_IOC_SCLR_SetVPos, 341),
        ENTRY(EN_VPLT_IOC_SCLR_PlayControl, 342),
        ENTRY(EN_VPLT_IOC_SCLR_SetPlayFieldType, 343),
        ENTRY(EN_VPLT_IOC_SCLR_FB_ShareMainPathBufWithCapturePath, 344),
        ENTRY(EN_VPLT_IOC_SCLR_SetFlushPattern, 345),
        ENTRY(EN_VPLT_IOC_SCLR_ReviseGeomery, 346),
        ENTRY(EN_VPLT_IOC_SCLR_ReviseCrop, 347),
        ENTRY(EN_VPLT_IOC_SCLR_NPU_GetFrameBufInfo, 348),
        ENTRY(EN_VPLT_IOC_SCLR_Output_START, 384),
        ENTRY(EN_VPLT_IOC_SCLR_Output_Init, 385),
        ENTRY(EN_VPLT_IOC_SCLR_Output_SetPanelTimingDiff, 386),
        ENTRY(EN_VPLT_IOC_SCLR_Output_SetPanelTiming, 387),
        ENTRY(EN_VPLT_IOC_SCLR_Output_SetPostPanelTiming, 388),
        ENTRY(EN_VPLT_IOC_SCLR_Output_SetSubPanelTiming, 389),
        ENTRY(EN_VPLT_IOC_SCLR_Output_SetPanelFreeRun, 390),
        ENTRY(EN_VPLT_IOC_SCLR_Output_SetPanelTimingRange, 391),
        ENTRY(EN_VPLT_IOC_SCLR_Output_EnableFrameSync, 392),
        ENTRY(EN_VPLT_IOC_SCLR_Output_GetFrameSyncStatus, 393),
        ENTRY(EN_VPLT_IOC_SCLR_Output_SetFrameRateDeviation, 394),
        ENTRY(EN_VPLT_IOC_SCLR_Output_SetFrameBGcolor, 395),
        ENTRY(EN_VPLT_IOC_SCLR_Output_SetWindowBGcolor, 396),
        ENTRY(EN_VPLT_IOC_SCLR_Output_EnableFrameMute, 397),
        ENTRY(EN_VPLT_IOC_SCLR_Output_EnableBlueScreen, 398),
        ENTRY(EN_VPLT_IOC_SCLR_Output_EnableDisplayWindow, 399),
        ENTRY(EN_VPLT_IOC_SCLR_Output_SetWindowOnTop, 400),
        ENTRY(EN_VPLT_IOC_SCLR_Output_SetGraphicMixing, 401),
        ENTRY(EN_VPLT_IOC_SCLR_Output_GetDPTiming, 402),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_START, 448),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_Init, 449),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_SetPanel, 450),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_SetPanelLvdsFormat, 451),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_SetPanelABSwap, 452),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_SetPanelDualPixelOutput, 453),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_SetChannelSwap, 454),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_SetPanelLvdsClockSpreadSpec, 455),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_SetLvdsClockDataDelay, 456),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_SetPanelLvdsDriving, 457),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_SetPanelLvdsPreEmphasis, 458),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_GetPanelLvdsData, 459),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_EnableLVDS, 460),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_SetPanelLvds10Bits, 461),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_SetDither, 462),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_SetVX1Partition, 463),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_Tcon_SetDemura, 464),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_Tcon_SetOverDriver, 465),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_PanelShift, 466),
        ENTRY(EN_VPLT_IOC_SCLR_PANEL_RevisePanel, 467),
        ENTRY(EN_VPLT_IOC_SCLR_CTRL_START, 512),
        ENTRY(EN_VPLT_IOC_SCLR_CTRL_UpdateSCLR, 513),
        ENTRY(EN_VPLT_IOC_SCLR_CTRL_UpdateSCLR_AUX, 514),
        ENTRY(EN_VPLT_IOC_SCLR_CTRL_UpdateSclr_Capture, 515),
        ENTRY(EN_VPLT_IOC_SCLR_CTRL_UpdateSclr_Tve, 516),
        ENTRY(EN_VPLT_IOC_SCLR_CTRL_UpdateSclr_Cars, 517),
        ENTRY(EN_VPLT_IOC_SRC_START, 576),
        ENTRY(EN_VPLT_IOC_SRC_Init, 577),
        ENTRY(EN_VPLT_IOC_SRC_ConnectInput, 578),
        ENTRY(EN_VPLT_IOC_SRC_DisconnectInput, 579),
        ENTRY(EN_VPLT_IOC_SRC_GetSyncInfo, 580),
        ENTRY(EN_VPLT_IOC_SRC_GetSrcInterface, 581),
        ENTRY(EN_VPLT_IOC_SRC_GetSrcType, 582),
        ENTRY(EN_VPLT_IOC_SRC_GetInputSrc, 583),
        ENTRY(EN_VPLT_IOC_SRC_FORCE_VGA_SyncType, 584),
        ENTRY(EN_VPLT_IOC_MHL_HDMI_START, 640),
        ENTRY(EN_VPLT_IOC_MHL_SendCMD, 641),
        ENTRY(EN_VPLT_IOC_MHL_GetCbusData, 642),
        ENTRY(EN_VPLT_IOC_MHL_IsConnected, 643),
        ENTRY(EN_VPLT_IOC_HDMI_SetARC, 644),
        ENTRY(EN_VPLT_IOC_HDMI_SetRXCLK, 645),
        ENTRY(EN_VPLT_IOC_HDMI_SetRXCLK_Prot, 646),
        ENTRY(EN_VPLT_IOC_HDMI_SetEqType, 647),
        ENTRY(EN_VPLT_IOC_VD_START, 704),
        ENTRY(EN_VPLT_IOC_VD_SetAutoScan, 705),
        ENTRY(EN_VPLT_IOC_VD_SetChannelUpDnInit, 706),
        ENTRY(EN_VPLT_IOC_VD_SetChannelFrequency, 707),
        ENTRY(EN_VPLT_IOC_DEV_SRC_START, 768),
        ENTRY(EN_VPLT_IOC_DEV_SRC_IsDVIFSupport, 769),
        ENTRY(EN_VPLT_IOC_DEV_SRC_SetDVIF, 770),
        ENTRY(EN_VPLT_IOC_DEV_SRC_SetSetVideoPathConfig, 771),
        ENTRY(EN_VPLT_IOC_SRC_MODE_START, 832),
        ENTRY(EN_VPLT_IOC_SRC_MODE_Init, 833),
        ENTRY(EN_VPLT_IOC_SRC_MODE_GetSyncStable, 834),
        ENTRY(EN_VPLT_IOC_SRC_MODE_BuildMode, 835),
        ENTRY(EN_VPLT_IOC_SRC_MODE_BuildModeByRes, 836),
        ENTRY(EN_VPLT_IOC_SRC_MODE_ForceModeChange, 837),
        ENTRY(EN_VPLT_IOC_SRC_MODE_SetHPos, 838),
        ENTRY(EN_VPLT_IOC_SRC_MODE_GetHPos, 839),
        ENTRY(EN_VPLT_IOC_SRC_MODE_SetVPos, 840),
        ENTRY(EN_VPLT_IOC_SRC_MODE_GetVPos, 841),
        ENTRY(EN_VPLT_IOC_SRC_KADC_START, 896),
        ENTRY(EN_VPLT_IOC_SRC_KADC_Init, 897),
        ENTRY(EN_VPLT_IOC_SRC_KADC_SetTriggerFlag, 898),
        ENTRY(EN_VPLT_IOC_SRC_KADC_TriggerOnce, 899),
        ENTRY(EN_VPLT_IOC_SRC_KADC_Set_eFuseFT, 900),
        ENTRY(EN_VPLT_IOC_SRC_KADC_Init_eFuse, 901),
        ENTRY(EN_VPLT_IOC_SRC_KADC_GainShift, 902),
        ENTRY(EN_VPLT_IOC_SRC_KADC_Init_TVADC, 903),
        ENTRY(EN_VPLT_IOC_SRC_KADC_GetResult, 904),
        ENTRY(EN_VPLT_IOC_SRC_AUTO_START, 960),
        ENTRY(EN_VPLT_IOC_SRC_AUTO_AutoClock, 961),
        ENTRY(EN_VPLT_IOC_SRC_AUTO_AutoPosition, 962),
        ENTRY(EN_VPLT_IOC_SRC_AUTO_AutoPhase, 963),
        ENTRY(EN_VPLT_IOC_SRC_AUTO_AutoTune, 964),
        ENTRY(EN_VPLT_IOC_SRC_Test_START, 1024),
        ENTRY(EN_VPLT_IOC_SRC_Test_Init, 1025),
        ENTRY(EN_VPLT_IOC_SRC_Test_GetSelfTestModeOnOff, 1026),
        ENTRY(EN_VPLT_IOC_SRC_Test_GetClampChangeOnOff, 1027),
        ENTRY(EN_VPLT_IOC_SRC_Test_SelfTestMode, 1028),
        ENTRY(EN_VPLT_IOC_TVOUT_START, 1088),
        ENTRY(EN_VPLT_IOC_TVOUT_Init, 1089),
        ENTRY(EN_VPLT_IOC_TVOUT_VideoMute, 1090),
        ENTRY(EN_VPLT_IOC_TVOUT_VideoConnect, 1091),
        ENTRY(EN_VPLT_IOC_TVOUT_VideoDisConnect, 1092),
        ENTRY(EN_VPLT_IOC_TVOUT_EnableMixOut, 1093),
        ENTRY(EN_VPLT_IOC_TVOUT_Action, 1094),
        ENTRY(EN_VPLT_IOC_TVOUT_VideoStart, 1095),
        ENTRY(EN_VPLT_IOC_TVOUT_GetTVE, 1096),
        ENTRY(EN_VPLT_IOC_TVOUT_SetTVE, 1097),
        ENTRY(EN_VPLT_IOC_TVOUT_MacrovisionStart, 1098),
        ENTRY(EN_VPLT_IOC_TVOUT_MacrovisionStop, 1099),
        ENTRY(EN_VPLT_IOC_TVOUT_VBI_EnableVBIOperation, 1100),
        ENTRY(EN_VPLT_IOC_TVOUT_VBI_Start, 1101),
        ENTRY(EN_VPLT_IOC_TVOUT_SendVBIData, 1102),
        ENTRY(EN_VPLT_IOC_TVOUT_SetWSSType, 1103),
        ENTRY(EN_VPLT_IOC_TVADC_START, 1152),
        ENTRY(EN_VPLT_IOC_TVADC_SetHPLLClk, 1153),
        ENTRY(EN_VPLT_IOC_TVADC_SetHPLLPhase, 1154),
        ENTRY(EN_VPLT_IOC_VIU_START, 1216),
        ENTRY(EN_VPLT_IOC_VIU_EnableTVOut, 1217),
        ENTRY(EN_VPLT_IOC_VIU_SetupTVOut, 1218),
        ENTRY(EN_VPLT_IOC_VIU_DoubleFramerate, 1219),
        ENTRY(EN_VPLT_IOC_VIU_SetSRCIndex, 1220),
        ENTRY(EN_VPLT_IOC_VIU_SetCaptureVideoSizeFmt, 1221),
        ENTRY(EN_VPLT_IOC_VIU_SetSocFRCConvert, 1222),
        ENTRY(EN_VPLT_IOC_VIU_ConfigPanelTiming, 1223),
        ENTRY(EN_VPLT_IOC_EXTCFG_START, 1280),
        ENTRY(EN_VPLT_IOC_EXTCFG_GetForceUDInputFlag, 1281),
        ENTRY(EN_VPLT_IOC_EXTCFG_SetForceUDInputFlag, 1282),
        ENTRY(EN_VPLT_IOC_EXTCFG_SetPhotoLBMFormat, 1283),
        ENTRY(EN_VPLT_IOC_EXTCFG_FileChgSeamless, 1284),
        ENTRY(EN_VPLT_IOC_EXTCFG_FbRotateUnmuteFlow, 1285),
        ENTRY(EN_VPLT_IOC_GFX_START, 1344),
        ENTRY(EN_VPLT_IOC_PQ_START, 1408),
        ENTRY(EN_VPLT_IOC_VDEC_START, 1472),
        ENTRY(EN_VPLT_IOC_FR2IP_START, 1536),
        ENTRY(EN_VPLT_IOC_FR2IP_GetDevSyncInfo, 1537),
        ENTRY(EN_VPLT_IOC_FR2IP_SetOneField, 1538),
        ENTRY(EN_VPLT_IOC_FR2IP_Open, 1539),
        ENTRY(EN_VPLT_IOC_FR2IP_FRE_DMA_Convert, 1540),
        ENTRY(EN_VPLT_IOC_FR2IP_GetPTS, 1541),
        ENTRY(EN_VPLT_IOC_FR2IP_GetNumBufInQueue, 1542),
        ENTRY(EN_VPLT_IOC_FR2IP_GetVsyncTimePointer, 1543),
        ENTRY(EN_VPLT_IOC_FR2IP_SetDispQueueSize, 1544),
        ENTRY(EN_VPLT_IOC_FR2IP_SetPTS, 1545),
        ENTRY(EN_VPLT_IOC_FR2IP_SetNextResolution, 1546),
        ENTRY(EN_VPLT_IOC_FR2IP_GetVsyncTimeInterval, 1547),
        ENTRY(EN_VPLT_IOC_FR2IP_GetVsyncHZ, 1548),
        ENTRY(EN_VPLT_IOC_FR2IP_GetDirectlyFrames, 1549),
        ENTRY(EN_VPLT_IOC_FR2IP_EnableRuvoFlow, 1550),
        ENTRY(EN_VPLT_IOC_FR2IP_GetOffsetFromVsync, 1543),
        ENTRY(EN_VPLT_IOC_MISC_START, 1600),
        ENTRY(EN_VPLT_IOC_SetDDRSSC, 1601),
        ENTRY(EN_VPLT_IOC_SetEMMCSSC, 1602),
        ENTRY(EN_VPLT_IOC_GetHDCPReady, 1603),
        ENTRY(EN_VPLT_IOC_TOTAL, 1604),
    });
}

TEST(Enumerations, video_platform_command_is_a_32_bit_value) {
    EXPECT_EQ(sizeof(EN_VPLT_IOC), 4u);
}

TEST(Enumerations, hardware_memory_pools) {
    ExpectEnumeration({
        ENTRY(SDP_DRM_GEM_DP_FB_Y, 0),         ENTRY(SDP_DRM_GEM_DP_FB_C, 1),
        ENTRY(SDP_DRM_GEM_DP_RM_CAPT_Y, 2),    ENTRY(SDP_DRM_GEM_DP_RM_CAPT_C, 3),
        ENTRY(SDP_DRM_GEM_DP_MAIN_CAPT_Y, 4),  ENTRY(SDP_DRM_GEM_DP_MAIN_CAPT_C, 5),
        ENTRY(SDP_DRM_GEM_DP_SUB_CAPT_Y, 6),   ENTRY(SDP_DRM_GEM_DP_SUB_CAPT_C, 7),
        ENTRY(SDP_DRM_GEM_DP_FB_CR, 8),        ENTRY(SDP_DRM_GEM_DP_SUB2_CAPT_Y, 9),
        ENTRY(SDP_DRM_GEM_DP_SUB2_CAPT_C, 10), ENTRY(SDP_DRM_GEM_DP_ENCIN_CAPT, 11),
        ENTRY(SDP_DRM_GEM_DP_INPUT_CAPT, 12),  ENTRY(SDP_DRM_GEM_DP_SCL_Y, 13),
        ENTRY(SDP_DRM_GEM_DP_SCL_C, 14),       ENTRY(SDP_DRM_GEM_BLUR_Y, 15),
        ENTRY(SDP_DRM_GEM_BLUR_C, 16),         ENTRY(SDP_DRM_GEM_BLUR_ARGB, 17),
        ENTRY(SDP_DRM_GEM_DP_MEM_MAX, 18),
    });
    EXPECT_EQ(sizeof(sdp_drm_gem_hw_mem_flag), 4u);
}

TEST(Enumerations, on_off_functions) {
    ExpectEnumeration({
        ENTRY(DRM_SDP_FUNC_SYNC_ONOFF, 0),
        ENTRY(DRM_SDP_FUNC_MUTE_ONOFF, 1),
        ENTRY(DRM_SDP_FUNC_STILL_ONOFF, 2),
        ENTRY(DRM_SDP_FUNC_LETTER_BOX_DETECT_ONOFF, 3),
        ENTRY(DRM_SDP_FUNC_DP_FRAME_LOCK_ONOFF, 4),
        ENTRY(DRM_SDP_FUNC_FREEZE_ONOFF, 5),
        ENTRY(DRM_SDP_FUNC_GAMEMODE_ONOFF, 6),
        ENTRY(DRM_SDP_FUNC_DP_PC_SHARPNESS_ONOFF, 7),
        ENTRY(DRM_SDP_FUNC_PLANE_CRC_ONOFF, 8),
        ENTRY(DRM_SDP_FUNC_STEP_PAUSE_ONOFF, 9),
        ENTRY(DRM_SDP_FUNC_TRICK_PLAY_ONOFF, 10),
        ENTRY(DRM_SDP_FUNC_HFLIP_ONOFF, 11),
        ENTRY(DRM_SDP_FUNC_MAX, 12),
    });
}

TEST(Enumerations, plane_types) {
    ExpectEnumeration({
        ENTRY(DRM_SDP_PLANE_OSDP, 0),
        ENTRY(DRM_SDP_PLANE_GP, 1),
        ENTRY(DRM_SDP_PLANE_SGP, 2),
        ENTRY(DRM_SDP_PLANE_CURSOR1, 3),
        ENTRY(DRM_SDP_PLANE_CURSOR2, 4),
        ENTRY(DRM_SDP_PLANE_DP_MAIN, 5),
        ENTRY(DRM_SDP_PLANE_DP_SUB, 6),
        ENTRY(DRM_SDP_PLANE_DP_SUB2, 7),
        ENTRY(DRM_SDP_PLANE_DP_BG, 8),
        ENTRY(DRM_SDP_PLANE_YUVP, 9),
        ENTRY(DRM_SDP_PLANE_TP, 10),
        ENTRY(DRM_SDP_PLANE_MAX, 11),
    });
}

TEST(Enumerations, converter_request_numbers) {
    ExpectEnumeration({
        ENTRY(IOWR_NUM_CONVERTER_OPEN, 0),
        ENTRY(IOWR_NUM_CONVERTER_CLOSE, 1),
        ENTRY(IOWR_NUM_CONVERTER_INIT, 2),
        ENTRY(IOWR_NUM_CONVERTER_DECOMPRESS, 3),
        ENTRY(IOWR_NUM_CONVERTER_DECOMPRESS_ONEFD, 4),
        ENTRY(IOWR_NUM_CONVERTER_SET, 5),
        ENTRY(IOWR_NUM_CONVERTER_DECOMPRESS_v2, 6),
        ENTRY(IOWR_NUM_CONVERTER_GET_INFO, 7),
        ENTRY(IOWR_NUM_CONVERTER_MAX_NUM, 8),
    });
}

TEST(Enumerations, input_ports) {
    ExpectEnumeration({
        ENTRY(V4L2_DRM_INPUTPORT_TYPE_DTV, 0),
        ENTRY(V4L2_DRM_INPUTPORT_TYPE_MM, 1),
        ENTRY(V4L2_DRM_INPUTPORT_TYPE_ATV, 2),
        ENTRY(V4L2_DRM_INPUTPORT_TYPE_AV, 3),
        ENTRY(V4L2_DRM_INPUTPORT_TYPE_COMPONENT, 4),
        ENTRY(V4L2_DRM_INPUTPORT_TYPE_RGB, 5),
        ENTRY(V4L2_DRM_INPUTPORT_TYPE_DVI, 6),
        ENTRY(V4L2_DRM_INPUTPORT_TYPE_HDMI, 7),
        ENTRY(V4L2_DRM_INPUTPORT_TYPE_MAIN_CLONE, 8),
        ENTRY(V4L2_DRM_INPUTPORT_TYPE_JPEG_SWDEC, 9),
        ENTRY(V4L2_DRM_INPUTPORT_TYPE_MJPEG, 10),
        ENTRY(V4L2_DRM_INPUTPORT_TYPE_SCART, 11),
        ENTRY(V4L2_DRM_INPUTPORT_TYPE_DSP, 12),
        ENTRY(V4L2_DRM_INPUTPORT_TYPE_LVDXRX, 13),
        ENTRY(V4L2_DRM_INPUTPORT_TYPE_MAX, 14),
    });
}

TEST(Enumerations, aspect_ratios) {
    ExpectEnumeration({
        ENTRY(V4L2_ASPECTRATIO_TYPE_100_100, 1),
        ENTRY(V4L2_ASPECTRATIO_TYPE_300_400, 2),
        ENTRY(V4L2_ASPECTRATIO_TYPE_900_1600, 3),
        ENTRY(V4L2_ASPECTRATIO_TYPE_100_221, 4),
    });
}

TEST(Enumerations, colour_formats) {
    ExpectEnumeration({
        ENTRY(V4L2_DRM_COLORFORMAT_RGB444, 1),
        ENTRY(V4L2_DRM_COLORFORMAT_YUV444, 2),
        ENTRY(V4L2_DRM_COLORFORMAT_YUV422, 3),
        ENTRY(V4L2_DRM_COLORFORMAT_YUV420, 4),
        ENTRY(V4L2_DRM_COLORFORMAT_YC, 5),
    });
}

TEST(Enumerations, frame_rates) {
    ExpectEnumeration({
        ENTRY(V4L2_DRM_FRAMERATE_23_97HZ, 1),  ENTRY(V4L2_DRM_FRAMERATE_24HZ, 2),
        ENTRY(V4L2_DRM_FRAMERATE_25HZ, 3),     ENTRY(V4L2_DRM_FRAMERATE_29_97HZ, 4),
        ENTRY(V4L2_DRM_FRAMERATE_30HZ, 5),     ENTRY(V4L2_DRM_FRAMERATE_50HZ, 6),
        ENTRY(V4L2_DRM_FRAMERATE_59_94HZ, 7),  ENTRY(V4L2_DRM_FRAMERATE_60HZ, 8),
        ENTRY(V4L2_DRM_FRAMERATE_48HZ, 9),     ENTRY(V4L2_DRM_FRAMERATE__47_94HZ, 10),
        ENTRY(V4L2_DRM_FRAMERATE_75HZ, 11),    ENTRY(V4L2_DRM_FRAMERATE_100HZ, 12),
        ENTRY(V4L2_DRM_FRAMERATE_120HZ, 13),   ENTRY(V4L2_DRM_FRAMERATE_56_25HZ, 14),
        ENTRY(V4L2_DRM_FRAMERATE_66_66HZ, 15), ENTRY(V4L2_DRM_FRAMERATE_70HZ, 16),
        ENTRY(V4L2_DRM_FRAMERATE_72HZ, 17),    ENTRY(V4L2_DRM_FRAMERATE_76HZ, 18),
        ENTRY(V4L2_DRM_FRAMERATE_85HZ, 19),    ENTRY(V4L2_DRM_FRAMERATE_ETC, 20),
    });
}

TEST(Enumerations, stereoscopic_types) {
    ExpectEnumeration({
        ENTRY(V4L2_DRM_INPUT_STEREOSCOPIC_2D, 0),
        ENTRY(V4L2_DRM_INPUT_STEREOSCOPIC_SBS, 1),
        ENTRY(V4L2_DRM_INPUT_STEREOSCOPIC_TNB, 2),
        ENTRY(V4L2_DRM_INPUT_STEREOSCOPIC_FRAME_SEQ, 3),
        ENTRY(V4L2_DRM_INPUT_STEREOSCOPIC_FRAME_PACK, 4),
        ENTRY(V4L2_DRM_INPUT_STEREOSCOPIC_3D_KR3D, 5),
        ENTRY(V4L2_DRM_INPUT_STEREOSCOPIC_3D_MVC_B, 6),
        ENTRY(V4L2_DRM_INPUT_STEREOSCOPIC_3D_MFC_D, 7),
        ENTRY(V4L2_DRM_INPUT_STEREOSCOPIC_3D_SVAF, 8),
        ENTRY(V4L2_DRM_INPUT_STEREOSCOPIC_3D_MVC, 9),
    });
}

TEST(Enumerations, main_clone_multiplexer) {
    ExpectEnumeration({
        ENTRY(V4L2_DRM_MAIN_CLONE_MUX_VIDEO_ONLY, 0),
        ENTRY(V4L2_DRM_MAIN_CLONE_MUX_VIDEO_GP, 1),
        ENTRY(V4L2_DRM_MAIN_CLONE_MUX_VIDEO_EXT_GP, 2),
        ENTRY(V4L2_DRM_MAIN_CLONE_MUX_RESERVED0, 3),
        ENTRY(V4L2_DRM_MAIN_CLONE_MUX_RESERVED1, 4),
        ENTRY(V4L2_DRM_MAIN_CLONE_MUX_MAX, 5),
    });
}

TEST(Enumerations, enumerations_in_records_are_32_bits_wide) {
    EXPECT_EQ(sizeof(v4l2_drm_inputport_type), 4u);
    EXPECT_EQ(sizeof(v4l2_aspectratio_type), 4u);
    EXPECT_EQ(sizeof(v4l2_drm_colorformat_type), 4u);
    EXPECT_EQ(sizeof(v4l2_drm_framerate_type), 4u);
    EXPECT_EQ(sizeof(v4l2_drm_input_stereoscopic_type), 4u);
    EXPECT_EQ(sizeof(v4l2_drm_main_clone_mux), 4u);
    EXPECT_EQ(sizeof(sdp_drm_onoff_func), 4u);
    EXPECT_EQ(sizeof(sdp_drm_plane_type), 4u);
}

}  // namespace
