#include "test_compositor.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <wayland-server.h>

#include "fullscreen-shell-unstable-v1-server-protocol.h"
#include "linux-dmabuf-unstable-v1-server-protocol.h"
#include "viewporter-server-protocol.h"
#include "weston-direct-display-server-protocol.h"
#include "xdg-shell-server-protocol.h"

#ifndef RUVO_TEST_COMPOSITOR_RUNTIME_BASE
#define RUVO_TEST_COMPOSITOR_RUNTIME_BASE "."
#endif

namespace ruvo_test {
namespace compositor_detail {

struct Core;

// One protocol object of a client.
struct Obj {
    Core* core = nullptr;
    wl_resource* res = nullptr;  // null once destroyed
    std::string kind;
    std::string label;
    int number = 0;  // per-kind creation number

    // wl_surface
    bool attached = false;
    Obj* pending = nullptr;
    Obj* current = nullptr;
    std::vector<Obj*> frames;
    Obj* xdg = nullptr;  // its xdg_surface
    // xdg_surface
    Obj* toplevel = nullptr;
    bool configured = false;
};

// A client connection. The client talks to `cfd`; libwayland-server owns `sfd`; the
// compositor thread copies bytes and descriptors between `cfd` and `mfd` (the other end
// of `sfd`) and closes `mfd` only once libwayland-server has read everything the client
// sent, so that requests written right before a disconnect are not lost.
struct Relay {
    wl_listener destroy_listener;
    Core* core;
    int cfd;
    int mfd;
    int sfd;
    wl_event_source* csrc;
    wl_event_source* msrc;
    wl_client* client;
    bool client_eof;
};

struct Command {
    std::function<void()> fn;
    bool settle = false;
    bool done = false;
};

struct Core {
    CompositorConfig cfg;
    std::string runtime_dir;
    std::string socket_name = "ruvo-wl";
    std::string socket_path;
    wl_display* display = nullptr;
    wl_event_loop* loop = nullptr;
    int listen_fd = -1;
    int wake_fd = -1;
    std::thread thread;
    bool started = false;
    bool running = false;  // compositor thread

    std::mutex mu;  // guards everything below up to the compositor-thread state
    std::condition_variable cv;
    std::vector<std::string> record;
    std::map<std::pair<uint64_t, uint64_t>, std::string> fd_labels;
    std::deque<std::shared_ptr<Command>> queue;
    int client_count = 0;

    // Compositor-thread state.
    std::vector<std::shared_ptr<Command>> executed;
    std::vector<std::shared_ptr<Command>> settling;
    std::vector<std::unique_ptr<Obj>> objs;
    std::map<wl_resource*, Obj*> by_resource;
    std::map<std::string, int> counters;
    std::map<int, Obj*> buffers;
    std::vector<std::unique_ptr<Relay>> relays;
    std::map<std::string, wl_global*> globals;
    int creates = 0;
    uint32_t configure_serial = 0;
    uint32_t frame_time = 0;

    void rec(std::string text) {
        std::lock_guard<std::mutex> g(mu);
        record.push_back(std::move(text));
    }
    void event(const std::string& text) { rec("-> " + text); }

    Obj* obj_of(wl_resource* res) {
        auto it = by_resource.find(res);
        return it == by_resource.end() ? nullptr : it->second;
    }
    std::string label_of(wl_resource* res) {
        if (res == nullptr)
            return "null";
        Obj* o = obj_of(res);
        return o ? o->label : std::string("?") + wl_resource_get_class(res);
    }
    std::string fd_text(int fd);

    Obj* new_obj(wl_client* client, const wl_interface* iface, uint32_t version, uint32_t id);
    void handle(Obj* o, const wl_message* msg, wl_argument* args);
    void commit(Obj* surface);
    void release(Obj* buffer);

