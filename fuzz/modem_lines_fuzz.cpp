// The reader of a modem's answers: it gives the same answers as a second, simple implementation of
// the rules, however the bytes are split, and leaves only an unfinished line.
#include "com/modem/modemdialogue.h"
#include "fuzz/check.h"
#include "fuzz/input.h"

#include <QBuffer>
#include <QByteArray>
#include <QString>

#include <cstdint>
#include <vector>

using fuzz::require;

namespace {

constexpr int pieceBytes = 1023; // of a line that is longer

struct Answer
{
    int code;
    QByteArray text;

    bool operator==(const Answer& other) const { return code == other.code && text == other.text; }
};

int plainCode(const QByteArray& line)
{
    QByteArray folded;
    for (const char byte : line) {
        if (byte >= 'a' && byte <= 'z')
            folded += static_cast<char>(byte - 'a' + 'A');
        else if (byte != '\r')
            folded += byte;
    }
    const auto is = [&](const char* text) { return folded == QByteArray(text) + '\n'; };
    if (is("ERROR"))
        return 1;
    if (is("OK"))
        return 2;
    if (is("BUSY"))
        return 3;
    if (is("RING"))
        return 4;
    if (folded.indexOf("CONNECT ") == 0)
        return 5;
    if (is("NO CARRIER"))
        return 6;
    if (is("NO DIALTONE"))
        return 7;
    if (is("NO ANSWER"))
        return 8;
    if (is("AT"))
        return 9;
    if (folded.indexOf("ATD") == 0)
        return 10;
    if (is("ATA"))
        return 11;
    return -1;
}

std::vector<Answer> plainAnswers(QByteArray& bytes)
{
    std::vector<Answer> answers;
    for (int end = bytes.indexOf('\n'); end >= 0; end = bytes.indexOf('\n')) {
        const QByteArray line = bytes.left(qMin(end + 1, pieceBytes));
        bytes.remove(0, line.size());
        if (line == "\r" || line == "\n" || line == "\r\n")
            continue;
        QByteArray text;
        for (const char byte : line) {
            if (byte != '\r' && byte != '\n')
                text += byte;
        }
        answers.push_back({plainCode(line), text});
    }
    return answers;
}

void readAll(QBuffer& port, std::vector<Answer>& answers)
{
    for (qint64 before = -1; port.bytesAvailable() != before;) {
        before = port.bytesAvailable();
        const ModemReading reading = readModemLine(port);
        require(reading.isBlank == (reading.response == ResponseNone), "every line but a blank one says something");
        require(reading.isBlank == reading.text.isNull(), "a blank line has no text");
        if (!reading.isBlank)
            answers.push_back({reading.response, reading.text.toLatin1()});
    }
}

void arrive(QBuffer& port, const QByteArray& bytes)
{
    const qint64 at = port.pos();
    port.buffer().append(bytes);
    port.seek(at);
}

} // namespace

extern "C" __attribute__((visibility("default"))) int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    int pieceSize = 1 + input.byte();
    const QByteArray bytes = input.rest();

    QByteArray left = bytes;
    const std::vector<Answer> expected = plainAnswers(left);

    QBuffer port;
    port.open(QIODevice::ReadOnly | QIODevice::Unbuffered);
    std::vector<Answer> answers;
    for (int at = 0; at < bytes.size();) {
        arrive(port, bytes.mid(at, pieceSize));
        at += pieceSize;
        pieceSize = 1 + (pieceSize * 5 + 3) % 251;
        readAll(port, answers);
    }
    require(answers == expected, "the answers are the described ones");
    require(port.bytesAvailable() == left.size(), "a line without its end waits");
    dropEndlessInput(port);
    require(port.bytesAvailable() == (left.size() > 64 * 1024 ? 0 : left.size()), "only endless input is dropped");
    return 0;
}
