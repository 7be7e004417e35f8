#include "quorvia/platform/NotificationPresenter.h"

namespace quorvia::platform {

NotificationPresenter::~NotificationPresenter() = default;

void NotificationPresenter::withdraw(std::function<bool(const Value&)>) {}

}  // namespace quorvia::platform
