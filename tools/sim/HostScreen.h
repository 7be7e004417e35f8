#pragma once

#include "platform/Window.h"

namespace quorvia::sim {

// Fills `window` with the simulated host app's own screen (a title bar and a list of cards),
// so that snapshots show the banner over an application rather than over nothing.
void drawHostScreen(platform::Window& window);

}  // namespace quorvia::sim
