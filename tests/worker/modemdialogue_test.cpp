// The response reader and the commands, without a worker.
#include "com/modem/modemdialogue.h"
#include "com/modem/noanswerpause.h"
#include "common/csettings.h"
#include "rig/deadline.h"
#include "rig/testroot.h"
#include "tests/worker/modemscript.h"
#include "tests/worker/workertest.h"

#include <QBuffer>
#include <QSerialPort>

#include <random>

namespace {

struct Reply
{
    const char* line;
    ModemResponse response;
};

// One call's result as text, "-" for one that took nothing or a blank line.
QString shown(const ModemReading& reading)
{
    return reading.isBlank ? QStringLiteral("-") : QStringLiteral("%1 %2").arg(reading.response).arg(reading.text);
}

class Input
{
public:
    Input() { m_buffer.open(QIODevice::ReadWrite); }

    Input& feed(const QByteArray& bytes)
    {
        const qint64 position = m_buffer.pos();
        m_buffer.seek(m_buffer.size());
        m_buffer.write(bytes);
        m_buffer.seek(position);
        return *this;
    }
    ModemReading read() { return readModemLine(m_buffer); }
    qint64 left() const { return m_buffer.bytesAvailable(); }
    QBuffer& device() { return m_buffer; }

private:
    QBuffer m_buffer;
};

// Reads until nothing more comes out, blank lines left out.
QStringList allReadings(Input& input)
{
    QStringList found;
    qint64 before = -1;
    while (input.left() != before) {
        before = input.left();
        const ModemReading reading = input.read();
        if (!reading.isBlank)
            found.append(shown(reading));
    }
    return found;
}

// A serial port opened on the modem of a test.
class OpenedPort : public QSerialPort
{
public:
    explicit OpenedPort(const ModemScript& modem)
    {
        setPortName(modem.portPath());
        EXPECT_TRUE(open(QIODevice::ReadWrite)) << errorString().toStdString();
    }
};

} // namespace

TEST(ClassifyModemLine, KnowsEveryResultCode)
{
    const Reply replies[] = {
        {"ERROR\n", ResponseError},
        {"OK\n", ResponseOk},
        {"BUSY\n", ResponseBusy},
        {"RING\n", ResponseRing},
        {"CONNECT 9600\n", ResponseConnect},
        {"CONNECT \n", ResponseConnect},
        {"CONNECT 2400/NONE", ResponseConnect},
        {"NO CARRIER\n", ResponseNoCarrier},
        {"NO DIALTONE\n", ResponseNoDialtone},
        {"NO ANSWER\n", ResponseNoAnswer},
        {"AT\n", ResponseAtEcho},
        {"ATD\n", ResponseDialEcho},
        {"ATDT5\n", ResponseDialEcho},
        {"ATD123\r\n", ResponseDialEcho},
        {"ATA\n", ResponseAnswerEcho},
    };
    for (const Reply& reply : replies)
        EXPECT_EQ(classifyModemLine(reply.line), reply.response) << reply.line;
}

TEST(ClassifyModemLine, NumbersAreFixed)
{
    EXPECT_EQ(static_cast<int>(classifyModemLine("x\n")), -1);
    EXPECT_EQ(static_cast<int>(ModemReading().response), 0);
    const QList<QByteArray> lines = {"ERROR\n",       "OK\n",        "BUSY\n", "RING\n", "CONNECT 1\n", "NO CARRIER\n",
                                     "NO DIALTONE\n", "NO ANSWER\n", "AT\n",   "ATD1\n", "ATA\n"};
    for (int i = 0; i < lines.size(); ++i)
        EXPECT_EQ(static_cast<int>(classifyModemLine(lines.at(i))), i + 1) << lines.at(i).constData();
}

TEST(ClassifyModemLine, FoldsCaseAndCarriageReturns)
{
    EXPECT_EQ(classifyModemLine("ok\r\n"), ResponseOk);
    EXPECT_EQ(classifyModemLine("O\rK\n"), ResponseOk);
    EXPECT_EQ(classifyModemLine("AT\r\r\n"), ResponseAtEcho);
    EXPECT_EQ(classifyModemLine("connect 9600\r\n"), ResponseConnect);
    EXPECT_EQ(classifyModemLine("No Carrier\r\n"), ResponseNoCarrier);
    EXPECT_EQ(classifyModemLine("atdt5\n"), ResponseDialEcho);
}

