// Keeps a forced end of the thread out of a piece of code.
#pragma once

#include <pthread.h>

// A thread that is cancelled while it does input or output in a destructor takes the whole
// process down, and one cancelled under a lock leaves it locked. While an object of this
// class lives, a cancellation of the calling thread (QThread::terminate) stays pending.
// Objects nest; each must be destroyed by the thread that made it.
class CancelGuard
{
public:
    CancelGuard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_previousState); }
    ~CancelGuard()
    {
        int ignored = 0;
        pthread_setcancelstate(m_previousState, &ignored);
    }
    CancelGuard(const CancelGuard&) = delete;
    CancelGuard& operator=(const CancelGuard&) = delete;

private:
    int m_previousState = PTHREAD_CANCEL_ENABLE;
};
