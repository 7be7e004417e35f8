#include "platform/a11y/AtspiApplication.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <optional>

#include "quorvia/Version.h"

namespace quorvia::platform::atspi {
namespace {

constexpr const char* kNullPath = "/org/a11y/atspi/null";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kObjectEvents = "org.a11y.atspi.Event.Object";
constexpr const char* kFocusEvents = "org.a11y.atspi.Event.Focus";
constexpr const char* kUnknownObject = "org.freedesktop.DBus.Error.UnknownObject";
constexpr const char* kNotSupported = "org.freedesktop.DBus.Error.NotSupported";
// What a screen reader offers for each element that can be pressed.
constexpr const char* kClickAction = "click";

// AT-SPI's numbers (atspi-constants.h), fixed by the protocol.
enum Role : guint32 {
  kRoleAlert = 2,
  kRoleLabel = 29,
  kRolePushButton = 43,
  kRoleApplication = 75,
};
enum State : guint32 {
  kStateDefunct = 6,
  kStateEnabled = 8,
  kStateFocusable = 11,
  kStateFocused = 12,
  kStateModal = 16,
  kStateSensitive = 24,
  kStateShowing = 25,
  kStateVisible = 30,
};
enum CoordType : guint32 { kCoordScreen = 0, kCoordWindow = 1, kCoordParent = 2 };
enum Layer : guint32 { kLayerWidget = 3, kLayerWindow = 7 };

// The part of each interface the SDK's objects implement; GDBus checks every
// call and every answer against it.
constexpr const char* kIntrospection = R"xml(<node>
  <interface name="org.a11y.atspi.Accessible">
    <property name="Name" type="s" access="read"/>
    <property name="Description" type="s" access="read"/>
    <property name="Parent" type="(so)" access="read"/>
    <property name="ChildCount" type="i" access="read"/>
    <property name="Locale" type="s" access="read"/>
    <property name="AccessibleId" type="s" access="read"/>
    <method name="GetChildAtIndex"><arg direction="in" type="i"/><arg direction="out" type="(so)"/></method>
    <method name="GetChildren"><arg direction="out" type="a(so)"/></method>
    <method name="GetIndexInParent"><arg direction="out" type="i"/></method>
    <method name="GetRelationSet"><arg direction="out" type="a(ua(so))"/></method>
    <method name="GetRole"><arg direction="out" type="u"/></method>
    <method name="GetRoleName"><arg direction="out" type="s"/></method>
    <method name="GetLocalizedRoleName"><arg direction="out" type="s"/></method>
    <method name="GetState"><arg direction="out" type="au"/></method>
    <method name="GetAttributes"><arg direction="out" type="a{ss}"/></method>
    <method name="GetApplication"><arg direction="out" type="(so)"/></method>
    <method name="GetInterfaces"><arg direction="out" type="as"/></method>
  </interface>
  <interface name="org.a11y.atspi.Application">
    <property name="ToolkitName" type="s" access="read"/>
    <property name="Version" type="s" access="read"/>
    <property name="AtspiVersion" type="s" access="read"/>
    <property name="Id" type="i" access="readwrite"/>
    <method name="GetLocale"><arg direction="in" type="u"/><arg direction="out" type="s"/></method>
    <method name="GetApplicationBusAddress"><arg direction="out" type="s"/></method>
  </interface>
  <interface name="org.a11y.atspi.Component">
    <method name="Contains">
      <arg direction="in" type="i"/><arg direction="in" type="i"/><arg direction="in" type="u"/>
      <arg direction="out" type="b"/>
    </method>
    <method name="GetAccessibleAtPoint">
      <arg direction="in" type="i"/><arg direction="in" type="i"/><arg direction="in" type="u"/>
      <arg direction="out" type="(so)"/>
    </method>
    <method name="GetExtents"><arg direction="in" type="u"/><arg direction="out" type="(iiii)"/></method>
    <method name="GetPosition">
      <arg direction="in" type="u"/><arg direction="out" type="i"/><arg direction="out" type="i"/>
    </method>
    <method name="GetSize"><arg direction="out" type="i"/><arg direction="out" type="i"/></method>
    <method name="GetLayer"><arg direction="out" type="u"/></method>
    <method name="GetMDIZOrder"><arg direction="out" type="n"/></method>
    <method name="GrabFocus"><arg direction="out" type="b"/></method>
    <method name="GetAlpha"><arg direction="out" type="d"/></method>
    <method name="SetExtents">
      <arg direction="in" type="i"/><arg direction="in" type="i"/><arg direction="in" type="i"/>
      <arg direction="in" type="i"/><arg direction="in" type="u"/><arg direction="out" type="b"/>
    </method>
    <method name="SetPosition">
      <arg direction="in" type="i"/><arg direction="in" type="i"/><arg direction="in" type="u"/>
      <arg direction="out" type="b"/>
    </method>
    <method name="SetSize">
      <arg direction="in" type="i"/><arg direction="in" type="i"/><arg direction="out" type="b"/>
    </method>
    <method name="ScrollTo"><arg direction="in" type="u"/><arg direction="out" type="b"/></method>
    <method name="ScrollToPoint">
      <arg direction="in" type="u"/><arg direction="in" type="i"/><arg direction="in" type="i"/>
      <arg direction="out" type="b"/>
    </method>
  </interface>
  <interface name="org.a11y.atspi.Cache">
    <method name="GetItems"><arg direction="out" type="a((so)(so)(so)iiassusau)"/></method>
  </interface>
  <interface name="org.a11y.atspi.Action">
    <property name="NActions" type="i" access="read"/>
    <method name="GetDescription"><arg direction="in" type="i"/><arg direction="out" type="s"/></method>
    <method name="GetName"><arg direction="in" type="i"/><arg direction="out" type="s"/></method>
    <method name="GetLocalizedName"><arg direction="in" type="i"/><arg direction="out" type="s"/></method>
    <method name="GetKeyBinding"><arg direction="in" type="i"/><arg direction="out" type="s"/></method>
    <method name="GetActions"><arg direction="out" type="a(sss)"/></method>
    <method name="DoAction"><arg direction="in" type="i"/><arg direction="out" type="b"/></method>
  </interface>
</node>)xml";

GDBusNodeInfo* interfaces() {
  // Parsed once; never freed, like the static text it comes from.
  static GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
  return node;
}

int clampToInt(double value) {
  if (!std::isfinite(value)) return 0;
  return static_cast<int>(std::clamp(std::round(value), double{INT_MIN}, double{INT_MAX}));
}

class Objects final : public Application {
 public:
  explicit Objects(std::string name) : appName(busString(name)) {}
  Objects(const Objects&) = delete;
  Objects& operator=(const Objects&) = delete;
  ~Objects() override {
    if (connection) g_object_unref(connection);
  }