TEST(ClassifyModemLine, AnythingElseIsUnknown)
{
    const char* const lines[] = {
        "OK \n",  " OK\n",    "OK",      "CONNECT\n",       "CONNECT\r\n",    "NO DIAL TONE\n", "ATZ\n", "ATAX\n",
        "AT \n",  "RING 1\n", "BUSY!\n", " CONNECT 9600\n", "CARRIER 2400\n", "NO  CARRIER\n",  "\n",    "\r\r\n",
        "ERRO\n", "+++\n",    "ATH\n"};
    for (const char* line : lines)
        EXPECT_EQ(classifyModemLine(line), ResponseUnknown) << line;
}

TEST(ClassifyModemLine, TakesAnyBytes)
{
    EXPECT_EQ(classifyModemLine(QByteArray()), ResponseUnknown);
    EXPECT_EQ(classifyModemLine(QByteArray("OK\0\n", 4)), ResponseUnknown);
    EXPECT_EQ(classifyModemLine(QByteArray("\xff\xfe\x80\n")), ResponseUnknown);
}

TEST(ReadModemLine, BlankLineTakesACall)
{
    Input input;
    input.feed("\r\nOK\r\n");
    EXPECT_TRUE(input.read().isBlank);
    EXPECT_EQ(input.left(), 4);
    EXPECT_EQ(shown(input.read()), QStringLiteral("2 OK"));
    EXPECT_EQ(input.left(), 0);
}

TEST(ReadModemLine, BlankForms)
{
    EXPECT_TRUE(Input().feed("\n").read().isBlank);
    EXPECT_TRUE(Input().feed("\r\n").read().isBlank);
    // Two carriage returns are none of the three: an empty text, and unknown.
    const ModemReading reading = Input().feed("\r\r\n").read();
    EXPECT_FALSE(reading.isBlank);
    EXPECT_EQ(reading.response, ResponseUnknown);
    EXPECT_EQ(reading.text, QString());
    EXPECT_FALSE(Input().feed(" \r\n").read().isBlank);
}

TEST(ReadModemLine, IncompleteLineStays)
{
    Input input;
    EXPECT_TRUE(input.read().isBlank);
    input.feed("OK");
    EXPECT_TRUE(input.read().isBlank);
    EXPECT_EQ(input.left(), 2);
    input.feed("\n");
    EXPECT_EQ(shown(input.read()), QStringLiteral("2 OK"));
}

TEST(ReadModemLine, TextKeepsCaseWithoutLineEnds)
{
    EXPECT_EQ(shown(Input().feed("connect 9600\r\n").read()), QStringLiteral("5 connect 9600"));
    EXPECT_EQ(shown(Input().feed("O\rK\r\n").read()), QStringLiteral("2 OK"));
    EXPECT_EQ(Input().feed("\xc4\xff\n").read().text, QStringLiteral("\u00c4\u00ff"));
    // Noise may hold zero bytes; what stands behind them is told as well.
    const QString withZero = Input().feed(QByteArray("\0A\0B\r\n", 6)).read().text;
    EXPECT_EQ(withZero, QString::fromLatin1("\0A\0B", 4));
    EXPECT_EQ(withZero.size(), 4);
}

TEST(ReadModemLine, TextGoesOnBeyondANul)
{
    const ModemReading reading = Input().feed(QByteArray("\0OK\r\n", 5)).read();
    EXPECT_EQ(reading.response, ResponseUnknown);
    EXPECT_EQ(reading.text, QString(QChar(0)) + QStringLiteral("OK"));
}

TEST(ReadModemLine, LongLineComesInPieces)
{
    Input input;
    input.feed(QByteArray(1023, 'x') + '\n');
    const ModemReading piece = input.read();
    EXPECT_EQ(piece.response, ResponseUnknown);
    EXPECT_EQ(piece.text.size(), 1023);
    EXPECT_TRUE(input.read().isBlank);
    EXPECT_EQ(input.left(), 0);

    input.feed(QByteArray(1022, 'x') + '\n');
    EXPECT_EQ(input.read().text.size(), 1022);
    EXPECT_EQ(input.left(), 0);

    input.feed(QByteArray(1023, 'x') + "OK\r\n");
    EXPECT_EQ(input.read().response, ResponseUnknown);
    EXPECT_EQ(shown(input.read()), QStringLiteral("2 OK"));

    input.feed("CONNECT " + QByteArray(2000, 'y') + '\n');
    EXPECT_EQ(input.read().response, ResponseConnect);
    EXPECT_EQ(input.read().response, ResponseUnknown);
}