    void after_iteration();
    bool settled();
    void run_loop();
    void post(const std::shared_ptr<Command>& cmd);
    void run_sync(std::function<void()> fn, bool settle = false);
};

namespace {

const char* short_name(const char* iface) {
    static const std::map<std::string, const char*> names = {
        {"wl_compositor", "compositor"},
        {"wl_surface", "surface"},
        {"wl_region", "region"},
        {"wl_callback", "callback"},
        {"wl_buffer", "buffer"},
        {"wl_seat", "seat"},
        {"wl_pointer", "pointer"},
        {"wl_keyboard", "keyboard"},
        {"wl_touch", "touch"},
        {"wl_output", "output"},
        {"wp_viewporter", "viewporter"},
        {"wp_viewport", "viewport"},
        {"xdg_wm_base", "wm_base"},
        {"xdg_positioner", "positioner"},
        {"xdg_surface", "xdg_surface"},
        {"xdg_toplevel", "toplevel"},
        {"xdg_popup", "popup"},
        {"zwp_fullscreen_shell_v1", "fshell"},
        {"zwp_fullscreen_shell_mode_feedback_v1", "mode_feedback"},
        {"zwp_linux_dmabuf_v1", "dmabuf"},
        {"zwp_linux_buffer_params_v1", "params"},
        {"weston_direct_display_v1", "direct_display"},
    };
    auto it = names.find(iface);
    return it == names.end() ? iface : it->second;
}

std::string hex32(uint32_t v) {
    char buf[16];
    snprintf(buf, sizeof(buf), "0x%08x", v);
    return buf;
}

bool pending_bytes(int fd) {
    int n = 0;
    if (fd < 0)
        return false;
    if (ioctl(fd, FIONREAD, &n) != 0)
        return false;
    return n > 0;
}

// Moves one chunk of bytes (with any descriptors) from `from` to `to` (dropped when `to`
// is -1). Returns the byte count, 0 at the end of the stream, -1 on error, -2 when
// nothing is there yet.
long forward(int from, int to) {
    char buf[4096];
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int) * 28)];
    struct iovec iov = {buf, sizeof(buf)};
    struct msghdr msg;
    memset(&msg, 0, sizeof(msg));
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    ssize_t n;
    do {
        n = recvmsg(from, &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    } while (n < 0 && errno == EINTR);
    if (n < 0)
        return errno == EAGAIN ? -2 : -1;

    std::vector<int> fds;
    for (struct cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS)
            continue;
        size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        const unsigned char* data = CMSG_DATA(c);
        for (size_t i = 0; i < count; i++) {
            int fd;
            memcpy(&fd, data + i * sizeof(int), sizeof(int));
            fds.push_back(fd);
        }
    }

    if (n > 0 && to >= 0) {
        size_t sent = 0;
        bool with_fds = !fds.empty();
        while (sent < static_cast<size_t>(n)) {
            struct iovec oiov = {buf + sent, static_cast<size_t>(n) - sent};
            struct msghdr out;
            memset(&out, 0, sizeof(out));
            out.msg_iov = &oiov;
            out.msg_iovlen = 1;
            alignas(struct cmsghdr) char ocontrol[CMSG_SPACE(sizeof(int) * 28)];
            if (with_fds) {
                memset(ocontrol, 0, sizeof(ocontrol));
                out.msg_control = ocontrol;
                out.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
                struct cmsghdr* c = CMSG_FIRSTHDR(&out);
                c->cmsg_level = SOL_SOCKET;
                c->cmsg_type = SCM_RIGHTS;
                c->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
                memcpy(CMSG_DATA(c), fds.data(), sizeof(int) * fds.size());
            }
            ssize_t w = sendmsg(to, &out, MSG_NOSIGNAL);
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0)
                break;  // the other side is gone
            with_fds = false;
            sent += static_cast<size_t>(w);
        }
    }
    for (int fd : fds)
        close(fd);
    return n;
}

int dispatch_request(const void* /*implementation*/, void* target, uint32_t /*opcode*/, const wl_message* msg,
                     wl_argument* args) {
    wl_resource* res = static_cast<wl_resource*>(target);
    Obj* o = static_cast<Obj*>(wl_resource_get_user_data(res));
    o->core->handle(o, msg, args);
    return 0;
}

void resource_destroyed(wl_resource* res) {
    Obj* o = static_cast<Obj*>(wl_resource_get_user_data(res));
    o->res = nullptr;
    o->core->by_resource.erase(res);
}

const int kImplementationTag = 0;

struct GlobalData {
    Core* core;
    const wl_interface* iface;
};