  void setTree(std::weak_ptr<AccessibilityBus::Tree> tree) override {
    this->tree = std::move(tree);
  }

  void joined(GDBusConnection* joinedOn, std::string unique, std::string name,
              std::string path) override {
    left();
    connection = G_DBUS_CONNECTION(g_object_ref(joinedOn));
    uniqueName = std::move(unique);
    desktopName = std::move(name);
    desktopPath = std::move(path);
    published.clear();
    if (auto shown = tree.lock()) update(shown->accessibleElements());
  }

  void left() override {
    if (connection) g_object_unref(connection);
    connection = nullptr;
  }

  // -- What the bus is told ------------------------------------------------

  void update(const std::vector<AccessibleElement>& now) override {
    if (!connection) return;
    const auto changes = changesBetween(published, now);
    published = now;
    for (const AccessibilityChange& change : changes) emit(change, now);
  }

 private:
  std::weak_ptr<AccessibilityBus::Tree> tree;
  const std::string appName;
  GDBusConnection* connection = nullptr;  // joined: signals go out on it
  std::string uniqueName;
  std::string desktopName;  // the registry's desktop, the application's parent
  std::string desktopPath;
  gint32 appId = 0;
  std::vector<AccessibleElement> published;

  void emit(const AccessibilityChange& change, const std::vector<AccessibleElement>& now) {
    using Kind = AccessibilityChange::Kind;
    const std::string path = pathOf(change.element);
    switch (change.kind) {
      case Kind::kAdded:
      case Kind::kRemoved:
        signal(pathOf(change.parent), kObjectEvents, "ChildrenChanged",
               change.kind == Kind::kAdded ? "add" : "remove", change.index,
               reference(change.element));
        return;
      case Kind::kNameChanged: {
        const AccessibleElement* e = find(now, change.element);
        if (e) {
          signal(path, kObjectEvents, "PropertyChange", "accessible-name", 0,
                 g_variant_new_string(busString(e->name).c_str()));
        }
        return;
      }
      case Kind::kStateChanged: {
        const char* name = change.state == AccessibleState::kShowing     ? "showing"
                           : change.state == AccessibleState::kFocusable ? "focusable"
                           : change.state == AccessibleState::kFocused   ? "focused"
                                                                         : "modal";
        signal(path, kObjectEvents, "StateChanged", name, change.value ? 1 : 0,
               g_variant_new_int32(0));
        // The event older screen readers still listen to for focus.
        if (change.state == AccessibleState::kFocused && change.value) {
          signal(path, kFocusEvents, "Focus", "", 0, g_variant_new_int32(0));
        }
        return;
      }
    }
  }

