#include "platform/Window.h"

#include "quorvia/platform/Application.h"
#include "platform/Button.h"
#include "platform/TableView.h"

namespace quorvia::platform {
namespace {

template <typename T>
std::shared_ptr<T> nearest(std::shared_ptr<View> view) {
  for (; view; view = view->superview()) {
    if (auto typed = std::dynamic_pointer_cast<T>(view)) return typed;
  }
  return nullptr;
}

}  // namespace

std::shared_ptr<View> Window::touchDown(Point point) {
  layoutIfNeeded();
  touchPoint_ = point;
  touchView_ = hitTest(point);
  if (touchView_) touchView_->touchesBegan({Touch{point}});
  return touchView_;
}

void Window::touchUp() {
  auto view = std::move(touchView_);
  touchView_.reset();
  if (view) endTouch(view, touchPoint_);
}

void Window::press(const std::shared_ptr<View>& view) {
  if (!view) return;
  layoutIfNeeded();
  Point centre{view->frame().width() / 2, view->frame().height() / 2};
  for (View* v = view.get(); v->superview(); v = v->superview().get()) {
    centre.x += v->frame().x();
    centre.y += v->frame().y();
  }
  endTouch(view, centre);
}

void Window::endTouch(const std::shared_ptr<View>& view, Point point) {
  const TouchSet touches{Touch{point}};
  if (auto button = nearest<Button>(view)) {
    view->touchesEnded(touches);
    button->sendActions();
    return;
  }
  for (auto v = view; v; v = v->superview()) {
    if (!v->gestureRecognizers().empty()) {
      // A recognised tap cancels the touches of the view, as the platform does.
      view->touchesCancelled(touches);
      // Recognisers of one view do not recognise together: the first one wins.
      auto recognizer = v->gestureRecognizers().front();
      recognizer->recognize();
      return;
    }
  }
  view->touchesEnded(touches);
  if (auto cell = nearest<TableViewCell>(view)) {
    if (auto table = nearest<TableView>(cell->superview())) table->selectRowForCell(cell.get());
  }
}

void Window::touchCancel() {
  auto view = std::move(touchView_);
  touchView_.reset();
  if (view) view->touchesCancelled({Touch{touchPoint_}});
}

void Window::tap(Point point) {
  touchDown(point);
  touchUp();
}

std::shared_ptr<Window> keyWindow() { return Application::sharedApplication().keyWindow(); }

}  // namespace quorvia::platform