void bind_global(wl_client* client, void* data, uint32_t version, uint32_t id) {
    GlobalData* g = static_cast<GlobalData*>(data);
    Core* c = g->core;
    c->rec(std::string("registry.bind(\"") + g->iface->name + "\", " + std::to_string(version) + ")");
    Obj* o = c->new_obj(client, g->iface, version, id);
    if (o == nullptr)
        return;
    if (g->iface == &zwp_linux_dmabuf_v1_interface) {
        if (c->cfg.format_events) {
            for (uint32_t f : c->cfg.formats) {
                zwp_linux_dmabuf_v1_send_format(o->res, f);
                c->event(o->label + ".format(" + hex32(f) + ")");
            }
        }
        if (c->cfg.modifier_events && version >= ZWP_LINUX_DMABUF_V1_MODIFIER_SINCE_VERSION) {
            for (uint32_t f : c->cfg.formats) {
                for (uint64_t m : c->cfg.modifiers) {
                    uint32_t hi = static_cast<uint32_t>(m >> 32);
                    uint32_t lo = static_cast<uint32_t>(m & 0xffffffffu);
                    zwp_linux_dmabuf_v1_send_modifier(o->res, f, hi, lo);
                    c->event(o->label + ".modifier(" + hex32(f) + ", " + hex32(hi) + ", " + hex32(lo) + ")");
                }
            }
        }
    } else if (g->iface == &wl_seat_interface) {
        wl_seat_send_capabilities(o->res, 0);
        c->event(o->label + ".capabilities(0)");
    }
}

void log_display_requests(void* data, enum wl_protocol_logger_type type,
                          const struct wl_protocol_logger_message* m) {
    if (type != WL_PROTOCOL_LOGGER_REQUEST)
        return;
    if (strcmp(wl_resource_get_class(m->resource), "wl_display") != 0)
        return;
    static_cast<Core*>(data)->rec(std::string("display.") + m->message->name + "()");
}

int on_client_bytes(int /*fd*/, uint32_t /*mask*/, void* data) {
    Relay* r = static_cast<Relay*>(data);
    long n = forward(r->cfd, r->mfd);
    if (n > 0 || n == -2)
        return 0;
    // The client closed its connection (or it broke).
    wl_event_source_remove(r->csrc);
    r->csrc = nullptr;
    close(r->cfd);
    r->cfd = -1;
    r->client_eof = true;
    return 0;
}

int on_server_bytes(int /*fd*/, uint32_t /*mask*/, void* data) {
    Relay* r = static_cast<Relay*>(data);
    long n = forward(r->mfd, r->cfd);
    if (n > 0 || n == -2)
        return 0;
    // libwayland-server let the client go: end the client's connection too.
    wl_event_source_remove(r->msrc);
    r->msrc = nullptr;
    close(r->mfd);
    r->mfd = -1;
    if (r->cfd >= 0) {
        wl_event_source_remove(r->csrc);
        r->csrc = nullptr;
        close(r->cfd);
        r->cfd = -1;
    }
    return 0;
}

void on_client_destroyed(wl_listener* listener, void* /*data*/) {
    Relay* r = reinterpret_cast<Relay*>(listener);  // the listener is the first member
    r->client = nullptr;
    r->sfd = -1;  // closed by libwayland-server
    Core* c = r->core;
    std::lock_guard<std::mutex> g(c->mu);
    c->record.push_back("disconnect");
    c->client_count--;
    c->cv.notify_all();
}

int on_connect(int fd, uint32_t /*mask*/, void* data) {
    Core* c = static_cast<Core*>(data);
    int cfd = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (cfd < 0)
        return 0;
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
        close(cfd);
        return 0;
    }
    std::unique_ptr<Relay> r(new Relay());
    memset(&r->destroy_listener, 0, sizeof(r->destroy_listener));
    r->core = c;
    r->cfd = cfd;
    r->sfd = sv[0];
    r->mfd = sv[1];
    r->client_eof = false;
    r->client = wl_client_create(c->display, sv[0]);
    if (r->client == nullptr) {
        close(cfd);
        close(sv[0]);
        close(sv[1]);
        return 0;
    }
    {
        std::lock_guard<std::mutex> g(c->mu);
        c->client_count++;
    }
    r->destroy_listener.notify = on_client_destroyed;
    wl_client_add_destroy_listener(r->client, &r->destroy_listener);
    r->csrc = wl_event_loop_add_fd(c->loop, r->cfd, WL_EVENT_READABLE, on_client_bytes, r.get());
    r->msrc = wl_event_loop_add_fd(c->loop, r->mfd, WL_EVENT_READABLE, on_server_bytes, r.get());
    c->relays.push_back(std::move(r));
    return 0;
}

