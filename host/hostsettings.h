// What the host keeps in the settings directory: its own name, its abonents, the ports of
// the dial-up channel.
#pragma once

#include <optional>

#include <QByteArray>
#include <QString>
#include <QVector>

#include "host/comsettingswriter.h"

namespace host {

constexpr qint32 comChannelType = 2;

// One abonent: its addressing data is opaque here and belongs to the kind of channel.
struct Abonent
{
    QString name;
    qint32 channelType = comChannelType;
    QByteArray channelData;
};

// Operations answer an error text, empty on success. One thread at a time in a process;
// files are replaced as a whole, so several programs may read.

// Who we are, in generalSettings.ini.
struct Identity
{
    QString name;              // empty until it was set
    QByteArray installationId; // random; made by the first load
};
[[nodiscard]] QString loadIdentity(Identity* identity);
[[nodiscard]] QString saveOwnName(const QString& name);

// channelCom.conf; a file that does not exist has no ports.
[[nodiscard]] QString loadComSettings(ComSettingsRecord* settings);
[[nodiscard]] QString saveComSettings(const ComSettingsRecord& settings);

// abonents.conf: version, count, then name, channel type and channel data of each.
[[nodiscard]] QString loadAbonents(QVector<Abonent>* abonents);
[[nodiscard]] QString saveAbonents(const QVector<Abonent>& abonents);

// By key (see names.h); -1 when there is none.
[[nodiscard]] int findAbonent(const QVector<Abonent>& abonents, const QString& name);

} // namespace host
