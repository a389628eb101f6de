// Bringing a stream up on the first frame, announcing resolution changes, and the
// per-frame path: main video plane, or converter and renderer on the on-screen display.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>

#include <new>

#include "HMXClientInterface.h"
#include "ruvo/driver/kdolby.h"
#include "ruvo/wayland_render.h"
#include "ruvo_internal_video.h"
#include "ruvo_log.h"

namespace {

// Line stride of the hardware frame buffers, in bytes.
constexpr unsigned kFrameBufferStride = 1920;
// Converter record word that is given the buffers' stride (first word of the copied
// descriptor's union).
constexpr size_t kConverterStrideOffset = 24;

}  // namespace

// Client of the chip's picture-quality manager service.
class LIB_HMX_PQMGR_CLIENT : public HMXClientInterface {
  public:
    LIB_HMX_PQMGR_CLIENT() : HMXClientInterface("COM.QVL.HMX.PQMGR", 0) {}
};

// Created on the first plane-path first frame of the process and shared by all handles.
static LIB_HMX_PQMGR_CLIENT* p_lib_hmx_pqmgr_client = nullptr;

static inline void qvl_set_playback_flag() {
    if (p_lib_hmx_pqmgr_client == nullptr)
        p_lib_hmx_pqmgr_client = new (std::nothrow) LIB_HMX_PQMGR_CLIENT();
    QVL_ERR("%s(%d)\n\n", __func__, __LINE__);
    if (p_lib_hmx_pqmgr_client == nullptr)
        return;

    HMXParam request;
    request.writeInt32(0x1000000);
    request.writeInt32(EN_HMX_PQMGR_SET_PLAYBACK_FLAG);
    request.writeInt32(1);
    HMXParam reply;
    p_lib_hmx_pqmgr_client->transact(EN_HMX_PQMGR_SET_PLAYBACK_FLAG, request, &reply, 0);
    if (reply.data() != nullptr && reply.dataSize() != 0)
        (void)reply.readInt32();
    puts("HMX:set corvi playback flag");
}

int SetDVProfile(quarvel_video_output_s* output, int dv_profile) {
    if (output == nullptr) {
        QVL_ERR("output is null\n");
        return -9;
    }
    if (dv_profile < 0 || dv_profile == output->m_dv_profile || output->m_dolby_fd < 0)
        return 0;
    int32_t profile = dv_profile;
    if (ioctl(output->m_dolby_fd, DOLBY_IOC_SET_DV_PROFILE, &profile) < 0) {
        QVL_ERR("ioctl(DOLBY_IOC_SET_DV_PROFILE) failed: %s\n", strerror(errno));
        return -1;
    }
    // The driver may answer with the profile it actually took.
    output->m_dv_profile = profile;
    QVL_INFO("dv_profile(%d)\n", profile);
    return 0;
}

int quarvel_video_output_init_with_first_frame(quarvel_video_output_s* output,
                                               quarvel_video_output_frame_s const* frame) {
    QVL_INFO("in\n");
    if (output == nullptr) {
        QVL_ERR("output is null\n");
        return -9;
    }
    if (frame == nullptr) {
        QVL_ERR("qvl_frame is null\n");
        return -9;
    }
    if (output->m_first_frame_initialized)
        return 0;

    output->m_frame_meta = CalculateFrameSizeFromV4L2(frame->v4l2_frame);

    if (output->m_is_ta) {
        QVL_TRACE("wayland render init\n");
        st_wayland_render_config config;
        config.width = static_cast<int>(output->m_frame_meta.w);
        config.height = static_cast<int>(output->m_frame_meta.h);
        for (int i = 0; i < 3; ++i) {
            config.dma_fd[i][0] = output->m_gem_buf[2 * i];      // luma
            config.dma_fd[i][1] = output->m_gem_buf[2 * i + 1];  // chroma
        }
        config.strides[0] = kFrameBufferStride;
        config.strides[1] = kFrameBufferStride;
        output->m_window = wayland_render_init(&config);
        if (output->m_window == nullptr) {
            QVL_ERR("wayland_render_init failed\n");
            return -1;
        }
        QVL_TRACE("wayland render init done\n");
        window* win = static_cast<window*>(output->m_window);
        // Every buffer is attached once, so that the compositor knows all three before
        // the first real frame.
        wayland_render_redraw(win, 0);
        wayland_render_redraw(win, 1);
        wayland_render_redraw(win, 2);
        wayland_render_re_create_dmabuf_buffer_directly(win, config.width, config.height);
        output->m_first_frame_initialized = true;
        QVL_INFO("out\n");
        return 0;
    }

    // The first announcement carries the stream's format without handing over a picture.
    v4l2_drm announce;
    memcpy(&announce, frame->v4l2_frame, sizeof(announce));
    announce.u.dec_info.pFrame[0].display_index = 0xFFFFFFFFu;

    if (SetDVProfile(output, frame->dv_profile) < 0)
        return -1;
    if (SetDpSource(output, &announce) < 0)
        return -2;
    if (!InitQueueMode(output))
        return -3;
    if (SetDpSource(output, frame->v4l2_frame) < 0)
        return -4;
    // Raised before positioning, so that a positioning failure does not repeat the above.
    output->m_first_frame_initialized = true;
    if (ApplyPositioning(output) < 0)
        return -5;
    qvl_set_playback_flag();
    return 0;
}

