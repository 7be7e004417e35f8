#pragma once
// Which push service the process uses. One slot until the platform's
// environment object holds it.

#include <memory>

#include "quorvia/export.h"
#include "quorvia/platform/PushService.h"

namespace quorvia::platform {

/// The process's push service: the installed one (which may be null: no push
/// at all), else one made on first call for defaultPushBrokerURL() and the
/// app's data directory. A process run by the test harness (QUORVIA_TEST set)
/// gets none unless a test installs one, so that no test reaches for a broker
/// it did not start. Any thread.
QUORVIA_EXPORT std::shared_ptr<PushService> installedPushService();

/// Installs the service that installedPushService() returns from now on; null
/// turns push off. Install before the first SDK call: a service already
/// handed out keeps running. Any thread.
QUORVIA_EXPORT void installPushService(std::shared_ptr<PushService> service);

}  // namespace quorvia::platform
