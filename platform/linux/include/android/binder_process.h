// The process's pool of binder threads, which <binder/ProcessState.h> controls as well. A
// process without it cannot be called.
#pragma once

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// A second call has no effect.
void ABinderProcess_startThreadPool(void);
bool ABinderProcess_setThreadPoolMaxThreadCount(uint32_t numThreads);
// The calling thread serves calls until orb_platform::StopThreadPool().
void ABinderProcess_joinThreadPool(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
