#include "quorvia/platform/NotificationPresenter.h"

namespace quorvia::platform {

NotificationPresenter::~NotificationPresenter() = default;

}  // namespace quorvia::platform
