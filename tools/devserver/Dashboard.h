#pragma once

#include <httplib.h>

namespace quorvia::devserver {

// Serves the dashboard: GET / is the page, GET /dashboard/<file> its script and style, all
// built into the binary. AdminGate guards these paths like the admin API; a page opened with
// ?token= keeps the token in a same-site cookie so its own requests carry it.
void installDashboard(httplib::Server& server);

}  // namespace quorvia::devserver