  void signal(const std::string& path, const char* interface, const char* member, const char* kind,
              int detail, GVariant* data) {
    GVariant* body = g_variant_new("(siiv@a{sv})", kind, detail, 0, data,
                                   g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0));
    // A bus that went away takes the event with it; nothing to do about it.
    g_dbus_connection_emit_signal(connection, nullptr, path.c_str(), interface, member, body,
                                  nullptr);
  }

  // -- What the bus asks ---------------------------------------------------

  static std::string pathOf(std::uint64_t id) {
    return id == 0 ? kRootPath : std::string(kSubtreePath) + "/" + std::to_string(id);
  }
  GVariant* reference(std::uint64_t id) const {
    return g_variant_new("(so)", uniqueName.c_str(), pathOf(id).c_str());
  }
  GVariant* nullReference() const { return g_variant_new("(so)", uniqueName.c_str(), kNullPath); }
  static const AccessibleElement* find(const std::vector<AccessibleElement>& list,
                                       std::uint64_t id) {
    for (const auto& e : list) {
      if (e.id == id) return &e;
    }
    return nullptr;
  }

  void answer(Call& call) override {
    auto tree = this->tree.lock();
    if (!tree) return call.fail(kUnknownObject, "The window is gone");
    if (call.path == kCachePath) return cache(call, *tree);
    std::uint64_t id = 0;
    if (call.path != kRootPath) {
      const std::string prefix = std::string(kSubtreePath) + "/";
      const std::string digits = call.path.substr(std::min(prefix.size(), call.path.size()));
      if (call.path.rfind(prefix, 0) != 0 || digits.empty() || digits.size() > 19 ||
          digits.find_first_not_of("0123456789") != std::string::npos) {
        return call.fail(kUnknownObject, "No such object");
      }
      id = std::strtoull(digits.c_str(), nullptr, 10);
    }
    const auto elements = tree->accessibleElements();
    const AccessibleElement* element = id ? find(elements, id) : nullptr;
    if (id && !element) {
      // A screen reader that held on to an element that went learns it is gone.
      if (call.interface == kAccessible && call.member == "GetState") {
        return call.reply(g_variant_new("(@au)", stateList({kStateDefunct})));
      }
      return call.fail(kUnknownObject, "The element is gone");
    }
    Context c{*tree, elements, element};
    if (call.interface == kProperties) return property(call, c);
    if (call.interface == kAccessible) return accessible(call, c);
    if (call.interface == kApplication && !element) return application(call);
    if (call.interface == kComponent && element) return component(call, c);
    if (call.interface == kAction && element && element->focusable) return action(call, c);
    call.fail(kNotSupported, "The object does not implement " + call.interface);
  }

  struct Context {
    AccessibilityBus::Tree& tree;
    const std::vector<AccessibleElement>& elements;
    const AccessibleElement* element;  // null: the application
  };

  // What a screen reader caches of each object when it first meets the
  // application, so that it need not ask for each on its own.
  void cache(Call& call, AccessibilityBus::Tree& tree) {
    const auto elements = tree.accessibleElements();
    GVariantBuilder items;
    g_variant_builder_init(&items, G_VARIANT_TYPE("a((so)(so)(so)iiassusau)"));
    auto add = [&](const AccessibleElement* element) {
      const Context c{tree, elements, element};
      g_variant_builder_add_value(
          &items,
          g_variant_new("(@(so)@(so)@(so)ii@assus@au)", reference(element ? element->id : 0),
                        reference(0), parentReference(c), indexInParent(c),
                        static_cast<gint32>(childrenOf(c).size()), interfacesOf(c),
                        busString(element ? element->name : appName).c_str(), roleOf(element).first,
                        "", statesOf(element)));
    };
    add(nullptr);
    for (const auto& e : elements) add(&e);
    call.reply(g_variant_new("(a((so)(so)(so)iiassusau))", &items));
  }

