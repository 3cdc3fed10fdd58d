// Keeps what the parts of a running host tell.
#pragma once

#include "host/installation/runrecords.h"

#include <QJsonDocument>
#include <QStringList>

#include <string>
#include <vector>

namespace hosttest {

// Readable where a comparison fails.
inline std::vector<std::string> jsonTexts(const std::vector<QJsonObject>& objects)
{
    std::vector<std::string> texts;
    for (const QJsonObject& object : objects)
        texts.push_back(QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString());
    return texts;
}

class RecordedRun final : public host::RunRecords
{
public:
    void event(const QString& name, const QJsonObject& fields) override
    {
        names.append(name);
        all.push_back(fields);
        last = fields;
    }
    void journal(bool isError, const QString& text) override { lines.append((isError ? "E " : "") + text); }

    QStringList names;
    std::vector<QJsonObject> all; // the fields of each event
    QStringList lines;
    QJsonObject last;
};

} // namespace hosttest
