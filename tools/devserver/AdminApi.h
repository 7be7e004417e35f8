#pragma once

#include <httplib.h>

#include "PollStore.h"

namespace quorvia::devserver {

// The JSON admin API for people and scripts running the devserver:
//   POST /admin/polls              {"app_token", "question", "options": [{"text", "link"?}...]}
//   GET  /admin/polls[?app_token=] {"polls": [...]}
//   GET  /admin/replies[?poll_id=&app_token=], GET /admin/polls/<id>/replies
//                                  {"replies": [{..., "device": {...}, "created_at"}...]}
//   GET  /admin/devices[?app_token=] {"devices": [...]}
// Malformed input answers 400 {"error": ...} and stores nothing. `store` must outlive `server`.
void installAdminApi(httplib::Server& server, PollStore& store, size_t maxBodyBytes);

}  // namespace quorvia::devserver
