#include "platform/View.h"

#include <algorithm>

#include "platform/ui/AnimationContext.h"
#include "platform/ui/ScreenSnapshot.h"
#include "platform/Animation.h"
#include "quorvia/platform/RunLoop.h"
#include "platform/Window.h"

namespace quorvia::platform {
namespace {

double lerp(double a, double b, double t) { return a + (b - a) * t; }

// Progress of an animation now, on the curve; 1 once it has run its time.
double progress(double start, double duration) {
  if (duration <= 0) return 1;
  return easeInOut((detail::mainClockSeconds() - start) / duration);
}

}  // namespace

TapGestureRecognizer::TapGestureRecognizer(std::weak_ptr<View> target, std::string action)
    : target_(std::move(target)), action_(std::move(action)) {}

void TapGestureRecognizer::recognize() {
  if (auto target = target_.lock()) target->performAction(action_, shared_from_this());
}

View::~View() = default;

void View::setFrame(Rect frame) {
  if (frame == frame_) return;
  const double duration = detail::currentAnimationDuration();
  if (duration >= 0) {
    frameAnimation_ = Animation{presentationFrame(), 1, detail::mainClockSeconds(), duration};
  }
  const Size oldSize = frame_.size;
  frame_ = frame;
  detail::noteScreenChange();
  if (oldSize != frame.size) {
    applyAutoresizing(oldSize);
    layoutSubviews();
  }
}

Rect View::presentationFrame() const {
  if (!frameAnimation_) return frame_;
  const double t = progress(frameAnimation_->start, frameAnimation_->duration);
  if (t >= 1) return frame_;
  const Rect& a = frameAnimation_->fromFrame;
  return Rect::make(lerp(a.x(), frame_.x(), t), lerp(a.y(), frame_.y(), t),
                    lerp(a.width(), frame_.width(), t), lerp(a.height(), frame_.height(), t));
}

void View::setAlpha(double alpha) {
  alpha = std::clamp(alpha, 0.0, 1.0);
  if (alpha == alpha_) return;
  const double duration = detail::currentAnimationDuration();
  if (duration >= 0) {
    alphaAnimation_ = Animation{{}, presentationAlpha(), detail::mainClockSeconds(), duration};
  }
  alpha_ = alpha;
  detail::noteScreenChange();
}

double View::presentationAlpha() const {
  if (!alphaAnimation_) return alpha_;
  const double t = progress(alphaAnimation_->start, alphaAnimation_->duration);
  return t >= 1 ? alpha_ : lerp(alphaAnimation_->fromAlpha, alpha_, t);
}

std::shared_ptr<View> View::viewWithTag(int tag) {
  if (tag_ == tag) return shared_from_this();
  for (const auto& sub : subviews_) {
    if (auto found = sub->viewWithTag(tag)) return found;
  }
  return nullptr;
}

void View::addSubview(const std::shared_ptr<View>& view) {
  if (!view || view.get() == this) return;
  auto keep = view;  // removing it from its old superview must not free it
  keep->removeFromSuperview();
  keep->superview_ = weak_from_this();
  subviews_.push_back(keep);
  detail::noteScreenChange();
  if (keep->pins_) layoutSubviews();
}

void View::removeFromSuperview() {
  auto parent = superview_.lock();
  superview_.reset();
  if (!parent) return;
  auto& siblings = parent->subviews_;
  siblings.erase(std::remove_if(siblings.begin(), siblings.end(),
                                [this](const auto& v) { return v.get() == this; }),
                 siblings.end());
  detail::noteScreenChange();
}

std::shared_ptr<Window> View::window() {
  std::shared_ptr<View> v = shared_from_this();
  while (auto parent = v->superview()) v = parent;
  return std::dynamic_pointer_cast<Window>(v);
}

void View::applyAutoresizing(Size oldSize) {
  const double dw = frame_.width() - oldSize.width;
  const double dh = frame_.height() - oldSize.height;
  for (const auto& sub : subviews_) {
    const unsigned m = sub->autoresizingMask_;
    if (sub->pins_ || m == kAutoresizingNone) continue;
    Rect f = sub->frame_;
    auto share = [](double delta, bool a, bool b, bool c) {
      const int flexible = a + b + c;
      return flexible ? delta / flexible : 0.0;
    };
    const double partW = share(dw, m & kAutoresizingFlexibleLeftMargin,
                               m & kAutoresizingFlexibleWidth, m & kAutoresizingFlexibleRightMargin);
    const double partH = share(dh, m & kAutoresizingFlexibleTopMargin,
                               m & kAutoresizingFlexibleHeight,
                               m & kAutoresizingFlexibleBottomMargin);
    if (m & kAutoresizingFlexibleLeftMargin) f.origin.x += partW;
    if (m & kAutoresizingFlexibleWidth) f.size.width += partW;
    if (m & kAutoresizingFlexibleTopMargin) f.origin.y += partH;
    if (m & kAutoresizingFlexibleHeight) f.size.height += partH;
    sub->setFrame(f);
  }
}

void View::layoutSubviews() {
  needsLayout_ = false;
  const Rect b = bounds();
  for (const auto& sub : subviews_) {
    if (!sub->pins_) continue;
    const LayoutPins& p = *sub->pins_;
    double x = p.left.value_or(0);
    double w = p.width.value_or(0);
    if (p.left && p.right) {
      w = b.width() - *p.left - *p.right;
    } else if (p.right) {
      x = b.width() - *p.right - w;
    }
    w = std::max(0.0, w);
    double h = 0;
    if (p.height) {
      h = *p.height;
    } else if (p.top && p.bottom) {
      h = b.height() - *p.top - *p.bottom;
    } else {
      h = sub->contentHeightForWidth(w);
    }
    double y = p.top.value_or(0);
    if (!p.top && p.bottom) y = b.height() - *p.bottom - h;
    sub->setFrame(Rect::make(x, y, w, std::max(0.0, h)));
  }
}

double View::contentHeightForWidth(double width) {
  double height = 0;
  for (const auto& sub : subviews_) {
    if (!sub->pins_) continue;
    const LayoutPins& p = *sub->pins_;
    double w = p.width.value_or(0);
    if (p.left && p.right) w = width - *p.left - *p.right;
    const double h = p.height ? *p.height : sub->contentHeightForWidth(std::max(0.0, w));
    height = std::max(height, p.top.value_or(0) + h + p.bottom.value_or(0));
  }
  return height;
}

void View::setNeedsLayout() {
  if (needsLayout_) return;
  needsLayout_ = true;
  // Layout passes run on the next turn of the main queue, like the platform's.
  dispatch_async([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->layoutIfNeeded();
  });
}

void View::layoutIfNeeded() {
  if (needsLayout_) layoutSubviews();
  const auto subviews = subviews_;  // a layout pass may change the list
  for (const auto& sub : subviews) sub->layoutIfNeeded();
}

void View::addGestureRecognizer(const std::shared_ptr<TapGestureRecognizer>& recognizer) {
  if (!recognizer) return;
  if (auto old = recognizer->view_.lock()) {
    auto& list = old->recognizers_;
    list.erase(std::remove(list.begin(), list.end(), recognizer), list.end());
  }
  recognizer->view_ = weak_from_this();
  recognizers_.push_back(recognizer);
}

std::shared_ptr<View> View::hitTest(Point point) {
  // What is on screen takes the touch: mid-animation that is the presented
  // frame and alpha, not the values the animation moves towards.
  if (hidden_ || !userInteractionEnabled_ || presentationAlpha() < 0.01) return nullptr;
  if (!Rect{{0, 0}, presentationFrame().size}.contains(point)) return nullptr;
  for (auto it = subviews_.rbegin(); it != subviews_.rend(); ++it) {
    const Rect f = (*it)->presentationFrame();
    if (auto hit = (*it)->hitTest(Point{point.x - f.x(), point.y - f.y()})) return hit;
  }
  return shared_from_this();
}

void View::touchesBegan(const TouchSet& touches) {
  if (auto next = superview()) next->touchesBegan(touches);
}
void View::touchesEnded(const TouchSet& touches) {
  if (auto next = superview()) next->touchesEnded(touches);
}
void View::touchesCancelled(const TouchSet& touches) {
  if (auto next = superview()) next->touchesCancelled(touches);
}

bool View::performAction(std::string_view, const std::shared_ptr<void>&) { return false; }
bool View::setOutlet(std::string_view, const std::shared_ptr<View>&) { return false; }

}  // namespace quorvia::platform
