// Reaching a video output handle while open runs. Nothing in the library raises m_is_ta,
// so a test that needs TA mode catches the handle at its allocation (through the operator
// new hook, ruvo_kit/alloc_interposer.h) and raises the flag at the first request of display discovery,
// once open has cleared it.
#pragma once

#include <functional>

#include "emutv/emutv.h"
#include "ruvo/quarvel_video_output.h"

namespace ruvo_test {

// The next allocation of a handle-sized object on this thread is remembered as the handle.
void catch_next_handle();
// The handle caught since the last catch_next_handle(), or null.
quarvel_video_output_s* caught_handle();
void stop_catching();

// Opens a handle whose m_is_ta is raised as soon as discovery starts; `also` sees every
// request too. The platform's listener is removed afterwards.
quarvel_video_output_s* open_in_ta_mode(std::function<void(const emutv::Event&)> also = nullptr);

}  // namespace ruvo_test
