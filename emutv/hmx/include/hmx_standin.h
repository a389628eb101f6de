// Recording side of the picture-quality client stand-in (emulated platform only).
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

struct HmxTransaction {
    std::string service;
    int client_flags;
    unsigned code;
    std::vector<int32_t> words;  // the 32-bit words of the request
    unsigned flags;
};

// Every transaction since the last clear, in order.
__attribute__((visibility("default"))) std::vector<HmxTransaction> hmx_standin_transactions();
__attribute__((visibility("default"))) void hmx_standin_clear();
// Number of client objects constructed in the process.
__attribute__((visibility("default"))) int hmx_standin_clients_constructed();
// The reply the service gives (empty: no reply data).
__attribute__((visibility("default"))) void hmx_standin_set_reply(const std::vector<int32_t>& words);
