#include "host/installation/ownkey.h"

#include "common/global.h"
#include "host/installation/hostsettings.h"

#include <QDir>
#include <QFileInfo>

namespace host {

QString ownKeyPath()
{
    return Global::settingsDir().absoluteFilePath(QStringLiteral("identity.key"));
}

std::shared_ptr<const KeyPair> openOwnKey(bool replaceLost, QStringList* notes, QString* error)
{
    Identity identity;
    *error = loadIdentity(&identity);
    if (!error->isEmpty())
        return nullptr;
    const QString path = ownKeyPath();
    const QFileInfo file(path);
    const bool isLost = !identity.keyFingerprint.isEmpty() && !file.exists() && !file.isSymLink();
    if (isLost && !replaceLost) {
        *error = QStringLiteral("the identity key %1 is gone (it was %2): put it back from a copy. With another key "
                                "this installation is "
                                "a stranger to those who know it, until they forget the old one (\"transport-host "
                                "abonent forget-key\"); to go "
                                "on so: \"transport-host key --new\"")
                     .arg(path, identity.keyFingerprint);
        return nullptr;
    }
    bool created = false;
    const std::shared_ptr<const KeyPair> key = loadOrCreateIdentityKey(path, &created, error);
    if (!key)
        return nullptr;
    const QString fingerprint = keyFingerprint(key->publicKey());
    if (fingerprint == identity.keyFingerprint)
        return key;
    if (created)
        notes->append(QStringLiteral("made the identity key of this installation: %1").arg(fingerprint));
    else if (!identity.keyFingerprint.isEmpty())
        notes->append(
            QStringLiteral("the identity key is now %1, it was %2: those who know the old one refuse this installation")
                .arg(fingerprint, identity.keyFingerprint));
    *error = saveKeyFingerprint(fingerprint);
    return error->isEmpty() ? key : nullptr;
}

} // namespace host
