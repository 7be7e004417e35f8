// The banner on the desktop's accessibility bus (AT-SPI, at-spi2-core), where
// screen readers such as Orca read it: the SDK joins the bus as an
// application of its own, whose one window-level child is the banner while it
// is in sight. GDBus runs on a thread of its own with its own GMainContext, so
// a slow or hostile bus never stalls the main queue; every question the bus
// asks is answered on the main queue from the view tree as it is at that
// moment, and the answer goes back from there.

#include <gio/gio.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "platform/AccessibilityBus.h"
#include "platform/Log.h"
#include "quorvia/Version.h"
#include "quorvia/platform/RunLoop.h"

namespace quorvia::platform {
namespace {

constexpr const char* kSubtreePath = "/org/a11y/atspi/accessible";
constexpr const char* kRootNode = "root";
constexpr const char* kRootPath = "/org/a11y/atspi/accessible/root";
constexpr const char* kNullPath = "/org/a11y/atspi/null";
constexpr const char* kCachePath = "/org/a11y/atspi/cache";
constexpr const char* kCache = "org.a11y.atspi.Cache";
constexpr const char* kRegistryName = "org.a11y.atspi.Registry";
constexpr const char* kSocketInterface = "org.a11y.atspi.Socket";
constexpr const char* kLauncherName = "org.a11y.Bus";
constexpr const char* kLauncherPath = "/org/a11y/bus";
constexpr const char* kAccessible = "org.a11y.atspi.Accessible";
constexpr const char* kApplication = "org.a11y.atspi.Application";
constexpr const char* kComponent = "org.a11y.atspi.Component";
constexpr const char* kAction = "org.a11y.atspi.Action";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kObjectEvents = "org.a11y.atspi.Event.Object";
constexpr const char* kFocusEvents = "org.a11y.atspi.Event.Focus";
constexpr const char* kUnknownObject = "org.freedesktop.DBus.Error.UnknownObject";
constexpr const char* kNotSupported = "org.freedesktop.DBus.Error.NotSupported";
constexpr const char* kFailed = "org.freedesktop.DBus.Error.Failed";

// The bus, its launcher and the registry each get this long to answer.
constexpr int kCallTimeoutMs = 10'000;
// Joining (finding the bus, connecting, registering) gives up after this.
constexpr guint kJoinTimeoutMs = 20'000;
// Questions waiting for the main queue; a client that floods the bus gets
// "busy" for the rest, so that nothing grows without bound.
constexpr int kMaxPendingCalls = 256;
constexpr std::size_t kMaxErrorTextBytes = 200;
constexpr guint kStopDrainMs = 2000;
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

GDBusInterfaceInfo* interfaceInfo(const char* name) {
  return g_dbus_node_info_lookup_interface(interfaces(), name);
}

std::string errorText(const GError* error) {
  std::string text = error && error->message ? error->message : "unknown error";
  if (text.size() > kMaxErrorTextBytes) text.resize(kMaxErrorTextBytes);
  gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
  text = valid;
  g_free(valid);
  return text;
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

int clampToInt(double value) {
  if (!std::isfinite(value)) return 0;
  return static_cast<int>(std::clamp(std::round(value), double{INT_MIN}, double{INT_MAX}));
}

// One question from the bus, answered on the main queue. Whatever happens
// to the task, the caller gets an answer: a call dropped unanswered would
// leave the screen reader waiting for its timeout.
struct Call {
  std::string path;
  std::string interface;
  std::string member;
  GVariant* parameters = nullptr;
  GDBusMethodInvocation* invocation = nullptr;
  std::shared_ptr<std::atomic<int>> pending;

  Call() = default;
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call() {
    if (invocation) fail(kFailed, "The application went away");
    if (parameters) g_variant_unref(parameters);
  }
  void reply(GVariant* value) {
    g_dbus_method_invocation_return_value(std::exchange(invocation, nullptr), value);
    --*pending;
  }
  void fail(const char* name, const std::string& message) {
    g_dbus_method_invocation_return_dbus_error(std::exchange(invocation, nullptr), name,
                                               message.c_str());
    --*pending;
  }
};

// Everything the main queue keeps: the tree it publishes and what the bus
// last heard about it.
struct MainSide {
  std::weak_ptr<AccessibilityBus::Tree> tree;
  std::string appName;
  GDBusConnection* connection = nullptr;  // joined: signals go out on it
  std::string uniqueName;
  std::string desktopName;  // the registry's desktop, the application's parent
  std::string desktopPath;
  gint32 appId = 0;
  std::vector<AccessibleElement> published;

  MainSide() = default;
  MainSide(const MainSide&) = delete;
  MainSide& operator=(const MainSide&) = delete;
  ~MainSide() {
    if (connection) g_object_unref(connection);
  }

  // -- What the bus is told ------------------------------------------------

  void update(const std::vector<AccessibleElement>& now) {
    if (!connection) return;
    const auto changes = changesBetween(published, now);
    published = now;
    for (const AccessibilityChange& change : changes) emit(change, now);
  }

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

  void answer(Call& call) {
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

class AtspiAccessibilityBus final : public AccessibilityBus {
 public:
  explicit AtspiAccessibilityBus(std::string appName)
      : context_(g_main_context_new()),
        loop_(g_main_loop_new(context_, FALSE)),
        cancellable_(g_cancellable_new()) {
    main_->appName = busString(appName);
  }

  ~AtspiAccessibilityBus() override {
    if (thread_.joinable()) {
      g_cancellable_cancel(cancellable_);
      // A source, not g_main_loop_quit(): a quit before the loop runs is lost.
      onBusThread([this] { g_main_loop_quit(loop_); });
      thread_.join();
    }
    g_object_unref(cancellable_);
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
    // The last reference to what the main queue keeps goes to the main queue.
    dispatch_async([main = std::move(main_)] {});
  }

  void publish(std::weak_ptr<Tree> tree) override {
    main_->tree = std::move(tree);
    if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
  }

  void update(const std::vector<AccessibleElement>& now) override { main_->update(now); }

 private:
  // Runs `work` on the bus thread's context. Any thread. The work passes
  // through our own lock rather than through the GSource, so that the
  // hand-over is one the thread checker sees.
  void onBusThread(std::function<void()> work) {
    {
      std::lock_guard lock(tasksMu_);
      tasks_.push_back(std::move(work));
    }
    GSource* source = g_idle_source_new();
    g_source_set_callback(
        source,
        [](gpointer self) -> gboolean {
          static_cast<AtspiAccessibilityBus*>(self)->runTasks();
          return G_SOURCE_REMOVE;
        },
        this, nullptr);
    g_source_attach(source, context_);
    g_source_unref(source);
  }

  void runTasks() {
    std::deque<std::function<void()>> batch;
    {
      std::lock_guard lock(tasksMu_);
      batch.swap(tasks_);
    }
    for (auto& task : batch) task();
  }

  // Everything below runs on the bus thread.

  void run() {
    pthread_setname_np(pthread_self(), "quorvia-a11y");
    g_main_context_push_thread_default(context_);
    GSource* deadline = g_timeout_source_new(kJoinTimeoutMs);
    g_source_set_callback(
        deadline,
        [](gpointer self) -> gboolean {
          auto* bus = static_cast<AtspiAccessibilityBus*>(self);
          if (!bus->joined_) {
            bus->turnOff("the accessibility bus did not answer");
            g_cancellable_cancel(bus->cancellable_);
          }
          return G_SOURCE_REMOVE;
        },
        this, nullptr);
    g_source_attach(deadline, context_);
    findBus();
    g_main_loop_run(loop_);
    g_source_destroy(deadline);
    g_source_unref(deadline);
    stop();
    g_main_context_pop_thread_default(context_);
  }

  // The bus's address: as the environment says, else as the bus launcher
  // on the session bus says (at-spi2-core's org.a11y.Bus).
  void findBus() {
    if (const char* address = std::getenv("AT_SPI_BUS_ADDRESS"); address && *address) {
      connect(address);
      return;
    }
    GError* error = nullptr;
    gchar* session = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, cancellable_, &error);
    if (!session) {
      turnOff("no session bus to find the accessibility bus on (" + errorText(error) + ")");
      g_clear_error(&error);
      return;
    }
    ++inFlight_;
    g_dbus_connection_new_for_address(
        session,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, cancellable_, &AtspiAccessibilityBus::onSession, this);
    g_free(session);
  }

  static void onSession(GObject*, GAsyncResult* result, gpointer data) {
    auto* self = static_cast<AtspiAccessibilityBus*>(data);
    --self->inFlight_;
    GError* error = nullptr;
    GDBusConnection* session = g_dbus_connection_new_for_address_finish(result, &error);
    if (!session) {
      self->failed("the session bus cannot be reached", error);
      return;
    }
    g_dbus_connection_set_exit_on_close(session, FALSE);
    ++self->inFlight_;
    g_dbus_connection_call(session, kLauncherName, kLauncherPath, kLauncherName, "GetAddress",
                           nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs,
                           self->cancellable_, &AtspiAccessibilityBus::onAddress, self);
    // The call keeps the connection until it is answered; closed after that.
    g_object_unref(session);
  }

  static void onAddress(GObject* source, GAsyncResult* result, gpointer data) {
    auto* self = static_cast<AtspiAccessibilityBus*>(data);
    --self->inFlight_;
    GDBusConnection* session = G_DBUS_CONNECTION(source);
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_finish(session, result, &error);
    g_dbus_connection_close(session, nullptr, nullptr, nullptr);
    if (!reply) {
      self->failed("no accessibility bus", error);
      return;
    }
    const gchar* address = nullptr;
    g_variant_get(reply, "(&s)", &address);
    const std::string copy = address;
    g_variant_unref(reply);
    if (copy.empty()) {
      self->turnOff("no accessibility bus (its launcher gave no address)");
      return;
    }
    self->connect(copy);
  }

  void connect(const std::string& address) {
    if (!g_dbus_is_address(address.c_str())) {
      turnOff("no accessibility bus (\"" + busString(address.substr(0, 100)) +
              "\" is not a bus address)");
      return;
    }
    ++inFlight_;
    g_dbus_connection_new_for_address(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, cancellable_, &AtspiAccessibilityBus::onConnected, this);
  }

  static void onConnected(GObject*, GAsyncResult* result, gpointer data) {
    auto* self = static_cast<AtspiAccessibilityBus*>(data);
    --self->inFlight_;
    GError* error = nullptr;
    GDBusConnection* connection = g_dbus_connection_new_for_address_finish(result, &error);
    if (!connection) {
      self->failed("the accessibility bus cannot be reached", error);
      return;
    }
    self->connection_ = connection;
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    self->closedHandler_ = g_signal_connect(
        connection, "closed", G_CALLBACK(+[](GDBusConnection*, gboolean, GError*, gpointer data) {
          static_cast<AtspiAccessibilityBus*>(data)->turnOff(
              "the accessibility bus connection closed");
        }),
        self);
    self->registerObjects();
  }

  void registerObjects() {
    static const GDBusSubtreeVTable vtable = {&AtspiAccessibilityBus::enumerate,
                                              &AtspiAccessibilityBus::introspect,
                                              &AtspiAccessibilityBus::dispatch,
                                              {}};
    GError* error = nullptr;
    subtree_ = g_dbus_connection_register_subtree(
        connection_, kSubtreePath, &vtable, G_DBUS_SUBTREE_FLAGS_DISPATCH_TO_UNENUMERATED_NODES,
        this, nullptr, &error);
    if (subtree_ != 0) {
      static const GDBusInterfaceVTable cacheVTable = {
          &AtspiAccessibilityBus::onMethodCall, nullptr, nullptr, {}};
      cache_ = g_dbus_connection_register_object(connection_, kCachePath, interfaceInfo(kCache),
                                                 &cacheVTable, this, nullptr, &error);
    }
    if (subtree_ == 0 || cache_ == 0) {
      failed("the accessibility bus refused the SDK's objects", error);
      return;
    }
    // The registry lists the application on the desktop, where screen
    // readers look for it.
    ++inFlight_;
    g_dbus_connection_call(
        connection_, kRegistryName, kRootPath, kSocketInterface, "Embed",
        g_variant_new("((so))", g_dbus_connection_get_unique_name(connection_), kRootPath),
        G_VARIANT_TYPE("((so))"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, cancellable_,
        &AtspiAccessibilityBus::onEmbedded, this);
  }

  static void onEmbedded(GObject* source, GAsyncResult* result, gpointer data) {
    auto* self = static_cast<AtspiAccessibilityBus*>(data);
    --self->inFlight_;
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    if (!reply) {
      self->failed("the accessibility registry did not take the application", error);
      return;
    }
    const gchar* desktopName = nullptr;
    const gchar* desktopPath = nullptr;
    g_variant_get(reply, "((&s&o))", &desktopName, &desktopPath);
    self->joined_ = true;
    dispatch_async([main = self->main_,
                    connection = G_DBUS_CONNECTION(g_object_ref(self->connection_)),
                    unique = std::string(g_dbus_connection_get_unique_name(self->connection_)),
                    name = std::string(desktopName), path = std::string(desktopPath)] {
      if (main->connection) g_object_unref(main->connection);
      main->connection = connection;
      main->uniqueName = unique;
      main->desktopName = name;
      main->desktopPath = path;
      // From now on the bus hears of every change, starting with what is
      // shown already.
      main->published.clear();
      if (auto tree = main->tree.lock()) main->update(tree->accessibleElements());
    });
    g_variant_unref(reply);
  }

  static gchar** enumerate(GDBusConnection*, const gchar*, const gchar*, gpointer) {
    // Elements come and go with the banner; calls reach them unenumerated.
    return g_new0(gchar*, 1);
  }

  static bool isElementNode(const gchar* node) {
    if (!node) return false;
    if (g_strcmp0(node, kRootNode) == 0) return true;
    const std::size_t length = std::strlen(node);
    return length > 0 && length <= 19 && std::strspn(node, "0123456789") == length;
  }

  static GDBusInterfaceInfo** introspect(GDBusConnection*, const gchar*, const gchar*,
                                         const gchar* node, gpointer) {
    if (!isElementNode(node)) return nullptr;
    const bool root = g_strcmp0(node, kRootNode) == 0;
    GPtrArray* list = g_ptr_array_new();
    g_ptr_array_add(list, g_dbus_interface_info_ref(interfaceInfo(kAccessible)));
    if (root) {
      g_ptr_array_add(list, g_dbus_interface_info_ref(interfaceInfo(kApplication)));
    } else {
      // Whether an element can be pressed is known on the main queue; calls
      // to an Action it lacks are refused there.
      g_ptr_array_add(list, g_dbus_interface_info_ref(interfaceInfo(kComponent)));
      g_ptr_array_add(list, g_dbus_interface_info_ref(interfaceInfo(kAction)));
    }
    g_ptr_array_add(list, nullptr);
    return reinterpret_cast<GDBusInterfaceInfo**>(g_ptr_array_free(list, FALSE));
  }

  static const GDBusInterfaceVTable* dispatch(GDBusConnection*, const gchar*, const gchar*,
                                              const gchar*, const gchar* node, gpointer* target,
                                              gpointer data) {
    static const GDBusInterfaceVTable vtable = {
        &AtspiAccessibilityBus::onMethodCall, nullptr, nullptr, {}};
    if (!isElementNode(node)) return nullptr;
    *target = data;
    return &vtable;
  }

  // A question from a screen reader: off to the main queue, where the tree is.
  static void onMethodCall(GDBusConnection*, const gchar*, const gchar* path,
                           const gchar* interface, const gchar* member, GVariant* parameters,
                           GDBusMethodInvocation* invocation, gpointer data) {
    auto* self = static_cast<AtspiAccessibilityBus*>(data);
    if (self->pending_->load() >= kMaxPendingCalls) {
      g_dbus_method_invocation_return_dbus_error(invocation, kFailed,
                                                 "The application is busy; ask again");
      return;
    }
    ++*self->pending_;
    auto call = std::make_shared<Call>();
    call->path = path;
    call->interface = interface;
    call->member = member;
    call->parameters = g_variant_ref(parameters);
    call->invocation = invocation;
    call->pending = self->pending_;
    dispatch_async([main = self->main_, call] { main->answer(*call); });
  }

  void failed(const std::string& what, GError* error) {
    if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
      turnOff(what + " (" + errorText(error) + ")");
    }
    g_clear_error(&error);
  }

  void turnOff(const std::string& why) {
    if (stopping_ || off_) return;
    off_ = true;
    NSLog("QuorviaSDK: " + why + "; screen readers do not see the banner");
    dispatch_async([main = main_] {
      if (main->connection) g_object_unref(main->connection);
      main->connection = nullptr;
    });
  }

  // After the loop ended: cancel what is in flight, let its callbacks run
  // (bounded), and leave the bus.
  void stop() {
    stopping_ = true;
    g_cancellable_cancel(cancellable_);
    bool late = false;
    GSource* deadline = g_timeout_source_new(kStopDrainMs);
    g_source_set_callback(
        deadline,
        [](gpointer flag) -> gboolean {
          *static_cast<bool*>(flag) = true;
          return G_SOURCE_REMOVE;
        },
        &late, nullptr);
    g_source_attach(deadline, context_);
    while (inFlight_ > 0 && !late) g_main_context_iteration(context_, TRUE);
    g_source_destroy(deadline);
    g_source_unref(deadline);
    if (!connection_) return;
    if (subtree_) g_dbus_connection_unregister_subtree(connection_, subtree_);
    if (cache_) g_dbus_connection_unregister_object(connection_, cache_);
    g_signal_handler_disconnect(connection_, closedHandler_);
    g_dbus_connection_close(connection_, nullptr, nullptr, nullptr);
    g_object_unref(connection_);
    connection_ = nullptr;
  }

  GMainContext* const context_;
  GMainLoop* const loop_;
  GCancellable* const cancellable_;
  std::shared_ptr<MainSide> main_ = std::make_shared<MainSide>();
  const std::shared_ptr<std::atomic<int>> pending_ = std::make_shared<std::atomic<int>>(0);
  std::thread thread_;  // main thread only
  std::mutex tasksMu_;
  std::deque<std::function<void()>> tasks_;  // guarded by tasksMu_

  // Bus thread only.
  GDBusConnection* connection_ = nullptr;
  gulong closedHandler_ = 0;
  guint subtree_ = 0;
  guint cache_ = 0;
  int inFlight_ = 0;
  bool joined_ = false;
  bool off_ = false;
  bool stopping_ = false;
};

}  // namespace

std::shared_ptr<AccessibilityBus> makeAtspiAccessibilityBus(std::string appName) {
  return std::make_shared<AtspiAccessibilityBus>(std::move(appName));
}

}  // namespace quorvia::platform
