// Tells the thread sanitizer about the synchronisation inside Qt, whose libraries are
// not built with it: the slow paths of QMutex, events posted from one thread and
// delivered in another, and the end of a thread that another has waited for. Linked into
// every program of a thread sanitizer build; without it correct code is reported.
//
// It defines the functions of Qt that our code calls, adds the edge and calls the real
// one. Mutexes get an edge of their own; events and threads share one. What Qt itself does
// to memory is left out of the reports.
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QMetaObject>
#include <QMutex>
#include <QThread>

#include <dlfcn.h>
#include <fcntl.h>

extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
extern "C" void AnnotateIgnoreWritesBegin(const char* file, int line);
extern "C" void AnnotateIgnoreWritesEnd(const char* file, int line);

#define INTERPOSED extern "C" __attribute__((visibility("default")))

namespace {

char eventEdge; // its address only

template <typename Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void publish()
{
    __tsan_release(&eventEdge);
}

void receive()
{
    __tsan_acquire(&eventEdge);
}

bool eventIsDelivered(void**)
{
    receive();
    return false; // go on with the delivery
}

const bool registered = QInternal::registerCallback(QInternal::EventNotifyCallback, eventIsDelivered);

// The sanitizer ends the program when a library named in its suppressions is unloaded.
void* const keptLoaded = dlopen("libQt5SerialPort.so.5", RTLD_LAZY);

void released(void* mutex)
{
    __tsan_release(mutex);
    publish();
}

} // namespace

// QMutex

INTERPOSED void _ZN11QBasicMutex12lockInternalEv(QBasicMutex* mutex)
{
    static auto* real = next<void(QBasicMutex*)>("_ZN11QBasicMutex12lockInternalEv");
    real(mutex);
    __tsan_acquire(mutex);
}

INTERPOSED bool _ZN11QBasicMutex12lockInternalEi(QBasicMutex* mutex, int timeoutMs)
{
    static auto* real = next<bool(QBasicMutex*, int)>("_ZN11QBasicMutex12lockInternalEi");
    const bool locked = real(mutex, timeoutMs);
    if (locked)
        __tsan_acquire(mutex);
    return locked;
}

INTERPOSED void _ZN11QBasicMutex14unlockInternalEv(QBasicMutex* mutex)
{
    static auto* real = next<void(QBasicMutex*)>("_ZN11QBasicMutex14unlockInternalEv");
    released(mutex);
    real(mutex);
}

INTERPOSED void _ZN6QMutex4lockEv(QMutex* mutex)
{
    static auto* real = next<void(QMutex*)>("_ZN6QMutex4lockEv");
    real(mutex);
    __tsan_acquire(mutex);
}

INTERPOSED bool _ZN6QMutex7tryLockEi(QMutex* mutex, int timeoutMs)
{
    static auto* real = next<bool(QMutex*, int)>("_ZN6QMutex7tryLockEi");
    const bool locked = real(mutex, timeoutMs);
    if (locked)
        __tsan_acquire(mutex);
    return locked;
}

INTERPOSED void _ZN6QMutex6unlockEv(QMutex* mutex)
{
    static auto* real = next<void(QMutex*)>("_ZN6QMutex6unlockEv");
    released(mutex);
    real(mutex);
}

// Events

INTERPOSED void _ZN11QMetaObject8activateEP7QObjectPKS_iPPv(QObject* sender, const QMetaObject* meta, int signal,
                                                            void** arguments)
{
    static auto* real =
        next<void(QObject*, const QMetaObject*, int, void**)>("_ZN11QMetaObject8activateEP7QObjectPKS_iPPv");
    publish();
    real(sender, meta, signal, arguments);
}

// A functor is deleted by whichever thread drops the last reference: often the one that posted it,
// after the other has carried it out. Qt counts the references where the sanitizer does not see it,
// and the functor shares its strings with whoever posted it. So each has an edge from the end of the
// delivery, on the receiver's address: an edge for all events would hide races.
INTERPOSED bool _ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPv(
    QObject* object, void* slot, int type, void* result)
{
    static auto* real = next<bool(QObject*, void*, int, void*)>(
        "_ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPv");
    publish();
    const bool isPossible = real(object, slot, type, result);
    __tsan_acquire(object);
    return isPossible;
}