int on_wake(int fd, uint32_t /*mask*/, void* data) {
    Core* c = static_cast<Core*>(data);
    uint64_t count;
    ssize_t got = read(fd, &count, sizeof(count));
    (void)got;
    std::deque<std::shared_ptr<Command>> todo;
    {
        std::lock_guard<std::mutex> g(c->mu);
        todo.swap(c->queue);
    }
    for (auto& cmd : todo) {
        if (cmd->settle) {
            c->settling.push_back(cmd);
        } else {
            if (cmd->fn)
                cmd->fn();
            c->executed.push_back(cmd);
        }
    }
    return 0;
}

}  // namespace

std::string Core::fd_text(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0)
        return "fd:bad";
    auto key = std::make_pair(static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino));
    std::lock_guard<std::mutex> g(mu);
    auto it = fd_labels.find(key);
    if (it != fd_labels.end())
        return "fd:" + it->second;
    return "fd:ino" + std::to_string(static_cast<unsigned long long>(st.st_ino));
}

Obj* Core::new_obj(wl_client* client, const wl_interface* iface, uint32_t version, uint32_t id) {
    wl_resource* res = wl_resource_create(client, iface, static_cast<int>(version), id);
    if (res == nullptr) {
        wl_client_post_no_memory(client);
        return nullptr;
    }
    std::unique_ptr<Obj> o(new Obj());
    o->core = this;
    o->res = res;
    o->kind = short_name(iface->name);
    o->number = counters[o->kind]++;
    o->label = o->kind + "#" + std::to_string(o->number);
    wl_resource_set_dispatcher(res, dispatch_request, &kImplementationTag, o.get(), resource_destroyed);
    by_resource[res] = o.get();
    if (iface == &wl_buffer_interface)
        buffers[o->number] = o.get();
    objs.push_back(std::move(o));
    return objs.back().get();
}

void Core::handle(Obj* o, const wl_message* msg, wl_argument* args) {
    wl_client* client = wl_resource_get_client(o->res);
    uint32_t version = static_cast<uint32_t>(wl_resource_get_version(o->res));
    const std::string name = msg->name;

    // New objects first, so that the record can name them.
    std::vector<Obj*> created;
    std::vector<char> types;
    for (const char* s = msg->signature; *s; s++) {
        if ((*s >= '0' && *s <= '9') || *s == '?')
            continue;
        types.push_back(*s);
    }
    created.assign(types.size(), nullptr);
    for (size_t i = 0; i < types.size(); i++) {
        if (types[i] == 'n' && msg->types[i] != nullptr)
            created[i] = new_obj(client, msg->types[i], version, args[i].n);
    }

    std::string text = o->label + "." + name + "(";
    for (size_t i = 0; i < types.size(); i++) {
        if (i)
            text += ", ";
        bool hex = (o->kind == "params" && name == "add" && i >= 4) ||
                   (o->kind == "params" && name == "create" && i == 2) ||
                   (o->kind == "params" && name == "create_immed" && i == 3);
        switch (types[i]) {
            case 'i':
                text += std::to_string(args[i].i);
                break;
            case 'u':
                text += hex ? hex32(args[i].u) : std::to_string(args[i].u);
                break;
            case 'f':
                text += std::to_string(wl_fixed_to_double(args[i].f));
                break;
            case 's':
                text += args[i].s ? std::string("\"") + args[i].s + "\"" : std::string("null");
                break;
            case 'o':
                text += label_of(reinterpret_cast<wl_resource*>(args[i].o));
                break;
            case 'n':
                text += created[i] ? created[i]->label : std::string("?");
                break;
            case 'a':
                text += "array[" + std::to_string(args[i].a ? args[i].a->size : 0) + "]";
                break;
            case 'h':
                text += fd_text(args[i].h);
                break;
            default:
                text += "?";
                break;
        }
    }
    text += ")";
    rec(text);

    auto obj_arg = [&](size_t i) { return obj_of(reinterpret_cast<wl_resource*>(args[i].o)); };

    if (o->kind == "surface") {
        if (name == "attach") {
            o->attached = true;
            o->pending = obj_arg(0);
        } else if (name == "frame") {
            if (created[0])
                o->frames.push_back(created[0]);
        } else if (name == "commit") {
            commit(o);
        }
    } else if (o->kind == "wm_base" && name == "get_xdg_surface") {
        Obj* surface = obj_arg(1);
        if (surface && created[0])
            surface->xdg = created[0];
    } else if (o->kind == "xdg_surface" && name == "get_toplevel") {
        o->toplevel = created[0];
    } else if (o->kind == "params" && name == "create") {
        int number = creates++;
        if (cfg.failing_creates.count(number)) {
            zwp_linux_buffer_params_v1_send_failed(o->res);
            event(o->label + ".failed()");
        } else {
            Obj* b = new_obj(client, &wl_buffer_interface, 1, 0);
            if (b) {
                zwp_linux_buffer_params_v1_send_created(o->res, b->res);
                event(o->label + ".created(" + b->label + ")");
            }
        }
    } else if (o->kind == "params" && name == "create_immed") {
        creates++;
    }

    for (size_t i = 0; i < types.size(); i++)
        if (types[i] == 'h')
            close(args[i].h);

    if ((name == "destroy" || name == "release") && o->res)
        wl_resource_destroy(o->res);
}

