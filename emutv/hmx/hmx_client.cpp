// Stand-in of the picture-quality manager client: records every transaction instead of
#include <stdio.h>
// reaching the service.
#include <stdlib.h>
#include <string.h>

#include <mutex>

#include "HMXClientInterface.h"
#include "hmx_standin.h"

namespace {
std::mutex g_lock;
std::vector<HmxTransaction>& log_store() {
    static std::vector<HmxTransaction>* store = new std::vector<HmxTransaction>();
    return *store;
}
std::vector<int32_t>& reply_store() {
    static std::vector<int32_t>* store = new std::vector<int32_t>();
    return *store;
}
int g_clients = 0;
}  // namespace

HMXParam::HMXParam() : m_data(nullptr), m_size(0), m_capacity(0), m_read_pos(0) {}
HMXParam::~HMXParam() {
    free(m_data);
}

int HMXParam::writeInt32(int32_t value) {
    if (m_size + sizeof(value) > m_capacity) {
        size_t cap = m_capacity ? m_capacity * 2 : 16;
        uint8_t* grown = static_cast<uint8_t*>(realloc(m_data, cap));
        if (grown == nullptr)
            return -1;
        m_data = grown;
        m_capacity = cap;
    }
    memcpy(m_data + m_size, &value, sizeof(value));
    m_size += sizeof(value);
    return 0;
}

int32_t HMXParam::readInt32() const {
    int32_t value = 0;
    if (m_read_pos + sizeof(value) <= m_size) {
        memcpy(&value, m_data + m_read_pos, sizeof(value));
        m_read_pos += sizeof(value);
    }
    return value;
}

const uint8_t* HMXParam::data() const {
    return m_data;
}
size_t HMXParam::dataSize() const {
    return m_size;
}

void HMXParam::setData(const uint8_t* bytes, size_t size) {
    free(m_data);
    m_data = static_cast<uint8_t*>(malloc(size ? size : 1));
    memcpy(m_data, bytes, size);
    m_size = m_capacity = size;
    m_read_pos = 0;
}

HMXClientInterface::HMXClientInterface(const char* service_name, int flags) : m_flags(flags) {
    snprintf(m_service, sizeof(m_service), "%s", service_name ? service_name : "");
    std::lock_guard<std::mutex> guard(g_lock);
    ++g_clients;
}

HMXClientInterface::~HMXClientInterface() {}

int HMXClientInterface::transact(unsigned code, HMXParam& data, HMXParam* reply, unsigned flags) {
    HmxTransaction t;
    t.service = m_service;
    t.client_flags = m_flags;
    t.code = code;
    t.flags = flags;
    for (size_t off = 0; off + 4 <= data.dataSize(); off += 4) {
        int32_t w;
        memcpy(&w, data.data() + off, 4);
        t.words.push_back(w);
    }
    std::lock_guard<std::mutex> guard(g_lock);
    log_store().push_back(t);
    if (reply != nullptr && !reply_store().empty()) {
        reply->setData(reinterpret_cast<const uint8_t*>(reply_store().data()), reply_store().size() * 4);
    }
    return 0;
}

std::vector<HmxTransaction> hmx_standin_transactions() {
    std::lock_guard<std::mutex> guard(g_lock);
    return log_store();
}

void hmx_standin_clear() {
    std::lock_guard<std::mutex> guard(g_lock);
    log_store().clear();
}

int hmx_standin_clients_constructed() {
    std::lock_guard<std::mutex> guard(g_lock);
    return g_clients;
}

void hmx_standin_set_reply(const std::vector<int32_t>& words) {
    std::lock_guard<std::mutex> guard(g_lock);
    reply_store() = words;
}
