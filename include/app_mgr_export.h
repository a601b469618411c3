/* Export control for libapp-mgr: the shared object is built with hidden
 * visibility, so only declarations carrying APPMGR_API leave it. */
#ifndef APP_MGR_EXPORT_H
#define APP_MGR_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define APPMGR_API __attribute__((visibility("default")))
#else
#define APPMGR_API
#endif

#ifdef __cplusplus
#define APPMGR_BEGIN_DECLS extern "C" {
#define APPMGR_END_DECLS }
#else
#define APPMGR_BEGIN_DECLS
#define APPMGR_END_DECLS
#endif

#endif /* APP_MGR_EXPORT_H */
