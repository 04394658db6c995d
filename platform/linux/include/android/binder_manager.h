// Finds and publishes services through the process's default service manager.
#pragma once

#include <android/binder_ibinder.h>
#include <android/binder_status.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// Publishes the object and replaces one of the same name. Returns EX_NONE or the reason.
__attribute__((warn_unused_result)) binder_exception_t AServiceManager_addService(
    AIBinder*, const char* instance);
// A new strong reference, or null when no such service is published. Does not wait.
__attribute__((warn_unused_result)) AIBinder* AServiceManager_checkService(const char* instance);
// Like AServiceManager_checkService, but waits up to five seconds for the service.
__attribute__((warn_unused_result)) AIBinder* AServiceManager_getService(const char* instance);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