  // The interfaces an object implements ("as"), floating.
  static GVariant* interfacesOf(const Context& c) {
    GVariantBuilder list;
    g_variant_builder_init(&list, G_VARIANT_TYPE("as"));
    g_variant_builder_add(&list, "s", kAccessible);
    g_variant_builder_add(&list, "s", c.element ? kComponent : kApplication);
    if (c.element && c.element->focusable) g_variant_builder_add(&list, "s", kAction);
    return g_variant_builder_end(&list);
  }

  static gint32 indexInParent(const Context& c) {
    gint32 index = 0;  // the application is its desktop's business; 0 is what toolkits say
    if (c.element) {
      for (const auto& e : c.elements) {
        if (&e == c.element) break;
        if (e.parent == c.element->parent) ++index;
      }
    }
    return index;
  }

  std::vector<const AccessibleElement*> childrenOf(const Context& c) const {
    std::vector<const AccessibleElement*> children;
    const int parent = c.element ? static_cast<int>(c.element - c.elements.data()) : -1;
    for (const auto& e : c.elements) {
      if (e.parent == parent) children.push_back(&e);
    }
    return children;
  }
  GVariant* parentReference(const Context& c) const {
    if (!c.element) {
      return desktopName.empty() ? nullReference()
                                 : g_variant_new("(so)", desktopName.c_str(), desktopPath.c_str());
    }
    const int parent = c.element->parent;
    return reference(parent >= 0 && static_cast<std::size_t>(parent) < c.elements.size()
                         ? c.elements[parent].id
                         : 0);
  }
  // A state set as AT-SPI sends it: two words of bits ("au"), floating.
  static GVariant* stateList(const std::vector<guint32>& set) {
    guint32 bits[2] = {0, 0};
    for (guint32 s : set) bits[s / 32] |= 1u << (s % 32);
    GVariant* words[2] = {g_variant_new_uint32(bits[0]), g_variant_new_uint32(bits[1])};
    return g_variant_new_array(G_VARIANT_TYPE_UINT32, words, 2);
  }
  static GVariant* statesOf(const AccessibleElement* e) {
    if (!e) return stateList({});
    // Listed elements are never hidden: "visible" always, "showing" when in sight.
    std::vector<guint32> set = {kStateEnabled, kStateSensitive, kStateVisible};
    if (e->showing) set.push_back(kStateShowing);
    if (e->focusable) set.push_back(kStateFocusable);
    if (e->focused) set.push_back(kStateFocused);
    if (e->modal) set.push_back(kStateModal);
    return stateList(set);
  }
  static std::pair<guint32, const char*> roleOf(const AccessibleElement* e) {
    if (!e) return {kRoleApplication, "application"};
    switch (e->role) {
      case AccessibleRole::kAlert:
        return {kRoleAlert, "alert"};
      case AccessibleRole::kLabel:
        return {kRoleLabel, "label"};
      case AccessibleRole::kPushButton:
        return {kRolePushButton, "push button"};
      case AccessibleRole::kNone:
        break;
    }
    return {kRoleLabel, "label"};
  }

  GVariant* propertyValue(const std::string& interface, const std::string& name,
                          const Context& c) const {
    if (interface == kAccessible) {
      if (name == "Name") {
        return g_variant_new_string(busString(c.element ? c.element->name : appName).c_str());
      }
      if (name == "Description" || name == "Locale" || name == "AccessibleId") {
        return g_variant_new_string("");
      }
      if (name == "Parent") return parentReference(c);
      if (name == "ChildCount") {
        return g_variant_new_int32(static_cast<gint32>(childrenOf(c).size()));
      }
    } else if (interface == kApplication && !c.element) {
      if (name == "ToolkitName") return g_variant_new_string("Quorvia");
      if (name == "Version") return g_variant_new_string(QUORVIA_VERSION);
      if (name == "AtspiVersion") return g_variant_new_string("2.1");
      if (name == "Id") return g_variant_new_int32(appId);
    } else if (interface == kAction && c.element && c.element->focusable) {
      if (name == "NActions") return g_variant_new_int32(1);
    }
    return nullptr;
  }

