// Dolby, frame converter and broadcast decoder node models.
#include <errno.h>
#include <string.h>

#include <linux/videodev2.h>

#include "core.h"
#include "ruvo/driver/kdolby.h"
#include "ruvo/driver/qvk_converter.h"
#include "ruvo/driver/v4l2_drm.h"

namespace emutv {

// ---- Dolby --------------------------------------------------------------------------------

// The defaults are the members' initializers (emutv/models.h).
void DolbyModel::reset() {
    *this = DolbyModel();
}

std::string DolbyModel::request_name(unsigned long req, const void*) const {
    return req == DOLBY_IOC_SET_DV_PROFILE ? "DOLBY_IOC_SET_DV_PROFILE" : "DOLBY_IOCTL";
}

size_t DolbyModel::record_size(unsigned long req, const void*) const {
    return req == DOLBY_IOC_SET_DV_PROFILE ? 4 : 0;
}

long DolbyModel::ioctl(int, unsigned long req, void* arg, Event& ev, int* err) {
    if (req != DOLBY_IOC_SET_DV_PROFILE) {
        *err = ENOTTY;
        return -1;
    }
    if (!arg) {
        *err = EFAULT;
        return -1;
    }
    int32_t value;
    memcpy(&value, arg, 4);
    ev.fields["profile"] = value;
    if (rewrite) {
        memcpy(arg, &rewrite_to, 4);
        value = rewrite_to;
    }
    profile = value;
    return 0;
}

// ---- Converter ----------------------------------------------------------------------------

void ConverterModel::reset() {
    *this = ConverterModel();
}

std::string ConverterModel::request_name(unsigned long req, const void*) const {
    switch (req) {
        case CONVERTER_IOCTL_CLOSE:
            return "CONVERTER_IOCTL_CLOSE";
        case CONVERTER_IOCTL_INIT:
            return "CONVERTER_IOCTL_INIT";
        case CONVERTER_IOCTL_DECOMPRESS:
            return "CONVERTER_IOCTL_DECOMPRESS";
        default:
            return "CONVERTER_IOCTL";
    }
}

size_t ConverterModel::record_size(unsigned long req, const void*) const {
    return req == CONVERTER_IOCTL_DECOMPRESS ? sizeof(converter_decompress) : 4;
}

long ConverterModel::ioctl(int, unsigned long req, void* arg, Event& ev, int* err) {
    if (!arg) {
        *err = EFAULT;
        return -1;
    }
    auto& f = ev.fields;
    switch (req) {
        case CONVERTER_IOCTL_INIT:
            initialised = true;
            static_cast<converter_retval*>(arg)->u32Retval = 0;
            return 0;
        case CONVERTER_IOCTL_CLOSE:
            initialised = false;
            static_cast<converter_retval*>(arg)->u32Retval = 0;
            return 0;
        case CONVERTER_IOCTL_DECOMPRESS: {
            auto* d = static_cast<converter_decompress*>(arg);
            uint32_t word24;
            memcpy(&word24, static_cast<uint8_t*>(arg) + 24, 4);
            f["out_y"] = d->outDrmFd[0];
            f["out_c"] = d->outDrmFd[1];
            f["word24"] = word24;
            f["hres"] = d->stFbInfo.u.dec_info.hres;
            f["vres"] = d->stFbInfo.u.dec_info.vres;
            d->u32Retval = 0;
            conversions++;
            return 0;
        }
        default:
            *err = ENOTTY;
            return -1;
    }
}

void ConverterModel::apply_status(unsigned long, void* arg, int32_t status) {
    if (arg)
        static_cast<converter_retval*>(arg)->u32Retval = static_cast<uint32_t>(status);
}

// ---- Broadcast decoder node ---------------------------------------------------------------

void DecoderModel::reset() {
    display_frame.fill(0);
    v4l2_drm d;
    memset(&d, 0, sizeof(d));
    d.inputport = V4L2_DRM_INPUTPORT_TYPE_DTV;
    d.u.dec_info.aspectratio = V4L2_ASPECTRATIO_TYPE_900_1600;
    d.u.dec_info.hres = 1920;
    d.u.dec_info.vres = 1080;
    d.u.dec_info.framerate = 50000;
    memcpy(display_frame.data(), &d, sizeof(d));
}

void DecoderModel::set_display_frame(uint32_t w, uint32_t h, uint32_t aspect, uint32_t framerate,
                                     uint32_t port) {
    v4l2_drm d;
    memset(&d, 0, sizeof(d));
    d.inputport = static_cast<v4l2_drm_inputport_type>(port);
    v4l2_drm_dec_info& di = d.u.dec_info;
    di.aspectratio = static_cast<v4l2_aspectratio_type>(aspect);
    di.hres = w;
    di.vres = h;
    di.effective_hres = w;
    di.effective_vres = h;
    di.framerate = framerate;
    di.bpp = 8;
    di.pFrame[0].display_index = 1;
    di.pFrame[0].showframe = 1;
    di.pFrame[0].width = w;
    di.pFrame[0].height = h;
    di.pFrame[0].y_linesize = w;
    di.pFrame[0].u_linesize = w;
    di.pFrame[0].colorformat = V4L2_DRM_COLORFORMAT_YUV420;
    di.pFrame[0].framedone = 1;
    display_frame.fill(0);
    memcpy(display_frame.data(), &d, sizeof(d));
}

std::string DecoderModel::request_name(unsigned long req, const void*) const {
    return req == VIDIOC_G_EXT_CTRLS ? "VIDIOC_G_EXT_CTRLS" : "V4L2_IOCTL";
}

long DecoderModel::ioctl(int, unsigned long req, void* arg, Event& ev, int* err) {
    if (req != VIDIOC_G_EXT_CTRLS) {
        *err = ENOTTY;
        return -1;
    }
    auto* ctrls = static_cast<v4l2_ext_controls*>(arg);
    if (!ctrls) {
        *err = EFAULT;
        return -1;
    }
    auto& f = ev.fields;
    f["ctrl_class"] = ctrls->ctrl_class;
    f["count"] = ctrls->count;
    if (ctrls->count != 1 || ctrls->controls == nullptr) {
        *err = EINVAL;
        return -1;
    }
    v4l2_ext_control& c = ctrls->controls[0];
    f["id"] = c.id;
    f["size"] = c.size;
    if (c.id != V4L2_CID_GET_DISPLAY_FRAME_INFO || c.size < sizeof(v4l2_drm) || c.ptr == nullptr) {
        ctrls->error_idx = 0;
        *err = EINVAL;
        return -1;
    }
    memcpy(c.ptr, display_frame.data(), sizeof(v4l2_drm));
    return 0;
}

}  // namespace emutv
