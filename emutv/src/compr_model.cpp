// Compressed-offload device model.
#include <errno.h>

#include "core.h"

namespace emutv {

void ComprModel::reset() {
    min_fragment_size = 4096;
    max_fragment_size = 65536;
    min_fragments = 2;
    max_fragments = 8;
    avail = 65536;
    copied_total = 0;
    sampling_rate = 48000;
    remain = 0;
    consume_on_write = false;
    running = false;
    metadata.clear();
    params.clear();
    bytes_written = 0;
    write_sizes.clear();
}

std::string ComprModel::request_name(unsigned long, const void*) const { return "SNDRV_COMPRESS_IOCTL"; }

long ComprModel::ioctl(int, unsigned long, void*, Event&, int* err) {
    *err = ENOTTY;
    return -1;
}

long ComprModel::write(int, const void*, size_t n, Event&, int*) {
    bytes_written += n;
    write_sizes.push_back(n);
    return static_cast<long>(n);
}

}  // namespace emutv
