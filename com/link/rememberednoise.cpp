#include "com/link/rememberednoise.h"

#include <QHash>
#include <QMutex>
#include <QMutexLocker>

namespace {

struct Memory
{
    QMutex mutex;
    QHash<QString, NoiseEstimate> byPort;
};

Memory& memory()
{
    static auto* const ports = new Memory; // never freed: a worker may outlive the end of main()
    return *ports;
}

} // namespace

NoiseEstimate rememberedNoise(const QString& portName)
{
    const QMutexLocker locker(&memory().mutex);
    return memory().byPort.value(portName);
}

void rememberNoise(const QString& portName, const NoiseEstimate& noise)
{
    const QMutexLocker locker(&memory().mutex);
    memory().byPort.insert(portName, noise.startOfNextCall());
}
