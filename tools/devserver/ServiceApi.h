#pragma once

#include <httplib.h>

#include "AccessToken.h"
#include "EventHub.h"
#include "PollStore.h"

namespace quorvia::devserver {

// The four endpoints the SDK calls, taking bodies exactly as the SDK writes them:
//   POST /endpoints/               push_token, app_token, platform  -> {"access_token": ...}
//   POST /me                       user_info (authorised)           -> {"status": "ok"}
//   POST /polls/<id>/replies/      reply_text (authorised)          -> the stored reply
//   GET  /apps/<app token>/polls/  (authorised)                     -> {"results": [poll...]}
// Each path is accepted with and without its trailing slash. Calls that need a device answer
// 401 {"error": ...} without a valid "Authorization: JWT <token>" header.
// Registrations, user info and replies are announced on `events`. Bodies longer than
// `maxBodyBytes` answer 413. `store`, `tokens` and `events` must outlive `server`.
void installServiceApi(httplib::Server& server, PollStore& store, const AccessToken& tokens,
                       EventHub& events, size_t maxBodyBytes);

}  // namespace quorvia::devserver
