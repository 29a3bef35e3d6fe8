#pragma once

#include <pthread.h>

/// Whether and how the calling thread can be cancelled.
struct SCancelState
{
    int state = -1; ///< PTHREAD_CANCEL_ENABLE or _DISABLE
    int type = -1;  ///< PTHREAD_CANCEL_DEFERRED or _ASYNCHRONOUS
};

inline SCancelState cancelState()
{
    SCancelState now;
    int ignored = 0;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &now.state);
    ::pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &now.type);
    ::pthread_setcanceltype(now.type, &ignored);
    ::pthread_setcancelstate(now.state, &ignored);
    return now;
}
