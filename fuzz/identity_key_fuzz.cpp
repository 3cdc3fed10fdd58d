// The file of the identity key with any contents: it gives the key in it, or is reported as damaged;
// the file does not change.
#include "common/global.h"
#include "fuzz/check.h"
#include "host/installation/identitykey.h"

#include <QDir>
#include <QFile>

#include <cstdint>

using fuzz::require;

namespace {

QByteArray hexOf(const host::SecretBytes& secret)
{
    return QByteArray(reinterpret_cast<const char*>(secret.data()), secret.size()).toHex();
}

void writeFile(const QString& path, const QByteArray& contents)
{
    QFile file(path);
    require(file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered), "the root can be written");
    file.write(contents);
    require(file.setPermissions(QFile::ReadOwner | QFile::WriteOwner), "the root is ours");
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    require(file.open(QIODevice::ReadOnly), "the file is there");
    return file.readAll();
}

} // namespace

extern "C" __attribute__((visibility("default"))) int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const QString path = Global::settingsDir().absoluteFilePath(QStringLiteral("identity.key"));
    static const bool isPrepared = QDir().mkpath(Global::settingsDir().absolutePath());
    require(isPrepared, "the root can be written");

    const QByteArray contents(reinterpret_cast<const char*>(data), static_cast<int>(size));
    writeFile(path, contents);
    bool created = true;
    QString error;
    const auto key = host::loadOrCreateIdentityKey(path, &created, &error);
    require(!created, "a file that is there is not replaced");
    require((key == nullptr) != error.isEmpty(), "a key, or what is wrong");
    require(readFile(path) == contents, "the file stays");
    if (key) {
        const QByteArray expected = "transport-host identity 1\npublic " + key->publicKey().toHex() + "\nsecret " +
                                    hexOf(key->secretKey()) + "\n";
        require(contents.left(26) == expected.left(26) && contents.toLower() == expected, "the key is the file's");
        require(host::isUsablePublicKey(key->publicKey()), "the key can be used");
    }
    return 0;
}