int quarvel_video_output_set_next_res(quarvel_video_output_s* output,
                                      quarvel_video_output_frame_s const* frame) {
    QVL_INFO("in\n");
    if (output == nullptr) {
        QVL_ERR("output is null\n");
        return -9;
    }
    if (frame == nullptr) {
        QVL_ERR("qvl_frame is null\n");
        return -9;
    }
    QVL_INFO("New Reslution:width = %d, height = %d\n", static_cast<int>(frame->v4l2_frame->u.dec_info.hres),
             static_cast<int>(frame->v4l2_frame->u.dec_info.vres));
    if (output->m_is_ta) {
        QVL_INFO("TA early return\n");
        return 0;
    }
    const quarvel_frame_size_s size = CalculateFrameSizeFromV4L2(frame->v4l2_frame);
    // The frame path updates m_frame_meta when the new size arrives.
    if (size.w == output->m_frame_meta.w && size.h == output->m_frame_meta.h)
        return 0;

    v4l2_drm descriptor;
    memcpy(&descriptor, frame->v4l2_frame, sizeof(descriptor));
    const quarvel_video_output_rect_s display = ApplyBoxContentMode(&output->m_wanted_rect, &size);

    next_resolution next;
    // The descriptor's address, sign-extended from the 32-bit pointer of the target.
    next.decoder_info =
        static_cast<uint64_t>(static_cast<int64_t>(reinterpret_cast<intptr_t>(frame->v4l2_frame)));
    next.crop_x = 0;
    next.crop_y = 0;
    next.crop_w = static_cast<uint16_t>(size.w);
    next.crop_h = static_cast<uint16_t>(size.h);
    next.disp_x = static_cast<uint16_t>(display.x);
    next.disp_y = static_cast<uint16_t>(display.y);
    next.disp_w = static_cast<uint16_t>(display.w);
    next.disp_h = static_cast<uint16_t>(display.h);

    uint8_t plane_id = 0;
    int32_t ret = 0;
    if (vplt_send_command(output->m_valio_fd, EN_VPLT_IOC_FR2IP_SetNextResolution, &plane_id, &next,
                          &descriptor, &ret) < 0) {
        QVL_ERR("ioctl(SetNextResolution) failed: %s\n", strerror(errno));
        return -1;
    }
    return 0;
}

// Has the converter decompress the frame into the frame-buffer pair at m_gem_buf_idx.
static inline bool converter_process(quarvel_video_output_s* output, v4l2_drm const* frame_info) {
    converter_decompress record;
    memset(&record, 0, sizeof(record));
    memcpy(&record.stFbInfo, frame_info, sizeof(record.stFbInfo));
    record.outDrmFd[0] = output->m_gem_buf[output->m_gem_buf_idx];
    record.outDrmFd[1] = output->m_gem_buf[output->m_gem_buf_idx + 1];
    const uint32_t stride = kFrameBufferStride;
    memcpy(reinterpret_cast<uint8_t*>(&record) + kConverterStrideOffset, &stride, sizeof(stride));

    const int ret = ioctl(output->m_de_fd, CONVERTER_IOCTL_DECOMPRESS, &record);
    const bool failed = ret < 0 || record.u32Retval != 0;
    if (failed)
        QVL_ERR("converter failed, ret:%d, u32Retval:%u.\n", ret, record.u32Retval);
    // Marks the end of the attempt, whatever its outcome.
    QVL_TRACE("converter success\n");
    return !failed;
}

// Converts the frame into the next frame-buffer pair and has the renderer show it.
static inline bool display_on_osd(quarvel_video_output_s* output, quarvel_video_output_frame_s const* frame) {
    QVL_TRACE("osd display in\n");
    window* win = static_cast<window*>(output->m_window);
    const v4l2_drm_dec_info& dec = frame->v4l2_frame->u.dec_info;
    if (dec.hres != output->m_frame_meta.w || dec.vres != output->m_frame_meta.h) {
        output->m_frame_meta.w = dec.hres;
        output->m_frame_meta.h = dec.vres;
        wayland_render_re_create_dmabuf_buffer(win, static_cast<int>(dec.hres), static_cast<int>(dec.vres));
    }
    if (!converter_process(output, frame->v4l2_frame)) {
        QVL_ERR("converter failed\n");
        return false;
    }
    output->m_wl_buf_idx = output->m_gem_buf_idx / 2;
    wayland_render_redraw(win, output->m_wl_buf_idx);
    output->m_gem_buf_idx = (output->m_gem_buf_idx + 2) % 6;
    QVL_TRACE("osd display out\n");
    return true;
}

int quarvel_video_output_push_frame_to_display(quarvel_video_output_s* output,
                                               quarvel_video_output_frame_s const* frame) {
    if (output == nullptr) {
        QVL_ERR("output is null\n");
        return -9;
    }
    if (!output->m_is_ta) {
        if (frame == nullptr) {
            // No content: positioning hides the video.
            output->m_frame_meta = quarvel_frame_meta_t{0, 0, 0, 0, 1, 1};
            return ApplyPositioning(output) < 0 ? -1 : 0;
        }
        QVL_TRACE("Render:frame id = %d\n",
                  static_cast<int>(frame->v4l2_frame->u.dec_info.pFrame[0].display_index));
        (void)InitQueueMode(output);
        if (SetDVProfile(output, frame->dv_profile) < 0)
            return -2;
        if (SetDpSource(output, frame->v4l2_frame) < 0)
            return -3;
        output->m_frame_meta = CalculateFrameSizeFromV4L2(frame->v4l2_frame);
        // Free unless the rectangle or the content's aspect changed.
        if (ApplyPositioning(output) < 0)
            return -4;
        return 0;
    }

    if (frame == nullptr)
        return 0;
    if (!display_on_osd(output, frame)) {
        QVL_ERR("display_on_osd failed\n");
        return -1;
    }
    return 0;
}