  void property(Call& call, const Context& c) {
    if (call.member == "Get") {
      const gchar* interface = nullptr;
      const gchar* name = nullptr;
      g_variant_get(call.parameters, "(&s&s)", &interface, &name);
      GVariant* value = propertyValue(interface, name, c);
      if (!value) return call.fail(kNotSupported, "No such property here");
      return call.reply(g_variant_new("(v)", value));
    }
    if (call.member == "GetAll") {
      const gchar* interface = nullptr;
      g_variant_get(call.parameters, "(&s)", &interface);
      GVariantBuilder all;
      g_variant_builder_init(&all, G_VARIANT_TYPE("a{sv}"));
      if (GDBusInterfaceInfo* info = interfaceInfo(interface); info && info->properties) {
        for (GDBusPropertyInfo** p = info->properties; *p; ++p) {
          if (GVariant* value = propertyValue(interface, (*p)->name, c)) {
            g_variant_builder_add(&all, "{sv}", (*p)->name, value);
          }
        }
      }
      return call.reply(g_variant_new("(a{sv})", &all));
    }
    // Set: the registry numbers the application it registered.
    const gchar* interface = nullptr;
    const gchar* name = nullptr;
    GVariant* value = nullptr;
    g_variant_get(call.parameters, "(&s&sv)", &interface, &name, &value);
    const bool id = !c.element && g_strcmp0(interface, kApplication) == 0 &&
                    g_strcmp0(name, "Id") == 0 && g_variant_is_of_type(value, G_VARIANT_TYPE_INT32);
    if (id) appId = g_variant_get_int32(value);
    g_variant_unref(value);
    if (!id) return call.fail(kNotSupported, "The property cannot be set");
    call.reply(nullptr);
  }

  void accessible(Call& call, const Context& c) {
    const std::string& m = call.member;
    if (m == "GetChildAtIndex") {
      gint32 index = 0;
      g_variant_get(call.parameters, "(i)", &index);
      const auto children = childrenOf(c);
      const bool inside = index >= 0 && static_cast<std::size_t>(index) < children.size();
      return call.reply(
          g_variant_new("(@(so))", inside ? reference(children[index]->id) : nullReference()));
    }
    if (m == "GetChildren") {
      GVariantBuilder list;
      g_variant_builder_init(&list, G_VARIANT_TYPE("a(so)"));
      for (const auto* child : childrenOf(c))
        g_variant_builder_add_value(&list, reference(child->id));
      return call.reply(g_variant_new("(a(so))", &list));
    }
    if (m == "GetIndexInParent") return call.reply(g_variant_new("(i)", indexInParent(c)));
    if (m == "GetRelationSet") {
      return call.reply(g_variant_new("(@a(ua(so)))",
                                      g_variant_new_array(G_VARIANT_TYPE("(ua(so))"), nullptr, 0)));
    }
    if (m == "GetRole") return call.reply(g_variant_new("(u)", roleOf(c.element).first));
    if (m == "GetRoleName" || m == "GetLocalizedRoleName") {
      return call.reply(g_variant_new("(s)", roleOf(c.element).second));
    }
    if (m == "GetState") return call.reply(g_variant_new("(@au)", statesOf(c.element)));
    if (m == "GetAttributes") {
      return call.reply(
          g_variant_new("(@a{ss})", g_variant_new_array(G_VARIANT_TYPE("{ss}"), nullptr, 0)));
    }
    if (m == "GetApplication") return call.reply(g_variant_new("(@(so))", reference(0)));
    if (m == "GetInterfaces") return call.reply(g_variant_new("(@as)", interfacesOf(c)));
    call.fail(kNotSupported, "No such method");
  }

  void application(Call& call) {
    if (call.member == "GetLocale") return call.reply(g_variant_new("(s)", ""));
    // Empty: no connection of its own; screen readers talk through the bus.
    if (call.member == "GetApplicationBusAddress") return call.reply(g_variant_new("(s)", ""));
    call.fail(kNotSupported, "No such method");
  }

  // The element's rectangle in pixels of the coordinate space `type`.
  std::optional<std::array<int, 4>> extents(const Context& c, const AccessibleElement& e,
                                            guint32 type) const {
    const double scale = std::isfinite(c.tree.scale()) && c.tree.scale() > 0 ? c.tree.scale() : 1;
    Point origin{};
    if (type == kCoordScreen) {
      origin = c.tree.screenOrigin();
    } else if (type == kCoordParent) {
      if (e.parent >= 0 && static_cast<std::size_t>(e.parent) < c.elements.size()) {
        const Rect& p = c.elements[e.parent].frame;
        origin = {-p.x() * scale, -p.y() * scale};
      }
    } else if (type != kCoordWindow) {
      return std::nullopt;
    }
    return std::array<int, 4>{
        clampToInt(origin.x + e.frame.x() * scale), clampToInt(origin.y + e.frame.y() * scale),
        clampToInt(e.frame.width() * scale), clampToInt(e.frame.height() * scale)};
  }