TEST(ReadModemLine, EverySplitOfTheInputGivesTheSameLines)
{
    const QByteArray bytes =
        "\r\nRING\r\n\r\nok\r\nATDT5\r\r\nCONNECT 9600/V34\r\nno dialtone\nx\r\r\n\r\n\r\nNO ANSWER\r\n";
    const QStringList expected = {QStringLiteral("4 RING"),        QStringLiteral("2 ok"),
                                  QStringLiteral("10 ATDT5"),      QStringLiteral("5 CONNECT 9600/V34"),
                                  QStringLiteral("7 no dialtone"), QStringLiteral("-1 x"),
                                  QStringLiteral("8 NO ANSWER")};
    for (int cut = 0; cut <= bytes.size(); ++cut) {
        Input input;
        QStringList found = allReadings(input.feed(bytes.left(cut)));
        found += allReadings(input.feed(bytes.mid(cut)));
        ASSERT_EQ(joined(found), joined(expected)) << "cut at " << cut;
    }
    Input byByte;
    QStringList found;
    for (char byte : bytes)
        found += allReadings(byByte.feed(QByteArray(1, byte)));
    EXPECT_EQ(joined(found), joined(expected));
}

TEST(ReadModemLine, RandomBytesAreTakenToTheLastLineEnd)
{
    std::mt19937 random(rig::seed());
    for (int round = 0; round < 50; ++round) {
        QByteArray bytes;
        const int size = static_cast<int>(random() % 4000);
        for (int i = 0; i < size; ++i)
            bytes.append(random() % 20 == 0 ? '\n' : static_cast<char>(random()));
        Input input;
        allReadings(input.feed(bytes));
        // What stays has no line end, and nothing before it got stuck.
        EXPECT_EQ(input.left(), bytes.size() - (bytes.lastIndexOf('\n') + 1));
    }
}

TEST(DropEndlessInput, KeepsWhatMayStillBecomeALine)
{
    Input input;
    input.feed(QByteArray(64 * 1024, 'x'));
    dropEndlessInput(input.device());
    EXPECT_EQ(input.left(), 64 * 1024);
    input.feed("x");
    dropEndlessInput(input.device());
    EXPECT_EQ(input.left(), 0);
    input.feed(QByteArray(100 * 1024, 'x') + "\n");
    dropEndlessInput(input.device());
    EXPECT_EQ(input.left(), 100 * 1024 + 1);
}

TEST(DropEndlessInput, KeepsAMebibyteOfLines)
{
    Input input;
    input.feed(QByteArray("x\n").repeated(512 * 1024));
    dropEndlessInput(input.device());
    EXPECT_EQ(input.left(), 1024 * 1024);
    input.feed("\n");
    dropEndlessInput(input.device());
    EXPECT_EQ(input.left(), 0);
}

TEST(ModemCommands, AreTheseBytes)
{
    EXPECT_EQ(checkCommand(), QByteArray("\x41\x54\x0d"));
    EXPECT_EQ(answerCommand(), QByteArray("ATA\r"));
    EXPECT_EQ(dialCommand(QStringLiteral("123")), QByteArray("ATD123\r"));
    EXPECT_EQ(escapeCommand(), QByteArray("+++"));
    EXPECT_EQ(resetHangUpCommand(), QByteArray("\x0d\x41\x54\x48\x0d"));
    EXPECT_EQ(exitHangUpCommand(), QByteArray("ATH\r"));
    EXPECT_EQ(initCommand(QStringLiteral("ATZ")), QByteArray("ATZ"));
    EXPECT_EQ(initCommand(QStringLiteral("ATE0\rATZ\r\n")), QByteArray("ATE0\rATZ\r\n"));
}

TEST(ModemCommands, NumberIsWrittenAsItIs)
{
    EXPECT_EQ(dialCommand(QStringLiteral("T 9,,8-(800)#*")), QByteArray("ATDT 9,,8-(800)#*\r"));
    // Markers in the number are not filled.
    EXPECT_EQ(dialCommand(QStringLiteral("%1%2")), QByteArray("ATD%1%2\r"));
    EXPECT_EQ(dialCommand(QString()), QByteArray("ATD\r"));
    // What Latin-1 does not have.
    EXPECT_EQ(dialCommand(QStringLiteral("Ж5")), QByteArray("ATD?5\r"));
    EXPECT_EQ(initCommand(QStringLiteral("Ж\u00e9")), QByteArray("?\xe9"));
}

