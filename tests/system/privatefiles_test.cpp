// What two installations leave on the disk while they exchange files: the secret key stands in
// its own file alone.
#include "host/installation/identitykey.h"
#include "rig/testroot.h"
#include "tests/system/testbed.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using testsupport::Installation;
using testsupport::makeFile;
using testsupport::PhoneExchange;
using testsupport::randomBytes;

namespace {

constexpr int transferDeadlineMs = 120000;

QByteArray contentOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList filesBelow(const QString& path)
{
    QStringList files;
    QDirIterator it(path, QDir::Files | QDir::Hidden | QDir::NoSymLinks | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        files.append(it.next());
    return files;
}

// Two installations that know each other, each with something to send.
struct Pair
{
    Pair()
    {
        for (Installation* host : {&north, &south})
            host->addPort(exchange.port(host == &north ? 1 : 2));
        north.addAbonent(south, PhoneExchange::number(2));
        south.addAbonent(north, PhoneExchange::number(1));
    }

    void queueFiles()
    {
        north.send(south, {makeFile(QStringLiteral("down"), randomBytes(20000))});
        south.send(north, {makeFile(QStringLiteral("up"), randomBytes(20000))});
    }

    void transfer()
    {
        const QStringList options{QStringLiteral("--exit-when-sent"), QStringLiteral("--exit-when-received"),
                                  QStringLiteral("1")};
        south.run(exchange, options + QStringList{QStringLiteral("--no-calls")});
        north.run(exchange, options);
        EXPECT_EQ(north.waitForEnd(transferDeadlineMs), 0);
        EXPECT_EQ(south.waitForEnd(transferDeadlineMs), 0);
    }

    PhoneExchange exchange{2, {QStringLiteral("--rate"), QStringLiteral("115200")}};
    Installation north{QStringLiteral("Север")};
    Installation south{QStringLiteral("Юг")};
};

// ---- the secret key ----

QByteArray base32(const QByteArray& bytes, const char* digits)
{
    QByteArray text;
    for (int bit = 0; bit + 5 <= bytes.size() * 8; bit += 5) {
        int value = 0;
        for (int i = bit; i < bit + 5; ++i)
            value = 2 * value + ((bytes.at(i / 8) >> (7 - i % 8)) & 1);
        text += digits[value];
    }
    return text;
}

// What half of the secret looks like, however it may be written down.
QList<QByteArray> formsOf(const QByteArray& secret)
{
    constexpr int half = 16;
    constexpr int wholeGroups = 15; // of three bytes in base64, of five in base32
    QList<QByteArray> forms;
    for (const QByteArray& part : {secret.left(half), secret.mid(half, half)})
        forms << part << part.toHex() << part.toHex().toUpper() << part.toHex(' ') << part.toHex(':');
    for (const QByteArray& part : {secret.left(wholeGroups), secret.mid(wholeGroups, wholeGroups)}) {
        forms << part.toBase64() << part.toBase64(QByteArray::Base64UrlEncoding);
        for (const char* digits : {"ABCDEFGHIJKLMNOPQRSTUVWXYZ234567", "0123456789ABCDEFGHJKMNPQRSTVWXYZ",
                                   "0123456789ABCDEFGHIJKLMNOPQRSTUV"})
            forms << base32(part, digits) << base32(part, digits).toLower();
    }
    return forms;
}

bool holds(const QByteArray& text, const QByteArray& secret)
{
    for (const QByteArray& form : formsOf(secret)) {
        if (text.contains(form))
            return true;
    }
    return false;
}

// The secret half of the installation's key, made by its first use or, before that, here.
QByteArray secretOf(const Installation& host)
{
    const QString path = host.root() + QStringLiteral("/settings/identity.key");
    bool isNew = false;
    QString error;
    EXPECT_TRUE(host::loadOrCreateIdentityKey(path, &isNew, &error)) << error.toStdString();
    const QByteArray content = contentOf(path);
    const QByteArray secret = QByteArray::fromHex(content.mid(content.indexOf("secret ") + 7, 64));
    EXPECT_EQ(secret.size(), 32);
    return secret;
}

void logAllTraffic(const Installation& host)
{
    QSettings settings(host.root() + QStringLiteral("/settings/settings.ini"), QSettings::IniFormat);
    for (const char* key :
         {"transportComPackets", "transportComData", "transportAbonents", "transportBaseProtocol", "ipcData"})
        settings.setValue(QStringLiteral("Debug/") + QLatin1String(key), true);
}

TEST(PrivateFiles, TheSearchFindsASecretInEachForm)
{
    const QByteArray secret = QByteArray::fromHex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
    // Written by other programs: xxd, base64, base32.
    for (const char* text : {"key=101112131415161718191a1b1c1d1e1f", "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8=",
                             "AAAQEAYEAUDAOCAJBIFQYDIOB4IBCEQTCQKRMFYYDENBWHA5DYPQ====",
                             "00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f"})
        EXPECT_TRUE(holds(QByteArray("..") + text, secret)) << text;
    EXPECT_TRUE(holds("some memory " + secret.mid(10) + " and more", secret));
    EXPECT_FALSE(holds("no 0102030405060708", secret));
}

TEST(PrivateFiles, TheSecretKeyStandsInItsFileAlone)
{
    Pair pair;
    const QList<QByteArray> secrets{secretOf(pair.north), secretOf(pair.south)};
    logAllTraffic(pair.north);
    logAllTraffic(pair.south);
    pair.queueFiles();
    QByteArray shown;
    pair.transfer();
    for (Installation* host : {&pair.north, &pair.south}) {
        for (const QStringList& command :
             {QStringList{QStringLiteral("status")}, QStringList{QStringLiteral("status"), QStringLiteral("--json")},
              QStringList{QStringLiteral("abonent"), QStringLiteral("list")}, QStringList{QStringLiteral("key")}}) {
            host->command(command);
            shown += host->output().toUtf8();
        }
    }
    shown += pair.exchange.output().toUtf8();
    const QString bin = QStringLiteral("/bin/");
    int logs = 0;
    QStringList holders;
    for (const QString& path : filesBelow(rig::installRoot())) {
        if (path.contains(bin))
            continue;
        const QByteArray content = contentOf(path);
        logs += path.endsWith(QLatin1String(".log")) && content.size() > 20000;
        for (const QByteArray& secret : secrets) {
            if (holds(content, secret))
                holders.append(path);
        }
    }
    EXPECT_GE(logs, 2) << "they do not log what goes over the line";
    holders.sort();
    QStringList expected{pair.north.root() + QStringLiteral("/settings/identity.key"),
                         pair.south.root() + QStringLiteral("/settings/identity.key")};
    expected.sort();
    EXPECT_EQ(holders, expected);
    for (const QByteArray& secret : secrets)
        EXPECT_FALSE(holds(shown, secret));
}

// ---- planted links ----

// Where an installation keeps files, and the names beside them under which they are replaced.
QStringList namesUsedBy(const Installation& host)
{
    QStringList names;
    for (const char* folder : {"settings", "data"}) {
        for (const QString& path : filesBelow(host.root() + QLatin1Char('/') + QLatin1String(folder))) {
            const QString name = path.mid(host.root().size() + 1);
            names.append(name);
            for (const char* suffix : {".new", ".old", ".lock"})
                names.append(name + QLatin1String(suffix));
        }
    }
    // The first names that unseeded processes draw for their look at what they may write.
    for (const int number : {1804289383, 846930886, 1681692777}) {
        for (const char* folder : {"data/0", "data/1", "data/0/log"})
            names.append(QStringLiteral("%1/.accessTest_%2.txt").arg(QLatin1String(folder), QString::number(number)));
    }
    names.removeDuplicates();
    return names;
}

struct Outside
{
    QString directory = rig::installRoot() + QStringLiteral("/outside");
    QHash<QString, QByteArray> files; // path, mode and content

    QHash<QString, QByteArray> look() const
    {
        QHash<QString, QByteArray> found;
        for (const QString& path : filesBelow(directory)) {
            struct stat status
            {
            };
            EXPECT_EQ(::stat(QFile::encodeName(path).constData(), &status), 0);
            found.insert(path, QByteArray::number(status.st_mode, 8) + ' ' + contentOf(path));
        }
        return found;
    }
};

// Puts a link under each name that is free; how many.
int plant(const Installation& host, const QStringList& names, const QString& directory, bool withTarget)
{
    int planted = 0;
    for (const QString& name : names) {
        const QString link = host.root() + QLatin1Char('/') + name;
        const QString target = QStringLiteral("%1/%2-%3")
                                   .arg(directory, host.root().section(QLatin1Char('/'), -1), QString::number(planted));
        QDir().mkpath(QFileInfo(link).path());
        if (::symlink(QFile::encodeName(target).constData(), QFile::encodeName(link).constData()) != 0)
            continue; // a file of the installation
        ++planted;
        if (!withTarget)
            continue;
        QFile file(target);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write("precious\n") == 9) << target.toStdString();
        file.close();
        EXPECT_EQ(::chmod(QFile::encodeName(target).constData(), 0640), 0);
    }
    return planted;
}

// The same for directories of messages, which a host empties and removes.
void plantDirectories(const Installation& host, const QString& directory)
{
    for (const char* name : {"incomplete/00000001", "incomplete/00000002", "incomplete/left", "output/00000007",
                             "output/left", "input/00000007"}) {
        const QString target =
            QStringLiteral("%1/%2-%3")
                .arg(directory, host.root().section(QLatin1Char('/'), -1), QString::fromLatin1(name).replace('/', '-'));
        const QString link = host.root() + QStringLiteral("/data/0/messages/") + QLatin1String(name);
        QDir().mkpath(target);
        QDir().mkpath(QFileInfo(link).path());
        QFile file(target + QStringLiteral("/content"));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write("precious\n") == 9);
        EXPECT_TRUE(QFile::link(target, link)) << link.toStdString();
    }
}