void Core::release(Obj* b) {
    if (b == nullptr || b->res == nullptr)
        return;
    wl_buffer_send_release(b->res);
    event(b->label + ".release()");
}

void Core::commit(Obj* s) {
    if (s->attached) {
        Obj* old = s->current;
        Obj* now = s->pending;
        s->current = now;
        s->attached = false;
        s->pending = nullptr;
        switch (cfg.release) {
            case ReleasePolicy::OnReplace:
                if (old && old != now && !cfg.held_buffers.count(old->number))
                    release(old);
                break;
            case ReleasePolicy::OnCommit:
                if (now && !cfg.held_buffers.count(now->number))
                    release(now);
                break;
            case ReleasePolicy::Never:
                break;
        }
    }
    Obj* xdg = s->xdg;
    if (cfg.configure_on_first_commit && xdg && xdg->res && !xdg->configured) {
        xdg->configured = true;
        if (xdg->toplevel && xdg->toplevel->res) {
            struct wl_array states;
            wl_array_init(&states);
            xdg_toplevel_send_configure(xdg->toplevel->res, 0, 0, &states);
            wl_array_release(&states);
            event(xdg->toplevel->label + ".configure(0, 0)");
        }
        uint32_t serial = ++configure_serial;
        xdg_surface_send_configure(xdg->res, serial);
        event(xdg->label + ".configure(" + std::to_string(serial) + ")");
    }
    if (cfg.frame_done_on_commit) {
        for (Obj* cb : s->frames) {
            if (cb->res == nullptr)
                continue;
            wl_callback_send_done(cb->res, ++frame_time);
            event(cb->label + ".done()");
            wl_resource_destroy(cb->res);
        }
        s->frames.clear();
    }
}

bool Core::settled() {
    for (auto& r : relays) {
        if (pending_bytes(r->cfd))
            return false;
        if (r->client && pending_bytes(r->sfd))
            return false;
        if (pending_bytes(r->mfd))
            return false;
        if (r->client_eof && r->client)
            return false;  // still going away
    }
    return true;
}

void Core::after_iteration() {
    for (auto& r : relays) {
        if (r->client_eof && r->mfd >= 0 && (r->client == nullptr || !pending_bytes(r->sfd))) {
            wl_event_source_remove(r->msrc);
            r->msrc = nullptr;
            close(r->mfd);
            r->mfd = -1;
        }
    }
    bool calm = settled();
    std::lock_guard<std::mutex> g(mu);
    for (auto& cmd : executed)
        cmd->done = true;
    executed.clear();
    if (calm) {
        for (auto& cmd : settling)
            cmd->done = true;
        settling.clear();
    }
    cv.notify_all();
}

void Core::run_loop() {
    while (running) {
        wl_event_loop_dispatch(loop, -1);
        wl_display_flush_clients(display);
        after_iteration();
    }
}

void Core::post(const std::shared_ptr<Command>& cmd) {
    {
        std::lock_guard<std::mutex> g(mu);
        queue.push_back(cmd);
    }
    uint64_t one = 1;
    ssize_t w = write(wake_fd, &one, sizeof(one));
    (void)w;
}

void Core::run_sync(std::function<void()> fn, bool settle) {
    if (!started) {
        if (fn)
            fn();
        return;
    }
    auto cmd = std::make_shared<Command>();
    cmd->fn = std::move(fn);
    cmd->settle = settle;
    post(cmd);
    std::unique_lock<std::mutex> lk(mu);
    if (!cv.wait_for(lk, std::chrono::seconds(20), [&] { return cmd->done; }))
        throw std::runtime_error("test compositor: its thread did not answer");
}

}  // namespace compositor_detail