TEST(ModemCommands, ControlSymbolIsReadForEachCommand)
{
    EXPECT_EQ(checkCommand(), QByteArray("AT\r"));
    QFile file(rig::installRoot() + QStringLiteral("/settings/settings.ini"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(file.readAll().contains("transportComControlSymbol=\\r\n"));

    CSettings().write(QStringLiteral("Details/transportComControlSymbol"), QStringLiteral("\r\n"));
    EXPECT_EQ(checkCommand(), QByteArray("AT\r\n"));
    EXPECT_EQ(answerCommand(), QByteArray("ATA\r\n"));
    EXPECT_EQ(dialCommand(QStringLiteral("5")), QByteArray("ATD5\r\n"));
    EXPECT_EQ(resetHangUpCommand(), QByteArray("\r\nATH\r\n"));
    CSettings().write(QStringLiteral("Details/transportComControlSymbol"), QStringLiteral("%2"));
    EXPECT_EQ(dialCommand(QStringLiteral("%1")), QByteArray("ATD%1%2"));
    EXPECT_EQ(resetHangUpCommand(), QByteArray("%2ATH%2"));
}

TEST(ReadModemResponse, LogsEachLineOnceAndKeepsTheLastAnswer)
{
    ModemScript modem;
    OpenedPort port(modem);
    QString lastAnswer = QStringLiteral("before");
    EXPECT_EQ(readModemResponse(port, lastAnswer), ResponseNone);
    modem.reply("OK");
    ASSERT_TRUE(rig::waitFor([&] {
        EXPECT_EQ(readModemResponse(port, lastAnswer), ResponseNone);
        return port.bytesAvailable() == 2;
    }));
    EXPECT_EQ(lastAnswer, QStringLiteral("before"));
    EXPECT_EQ(joined(logTexts()), "");

    modem.reply("\r\n");
    ASSERT_TRUE(rig::waitFor([&] { return readModemResponse(port, lastAnswer) == ResponseOk; }));
    EXPECT_EQ(lastAnswer, QStringLiteral("OK"));
    modem.reply("connect 9600\r\n\r\n");
    ASSERT_TRUE(rig::waitFor([&] { return readModemResponse(port, lastAnswer) == ResponseConnect; }));
    ASSERT_TRUE(rig::waitFor(
        [&] { return readModemResponse(port, lastAnswer) == ResponseNone && port.bytesAvailable() == 0; }));
    EXPECT_EQ(lastAnswer, QStringLiteral("connect 9600"));
    modem.reply("\r\r\n");
    ASSERT_TRUE(rig::waitFor([&] { return readModemResponse(port, lastAnswer) == ResponseUnknown; }));
    EXPECT_EQ(lastAnswer, QString());
    EXPECT_EQ(joined(logTexts()), "Чтение команды: OK\nЧтение команды: connect 9600\nЧтение команды:");
}

TEST(ReadModemResponse, LinesAreLoggedInTheCategoryOfAtCommands)
{
    CSettings().write(QStringLiteral("Debug/transportComAtCommands"), false);
    ModemScript modem;
    OpenedPort port(modem);
    QString lastAnswer;
    modem.reply("OK\r\n");
    ASSERT_TRUE(rig::waitFor([&] { return readModemResponse(port, lastAnswer) == ResponseOk; }));
    EXPECT_EQ(joined(logTexts()), "");
}

TEST(WriteCommand, WritesTheBytesAndDoesNotWaitForNothing)
{
    ModemScript modem;
    OpenedPort port(modem);
    writeCommand(port, "ATZ", 500);
    EXPECT_TRUE(modem.expectWritten("ATZ"));
    writeCommand(port, QByteArray(), 60000);
    EXPECT_EQ(port.error(), QSerialPort::NoError);
}

TEST(NoAnswerPause, GrowsToHalfAMinute)
{
    NoAnswerPause pause;
    int sum = 0;
    for (int failure = 1; failure <= 29; ++failure) {
        const int seconds = pause.lengthen();
        EXPECT_EQ(seconds, failure + 1);
        sum += seconds;
    }
    EXPECT_EQ(sum, 464);
    for (int failure = 30; failure < 35; ++failure)
        EXPECT_EQ(pause.lengthen(), 30);
    pause.reset();
    EXPECT_EQ(pause.lengthen(), 2);
}
