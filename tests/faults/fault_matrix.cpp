#include "fault_matrix.h"

#include <unistd.h>

#include <chrono>
#include <regex>
#include <thread>

#include "ruvo_internal_video.h"

namespace faults {

std::string fault_key(const Event& e) {
    if (e.kind == Kind::Open)
        return "open:" + e.path;
    if (e.kind == Kind::Close)
        return "close:" + e.path;
    return e.name;
}

bool is_driver_request(const Event& e) {
    return e.kind != Kind::Call;
}

std::string to_string(const Step& s) {
    return s.key + " #" + std::to_string(s.occurrence) + " (" + emutv::device_name(s.device) + ")";
}

std::string to_string(const Injection& f) {
    if (f.status)
        return "driver status " + std::to_string(f.value);
    return std::string("errno ") + std::to_string(f.err) + " (" + strerror(f.err) + ")";
}

namespace {

std::vector<Injection> errnos(std::initializer_list<int> list) {
    std::vector<Injection> out;
    for (int e : list) {
        Injection f;
        f.err = e;
        out.push_back(f);
    }
    return out;
}

}  // namespace

std::vector<Injection> injections_for(const Step& s) {
    if (s.kind == Kind::Open)
        return errnos({ENOENT, EACCES, EBUSY, ENODEV, ENXIO, EMFILE, ENOMEM, EINTR});
    if (s.kind == Kind::Close)
        return errnos({EIO, EINTR});
    if (s.kind == Kind::Write)
        return errnos({EAGAIN, EIO, EPIPE, EBADFD, EINVAL, EFAULT, ENOSPC, EINTR});
    switch (s.device) {
        case Device::Drm:
            return errnos(
                {EINVAL, ENOENT, EBUSY, ENOMEM, EFAULT, EPERM, EACCES, ENOSPC, EIO, ENODEV, EINTR, EAGAIN});
        case Device::Vplt: {
            auto out = errnos({EINVAL, EFAULT, EBUSY, EIO, ENOMEM, ETIMEDOUT, ENODEV, EINTR, EAGAIN});
            for (int32_t status : {1, 5, -1}) {
                Injection f;
                f.status = true;
                f.value = status;
                out.push_back(f);
            }
            return out;
        }
        case Device::Dolby:
            return errnos({EINVAL, EFAULT, EBUSY, EIO, ENODEV, EINTR, EAGAIN});
        case Device::Decoder:
            return errnos({EINVAL, ENOTTY, EBUSY, EIO, ENOMEM, EFAULT, EACCES, ENODEV, EINTR, EAGAIN});
        case Device::SoundCtl:
            return errnos({EINVAL, ENOENT, EPERM, EBUSY, EIO, EFAULT, ENOMEM, ENODEV, ENXIO, EINTR, EAGAIN});
        case Device::Compr:
            return errnos({EBADFD, EINVAL, EPIPE, EIO, EBUSY, EFAULT, ENOMEM, ENODEV, ENOSPC, EINTR, EAGAIN});
        default:
            return errnos({EINVAL, EIO});
    }
}

bool retried_by_libdrm(const Step& s, const Injection& f) {
    static const char* const kThroughLibdrm[] = {
        "DRM_IOCTL_MODE_GETRESOURCES",      "DRM_IOCTL_MODE_GETCONNECTOR", "DRM_IOCTL_MODE_GETENCODER",
        "DRM_IOCTL_MODE_GETPLANERESOURCES", "DRM_IOCTL_MODE_GETPLANE",     "DRM_IOCTL_MODE_OBJ_GETPROPERTIES",
        "DRM_IOCTL_MODE_GETPROPERTY",       "DRM_IOCTL_MODE_ADDFB2"};
    if (f.status || (f.err != EINTR && f.err != EAGAIN))
        return false;
    for (const char* k : kThroughLibdrm)
        if (s.key == k)
            return true;
    return false;
}

Outcome unknown() {
    Outcome o;
    o.known = false;
    return o;
}

std::vector<std::string> expand(const std::vector<std::string>& lines, const Injection& f) {
    std::vector<std::string> out;
    for (std::string l : lines) {
        for (size_t p; (p = l.find("%E")) != std::string::npos;)
            l.replace(p, 2, strerror(f.err));
        for (size_t p; (p = l.find("%N")) != std::string::npos;)
            l.replace(p, 2, std::to_string(f.err));
        for (size_t p; (p = l.find("%S")) != std::string::npos;)
            l.replace(p, 2, std::to_string(f.value));
        out.push_back(l);
    }
    return out;
}

namespace {

void inject(const std::string& key, const Injection& f) {
    if (f.status)
        emutv::platform().fail_status(key, f.value, 1);
    else
        emutv::platform().fail(key, f.err, 1);
}

}  // namespace

Armed::Armed(const Step& s, const Injection& f) {
    if (s.occurrence <= 1) {
        inject(s.key, f);
        return;
    }
    // The listener runs under the platform lock, right after a request was answered and
    // before the caller sees the answer; the fault is armed for the next one of its key.
    int seen = 0;
    const std::string key = s.key;
    const int before = s.occurrence - 1;
    emutv::platform().set_listener([key, before, f, seen](const Event& e) mutable {
        if (fault_key(e) == key && ++seen == before)
            inject(key, f);
    });
}

Armed::~Armed() {
    emutv::platform().set_listener(nullptr);
    emutv::platform().clear_faults();
}

const Event* find_step(const std::vector<Event>& events, const Step& s) {
    int n = 0;
    for (const auto& e : events) {
        if (fault_key(e) == s.key && ++n == s.occurrence)
            return &e;
    }
    return nullptr;
}

std::vector<Step> steps_of(const std::vector<Event>& events, const std::function<bool(const Event&)>& keep) {
    std::map<std::string, int> seen;
    std::vector<Step> out;
    for (const auto& e : events) {
        const std::string key = fault_key(e);
        const int n = ++seen[key];
        if (!keep(e))
            continue;
        if (e.kind == Kind::Open && e.result < 0)
            continue;
        Step s;
        s.key = key;
        s.occurrence = n;
        s.device = e.device;
        s.kind = e.kind;
        out.push_back(s);
    }
    return out;
}

void split_thread_lines(const std::vector<std::string>& all, std::vector<std::string>* caller,
                        std::vector<std::string>* thread) {
    static const std::string kThreadPrefixes[] = {ruvo_test::vline("_set_audio_mute", ""),
                                                  "[_kcontrol_set(): #]"};
    bool in_thread = false;
    for (const auto& l : all) {
        bool starts = false;
        for (const auto& p : kThreadPrefixes)
            starts = starts || l.compare(0, p.size(), p) == 0;
        // A line of blanks continues the message before it (one printf, one owner).
        const bool continuation = l.find_first_not_of(' ') == std::string::npos;
        if (!continuation)
            in_thread = starts;
        (in_thread ? thread : caller)->push_back(l);
    }
}

Frame::Frame(uint32_t hres, uint32_t vres, uint32_t aspect, int32_t dv_profile) {
    desc = ruvo_test::make_frame(hres, vres, aspect);
    memset(&frame, 0, sizeof(frame));
    frame.v4l2_frame = &desc;
    frame.dv_profile = dv_profile;
}

std::vector<std::string> playback_flag_lines() {
    return {v("qvl_set_playback_flag", "qvl_set_playback_flag(#)"), "", "HMX:set corvi playback flag"};
}

void FaultMatrix::SetUp() {
    PlatformTest::SetUp();
    unsetenv("TA_DTV_PRELOAD");
}

void FaultMatrix::TearDown() {
    emutv::platform().set_listener(nullptr);
    unsetenv("TA_DTV_PRELOAD");
    PlatformTest::TearDown();
}

void FaultMatrix::fresh_platform() {
    tv().reset();
    g_ruvo_logmask = RUVO_LOG_ERR;
}

std::vector<std::string> FaultMatrix::lines_now() {
    static const std::regex pointer(R"(output: (0x[0-9a-f]+|\(nil\)))");
    static const std::regex flag_site(R"(qvl_set_playback_flag\(\d+\)$)");
    std::vector<std::string> out;
    for (auto l : lines()) {
        l = std::regex_replace(l, pointer, "output: <ptr>");
        l = std::regex_replace(l, flag_site, "qvl_set_playback_flag(#)");
        out.push_back(l);
    }
    return out;
}

size_t FaultMatrix::count(const std::string& key) const {
    size_t n = 0;
    for (const auto& e : emutv::platform().events())
        if (fault_key(e) == key)
            n++;
    return n;
}

std::vector<std::string> FaultMatrix::requests_since_mark() const {
    std::vector<std::string> out;
    const auto events = emutv::platform().events();
    for (size_t i = mark_; i < events.size(); ++i)
        if (is_driver_request(events[i]))
            out.push_back(fault_key(events[i]));
    return out;
}

void FaultMatrix::run(Sequence& s) {
    // Reference run.
    fresh_platform();
    const int fds_before = emutv::process_open_descriptors();
    s.setup();
    tv().clear_events();
    (void)lines_now();
    const int ref_result = s.call();
    s.settle();
    const auto ref_events = tv().events();
    const auto ref_lines = s.visible(lines_now());
    EXPECT_EQ(ref_result, s.success.result) << s.name << ": reference run";
    EXPECT_EQ(ref_lines, s.success.lines) << s.name << ": reference run";
    if (s.success.check)
        s.success.check();
    s.teardown();
    (void)lines_now();
    ASSERT_EQ(emutv::process_open_descriptors(), fds_before)
        << s.name << ": reference run leaves descriptors";
    reference_counts_.clear();
    for (const auto& e : ref_events)
        reference_counts_[fault_key(e)]++;

    const auto steps = steps_of(ref_events, s.keep);
    ASSERT_FALSE(steps.empty()) << s.name << ": the call sends no request";

    size_t runs = 0;
    for (const auto& step : steps) {
        for (const auto& f : injections_for(step)) {
            SCOPED_TRACE(s.name + ": " + to_string(step) + " fails with " + to_string(f));
            fresh_platform();
            const int base = emutv::process_open_descriptors();
            const int base_emulated = tv().open_descriptors();
            s.setup();
            tv().clear_events();
            (void)lines_now();

            const Outcome o = s.expect(step, f);
            if (!o.known) {
                ADD_FAILURE() << "no documented outcome for this request";
                s.teardown();
                continue;
            }
            int result;
            {
                Armed armed(step, f);
                result = s.call();
                s.settle();
            }
            const auto events = tv().events();
            const auto printed = s.visible(lines_now());

            // The fault reached the request it was meant for.
            const Event* hit = find_step(events, step);
            if (hit == nullptr) {
                ADD_FAILURE() << "the request was not sent";
            } else if (f.status) {
                EXPECT_TRUE(hit->has("status") && hit->field("status") == f.value) << "status not injected";
            } else {
                EXPECT_EQ(hit->result, -1);
                EXPECT_EQ(hit->err, f.err);
            }

            EXPECT_EQ(result, o.result);
            EXPECT_EQ(printed, expand(o.lines, f));
            if (o.check)
                o.check();
            if (o.next_call) {
                mark_ = tv().events().size();
                o.next_call();
            }
            s.teardown();
            (void)lines_now();

            // Nothing left open but what the documented behaviour leaves open.
            const int left = emutv::process_open_descriptors() - base;
            EXPECT_EQ(left, o.descriptors_left_open) << "descriptors left open";
            EXPECT_EQ(tv().open_descriptors() - base_emulated, o.descriptors_left_open);
            // Closes what was left open by design, so that the next run starts clean.
            std::map<int, bool> still_open;
            for (const auto& e : tv().events()) {
                if (e.kind == Kind::Open && e.result >= 0)
                    still_open[static_cast<int>(e.result)] = true;
                if (e.kind == Kind::Close)
                    still_open[e.fd] = false;
            }
            for (const auto& [fd, open] : still_open)
                if (open)
                    ::close(fd);
            EXPECT_EQ(fr2ip_zero_queue_use_count(), o.queue_count_after) << "zero-queue count";
            // A documented imbalance of the count is evened out for the next run.
            for (int c = fr2ip_zero_queue_use_count(); c < 0; ++c)
                (void)fr2ip_set_queue_size(-1, 0);
            runs++;
            if (HasFatalFailure())
                return;
        }
    }
    fprintf(stderr, "%s: %zu requests, %zu faulted runs\n", s.name.c_str(), steps.size(), runs);
}

}  // namespace faults