using compositor_detail::Core;
using compositor_detail::GlobalData;
using compositor_detail::Obj;

struct TestCompositor::Impl {
    Core core;
    std::vector<std::unique_ptr<GlobalData>> global_data;
};

TestCompositor::TestCompositor(CompositorConfig config) : impl_(new Impl()) {
    impl_->core.cfg = std::move(config);
}

TestCompositor::~TestCompositor() {
    try {
        stop();
    } catch (...) {
    }
}

void TestCompositor::start() {
    Core& c = impl_->core;
    if (c.started)
        return;
    std::string base = c.cfg.runtime_base.empty() ? RUVO_TEST_COMPOSITOR_RUNTIME_BASE : c.cfg.runtime_base;
    std::error_code ec;
    std::filesystem::create_directories(base, ec);
    std::string templ = base + "/wl-XXXXXX";
    std::vector<char> path(templ.begin(), templ.end());
    path.push_back('\0');
    if (mkdtemp(path.data()) == nullptr)
        throw std::runtime_error("test compositor: cannot create a runtime directory under " + base);
    c.runtime_dir = path.data();
    c.socket_path = c.runtime_dir + "/" + c.socket_name;

    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (c.socket_path.size() >= sizeof(addr.sun_path))
        throw std::runtime_error("test compositor: socket path too long: " + c.socket_path);
    memcpy(addr.sun_path, c.socket_path.c_str(), c.socket_path.size() + 1);

    c.display = wl_display_create();
    c.loop = wl_display_get_event_loop(c.display);
    wl_display_add_protocol_logger(c.display, compositor_detail::log_display_requests, &c);

    auto add_global = [&](const char* name, const wl_interface* iface, uint32_t version) {
        std::unique_ptr<GlobalData> data(new GlobalData{&c, iface});
        c.globals[name] = wl_global_create(c.display, iface, static_cast<int>(version), data.get(),
                                           compositor_detail::bind_global);
        impl_->global_data.push_back(std::move(data));
    };
    const CompositorConfig& cfg = c.cfg;
    if (cfg.compositor)
        add_global("wl_compositor", &wl_compositor_interface, cfg.compositor_version);
    if (cfg.viewporter)
        add_global("wp_viewporter", &wp_viewporter_interface, 1);
    if (cfg.seat)
        add_global("wl_seat", &wl_seat_interface, 1);
    if (cfg.xdg_wm_base)
        add_global("xdg_wm_base", &xdg_wm_base_interface, cfg.xdg_wm_base_version);
    if (cfg.fullscreen_shell)
        add_global("zwp_fullscreen_shell_v1", &zwp_fullscreen_shell_v1_interface, 1);
    if (cfg.dmabuf)
        add_global("zwp_linux_dmabuf_v1", &zwp_linux_dmabuf_v1_interface, cfg.dmabuf_version);
    if (cfg.direct_display)
        add_global("weston_direct_display_v1", &weston_direct_display_v1_interface, 1);
    if (cfg.output)
        add_global("wl_output", &wl_output_interface, 3);

    c.listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (c.listen_fd < 0 || bind(c.listen_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(c.listen_fd, 16) != 0)
        throw std::runtime_error("test compositor: cannot listen on " + c.socket_path + ": " +
                                 strerror(errno));
    wl_event_loop_add_fd(c.loop, c.listen_fd, WL_EVENT_READABLE, compositor_detail::on_connect, &c);

    c.wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    wl_event_loop_add_fd(c.loop, c.wake_fd, WL_EVENT_READABLE, compositor_detail::on_wake, &c);

    c.running = true;
    c.started = true;
    c.thread = std::thread([&c] { c.run_loop(); });
    if (cfg.export_environment)
        export_environment();
}

void TestCompositor::stop() {
    Core& c = impl_->core;
    if (!c.started)
        return;
    c.run_sync([&c] { c.running = false; });
    c.thread.join();
    c.started = false;

    // Only this thread is left: let every client go and take the compositor down.
    wl_display_destroy_clients(c.display);
    for (auto& r : c.relays) {
        if (r->csrc)
            wl_event_source_remove(r->csrc);
        if (r->msrc)
            wl_event_source_remove(r->msrc);
        if (r->cfd >= 0)
            close(r->cfd);
        if (r->mfd >= 0)
            close(r->mfd);
        r->csrc = r->msrc = nullptr;
        r->cfd = r->mfd = -1;
    }
    wl_display_destroy(c.display);
    c.display = nullptr;
    c.loop = nullptr;
    close(c.listen_fd);
    close(c.wake_fd);
    c.listen_fd = c.wake_fd = -1;
    unlink(c.socket_path.c_str());
    rmdir(c.runtime_dir.c_str());
}

const std::string& TestCompositor::runtime_dir() const {
    return impl_->core.runtime_dir;
}
const std::string& TestCompositor::socket_name() const {
    return impl_->core.socket_name;
}

void TestCompositor::export_environment() const {
    setenv("XDG_RUNTIME_DIR", impl_->core.runtime_dir.c_str(), 1);
    setenv("WAYLAND_DISPLAY", impl_->core.socket_name.c_str(), 1);
    unsetenv("WAYLAND_SOCKET");
}

void TestCompositor::settle() {
    impl_->core.run_sync(nullptr, true);
}

bool TestCompositor::wait_disconnected(int timeout_ms) {
    Core& c = impl_->core;
    std::unique_lock<std::mutex> lk(c.mu);
    return c.cv.wait_for(lk, std::chrono::milliseconds(timeout_ms), [&c] { return c.client_count == 0; });
}

std::vector<std::string> TestCompositor::log() {
    settle();
    std::lock_guard<std::mutex> g(impl_->core.mu);
    return impl_->core.record;
}

std::vector<std::string> TestCompositor::requests() {
    std::vector<std::string> out;
    for (auto& s : log())
        if (s.compare(0, 3, "-> ") != 0)
            out.push_back(s);
    return out;
}

std::vector<std::string> TestCompositor::events() {
    std::vector<std::string> out;
    for (auto& s : log())
        if (s.compare(0, 3, "-> ") == 0)
            out.push_back(s.substr(3));
    return out;
}

void TestCompositor::clear_log() {
    settle();
    std::lock_guard<std::mutex> g(impl_->core.mu);
    impl_->core.record.clear();
}

void TestCompositor::label_fd(int fd, const std::string& label) {
    struct stat st;
    if (fstat(fd, &st) != 0)
        throw std::runtime_error("test compositor: label_fd on a closed descriptor");
    std::lock_guard<std::mutex> g(impl_->core.mu);
    impl_->core
        .fd_labels[std::make_pair(static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino))] =
        label;
}

