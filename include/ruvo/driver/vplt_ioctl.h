// Video-platform driver ("/dev/qvl/qvkvplt") command record and command numbers.
#pragma once

#include <stddef.h>
#include <stdint.h>

// Every request of the video-platform driver is this 36-byte record (on the 32-bit
// target): a command number and up to seven argument addresses plus the address of the
// driver's own result cell. Arguments always travel by address.
typedef struct _ST_VPLT_IOC_CMD {
    int32_t enCmd;
    void* arg1;
    void* arg2;
    void* arg3;
    void* arg4;
    void* arg5;
    void* arg6;
    void* arg7;
    void* ret;
} ST_VPLT_IOC_CMD;

// _IOWR('V', 4, 36): the size field is fixed by the driver at 36 on every ABI.
#define VPLT_IOC_CMD 0xC0245604u

typedef enum {
    EN_VPLT_IOC_API_START = 256,
    EN_VPLT_IOC_CAPABILITY,
    EN_VPLT_IOC_SetPCTiming,

    EN_VPLT_IOC_SCLR_START = 320,
    EN_VPLT_IOC_SCLR_Setup2Dto3D,
    EN_VPLT_IOC_SCLR_SetWindowMuteOn,
    EN_VPLT_IOC_SCLR_SetWindowOn,
    EN_VPLT_IOC_SCLR_FB_GetFrameBufInfo,
    EN_VPLT_IOC_SCLR_FB_SetLBMLayout,
    EN_VPLT_IOC_SCLR_FB_GetCurLBMLayout,
    EN_VPLT_IOC_SCLR_FB_MallocRemainderMem,
    EN_VPLT_IOC_SCLR_FB_FreeRemainderMem,
    EN_VPLT_IOC_SCLR_FB_QueryRemainderMemSize,
    EN_VPLT_IOC_SCLR_FB_QueryTotalMemSize,
    EN_VPLT_IOC_SCLR_FB_Alloc,
    EN_VPLT_IOC_SCLR_FB_Free,
    EN_VPLT_IOC_SCLR_FB_FreeAll,
    EN_VPLT_IOC_SCLR_AllocODBuf,
    EN_VPLT_IOC_SCLR_AllocBuffer,
    EN_VPLT_IOC_SCLR_UpdateInputSrc,
    EN_VPLT_IOC_SCLR_Update_ScalingWithFrameBuffer,
    EN_VPLT_IOC_SCLR_OD_LoadTable,
    EN_VPLT_IOC_SCLR_SetCSCmode,
    EN_VPLT_IOC_SCLR_SetHPos,
    EN_VPLT_IOC_SCLR_SetVPos,
    EN_VPLT_IOC_SCLR_PlayControl,
    EN_VPLT_IOC_SCLR_SetPlayFieldType,
    EN_VPLT_IOC_SCLR_FB_ShareMainPathBufWithCapturePath,
    EN_VPLT_IOC_SCLR_SetFlushPattern,
    EN_VPLT_IOC_SCLR_ReviseGeomery,
    EN_VPLT_IOC_SCLR_ReviseCrop,
    EN_VPLT_IOC_SCLR_NPU_GetFrameBufInfo,

    EN_VPLT_IOC_SCLR_Output_START = 384,
    EN_VPLT_IOC_SCLR_Output_Init,
    EN_VPLT_IOC_SCLR_Output_SetPanelTimingDiff,
    EN_VPLT_IOC_SCLR_Output_SetPanelTiming,
    EN_VPLT_IOC_SCLR_Output_SetPostPanelTiming,
    EN_VPLT_IOC_SCLR_Output_SetSubPanelTiming,
    EN_VPLT_IOC_SCLR_Output_SetPanelFreeRun,
    EN_VPLT_IOC_SCLR_Output_SetPanelTimingRange,
    EN_VPLT_IOC_SCLR_Output_EnableFrameSync,
    EN_VPLT_IOC_SCLR_Output_GetFrameSyncStatus,
    EN_VPLT_IOC_SCLR_Output_SetFrameRateDeviation,
    EN_VPLT_IOC_SCLR_Output_SetFrameBGcolor,
    EN_VPLT_IOC_SCLR_Output_SetWindowBGcolor,
    EN_VPLT_IOC_SCLR_Output_EnableFrameMute,
    EN_VPLT_IOC_SCLR_Output_EnableBlueScreen,
    EN_VPLT_IOC_SCLR_Output_EnableDisplayWindow,
    EN_VPLT_IOC_SCLR_Output_SetWindowOnTop,
    EN_VPLT_IOC_SCLR_Output_SetGraphicMixing,
    EN_VPLT_IOC_SCLR_Output_GetDPTiming,

    EN_VPLT_IOC_SCLR_PANEL_START = 448,
    EN_VPLT_IOC_SCLR_PANEL_Init,
    EN_VPLT_IOC_SCLR_PANEL_SetPanel,
    EN_VPLT_IOC_SCLR_PANEL_SetPanelLvdsFormat,
    EN_VPLT_IOC_SCLR_PANEL_SetPanelABSwap,
    EN_VPLT_IOC_SCLR_PANEL_SetPanelDualPixelOutput,
    EN_VPLT_IOC_SCLR_PANEL_SetChannelSwap,
    EN_VPLT_IOC_SCLR_PANEL_SetPanelLvdsClockSpreadSpec,
    EN_VPLT_IOC_SCLR_PANEL_SetLvdsClockDataDelay,
    EN_VPLT_IOC_SCLR_PANEL_SetPanelLvdsDriving,
    EN_VPLT_IOC_SCLR_PANEL_SetPanelLvdsPreEmphasis,
    EN_VPLT_IOC_SCLR_PANEL_GetPanelLvdsData,
    EN_VPLT_IOC_SCLR_PANEL_EnableLVDS,
    EN_VPLT_IOC_SCLR_PANEL_SetPanelLvds10Bits,
    EN_VPLT_IOC_SCLR_PANEL_SetDither,
    EN_VPLT_IOC_SCLR_PANEL_SetVX1Partition,
    EN_VPLT_IOC_SCLR_PANEL_Tcon_SetDemura,
    EN_VPLT_IOC_SCLR_PANEL_Tcon_SetOverDriver,
    EN_VPLT_IOC_SCLR_PANEL_PanelShift,
    EN_VPLT_IOC_SCLR_PANEL_RevisePanel,

    EN_VPLT_IOC_SCLR_CTRL_START = 512,
    EN_VPLT_IOC_SCLR_CTRL_UpdateSCLR,
    EN_VPLT_IOC_SCLR_CTRL_UpdateSCLR_AUX,
    EN_VPLT_IOC_SCLR_CTRL_UpdateSclr_Capture,
    EN_VPLT_IOC_SCLR_CTRL_UpdateSclr_Tve,
    EN_VPLT_IOC_SCLR_CTRL_UpdateSclr_Cars,

    EN_VPLT_IOC_SRC_START = 576,
    EN_VPLT_IOC_SRC_Init,
    EN_VPLT_IOC_SRC_ConnectInput,
    EN_VPLT_IOC_SRC_DisconnectInput,
    EN_VPLT_IOC_SRC_GetSyncInfo,
    EN_VPLT_IOC_SRC_GetSrcInterface,
    EN_VPLT_IOC_SRC_GetSrcType,
    EN_VPLT_IOC_SRC_GetInputSrc,
    EN_VPLT_IOC_SRC_FORCE_VGA_SyncType,

    EN_VPLT_IOC_MHL_HDMI_START = 640,
    EN_VPLT_IOC_MHL_SendCMD,
    EN_VPLT_IOC_MHL_GetCbusData,
    EN_VPLT_IOC_MHL_IsConnected,
    EN_VPLT_IOC_HDMI_SetARC,
    EN_VPLT_IOC_HDMI_SetRXCLK,
    EN_VPLT_IOC_HDMI_SetRXCLK_Prot,
    EN_VPLT_IOC_HDMI_SetEqType,

    EN_VPLT_IOC_VD_START = 704,
    EN_VPLT_IOC_VD_SetAutoScan,
    EN_VPLT_IOC_VD_SetChannelUpDnInit,
    EN_VPLT_IOC_VD_SetChannelFrequency,

    EN_VPLT_IOC_DEV_SRC_START = 768,
    EN_VPLT_IOC_DEV_SRC_IsDVIFSupport,
    EN_VPLT_IOC_DEV_SRC_SetDVIF,
    EN_VPLT_IOC_DEV_SRC_SetSetVideoPathConfig,

    EN_VPLT_IOC_SRC_MODE_START = 832,
    EN_VPLT_IOC_SRC_MODE_Init,
    EN_VPLT_IOC_SRC_MODE_GetSyncStable,
    EN_VPLT_IOC_SRC_MODE_BuildMode,
    EN_VPLT_IOC_SRC_MODE_BuildModeByRes,
    EN_VPLT_IOC_SRC_MODE_ForceModeChange,
    EN_VPLT_IOC_SRC_MODE_SetHPos,
    EN_VPLT_IOC_SRC_MODE_GetHPos,
    EN_VPLT_IOC_SRC_MODE_SetVPos,
    EN_VPLT_IOC_SRC_MODE_GetVPos,

    EN_VPLT_IOC_SRC_KADC_START = 896,
    EN_VPLT_IOC_SRC_KADC_Init,
    EN_VPLT_IOC_SRC_KADC_SetTriggerFlag,
    EN_VPLT_IOC_SRC_KADC_TriggerOnce,
    EN_VPLT_IOC_SRC_KADC_Set_eFuseFT,
    EN_VPLT_IOC_SRC_KADC_Init_eFuse,
    EN_VPLT_IOC_SRC_KADC_GainShift,
    EN_VPLT_IOC_SRC_KADC_Init_TVADC,
    EN_VPLT_IOC_SRC_KADC_GetResult,

    EN_VPLT_IOC_SRC_AUTO_START = 960,
    EN_VPLT_IOC_SRC_AUTO_AutoClock,
    EN_VPLT_IOC_SRC_AUTO_AutoPosition,
    EN_VPLT_IOC_SRC_AUTO_AutoPhase,
    EN_VPLT_IOC_SRC_AUTO_AutoTune,

    EN_VPLT_IOC_SRC_Test_START = 1024,
    EN_VPLT_IOC_SRC_Test_Init,
    EN_VPLT_IOC_SRC_Test_GetSelfTestModeOnOff,
    EN_VPLT_IOC_SRC_Test_GetClampChangeOnOff,
    EN_VPLT_IOC_SRC_Test_SelfTestMode,

    EN_VPLT_IOC_TVOUT_START = 1088,
    EN_VPLT_IOC_TVOUT_Init,
    EN_VPLT_IOC_TVOUT_VideoMute,
    EN_VPLT_IOC_TVOUT_VideoConnect,
    EN_VPLT_IOC_TVOUT_VideoDisConnect,
    EN_VPLT_IOC_TVOUT_EnableMixOut,
    EN_VPLT_IOC_TVOUT_Action,
    EN_VPLT_IOC_TVOUT_VideoStart,
    EN_VPLT_IOC_TVOUT_GetTVE,
    EN_VPLT_IOC_TVOUT_SetTVE,
    EN_VPLT_IOC_TVOUT_MacrovisionStart,
    EN_VPLT_IOC_TVOUT_MacrovisionStop,
    EN_VPLT_IOC_TVOUT_VBI_EnableVBIOperation,
    EN_VPLT_IOC_TVOUT_VBI_Start,
    EN_VPLT_IOC_TVOUT_SendVBIData,
    EN_VPLT_IOC_TVOUT_SetWSSType,

    EN_VPLT_IOC_TVADC_START = 1152,
    EN_VPLT_IOC_TVADC_SetHPLLClk,
    EN_VPLT_IOC_TVADC_SetHPLLPhase,

    EN_VPLT_IOC_VIU_START = 1216,
    EN_VPLT_IOC_VIU_EnableTVOut,
    EN_VPLT_IOC_VIU_SetupTVOut,
    EN_VPLT_IOC_VIU_DoubleFramerate,
    EN_VPLT_IOC_VIU_SetSRCIndex,
    EN_VPLT_IOC_VIU_SetCaptureVideoSizeFmt,
    EN_VPLT_IOC_VIU_SetSocFRCConvert,
    EN_VPLT_IOC_VIU_ConfigPanelTiming,

    EN_VPLT_IOC_EXTCFG_START = 1280,
    EN_VPLT_IOC_EXTCFG_GetForceUDInputFlag,
    EN_VPLT_IOC_EXTCFG_SetForceUDInputFlag,
    EN_VPLT_IOC_EXTCFG_SetPhotoLBMFormat,
    EN_VPLT_IOC_EXTCFG_FileChgSeamless,
    EN_VPLT_IOC_EXTCFG_FbRotateUnmuteFlow,

    EN_VPLT_IOC_GFX_START = 1344,
    EN_VPLT_IOC_PQ_START = 1408,
    EN_VPLT_IOC_VDEC_START = 1472,

    EN_VPLT_IOC_FR2IP_START = 1536,
    EN_VPLT_IOC_FR2IP_GetDevSyncInfo,
    EN_VPLT_IOC_FR2IP_SetOneField,
    EN_VPLT_IOC_FR2IP_Open,
    EN_VPLT_IOC_FR2IP_FRE_DMA_Convert,
    EN_VPLT_IOC_FR2IP_GetPTS,
    EN_VPLT_IOC_FR2IP_GetNumBufInQueue,
    EN_VPLT_IOC_FR2IP_GetVsyncTimePointer,
    EN_VPLT_IOC_FR2IP_GetOffsetFromVsync = EN_VPLT_IOC_FR2IP_GetVsyncTimePointer,
    EN_VPLT_IOC_FR2IP_SetDispQueueSize,
    EN_VPLT_IOC_FR2IP_SetPTS,
    EN_VPLT_IOC_FR2IP_SetNextResolution,
    EN_VPLT_IOC_FR2IP_GetVsyncTimeInterval,
    EN_VPLT_IOC_FR2IP_GetVsyncHZ,
    EN_VPLT_IOC_FR2IP_GetDirectlyFrames,
    EN_VPLT_IOC_FR2IP_EnableRuvoFlow,

    EN_VPLT_IOC_MISC_START = 1600,
    EN_VPLT_IOC_SetDDRSSC,
    EN_VPLT_IOC_SetEMMCSSC,
    EN_VPLT_IOC_GetHDCPReady,
    EN_VPLT_IOC_TOTAL,
} EN_VPLT_IOC;

