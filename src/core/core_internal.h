// Application-core functions used across the library but not exported. They
// keep their C names and linkage so traces and logs read the same on every
// build.
#pragma once

#include "app_mgr_platform_types.h"
#include "app_mgr_types.h"

extern "C" {

// Records.
Application* allocate_application(unsigned int url_length);
void free_application(Application** app);
AitTable* allocate_ait_table(int num_of_applications, unsigned int url_length);
void free_ait_table(AitTable** ait_table);
void get_application_info(ApplicationInfo* info);
int get_application_type(void);
void getRuningApplicationType(ApplicationType* type);
int find_application_index(char* u);
int hasApplicationRuning(void);
int isCurrentApplicationVisible(void);

// Lifecycle of the running application.
int application_create(char* param_url);
void application_destroy(int orgid, int appid);
void kill_application(void);
void update_running_application(Application* a);
void update_running_application_as_independent(char* uri);
void application_manager_request_start(void);
void application_manager_request_stop(void);
void application_show(int is_css);
void application_hide(int is_css);
void setApplicationActivate(unsigned int bIsActivate);
void setCheckPageTransparent(int mode);
void tune_to_current_channel(void);
void application_switch_to_independent(void);
void handle_application_load_error(char* app_url);
void application_load_error(void);
int restartApplication(void);
// 1 when the URL begins with one of the broadcaster portal origins.
int is_portal_origin(const char* url);

// URLs.
int check_url_type(char* url);
int parseURI(char* URI, URIInfo* out);
int handle_url(char* url);

// Autostart and signalling.
void runAutostartApplication(AitTable* ait);
// Starts the entry find_autostart_app chose (autostart_app, non-null): the
// boundary to the browser, then application_create and, when that starts,
// the running record.
void start_autostart_app(void);
// A player page of the media-delivery service becomes the running
// broadcast-independent application; the broadcast stops.
void start_player_page(char* player_url);
void find_autostart_app(Application* applications, int length);
int check_running_application(AitTable* ait);
int check_independent_application_signalling(AitTable* table);
int check_independent_application_signalling_current_ait(void);
void check_application_new_signaling(AitTable* ait);
int load_app_from_current_ait(URIInfo info);
int find_app_from_ait(char* url);
int compareUrlOrigin(char* url1, char* url2);
char* combinationUrl(char* dvb_url, char* location_url);
int check_parental_rating(parental_rating_descriptor* app_parental);
int check_support_version(int app_profile, int version_major, int version_minor,
                          int version_micro);

// Current AIT.
void init_current_ait(void);
void clear_current_ait(void);
int checkNewAITTable(AitTable* ait);
void update_current_ait(AitTable* ait);
int check_version(int version);
void aitUpdateInfo(AitTable* ait);
void displayApplicationInfo(Application* app);
void displayTransportProtocolDescriptorInfo(transport_protocol_descriptor* tpd);

// Teletext, portal and notifications.
int hasTeletextApplication(void);
int find_teletext_application_index(void);
int openWebPortalFailed(void);
int send_curr_epg_update_msg(void);
int delete_all_fsa_file(void);
int get_free_mem(void);

// Key sets: the mask now in force.
int current_key_set_value(void);

// XML AITs.
int ParseXmlAitFile(char* text, int length);
int parse_xml_ait(char* url);

// Parental rating objects.
ParentalRating* parental_rating_get_threshold(char* prSchemeName);
void parental_rating_destroy(ParentalRating* rating);

// EPG search support (0 on success).
int initializeEPGExternal(void);
void deinitializeEPGExternal(void);

}

namespace appmgr::records {

// Copies the integer fields of an entry (ids through usage type, and the
// network requirement); texts, descriptor and ratings are left alone.
void copy_application_numbers(const Application& src, Application& dst);

// Frees what an entry points to (transport URL and descriptor, boundary,
// name, type, parental ratings) and nulls the pointers; the entry itself
// stays.
void release_application_fields(Application& app);

}  // namespace appmgr::records
