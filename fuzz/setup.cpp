// What runs before the first input: a fresh installation root, an application object, and
// silence in place of Qt's debug output, which would take most of the time.
#include "rig/freshroot.h"

#include <QCoreApplication>

#include <cstdlib>

extern "C" __attribute__((visibility("default"))) int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    if (!rig::isInFreshRoot())
        std::_Exit(rig::runInFreshRoot(*argv));
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString&) {
        if (type == QtFatalMsg)
            std::abort();
    });
    static QCoreApplication application(*argc, *argv);
    return 0;
}
