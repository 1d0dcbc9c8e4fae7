#include <gtest/gtest.h>

#include <libintl.h>

#include "ManagerFixture.h"
#include "tvhost/apps.h"
#include "tvhost/notifications.h"
#include "tvhost/power.h"

using Peer = LumoraManagerTestPeer;

namespace {

const char *const kAirConNotification =
    "<DeviceNotification id=\"7\" type=\"alarm\">"
    "<Device id=\"ac1\" type=\"Air Conditioner\">Living room AC</Device>"
    "<Notification>Filter needs cleaning</Notification>"
    "<Action type=\"open\">Widget</Action>"
    "<DisplayOption flag=\"On\" condition=\"Always\"/></DeviceNotification>";

std::string EntryLine(int nEvent, const std::string &p1, const std::string &p2)
{
    return "Enter LumoraManager::OnQorvEvent, event type is " + std::to_string(nEvent) + ", strParam1 = " + p1 +
           ", strParam2 = " + p2;
}

std::vector<std::string> DeviceListLines(const LogCapture &log)
{
    std::vector<std::string> out;
    for (const auto &m : log.Messages())
        if (m.rfind("Device list : ", 0) == 0)
            out.push_back(m);
    return out;
}

} // namespace

TEST_F(ManagerTest, DeviceNotificationIsDrawnAndItsGoButtonLaunchesTheWidgetForTheDevice)
{
    StartWithWidget();
    tvhost::notifications::DrawTo(nullptr);

    EXPECT_EQ(sim->Emit(5, kAirConNotification, ""), 0);
    auto shown = tvhost::notifications::Shown();
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].itemId, 1);
    EXPECT_EQ(shown[0].title.value_or(""), "Living room AC");
    EXPECT_EQ(shown[0].body.value_or(""), "Filter needs cleaning");
    EXPECT_EQ(shown[0].buttonCount, 2) << "widget installed but not running: Close and Go";

    // A document that does not parse, and one whose display flag is off, show nothing.
    EXPECT_EQ(sim->Emit(5, "<DeviceNotification", ""), 0);
    std::string hidden = kAirConNotification;
    hidden.replace(hidden.find("flag=\"On\""), 9, "flag=\"on\"");
    EXPECT_EQ(sim->Emit(5, hidden.c_str(), ""), 0);
    EXPECT_EQ(tvhost::notifications::Posted().size(), 1u);

    ASSERT_TRUE(tvhost::notifications::PressButton(1, 1));
    tvhost::notifications::WaitDelivered();
    auto launches = tvhost::apps::Launches();
    ASSERT_EQ(launches.size(), 1u);
    EXPECT_EQ(launches[0].appId, kWidgetApp);
    EXPECT_EQ(launches[0].extraData,
              (std::vector<std::pair<std::string, std::string>>{{"deviceID", "ac1"}}));
}

TEST_F(ManagerTest, NewDeviceListBecomesANotificationWithTheSummary)
{
    StartWithWidget();
    tvhost::notifications::DrawTo(nullptr);
    const char *list = "<NewDeviceList><NewDevice id=\"n1\"><Type>Washer</Type></NewDevice>"
                       "<NewDevice id=\"n2\"><Type>Air Conditioner</Type></NewDevice></NewDeviceList>";
    EXPECT_EQ(sim->Emit(1, list, ""), 0);
    auto posted = tvhost::notifications::Posted();
    ASSERT_EQ(posted.size(), 1u);
    std::string title = dgettext("lumora", "TV_NEW_HOME_APPLIANCE_DETECTED");
    EXPECT_EQ(posted[0].title.value_or(""), title);
    EXPECT_EQ(posted[0].body.value_or(""), "Air Conditioner 1, Washer 1" + title);

    // An incomplete list is dropped.
    EXPECT_EQ(sim->Emit(1, "<NewDeviceList><NewDevice id=\"x\"/></NewDeviceList>", ""), 0);
    EXPECT_EQ(tvhost::notifications::Posted().size(), 1u);
}