class PlantedLinks : public testing::TestWithParam<bool>
{
};

INSTANTIATE_TEST_SUITE_P(To, PlantedLinks, testing::Bool(),
                         [](const auto& test) { return test.param ? "Files" : "Nothing"; });

TEST_P(PlantedLinks, ChangeNothingOutside)
{
    const QString receivedList = QStringLiteral("/data/0/messages/received.list");
    QStringList northNames, southNames;
    {
        Pair pair;
        pair.queueFiles();
        northNames = namesUsedBy(pair.north);
        southNames = namesUsedBy(pair.south);
        pair.transfer();
        northNames += namesUsedBy(pair.north);
        southNames += namesUsedBy(pair.south);
        northNames.removeDuplicates();
        southNames.removeDuplicates();
    }
    Pair pair;
    pair.queueFiles();
    Outside outside;
    QDir().mkpath(outside.directory);
    const int planted = plant(pair.north, northNames, outside.directory, GetParam()) +
                        plant(pair.south, southNames, outside.directory, GetParam());
    EXPECT_GT(planted, 60);
    EXPECT_EQ(outside.look().size(), GetParam() ? planted : 0);
    plantDirectories(pair.north, outside.directory);
    plantDirectories(pair.south, outside.directory);
    outside.files = outside.look();
    // What comes of it for the installation is not asked: it is told, or works.
    for (Installation* host : {&pair.north, &pair.south}) {
        for (const QStringList& command :
             {QStringList{QStringLiteral("name"), QStringLiteral("Другой")}, QStringList{QStringLiteral("status")},
              QStringList{QStringLiteral("key")}, QStringList{QStringLiteral("name"), host->name()}})
            host->command(command);
    }
    const QStringList options{QStringLiteral("--exit-when-sent"), QStringLiteral("--exit-when-received"),
                              QStringLiteral("1"), QStringLiteral("--timeout"), QStringLiteral("15")};
    // A list of what was received that is a link keeps a host from starting; without it both go on.
    for (const bool isListPlanted : {true, false}) {
        for (Installation* host : {&pair.north, &pair.south})
            EXPECT_TRUE(isListPlanted || QFile::remove(host->root() + receivedList));
        pair.south.run(pair.exchange, options + QStringList{QStringLiteral("--no-calls")});
        pair.north.run(pair.exchange, options);
        EXPECT_EQ(pair.north.waitForEnd(transferDeadlineMs) == 0, !isListPlanted);
        EXPECT_EQ(pair.south.waitForEnd(transferDeadlineMs) == 0, !isListPlanted);
    }
    const QHash<QString, QByteArray> now = outside.look();
    for (auto it = now.begin(); it != now.end(); ++it)
        EXPECT_EQ(it.value().left(300), outside.files.value(it.key())) << it.key().toStdString();
    EXPECT_EQ(now.size(), outside.files.size()) << "something outside was removed";
}

} // namespace
