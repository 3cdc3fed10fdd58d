// What a line of the log, a trace scope and a look-up of a setting cost.
#include <QCoreApplication>
#include <QFile>

#include <benchmark/benchmark.h>

#include "common/csettings.h"
#include "common/functiondebug.h"
#include "common/global.h"
#include "common/logger.h"

namespace {

const QString label = QStringLiteral("CComChannel");
const QString text = QStringLiteral("Запись пакета с данными - номер 17, размер 1014, crc 0badcafe");

// To the log only, as a line of a category that is on.
void debugLine(benchmark::State& state)
{
    const QtMessageHandler before = qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    for (auto _ : state)
        debug(label, text, DebugAlways, DebugFlagFileOnly);
    qInstallMessageHandler(before);
    state.SetItemsProcessed(state.iterations());
}

// The same line, made beforehand: what any program pays that closes its log after each line.
void bareOpenAppendClose(benchmark::State& state)
{
    const QByteArray line = QStringLiteral("12:00:00.000 %1    %2\n").arg(label, 25).arg(text).toUtf8();
    const QString path = Global::logDir(0).absoluteFilePath(QStringLiteral("bare.log"));
    for (auto _ : state) {
        QFile file(path);
        if (!file.open(QIODevice::Append | QIODevice::Unbuffered) || file.write(line) != line.size())
            state.SkipWithError("the file cannot be written");
        file.close();
    }
    state.SetItemsProcessed(state.iterations());
}

void debugLineOfACategoryThatIsOff(benchmark::State& state)
{
    for (auto _ : state)
        debug(label, text, DebugTransportComPackets, DebugFlagFileOnly);
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

} // namespace

BENCHMARK(debugLine);
BENCHMARK(bareOpenAppendClose);
BENCHMARK(debugLineOfACategoryThatIsOff);
BENCHMARK(traceScopeWithTracingOff);
BENCHMARK(settingsGetter);