// Payload of EN_VPLT_IOC_FR2IP_SetNextResolution (24 bytes, little-endian).
typedef struct next_resolution {
    uint64_t decoder_info;
    uint16_t crop_x;
    uint16_t crop_y;
    uint16_t crop_w;
    uint16_t crop_h;
    uint16_t disp_x;
    uint16_t disp_y;
    uint16_t disp_w;
    uint16_t disp_h;
} next_resolution;

// Answer of EN_VPLT_IOC_FR2IP_GetOffsetFromVsync.
typedef struct vplt_vsync_offset {
    int32_t tv_sec;
    int32_t tv_nsec;
} vplt_vsync_offset;

#ifdef __cplusplus
static_assert(EN_VPLT_IOC_FR2IP_SetDispQueueSize == 1544, "FR2IP numbering");
static_assert(EN_VPLT_IOC_FR2IP_SetPTS == 1545, "FR2IP numbering");
static_assert(EN_VPLT_IOC_FR2IP_SetNextResolution == 1546, "FR2IP numbering");
static_assert(EN_VPLT_IOC_FR2IP_GetVsyncHZ == 1548, "FR2IP numbering");
static_assert(EN_VPLT_IOC_FR2IP_GetDirectlyFrames == 1549, "FR2IP numbering");
static_assert(EN_VPLT_IOC_FR2IP_EnableRuvoFlow == 1550, "FR2IP numbering");
static_assert(EN_VPLT_IOC_FR2IP_GetOffsetFromVsync == 1543, "FR2IP numbering");
static_assert(EN_VPLT_IOC_SCLR_NPU_GetFrameBufInfo == 348, "SCLR numbering");
static_assert(EN_VPLT_IOC_SCLR_Output_GetDPTiming == 402, "SCLR output numbering");
static_assert(EN_VPLT_IOC_SCLR_PANEL_RevisePanel == 467, "panel numbering");
static_assert(EN_VPLT_IOC_TOTAL == 1604, "misc numbering");
static_assert(sizeof(next_resolution) == 24, "next_resolution is 24 bytes");
static_assert(offsetof(next_resolution, crop_x) == 8 && offsetof(next_resolution, disp_h) == 22,
              "next_resolution layout");
#if defined(__arm__)
static_assert(sizeof(ST_VPLT_IOC_CMD) == 36, "_ST_VPLT_IOC_CMD is 36 bytes on the target");
static_assert(offsetof(ST_VPLT_IOC_CMD, arg1) == 4 && offsetof(ST_VPLT_IOC_CMD, ret) == 32,
              "_ST_VPLT_IOC_CMD layout on the target");
#elif defined(__x86_64__)
static_assert(sizeof(ST_VPLT_IOC_CMD) == 72, "_ST_VPLT_IOC_CMD on the x86-64 host");
static_assert(offsetof(ST_VPLT_IOC_CMD, arg1) == 8 && offsetof(ST_VPLT_IOC_CMD, ret) == 64,
              "_ST_VPLT_IOC_CMD layout on the x86-64 host");
#endif
#endif
