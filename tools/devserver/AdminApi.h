#pragma once

#include <httplib.h>

#include <cstddef>

#include "EventHub.h"
#include "PollStore.h"

namespace quorvia::devserver {

class PushFanout;

// What the admin API works on; everything must outlive the server.
struct AdminContext {
  PollStore& store;
  EventHub& events;
  PushFanout* push = nullptr;  // null: push answers 503
  size_t maxBodyBytes = 1024 * 1024;
};

// The JSON admin API behind the dashboard (AdminGate guards it):
//   POST   /admin/polls             {"app_token", "question", "options": [{"text", "link"?}...],
//                                    "category"?}                       -> 201 the poll
//   GET    /admin/polls[?app=]      {"polls": [...]}
//   DELETE /admin/polls/<id>        {"deleted": id}
//   GET    /admin/polls/<id>/results {"poll", "options": [{"text", "count", "percent"}...],
//                                    "dismissals", "other", "total"}
//   GET    /admin/replies[?poll_id=&app=], GET /admin/polls/<id>/replies
//                                   {"replies": [{..., "device": {...}, "created_at"}...]}
//   GET    /admin/devices[?app=]    {"devices": [...]}
//   GET    /admin/events            text/event-stream of {"type": ...} lines
//   POST   /admin/polls/<id>/push   {"alert"?, "category"?, "devices"?} -> {"sent", "devices"}
// `app_token` is accepted wherever `app` is. Malformed input answers 400 {"error": ...} and
// stores nothing.
void installAdminApi(httplib::Server& server, AdminContext context);

}  // namespace quorvia::devserver
