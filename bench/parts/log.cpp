// What a line of the log, a trace scope and a look-up of a setting cost.
#include "common/csettings.h"
#include "common/functiondebug.h"
#include "common/global.h"
#include "common/logger.h"

#include <QCoreApplication>
#include <QFile>
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString label = QStringLiteral("CComChannel");
const QString text = QStringLiteral("Запись пакета с данными - номер 17, размер 1014, crc 0badcafe");

// A line as debug() makes it.
QByteArray finishedLine()
{
    return QStringLiteral("12:00:00.000 %1    %2\n").arg(label, 25).arg(text).toUtf8();
}

QString bareLogPath()
{
    return Global::logDir(0).absoluteFilePath(QStringLiteral("bare.log"));
}

void logRepeatedly(benchmark::State& state, DebugLevel level)
{
    for (auto _ : state)
        debug(label, text, level, DebugFlagFileOnly);
    state.SetItemsProcessed(state.iterations());
}

// A line of the level that is always logged: no settings are read.
void debugLine(benchmark::State& state)
{
    logRepeatedly(state, DebugAlways);
}

// A line of a category that the settings switch on; they are read for each line.
void debugLineOfACategoryThatIsOn(benchmark::State& state)
{
    CSettings().write(QStringLiteral("Debug/transportConnects"), true);
    if (!CSettings().debugTransportConnects())
        state.SkipWithError("the category is off");
    logRepeatedly(state, DebugTransportConnects);
}

void debugLineOfACategoryThatIsOff(benchmark::State& state)
{
    CSettings().write(QStringLiteral("Debug/transportComPackets"), false);
    if (CSettings().debugTransportComPackets())
        state.SkipWithError("the category is on");
    logRepeatedly(state, DebugTransportComPackets);
}

// The same line, made before: what a Qt program pays if it closes its log after each line.
void bareOpenAppendClose(benchmark::State& state)
{
    state.SetLabel("QFile");
    const QByteArray line = finishedLine();
    const QString path = bareLogPath();
    for (auto _ : state) {
        QFile file(path);
        if (!file.open(QIODevice::Append | QIODevice::Unbuffered) || file.write(line) != line.size())
            state.SkipWithError("the file cannot be written");
        file.close();
    }
    state.SetItemsProcessed(state.iterations());
}

// The least that any program pays.
void bareSystemCalls(benchmark::State& state)
{
    state.SetLabel("open, write, close");
    const QByteArray line = finishedLine();
    const QByteArray path = QFile::encodeName(bareLogPath());
    for (auto _ : state) {
        const int file = ::open(path.constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
        if (file < 0 || ::write(file, line.constData(), static_cast<std::size_t>(line.size())) != line.size())
            state.SkipWithError("the file cannot be written");
        ::close(file);
    }
    state.SetItemsProcessed(state.iterations());
}

void traceScopeWithTracingOff(benchmark::State& state)
{
    for (auto _ : state)
        _CFunctionDebug trace(Q_FUNC_INFO);
    state.SetItemsProcessed(state.iterations());
}

void settingsGetter(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(CSettings().detailsTransportComResendInterval());
    state.SetItemsProcessed(state.iterations());
}

// A look-up asks for the file's time when it begins and when it ends.
void bareTwoLooksAtAFilesTime(benchmark::State& state)
{
    state.SetLabel("stat, twice");
    const QByteArray path = QFile::encodeName(Global::internalSettingsFilePath());
    benchmark::DoNotOptimize(CSettings().detailsTransportComResendInterval()); // makes the file
    for (auto _ : state) {
        for (int look = 0; look < 2; ++look) {
            struct stat status;
            if (::stat(path.constData(), &status) != 0)
                state.SkipWithError("no settings file");
            benchmark::DoNotOptimize(status);
        }
    }
    state.SetItemsProcessed(state.iterations());
}

} // namespace

BENCHMARK(debugLine);
BENCHMARK(debugLineOfACategoryThatIsOn);
BENCHMARK(debugLineOfACategoryThatIsOff);
BENCHMARK(bareOpenAppendClose);
BENCHMARK(bareSystemCalls);
BENCHMARK(traceScopeWithTracingOff);
BENCHMARK(settingsGetter);
BENCHMARK(bareTwoLooksAtAFilesTime);
