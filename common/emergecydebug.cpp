#include "common/cancelguard.h"
#include "common/logfile.h"
#include "common/logger.h"

#include <QStringList>

#include <memory>

namespace {

// Never freed. Taken and put back as a whole by atomic operations: calls at the same time do not
// wait for each other and still cannot damage it. Null: not found yet.
std::shared_ptr<const LogTarget>& cachedTarget()
{
    static auto* const target = new std::shared_ptr<const LogTarget>;
    return *target;
}

std::shared_ptr<const LogTarget> currentTarget()
{
    std::shared_ptr<const LogTarget> target = std::atomic_load(&cachedTarget());
    if (target)
        return target;
    auto found = std::make_shared<LogTarget>();
    found->find();
    std::atomic_store(&cachedTarget(), std::shared_ptr<const LogTarget>(found));
    return found;
}

void forgetTarget()
{
    std::atomic_store(&cachedTarget(), std::shared_ptr<const LogTarget>());
}

QStringList formattedParts(const QString& text)
{
    QStringList parts = text.split(QLatin1Char('\n'));
    bool isStamped = false;
    for (QString& part : parts) {
        if (part.isEmpty())
            continue;
        if (isStamped) {
            part = QStringLiteral("    %1\n").arg(part);
        } else {
            part = QStringLiteral("%1                forceDebug    %2\n").arg(logTimeStamp(), part);
            isStamped = true;
        }
    }
    return parts;
}

} // namespace

void emergecyDebug(const QString& text)
{
    CancelGuard cancelGuard;
    const QStringList parts = formattedParts(text);
    const std::shared_ptr<const LogTarget> target = currentTarget();
    const QDir directory(target->directory().absolutePath());
    if (!directory.exists() && !createLogDirectory(directory)) {
        forgetTarget();
        return;
    }
    QFile file(target->filePath());
    if (!openLog(file)) {
        forgetTarget();
        return;
    }
    for (const QString& part : parts) {
        if (!part.isEmpty() && file.write(part.toUtf8()) < 0) {
            reportLogWriteError(file.errorString());
            forgetTarget();
        }
    }
}
