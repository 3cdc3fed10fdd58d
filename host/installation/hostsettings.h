// What the host keeps in the settings directory: its own name and the ports of the dial-up
// channel. (Its abonents: see abonentbook.h.)
#pragma once

#include "com/formats/ccomsettings.h"

#include <QByteArray>
#include <QString>
#include <QVector>

#include <optional>

namespace host {

// Operations answer an error text, empty on success. One thread at a time in a process;
// files are replaced as a whole, so several programs may read.

// Who we are, in generalSettings.ini. A damaged file is told as damaged, and nothing is
// written over it.
struct Identity
{
    QString name; // empty until it was set
    QString keyFingerprint; // of the identity key as it was last seen; empty before the first
};
[[nodiscard]] QString loadIdentity(Identity* identity);
[[nodiscard]] QString saveOwnName(const QString& name);
[[nodiscard]] QString saveKeyFingerprint(const QString& fingerprint);

// Why QSettings must not write a file now: a link of somebody else in its place, or a lock that
// nobody gives up.
[[nodiscard]] QString settingsBarred(const QString& path);

// channelCom.conf; a file that does not exist has no ports.
[[nodiscard]] QString loadComSettings(ChannelComSettings* settings);
[[nodiscard]] QString saveComSettings(const ChannelComSettings& settings);

} // namespace host
