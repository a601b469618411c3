#include "builtin_scenario.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace appmgr::emu {

namespace {

const char* const kScenario = R"ini(# appmgr-emu's built-in scenario. appmgr-emu --write-builtin DIR writes it
# and its files into DIR, to be run with --scenario DIR/builtin.ini.
#
# The receiver is tuned to "Emu News", whose object carousel (component tag
# 1) carries a news application. Its AIT arrives, the application starts from
# the carousel and reads a file of it, and asks for its keys. Two channel
# changes follow: the news application is bound to its service and is
# killed, the guide of the next service is not and is kept. Finally the
# middleware launches an application from an XML AIT served over HTTP.

[scenario]
title = carousel application, key set, channel changes, XML AIT over HTTP

[service]
onid = 0x1
tsid = 0x2
sid = 0x3
name = Emu News

[channel.sport]
onid = 0x1
tsid = 0x2
sid = 0x4
name = Emu Sport

[channel.movies]
onid = 0x1
tsid = 0x2
sid = 0x5
name = Emu Movies

[terminal]
network = on

[carousel.1]
dir = carousel

[http]
root = http

[app.news]
name = News
org_id = 0x70
app_id = 1
control = AUTOSTART
url = dvb://1.2.3.1/index.html
service_bound = yes

[app.guide]
name = Guide
org_id = 0x70
app_id = 2
control = AUTOSTART
url = http://{http}/guide/index.html
service_bound = no

[ait.news]
apps = news

[ait.sport]
channel = sport
apps = guide

# The next service signals the guide too, but not for autostart.
[ait.movies]
channel = movies
apps = guide:PRESENT

[timeline]
step10 = say 1. The AIT of Emu News arrives: its AUTOSTART application starts from the carousel
step11 = deliver_ait news
step12 = expect decision autostart 0x70.1
step13 = wait_frame 50 dvb://1.2.3.1/index.html
step14 = expect running 0x70.1
step15 = browser 82|dvb://1.2.3.1/index.html|
step16 = expect loaded dvb://1.2.3.1/index.html
step17 = browser dsmcc 131|dvb://1.2.3.1/headline.txt|
step18 = expect content Emu News: the carousel application is running\n

step20 = say 2. The application asks for colour, navigation and number keys (0x11f)
step21 = keyset 0x11f
step22 = wait_frame 220 31
step23 = browser 87|
step24 = wait_frame 220 287
step25 = expect keyset 0x11f

step30 = say 3. Channel change to Emu Sport: News is bound to its service and is killed
step31 = channel sport
step32 = expect decision kill 0x70.1
step33 = wait_frame 51
step34 = expect running none
step35 = deliver_ait sport
step36 = expect decision autostart 0x70.2
step37 = wait_frame 50 http://{http}/guide/index.html
step38 = expect running 0x70.2

step40 = say 4. Channel change to Emu Movies: the Guide is not service bound and is kept
step41 = channel movies
step42 = expect no_decision kill
step43 = deliver_ait movies
step44 = expect decision keep 0x70.2
step45 = expect no_frame 50
step46 = expect running 0x70.2

step50 = say 5. The middleware launches an XML AIT from the HTTP server: its application starts
step51 = launch broadcast http://{http}/ait/offers.aitx
step52 = expect result 1
step53 = expect decision autostart 0x70.9
step54 = wait_frame 140 http://{http}/offers/index.html
step55 = expect running 0x70.9

step60 = say 6. The receiver shuts the library down
step61 = close
)ini";

struct File {
    const char* path;
    const char* text;
};

const File kFiles[] = {
    {"carousel/index.html", R"(<!DOCTYPE html>
<html><head><title>News</title></head>
<body><h1>News</h1><p>Started from the object carousel.</p></body>
</html>
)"},
    {"carousel/headline.txt", "Emu News: the carousel application is running\n"},
    {"http/guide/index.html", R"(<!DOCTYPE html>
<html><head><title>Guide</title></head>
<body><h1>Guide</h1><p>A broadband application that outlives channel changes.</p></body>
</html>
)"},
    {"http/offers/index.html", R"(<!DOCTYPE html>
<html><head><title>Offers</title></head>
<body><h1>Offers</h1><p>Started from the XML AIT ait/offers.aitx.</p></body>
</html>
)"},
    // {http} becomes the server's address when it is served.
    {"http/ait/offers.aitx", R"(<?xml version="1.0" encoding="UTF-8"?>
<mhp:ServiceDiscovery xmlns:mhp="urn:dvb:mhp:2009"
                      xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance">
  <mhp:ApplicationDiscovery DomainName="emu.example">
    <mhp:ApplicationList>
      <mhp:Application>
        <mhp:appName Language="eng">Offers</mhp:appName>
        <mhp:applicationIdentifier>
          <mhp:orgId>112</mhp:orgId>
          <mhp:appId>9</mhp:appId>
        </mhp:applicationIdentifier>
        <mhp:applicationDescriptor>
          <mhp:type><mhp:OtherApp>application/vnd.hbbtv.xhtml+xml</mhp:OtherApp></mhp:type>
          <mhp:controlCode>AUTOSTART</mhp:controlCode>
          <mhp:visibility>VISIBLE_ALL</mhp:visibility>
          <mhp:serviceBound>false</mhp:serviceBound>
          <mhp:priority>1</mhp:priority>
          <mhp:version>1</mhp:version>
          <mhp:mhpVersion>
            <mhp:profile>0</mhp:profile>
            <mhp:versionMajor>1</mhp:versionMajor>
            <mhp:versionMinor>1</mhp:versionMinor>
            <mhp:versionMicro>1</mhp:versionMicro>
          </mhp:mhpVersion>
        </mhp:applicationDescriptor>
        <mhp:applicationBoundary>
          <mhp:BoundaryExtension>http://{http}/</mhp:BoundaryExtension>
        </mhp:applicationBoundary>
        <mhp:applicationTransport xsi:type="mhp:HTTPTransportType">
          <mhp:URLBase>http://{http}/offers/</mhp:URLBase>
        </mhp:applicationTransport>
        <mhp:applicationLocation>index.html</mhp:applicationLocation>
      </mhp:Application>
    </mhp:ApplicationList>
  </mhp:ApplicationDiscovery>
</mhp:ServiceDiscovery>
)"},
};

bool writeFile(const std::filesystem::path& path, const char* text, std::string* error) {
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);
    std::ofstream out(path, std::ios::binary);
    out << text;
    out.close();
    if (ec || !out) {
        if (error) *error = "cannot write " + path.string() + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace

std::string writeBuiltinScenario(const std::string& dir, std::string* error) {
    const std::filesystem::path base(dir);
    for (const File& f : kFiles)
        if (!writeFile(base / f.path, f.text, error)) return "";
    const std::filesystem::path ini = base / "builtin.ini";
    if (!writeFile(ini, kScenario, error)) return "";
    return ini.string();
}

}  // namespace appmgr::emu
