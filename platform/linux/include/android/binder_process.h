// The process's pool of binder threads, the same one that
// <binder/ProcessState.h> controls. Without it nobody can call this process.
#pragma once

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// Starting twice does nothing more.
void ABinderProcess_startThreadPool(void);
bool ABinderProcess_setThreadPoolMaxThreadCount(uint32_t numThreads);
// The calling thread serves calls until the connection ends.
void ABinderProcess_joinThreadPool(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