TEST_F(ManagerTest, RegisteredDeviceListIsLoggedAndKeptUntilTheNextOne)
{
    StartWithWidget();
    const std::string list =
        "<RegisteredDeviceList>"
        "<RegisteredDevice id=\"1\" status=\"Connected\"><Type>Air Conditioner</Type><Name>Living room</Name></RegisteredDevice>"
        "<RegisteredDevice id=\"2\" status=\"Connected\"><Type>Washer</Type><Name>Bath</Name></RegisteredDevice>"
        "</RegisteredDeviceList>";
    log.Clear();
    EXPECT_EQ(sim->Emit(0, list.c_str(), "p2"), 0);
    EXPECT_EQ(log.Messages().front(), EntryLine(0, list, "p2"));
    EXPECT_EQ(DeviceListLines(log), (std::vector<std::string>{"Device list : strID = 1",
                                                              "Device list : strCtrlName = Living room",
                                                              "Device list : status = Connected",
                                                              "Device list : type = Air Conditioner"}));
    EXPECT_TRUE(tvhost::notifications::Posted().empty());

    // A list that stops at an incomplete device reports what was kept before it.
    log.Clear();
    const char *partial =
        "<L><RegisteredDevice id=\"9\" status=\"Disconnected\"><Type>Air Conditioner</Type><Name>Hall</Name></RegisteredDevice>"
        "<RegisteredDevice id=\"10\"><Type>Air Conditioner</Type></RegisteredDevice>"
        "<RegisteredDevice id=\"11\"><Type>Air Conditioner</Type><Name>Never read</Name></RegisteredDevice></L>";
    EXPECT_EQ(sim->Emit(0, partial, ""), 0);
    EXPECT_EQ(DeviceListLines(log).size(), 4u);
    EXPECT_EQ(DeviceListLines(log)[0], "Device list : strID = 9");

    log.Clear();
    EXPECT_EQ(sim->Emit(0, "not xml", ""), 0);
    EXPECT_TRUE(DeviceListLines(log).empty()) << "the failed parse emptied the list first";

    // Without its list object the event fails.
    LumoraParameter *pSaved = Peer::RegisterList();
    Peer::RegisterList() = nullptr;
    log.Clear();
    EXPECT_EQ(sim->Emit(0, list.c_str(), ""), -1);
    EXPECT_EQ(log.PriorityOf("Error, the pRegisterList is NULL!"), 7);
    CNewDeviceList wrongKind;
    Peer::RegisterList() = &wrongKind;
    EXPECT_EQ(sim->Emit(0, list.c_str(), ""), -1);
    EXPECT_EQ(log.Count("Error, the pRegisterList is NULL!"), 2);
    Peer::RegisterList() = pSaved;
}

TEST_F(ManagerTest, MasterKeysPowerOffAndUnknownEvents)
{
    StartWithWidget();
    EXPECT_EQ(sim->Emit(12290, "<MasterKeyList><MasterKey id=\"1\" name=\"Power\">PWR</MasterKey></MasterKeyList>",
                        "<MasterKeyList><MasterKey id=\"2\" name=\"Ignored\">IGN</MasterKey></MasterKeyList>"),
              0);
    ASSERT_EQ(Peer::MasterKeys().size(), 1u);
    EXPECT_EQ(Peer::MasterKeys()[0].key, "PWR");
    log.Clear();
    EXPECT_EQ(sim->Emit(12290, "<Other/>", ""), 0);
    EXPECT_TRUE(log.Has("call m_ParseMasterKeyMessage fail"));
    EXPECT_EQ(Peer::MasterKeys().size(), 1u);

    for (int nEvent : {2, 3, 4, 6, 12289, 12292, -1}) {
        log.Clear();
        EXPECT_EQ(sim->Emit(nEvent, kAirConNotification, "x"), 0);
        EXPECT_EQ(log.Messages(), std::vector<std::string>{EntryLine(nEvent, kAirConNotification, "x")});
    }
    EXPECT_TRUE(tvhost::notifications::Posted().empty());

    log.Clear();
    EXPECT_EQ(sim->Emit(12291, "", ""), 0);
    EXPECT_EQ(tvhost::power::Requests(), std::vector<int>{3});
    EXPECT_TRUE(log.Has("In HAC_EVENT_TV_POWER_OFF condition "));
    EXPECT_TRUE(log.Has("CLumoraTvControl success to power off the TV!"));
}
