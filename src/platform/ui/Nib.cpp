#include "platform/Nib.h"

#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

#include "platform/Button.h"
#include "quorvia/platform/Error.h"
#include "platform/Label.h"
#include "platform/Log.h"
#include "platform/TableView.h"

namespace quorvia::platform {
namespace {

constexpr std::uintmax_t kMaxLayoutFileBytes = 1 << 20;

struct Registry {
  std::mutex mu;
  std::map<std::string, Nib::Factory> factories{
      {"View", [] { return std::make_shared<View>(); }},
      {"Label", [] { return std::make_shared<Label>(); }},
      {"Button", [] { return std::make_shared<Button>(); }},
      {"TableViewCell", [] { return std::make_shared<TableViewCell>(); }},
  };
};

Registry& registry() {
  static auto* r = new Registry;
  return *r;
}

std::shared_ptr<View> makeView(const std::string& className) {
  Nib::Factory factory;
  {
    std::lock_guard lock(registry().mu);
    auto it = registry().factories.find(className);
    if (it != registry().factories.end()) factory = it->second;
  }
  if (!factory) {
    throw Exception(kNSInternalInconsistencyException,
                    "Unknown class " + className + " in layout file");
  }
  return factory();
}

std::optional<double> number(const Value& node, const char* key) {
  const Value* v = valueForKey(node, key);
  return v && v->is_number() ? std::optional<double>(v->get<double>()) : std::nullopt;
}

std::string text(const Value& node, const char* key) {
  const Value* v = valueForKey(node, key);
  return v && v->is_string() ? v->get<std::string>() : std::string();
}

std::optional<Color> color(const Value& node, const char* key) {
  Color c;
  const std::string s = text(node, key);
  return !s.empty() && Color::fromString(s.c_str(), c) ? std::optional<Color>(c) : std::nullopt;
}

void configure(View& view, const Value& node) {
  if (auto c = color(node, "backgroundColor")) view.setBackgroundColor(*c);
  if (auto tag = number(node, "tag")) view.setTag(static_cast<int>(*tag));
  // As a layout file says it: a decorative view is no element of its own,
  // and a control drawn as a symbol is read by its name.
  if (const Value* element = valueForKey(node, "isAccessibilityElement");
      element && element->is_boolean() && !element->get<bool>()) {
    view.setAccessibilityRole(AccessibleRole::kNone);
  }
  if (auto name = text(node, "accessibilityLabel"); !name.empty()) view.setAccessibilityLabel(name);
  if (auto* label = dynamic_cast<Label*>(&view)) {
    const std::string content = text(node, dynamic_cast<Button*>(&view) ? "title" : "text");
    label->setText(content);
    if (auto font = text(node, "font"); !font.empty()) label->setFont(font);
    if (auto c = color(node, "textColor")) label->setTextColor(*c);
    const std::string align = text(node, "alignment");
    if (align == "center") label->setTextAlignment(TextAlignment::kCenter);
    if (align == "right") label->setTextAlignment(TextAlignment::kRight);
    if (align == "left") label->setTextAlignment(TextAlignment::kLeft);
  }
}

void build(View& parent, const Value& nodes, const std::shared_ptr<View>& root,
           std::vector<std::shared_ptr<View>>& made) {
  if (!nodes.is_array()) return;
  for (const Value& node : nodes) {
    if (!node.is_object()) continue;
    const std::string type = text(node, "type");
    auto view = makeView(type.empty() ? "View" : type);
    LayoutPins pins{number(node, "left"), number(node, "right"),  number(node, "top"),
                    number(node, "bottom"), number(node, "width"), number(node, "height")};
    view->setLayoutPins(pins);
    configure(*view, node);
    build(*view, node.value("subviews", Value::array()), root, made);
    parent.addSubview(view);
    if (auto outlet = text(node, "outlet"); !outlet.empty()) root->setOutlet(outlet, view);
    if (auto action = text(node, "action"); !action.empty()) {
      if (auto button = std::dynamic_pointer_cast<Button>(view)) button->addTarget(root, action);
    }
    made.push_back(view);
  }
}

}  // namespace

void Nib::registerClass(const std::string& className, Factory factory) {
  std::lock_guard lock(registry().mu);
  registry().factories[className] = std::move(factory);
}

std::shared_ptr<Nib> Nib::nibWithNibName(const std::string& name,
                                         const std::shared_ptr<Bundle>& bundle) {
  if (!bundle) {
    debugLog("Could not load layout file " + name + ": no bundle");
    return nullptr;
  }
  const auto path = bundle->pathForResource(name, "json");
  std::error_code ec;
  if (!path || std::filesystem::file_size(*path, ec) > kMaxLayoutFileBytes || ec) {
    debugLog("Could not load layout file " + name + " from " + bundle->bundlePath().string());
    return nullptr;
  }
  std::ifstream in(*path, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  auto description = parseJson(content.str());
  if (!description || !description->is_object()) {
    debugLog("Malformed layout file " + path->string());
    return nullptr;
  }
  return std::make_shared<Nib>(name, std::move(*description));
}

std::shared_ptr<View> Nib::instantiate() const {
  const std::string className = text(description_, "class");
  auto root = makeView(className.empty() ? "View" : className);
  configure(*root, description_);
  std::vector<std::shared_ptr<View>> made;
  build(*root, description_.value("subviews", Value::array()), root, made);
  const Value* size = valueForKey(description_, "size");
  if (size && size->is_array() && size->size() == 2 && (*size)[0].is_number() &&
      (*size)[1].is_number()) {
    root->setFrame(Rect::make(0, 0, (*size)[0].get<double>(), (*size)[1].get<double>()));
  }
  root->layoutSubviews();
  for (const auto& view : made) view->awakeFromNib();
  root->awakeFromNib();
  return root;
}

}  // namespace quorvia::platform