INTERPOSED bool _ZN7QObject5eventEP6QEvent(QObject* object, QEvent* event)
{
    static auto* real = next<bool(QObject*, QEvent*)>("_ZN7QObject5eventEP6QEvent");
    if (event->type() != QEvent::MetaCall) // others may delete the object
        return real(object, event);
    const bool isRecognised = real(object, event);
    __tsan_release(object);
    return isRecognised;
}

INTERPOSED void _ZN16QCoreApplication9postEventEP7QObjectP6QEventi(QObject* receiver, QEvent* event, int priority)
{
    static auto* real = next<void(QObject*, QEvent*, int)>("_ZN16QCoreApplication9postEventEP7QObjectP6QEventi");
    publish();
    real(receiver, event, priority);
}

INTERPOSED void _ZN7QObject11deleteLaterEv(QObject* object)
{
    static auto* real = next<void(QObject*)>("_ZN7QObject11deleteLaterEv");
    publish();
    real(object);
}

// Threads

INTERPOSED void _ZN7QThread5startENS_8PriorityE(QThread* thread, QThread::Priority priority)
{
    static auto* real = next<void(QThread*, QThread::Priority)>("_ZN7QThread5startENS_8PriorityE");
    // Emitted by the thread itself as the last that it does.
    QObject::connect(thread, &QThread::finished, publish);
    real(thread, priority);
}

INTERPOSED int _ZN7QThread4execEv(QThread* thread)
{
    static auto* real = next<int(QThread*)>("_ZN7QThread4execEv");
    const int code = real(thread);
    publish();
    return code;
}

INTERPOSED bool _ZN7QThread4waitE14QDeadlineTimer(QThread* thread, QDeadlineTimer deadline)
{
    static auto* real = next<bool(QThread*, QDeadlineTimer)>("_ZN7QThread4waitE14QDeadlineTimer");
    const bool ended = real(thread, deadline);
    receive();
    return ended;
}

INTERPOSED bool _ZN7QThread4waitEm(QThread* thread, unsigned long timeoutMs)
{
    static auto* real = next<bool(QThread*, unsigned long)>("_ZN7QThread4waitEm");
    const bool ended = real(thread, timeoutMs);
    receive();
    return ended;
}

INTERPOSED bool _ZNK7QThread9isRunningEv(const QThread* thread)
{
    static auto* real = next<bool(const QThread*)>("_ZNK7QThread9isRunningEv");
    const bool running = real(thread);
    receive();
    return running;
}

INTERPOSED bool _ZNK7QThread10isFinishedEv(const QThread* thread)
{
    static auto* real = next<bool(const QThread*)>("_ZNK7QThread10isFinishedEv");
    const bool finished = real(thread);
    receive();
    return finished;
}

// Descriptors

// The sanitizer knows open() but not this, and would take the new device for whatever had
// the same number before, closed by another thread.
INTERPOSED int posix_openpt(int flags)
{
    return open("/dev/ptmx", flags);
}

// Nor does it see that a library closes one, or makes one, which is left out with all that
// libraries do: the next owner of the number would race with the one before. So each close makes
// it forget the number, and checks nothing. Weak: a test may have its own.
extern "C" __attribute__((weak, visibility("default"))) int close(int descriptor)
{
    static auto* real = next<int(int)>("close");
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
    const int result = real(descriptor);
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    return result;
}

// Libraries that are not built with the sanitizer; nothing of ours may stand here. A
// functor handed to another thread is freed by whoever drops the last reference to it, a
// count that Qt keeps. libc guards its time zone by a lock that the sanitizer does not see.
INTERPOSED const char* __tsan_default_suppressions()
{
    return "called_from_lib:libQt5Core.so.5\n"
           "called_from_lib:libQt5SerialPort.so.5\n"
           "called_from_lib:libglib-2.0.so.0\n"
           "race:QMetaObject::invokeMethodImpl\n"
           "race:tzset_internal\n";
}
