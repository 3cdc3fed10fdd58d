#include "host/channel/pluginloader.h"

#include <QFileInfo>
#include <QLibrary>
#include <QSet>

namespace host {

std::unique_ptr<LoadedPlugin> loadPluginFile(const QString& path, DebugData* debugData, QString* error)
{
    QLibrary library(path); // its destructor does not unload
    library.setLoadHints(QLibrary::ResolveAllSymbolsHint);
    if (!library.load()) {
        *error = QStringLiteral("%1 cannot be loaded: %2").arg(path, library.errorString());
        return nullptr;
    }
    const auto apiVersion = reinterpret_cast<ApiVersionFunction>(library.resolve("apiVersion"));
    const auto instance = reinterpret_cast<InstanceFunction>(library.resolve("instance"));
    const auto deleteInstance = reinterpret_cast<DeleteInstanceFunction>(library.resolve("deleteInstance"));
    const auto initDebug = reinterpret_cast<InitDebugFunction>(library.resolve("initDebug"));
    if (!apiVersion || !instance || !deleteInstance || !initDebug) {
        *error = QStringLiteral("%1 is no channel plug-in: an entry point is missing").arg(path);
        return nullptr;
    }
    const int version = apiVersion();
    if (version != channelApiVersion) {
        *error = QStringLiteral("%1 has version %2 of the plug-in interface, this host needs version %3")
                     .arg(path, QString::number(version), QString::number(channelApiVersion));
        return nullptr;
    }
    initDebug(debugData);
    return std::make_unique<LoadedPlugin>(path, instance(), deleteInstance);
}

std::unique_ptr<LoadedPlugin> loadPlugin(const QDir& dir, int channelType, DebugData* debugData, QString* error)
{
    QStringList troubles;
    QSet<QString> seen; // a library has several names there
    const QFileInfoList files =
        dir.entryInfoList({QStringLiteral("*.so"), QStringLiteral("*.so.*")}, QDir::Files, QDir::Name);
    for (const QFileInfo& file : files) {
        const QString path = file.canonicalFilePath();
        if (path.isEmpty() || seen.contains(path))
            continue;
        seen.insert(path);
        QString trouble;
        std::unique_ptr<LoadedPlugin> plugin = loadPluginFile(path, debugData, &trouble);
        if (plugin && (*plugin)->type() == channelType)
            return plugin;
        troubles.append(plugin ? QStringLiteral("%1 is for another kind of channel").arg(path) : trouble);
    }
    *error = troubles.isEmpty()
                 ? QStringLiteral("there is no channel plug-in in %1: install libtransportCom.so.1 there")
                       .arg(dir.absolutePath())
                 : troubles.join(QStringLiteral("; "));
    return nullptr;
}

} // namespace host
