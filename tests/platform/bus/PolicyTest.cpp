// What data/org.kestrane.conf lets whom do, below the defaults of a system bus. Only root can be
// somebody else.

#include <grp.h>
#include <pwd.h>

#include <regex>

#include "tests/platform/bus/PrivateBus.h"
#include "tests/platform/bus/ScriptedService.h"

namespace {

constexpr const char* kSystemBusDefaults = R"(
  <policy context="default">
    <allow user="*"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_sender="*"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>)";

/// What stands in the policy's root element. The bus asks the system who belongs to a group, so
/// users that every system has stand in.
std::string policy() {
  std::string text = readFile(KST_BUS_POLICY);
  text = std::regex_replace(text, std::regex("user=\"kestrane\""), "user=\"daemon\"");
  text = std::regex_replace(text, std::regex("group=\"kestrane\""), "group=\"bin\"");
  return std::regex_replace(text, std::regex("[^]*<busconfig>|</busconfig>"), "");
}

/// What this process may do, as one word for each deed.
std::string deeds() {
  const dbus::BusPtr bus = PrivateBus::connect();
  constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
  std::string text;
  for (const dbus::Peer& peer : {dbus::kManager, dbus::kHelper}) {
    text += peer.hasServerState ? "manager:" : " helper:";
    // The name is taken already, which counts only with those who may have it.
    text += sd_bus_request_name(bus.get(), peer.service, 0) == -EEXIST ? " own" : "";
    const std::pair<const char*, const char*> tried[] = {
        {peer.interface, "Perform"}, {nullptr, "Perform"},
        {kProperties, "Get"},        {kProperties, "GetAll"},
        {kProperties, "Set"},        {"org.freedesktop.DBus.Introspectable", "Introspect"},
        {peer.interface, "Other"}};
    for (const auto& [interface, member] : tried) {
      sd_bus_error error{};
      sd_bus_call_method(bus.get(), peer.service, peer.path, interface, member, &error, nullptr,
                         "");
      // What arrives is answered, if only by the word that the service cannot do it.
      const bool denied = sd_bus_error_has_name(&error, SD_BUS_ERROR_ACCESS_DENIED) > 0;
      sd_bus_error_free(&error);
      text += denied ? "" : std::string(interface ? " " : " any-") + member;
    }
  }
  return text;
}

void become(const char* user) {
  const passwd* const entry = getpwnam(user);
  ASSERT_TRUE(entry);
  ASSERT_EQ(seteuid(0), 0);
  ASSERT_EQ(initgroups(user, entry->pw_gid), 0);
  ASSERT_EQ(setegid(entry->pw_gid), 0);
  ASSERT_EQ(seteuid(entry->pw_uid), 0);
}

TEST(PolicyTest, RootAndTheGroupMayCallEverybodyMaySeeTheState) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can be somebody else";
  }
  PrivateBus bus(kSystemBusDefaults + policy());
  bus.start();
  const auto answer = ScriptedService::reply("isv", 0, "", "s", "");
  const ScriptedService manager(dbus::kManager, answer);
  const ScriptedService helper(dbus::kHelper, answer);
  const std::pair<const char*, const char*> cases[] = {
      {"root", "manager: own Perform Get GetAll Introspect helper: own Perform Introspect"},
      {"daemon", "manager: own Get GetAll Introspect helper: own Introspect"},
      {"bin", "manager: Perform Get GetAll Introspect helper: Perform Introspect"},
      {"nobody", "manager: Get GetAll Introspect helper: Introspect"}};
  for (const auto& [user, allowed] : cases) {
    become(user);
    EXPECT_EQ(deeds(), allowed) << user;
  }
  become("root");
}

}  // namespace
