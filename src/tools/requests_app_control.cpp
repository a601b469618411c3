// Application-control requests of the running page on "dtvPlugins". They
// read or change the manager record, so each runs under the manager lock;
// none of them waits for a tune.
#include <algorithm>
#include <string>
#include <vector>

#include "app_mgr.h"
#include "common/log.h"
#include "core/core.h"
#include "hbb_platform.h"
#include "tools/request_records.h"
#include "tools/requests.h"

namespace appmgr::msg {
namespace {

// Other keys a key-set request may list; further ones are not read.
constexpr int kMaxOtherKeys = 64;

// Field: the URL (a longer one is refused: 0).
void create_application(Request& request) {
    AM_INFO("Command CMD_CREATE_APPLICATION received");
    std::string url;
    if (!take_text(request, kMaxUrlLength, "application URL", &url) || url.empty()) {
        request.reply_int(0);
        return;
    }
    request.reply_int(application_create(url.data()));
}

// The portal intent goes out first, whatever the fields say. Fields:
// organisation id, application id.
void destroy_application(Request& request) {
    AM_INFO("Command CMD_DESTROY_APPLICATION received");
    orb_am_sendBroadcast("orb.broadcast.stop.hbbtv.portal");
    const int orgid = request.integer();
    const int appid = request.integer();
    application_destroy(orgid, appid);
    request.ack();
}

void show_application(Request& request) {
    application_show(0);
    request.ack();
}

void hide_application(Request& request) {
    application_hide(0);
    request.ack();
}

// Fields: the key-set mask, the number of other keys, the other keys. Only
// whether there is a list of other keys matters to setKeySet.
void set_key_set(Request& request) {
    const int mask = request.integer();
    const int count = std::clamp(request.integer(), 0, kMaxOtherKeys);
    std::vector<int> other_keys;
    for (int i = 0; i < count; ++i) other_keys.push_back(request.integer());
    request.reply_int(setKeySet(mask, other_keys.empty() ? nullptr : other_keys.data()));
}

void get_application_type_request(Request& request) {
    AM_INFO("Command CMD_GET_APPLICATION_TYPE received");
    request.reply_int(get_application_type());
}

void get_application_info_request(Request& request) {
    AM_INFO("Command CMD_GET_APPLICATION_INFO received");
    ApplicationInfo info{0, 0};
    get_application_info(&info);
    request.reply(protocol::Fields().add(info.orgid).add(info.appid));
}

void switch_to_independent(Request& request) {
    application_switch_to_independent();
    request.ack();
}

void get_ait_table_application_type(Request& request) {
    AM_INFO("Command CMD_GET_AIT_TABLE_APPLICATION_TYPE received");
    request.reply_int(static_cast<int>(getCurrentAitTableApplicationType()));
}

constexpr RequestRow kRows[] = {
    {50, "CMD_CREATE_APPLICATION", Lock::Manager, create_application},
    {51, "CMD_DESTROY_APPLICATION", Lock::Manager, destroy_application},
    {53, "show application", Lock::Manager, show_application},
    {54, "hide application", Lock::Manager, hide_application},
    {55, "set key set", Lock::Manager, set_key_set},
    {56, "CMD_GET_APPLICATION_TYPE", Lock::Manager, get_application_type_request},
    {57, "CMD_GET_APPLICATION_INFO", Lock::Manager, get_application_info_request},
    {58, "switch to independent application", Lock::Manager, switch_to_independent},
    {78, "CMD_GET_AIT_TABLE_APPLICATION_TYPE", Lock::Manager, get_ait_table_application_type},
};

}  // namespace

const RequestTable kApplicationControlRequests{kRows};

}  // namespace appmgr::msg
