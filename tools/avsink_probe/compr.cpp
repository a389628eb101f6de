// The compressed-offload section of the probe: every node with its capabilities. Kept
// apart from the rest because the kernel's compressed-offload header and alsa-lib's
// headers cannot be included together.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <sound/compress_offload.h>

#include "probe_internal.h"

namespace avsink_probe {

namespace {

std::vector<std::string> compr_nodes(const std::string& dir, const std::vector<std::string>& extra) {
    std::vector<std::string> nodes;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (strncmp(e->d_name, "comprC", 6) == 0)
                nodes.push_back(dir + "/" + e->d_name);
        closedir(d);
    }
    std::sort(nodes.begin(), nodes.end());
    for (const auto& x : extra)
        if (std::find(nodes.begin(), nodes.end(), x) == nodes.end())
            nodes.push_back(x);
    return nodes;
}

Json compr_caps(const snd_compr_caps& c) {
    Json codecs = Json::array();
    for (uint32_t i = 0; i < c.num_codecs && i < MAX_NUM_CODECS; ++i)
        codecs.push(Json::integer(c.codecs[i]));
    return Json::object()
        .set("direction", Json::integer(c.direction))
        .set("min_fragment_size", Json::integer(c.min_fragment_size))
        .set("max_fragment_size", Json::integer(c.max_fragment_size))
        .set("min_fragments", Json::integer(c.min_fragments))
        .set("max_fragments", Json::integer(c.max_fragments))
        .set("codecs", codecs);
}

Json compr_node(Printer& p, const std::string& path) {
    Json n = Json::object().set("path", Json::string(path));
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        int err = errno;
        p.line("compressed: %s: %s (errno %d)", path.c_str(), strerror(err), err);
        return errno_fields(n.set("open", Json::boolean(false)), err);
    }
    n.set("open", Json::boolean(true));
    snd_compr_caps caps{};
    if (ioctl(fd, SNDRV_COMPRESS_GET_CAPS, &caps) < 0) {
        int err = errno;
        p.line("compressed: %s: SNDRV_COMPRESS_GET_CAPS: %s (errno %d)", path.c_str(), strerror(err), err);
        n.set("caps", errno_fields(Json::object(), err));
    } else {
        Json c = compr_caps(caps);
        n.set("caps", c);
        p.line("compressed: %s: fragments %u..%u of %u..%u bytes, codecs %s", path.c_str(),
               caps.min_fragments, caps.max_fragments, caps.min_fragment_size, caps.max_fragment_size,
               id_list(*c.get("codecs")).c_str());
    }
    close(fd);
    return n;
}

}  // namespace

Json compressed_section(Printer& p, const std::string& dir, const std::vector<std::string>& extra) {
    Json a = Json::array();
    auto nodes = compr_nodes(dir, extra);
    if (nodes.empty())
        p.line("compressed: no comprC* node in %s", dir.c_str());
    for (const auto& path : nodes)
        a.push(compr_node(p, path));
    return a;
}

}  // namespace avsink_probe
