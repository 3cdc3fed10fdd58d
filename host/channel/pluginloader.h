// Finds a channel plug-in in a directory, loads it and checks that it speaks our version of
// the interface.
#pragma once

#include "plugin/api/cchannelplugin.h"
#include "plugin/api/entrypoints.h"

#include <QDir>
#include <QString>
#include <QStringList>

#include <memory>

struct DebugData;

namespace host {

// A loaded plug-in. Deleting this gives the plug-in object back to its library. The library stays
// loaded until the process ends, because its threads and statics may outlive the objects.
class LoadedPlugin
{
public:
    LoadedPlugin(const QString& path, CChannelPlugin* plugin, DeleteInstanceFunction deleteInstance)
        : m_path(path), m_plugin(plugin), m_deleteInstance(deleteInstance)
    {
    }
    ~LoadedPlugin() { m_deleteInstance(m_plugin); }
    LoadedPlugin(const LoadedPlugin&) = delete;
    LoadedPlugin& operator=(const LoadedPlugin&) = delete;

    [[nodiscard]] QString path() const { return m_path; }
    CChannelPlugin* operator->() const { return m_plugin; }

private:
    const QString m_path;
    CChannelPlugin* const m_plugin; // owned by the library: given back to it
    const DeleteInstanceFunction m_deleteInstance;
};

// The first plug-in of this channel type in dir. Null with *error set when there is none; the text
// says what was found instead. debugData is given to the library before anything else, and must
// exist until the last log line of the process.
[[nodiscard]] std::unique_ptr<LoadedPlugin> loadPlugin(const QDir& dir, int channelType, DebugData* debugData,
                                                       QString* error);

// One library; null with *error set.
[[nodiscard]] std::unique_ptr<LoadedPlugin> loadPluginFile(const QString& path, DebugData* debugData, QString* error);

} // namespace host
