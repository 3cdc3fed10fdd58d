// Where an installation of a run keeps its messages.
#pragma once

#include "host/store/messagestore.h"

#include <string>

namespace soak {

inline host::StorePaths hubPaths(const std::string& root)
{
    const QString base = QString::fromStdString(root);
    host::StorePaths paths;
    paths.input = QDir(base + QStringLiteral("/input"));
    paths.incomplete = QDir(base + QStringLiteral("/incomplete"));
    paths.output = QDir(base + QStringLiteral("/output"));
    paths.tasks = QDir(base + QStringLiteral("/tasks"));
    paths.receivedList = base + QStringLiteral("/received.list");
    return paths;
}

} // namespace soak
