// Protects a piece of code from a forced end of its thread.
#pragma once

#include <pthread.h>

// If a thread is cancelled while a destructor does input or output, the whole process ends; if it
// is cancelled while it holds a lock, the lock is never released. While an object of this
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
