// A library that is no channel plug-in: entry points are missing. With HAS_OTHERS all but one are there.
extern "C" {
#define ENTRY_POINT __attribute__((visibility("default")))
#ifndef WITHOUT_VERSION
ENTRY_POINT int apiVersion()
{
    return 16;
}
#endif
#ifdef HAS_OTHERS
#ifndef WITHOUT_INSTANCE
ENTRY_POINT void* instance()
{
    return nullptr;
}
#endif
#ifndef WITHOUT_DELETION
ENTRY_POINT void deleteInstance(void*) {}
#endif
#ifndef WITHOUT_LOG
ENTRY_POINT void initDebug(void*) {}
#endif
#endif
}
