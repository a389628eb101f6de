#include "topology.h"

#include <fstream>
#include <sstream>

#include "emutv/emutv.h"
#include "emutv/models.h"

namespace avsink_probe {

namespace {

uint32_t u32(const Json& obj, const char* key) {
    const Json* v = obj.get(key);
    return v ? static_cast<uint32_t>(v->as_int()) : 0;
}

std::vector<uint32_t> ids(const Json* array) {
    std::vector<uint32_t> out;
    if (array)
        for (const auto& v : array->items())
            out.push_back(static_cast<uint32_t>(v.as_int()));
    return out;
}

const std::vector<Json>& items(const Json& obj, const char* key) {
    static const std::vector<Json> none;
    const Json* v = obj.get(key);
    return v ? v->items() : none;
}

emutv::DrmConnector connector(const Json& c) {
    emutv::DrmConnector out;
    out.id = u32(c, "id");
    out.connection = u32(c, "connection");
    out.mm_width = u32(c, "mm_width");
    out.mm_height = u32(c, "mm_height");
    out.count_modes = u32(c, "count_modes");
    out.encoder_id = u32(c, "encoder_id");
    out.encoders = ids(c.get("encoders"));
    return out;
}

emutv::DrmPlane plane(const Json& p) {
    emutv::DrmPlane out;
    out.id = u32(p, "id");
    out.count_formats = u32(p, "count_formats");
    for (const auto& prop : items(p, "properties")) {
        const Json* name = prop.get("name");
        const Json* value = prop.get("value");
        out.props.push_back(
            {name ? name->as_string() : "", value ? static_cast<uint64_t>(value->as_int()) : 0});
    }
    return out;
}

}  // namespace

bool apply_topology(const Json& report, std::string* error) {
    const Json* topo = report.get("drm_topology");
    if (!topo) {
        *error = "the report has no \"drm_topology\" section";
        return false;
    }
    const Json* open = topo->get("open");
    if (!open || !open->as_bool()) {
        *error = "the DRM device was not open when the report was made";
        return false;
    }
    auto& drm = emutv::platform().drm();
    drm.crtcs = ids(topo->get("crtcs"));
    drm.connectors.clear();
    for (const auto& c : items(*topo, "connectors"))
        drm.connectors.push_back(connector(c));
    drm.encoders.clear();
    for (const auto& e : items(*topo, "encoders"))
        drm.encoders.push_back(emutv::DrmEncoder{u32(e, "id"), u32(e, "crtc_id"), u32(e, "possible_crtcs")});
    drm.planes.clear();
    for (const auto& p : items(*topo, "planes"))
        drm.planes.push_back(plane(p));
    return true;
}

bool apply_topology_file(const std::string& path, std::string* error) {
    std::ifstream in(path);
    if (!in) {
        *error = "cannot read " + path;
        return false;
    }
    std::stringstream text;
    text << in.rdbuf();
    Json report;
    std::string why;
    if (!parse_json(text.str(), &report, &why)) {
        *error = path + ": " + why;
        return false;
    }
    return apply_topology(report, error);
}

}  // namespace avsink_probe
