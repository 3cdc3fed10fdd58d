#include "common/logger.h"
#include "host/channel/pluginloader.h"
#include "rig/testroot.h"

#include <QFile>
#include <QFileInfo>
#include <gtest/gtest.h>

using namespace host;

namespace {

// The directory of this test with some of the libraries.
QDir pluginsDir(const QStringList& libraries)
{
    QDir dir(rig::installRoot() + QStringLiteral("/bin/channelPlugins"));
    dir.mkpath(QStringLiteral("."));
    for (const QString& library : libraries)
        QFile::link(QStringLiteral(TEST_PLUGINS_DIR "/lib") + library + QStringLiteral(".so"),
                    dir.absoluteFilePath(library + QStringLiteral(".so")));
    return dir;
}

} // namespace

TEST(PluginLoader, FindsTheOneOfTheRightKind)
{
    QString error;
    DebugData data;
    const QDir dir = pluginsDir({QStringLiteral("a"), QStringLiteral("noplugin"), QStringLiteral("oldplugin"),
                                 QStringLiteral("otherkindplugin"), QStringLiteral("socketplugin")});
    QFile broken(dir.absoluteFilePath(QStringLiteral("broken.so")));
    ASSERT_TRUE(broken.open(QIODevice::WriteOnly));
    broken.write("not a library");
    broken.close();
    const auto plugin = loadPlugin(dir, 2, &data, &error);
    ASSERT_TRUE(plugin) << qPrintable(error);
    EXPECT_EQ((*plugin)->type(), 2);
    EXPECT_EQ(QFileInfo(plugin->path()).fileName(), QStringLiteral("libsocketplugin.so"));
}

TEST(PluginLoader, RefusesAnotherVersion)
{
    QString error;
    DebugData data;
    EXPECT_FALSE(loadPlugin(pluginsDir({QStringLiteral("oldplugin")}), 2, &data, &error));
    EXPECT_TRUE(error.endsWith(
        QStringLiteral("liboldplugin.so has version 15 of the plug-in interface, this host needs version 16")))
        << qPrintable(error);
}

TEST(PluginLoader, SaysWhatItFound)
{
    QString error;
    DebugData data;
    EXPECT_FALSE(loadPlugin(pluginsDir({}), 2, &data, &error));
    EXPECT_TRUE(error.startsWith(QStringLiteral("there is no channel plug-in in "))) << qPrintable(error);
    EXPECT_FALSE(
        loadPlugin(pluginsDir({QStringLiteral("noplugin"), QStringLiteral("otherkindplugin")}), 2, &data, &error));
    EXPECT_TRUE(error.contains(QStringLiteral("libnoplugin.so is no channel plug-in: an entry point is missing")))
        << qPrintable(error);
    EXPECT_TRUE(error.contains(QStringLiteral("libotherkindplugin.so is for another kind of channel")))
        << qPrintable(error);
}

// Whatever was called of such a library would be a jump to nowhere.
TEST(PluginLoader, EachEntryPointHasToBeThere)
{
    for (const char* library : {"withoutversion", "withoutinstance", "withoutdeletion", "withoutlog"}) {
        QString error;
        DebugData data;
        const QString path = QStringLiteral(TEST_PLUGINS_DIR "/lib%1.so").arg(QLatin1String(library));
        EXPECT_FALSE(loadPluginFile(path, &data, &error)) << library;
        EXPECT_EQ(error, path + QStringLiteral(" is no channel plug-in: an entry point is missing"));
    }
}

TEST(PluginLoader, LoadsTheDialUpChannel)
{
    QString error;
    DebugData data;
    const auto plugin = loadPluginFile(QStringLiteral(TRANSPORT_PLUGIN), &data, &error);
    ASSERT_TRUE(plugin) << qPrintable(error);
    EXPECT_EQ((*plugin)->type(), 2);
    EXPECT_EQ((*plugin)->name(), QStringLiteral("Коммутируемый канал"));
}
