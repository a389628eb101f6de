// tv-session-player: plays a scenario against the AV sink library on the emulated TV.
#include "player.h"

int main(int argc, char** argv) {
    return tvsp::player_main(argc, argv);
}