void TestCompositor::send_ping(uint32_t serial) {
    Core& c = impl_->core;
    c.run_sync([&c, serial] {
        for (auto& o : c.objs) {
            if (o->kind != "wm_base" || o->res == nullptr)
                continue;
            xdg_wm_base_send_ping(o->res, serial);
            c.event(o->label + ".ping(" + std::to_string(serial) + ")");
        }
    });
}

void TestCompositor::release_buffer(int buffer) {
    Core& c = impl_->core;
    c.run_sync([&c, buffer] {
        auto it = c.buffers.find(buffer);
        if (it != c.buffers.end())
            c.release(it->second);
    });
}

void TestCompositor::hold_buffer(int buffer) {
    Core& c = impl_->core;
    c.run_sync([&c, buffer] { c.cfg.held_buffers.insert(buffer); });
}

void TestCompositor::set_release_policy(ReleasePolicy policy) {
    Core& c = impl_->core;
    c.run_sync([&c, policy] { c.cfg.release = policy; });
}

void TestCompositor::set_frame_done_on_commit(bool on) {
    Core& c = impl_->core;
    c.run_sync([&c, on] { c.cfg.frame_done_on_commit = on; });
}

void TestCompositor::fail_create(int create_number) {
    Core& c = impl_->core;
    c.run_sync([&c, create_number] { c.cfg.failing_creates.insert(create_number); });
}

void TestCompositor::remove_global(const std::string& interface_name) {
    Core& c = impl_->core;
    c.run_sync([&c, interface_name] {
        auto it = c.globals.find(interface_name);
        if (it == c.globals.end())
            return;
        wl_global_remove(it->second);
        c.event("registry.global_remove(\"" + interface_name + "\")");
    });
}

int TestCompositor::clients() {
    std::lock_guard<std::mutex> g(impl_->core.mu);
    return impl_->core.client_count;
}

int TestCompositor::live_buffers() {
    Core& c = impl_->core;
    int n = 0;
    c.run_sync([&c, &n] {
        for (auto& b : c.buffers)
            if (b.second->res)
                n++;
    });
    return n;
}

}  // namespace ruvo_test