  static bool contains(const std::array<int, 4>& box, gint32 x, gint32 y) {
    return x >= box[0] && y >= box[1] &&
           static_cast<long>(x) < static_cast<long>(box[0]) + box[2] &&
           static_cast<long>(y) < static_cast<long>(box[1]) + box[3];
  }

  void component(Call& call, const Context& c) {
    const AccessibleElement& e = *c.element;
    const std::string& m = call.member;
    if (m == "GetExtents" || m == "GetPosition") {
      guint32 type = 0;
      g_variant_get(call.parameters, "(u)", &type);
      const auto box = extents(c, e, type);
      if (!box) return call.fail(kNotSupported, "Unknown coordinate type");
      if (m == "GetPosition") return call.reply(g_variant_new("(ii)", (*box)[0], (*box)[1]));
      return call.reply(g_variant_new("((iiii))", (*box)[0], (*box)[1], (*box)[2], (*box)[3]));
    }
    if (m == "GetSize") {
      const auto box = extents(c, e, kCoordWindow);
      return call.reply(g_variant_new("(ii)", (*box)[2], (*box)[3]));
    }
    if (m == "Contains" || m == "GetAccessibleAtPoint") {
      gint32 x = 0, y = 0;
      guint32 type = 0;
      g_variant_get(call.parameters, "(iiu)", &x, &y, &type);
      const auto box = extents(c, e, type);
      if (!box) return call.fail(kNotSupported, "Unknown coordinate type");
      if (m == "Contains") return call.reply(g_variant_new("(b)", contains(*box, x, y)));
      // The point in window pixels: the element's box in both spaces tells the shift.
      const auto window = extents(c, e, kCoordWindow);
      const long wx = static_cast<long>(x) - (*box)[0] + (*window)[0];
      const long wy = static_cast<long>(y) - (*box)[1] + (*window)[1];
      for (const auto* child : childrenOf(c)) {
        const auto at = extents(c, *child, kCoordWindow);
        if (wx >= (*at)[0] && wy >= (*at)[1] && wx < static_cast<long>((*at)[0]) + (*at)[2] &&
            wy < static_cast<long>((*at)[1]) + (*at)[3]) {
          return call.reply(g_variant_new("(@(so))", reference(child->id)));
        }
      }
      return call.reply(g_variant_new("(@(so))", nullReference()));
    }
    if (m == "GetLayer") {
      return call.reply(g_variant_new("(u)", e.parent < 0 ? kLayerWindow : kLayerWidget));
    }
    if (m == "GetMDIZOrder") return call.reply(g_variant_new("(n)", gint16{0}));
    if (m == "GrabFocus") return call.reply(g_variant_new("(b)", c.tree.focusElement(e.id)));
    if (m == "GetAlpha") return call.reply(g_variant_new("(d)", 1.0));
    // The host's window decides where it is, and nothing in the banner scrolls.
    call.reply(g_variant_new("(b)", FALSE));
  }

  void action(Call& call, const Context& c) {
    const std::string& m = call.member;
    if (m == "GetActions") {
      GVariantBuilder list;
      g_variant_builder_init(&list, G_VARIANT_TYPE("a(sss)"));
      g_variant_builder_add(&list, "(sss)", kClickAction, "", "");
      return call.reply(g_variant_new("(a(sss))", &list));
    }
    gint32 index = 0;
    g_variant_get(call.parameters, "(i)", &index);
    if (index != 0) return call.fail(kNotSupported, "No such action");
    if (m == "DoAction")
      return call.reply(g_variant_new("(b)", c.tree.pressElement(c.element->id)));
    const char* text = m == "GetName" || m == "GetLocalizedName" ? kClickAction : "";
    call.reply(g_variant_new("(s)", text));
  }
};

}  // namespace

GDBusInterfaceInfo* interfaceInfo(const char* name) {
  return g_dbus_node_info_lookup_interface(interfaces(), name);
}

// Valid UTF-8 without NULs: a D-Bus string allows neither.
std::string busString(std::string_view text) {
  std::string copy(text);
  std::replace(copy.begin(), copy.end(), '\0', ' ');
  gchar* valid = g_utf8_make_valid(copy.data(), static_cast<gssize>(copy.size()));
  std::string result(valid);
  g_free(valid);
  return result;
}

std::unique_ptr<Application> Application::make(std::string name) {
  return std::make_unique<Objects>(std::move(name));
}

}  // namespace quorvia::platform::atspi
