// What data/org.kestrane.conf lets whom do, below the defaults of a system bus. Only root can be
// somebody else.

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <utility>

#include "tests/platform/bus/PrivateBus.h"
#include "tests/platform/bus/ScriptedService.h"

namespace {

// The bus asks the system who belongs to a group, so users that every system has stand in.
constexpr const char* kServices = "user=\"daemon\"";
constexpr const char* kMembers = "group=\"bin\"";  // as the user of that name is

constexpr const char* kSystemBusDefaults = R"(
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_sender="*"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>)";

/// The policy, for the stand-ins: what stands in its root element.
std::string policy() {
  std::ostringstream file;
  file << std::ifstream(KST_BUS_POLICY).rdbuf();
  std::string text = file.str();
  text = std::regex_replace(text, std::regex("user=\"kestrane\""), kServices);
  text = std::regex_replace(text, std::regex("group=\"kestrane\""), kMembers);
  const std::string begin = "<busconfig>";
  text.erase(0, text.find(begin) + begin.size());
  return text.substr(0, text.find("</busconfig>"));
}

bool may(const dbus::BusPtr& bus, const dbus::Peer& peer, const char* interface,
         const char* member) {
  sd_bus_message* call = nullptr;
  sd_bus_message_new_method_call(bus.get(), &call, peer.service, peer.path, interface, member);
  const dbus::MessagePtr message(call);
  sd_bus_error error{};
  const int r = sd_bus_call(bus.get(), call, 0, &error, nullptr);
  // What arrives is answered, if only by the word that the service cannot do it.
  const bool arrived = r >= 0 || sd_bus_error_has_name(&error, SD_BUS_ERROR_UNKNOWN_METHOD) ||
                       sd_bus_error_has_name(&error, SD_BUS_ERROR_INVALID_ARGS);
  sd_bus_error_free(&error);
  return arrived;
}

/// What this process may do, as one word for each deed.
std::string deeds() {
  sd_bus* opened = nullptr;
  if (sd_bus_open_system(&opened) < 0) {
    return "no bus";
  }
  const dbus::BusPtr bus(opened);
  constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
  std::string text;
  for (const dbus::Peer& peer : {dbus::kManager, dbus::kHelper}) {
    text += peer.hasServerState ? "manager:" : " helper:";
    const std::pair<const char*, bool> tried[] = {
        // The name is taken already, which counts only with those who may have it.
        {" own", sd_bus_request_name(bus.get(), peer.service, 0) == -EEXIST},
        {" Perform", may(bus, peer, peer.interface, "Perform")},
        {" Perform-of-any-interface", may(bus, peer, nullptr, "Perform")},
        {" Get", may(bus, peer, kProperties, "Get")},
        {" GetAll", may(bus, peer, kProperties, "GetAll")},
        {" Set", may(bus, peer, kProperties, "Set")},
        {" Introspect", may(bus, peer, "org.freedesktop.DBus.Introspectable", "Introspect")},
        {" other", may(bus, peer, peer.interface, "Other")},
    };
    for (const auto& [deed, allowed] : tried) {
      text += allowed ? deed : "";
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
      {"nobody", "manager: Get GetAll Introspect helper: Introspect"},
  };
  for (const auto& [user, allowed] : cases) {
    become(user);
    EXPECT_EQ(deeds(), allowed) << user;
  }
  become("root");
}

}  // namespace
