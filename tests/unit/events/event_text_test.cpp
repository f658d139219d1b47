// The text of an event frame, and what a client may send.
#include <gtest/gtest.h>

#include <string>

#include "events/event_text.h"

TEST(EventText, FramesAndWhatAClientSends) {
    EXPECT_EQ("id: 7\nevent: change\ndata: {\"a\":1}\n\n",
              wHttpEventFrame(7, "change", "{\"a\":1}"));
    // A line break in the data would end it early: it never gets through.
    EXPECT_EQ("id: 1\nevent: end\ndata: a  b\n\n", wHttpEventFrame(1, "end", "a\r\nb"));
    EXPECT_EQ(42u, wHttpParseLastEventId("42"));
    for (const char* bad : {"", "-1", "4 2", "0x10", "99999999999999999999", "12a"})
        EXPECT_FALSE(wHttpParseLastEventId(bad)) << bad;
    for (const char* good : {"Device.", "Device.Hosts.", "Device.Hosts.Host.4.",
                             "Device.X_OLVEX_A-b.", "Device.Hosts.Host.10.", "Device.X0."})
        EXPECT_TRUE(wHttpWatchPathWellFormed(good)) << good;
    for (const char* bad : {"Device", "device.", "Device..", "Device.WiFi", "Device.Wi Fi.",
                            "Device.WiFi.\n", "Device.\xc3\xa9.", ".Device.", "Devices.X.",
                            "Device.WiFi.SSID.01.", "Device.WiFi.SSID.0."})
        EXPECT_FALSE(wHttpWatchPathWellFormed(bad)) << bad;
    EXPECT_FALSE(wHttpWatchPathWellFormed("Device." + std::string(250, 'A') + "."));
    std::vector<std::string> watched{"Device.Hosts.", "Device.WiFi.SSID.1."};
    EXPECT_TRUE(wHttpPathWatched(watched, "Device.Hosts.Host.4."));
    EXPECT_TRUE(wHttpPathWatched(watched, "Device.WiFi.SSID.1."));
    EXPECT_FALSE(wHttpPathWatched(watched, "Device.WiFi.SSID.10."));
    EXPECT_FALSE(wHttpPathWatched(watched, "Device.HostsX."));
    EXPECT_TRUE(wHttpPathWatched({}, "Device.Anything."));
}
