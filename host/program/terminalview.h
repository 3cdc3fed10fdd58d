// What a running host shows: a live picture on a terminal, plain lines elsewhere.
#pragma once

#include "host/transporthost.h"

#include <QHash>
#include <QObject>
#include <QStringList>
#include <QTimer>

#include <cstdio>

namespace host {

// Pure: the picture as lines of at most width columns.
struct Picture
{
    QString title;
    struct Port
    {
        ChannelRow row;
        qint64 receivedPerSecond = 0;
        qint64 sentPerSecond = 0;
    };
    QVector<Port> ports;
    QVector<FileProgress> files;
    QStringList journal; // the latest lines
    qint64 nowMs = 0;
};
[[nodiscard]] QStringList renderPicture(const Picture& picture, int width);

// "[#####-----]  50%", width columns for the bar.
[[nodiscard]] QString progressBar(qint64 done, qint64 size, int width);

// "1.5 kB", units of 1000.
[[nodiscard]] QString sizeText(qint64 bytes);

enum class ViewKind
{
    Live,
    Plain,
    Quiet
};

// Lives in the host's thread.
class TerminalView : public QObject
{
    Q_OBJECT

public:
    // host: not owned, outlives the view.
    TerminalView(TransportHost* host, ViewKind kind, std::FILE* out = stdout);

    // A warning of the libraries.
    void showTrouble(const QString& text);

    // Leaves the last picture on the terminal.
    void finish();

private:
    void onJournal(const JournalRecord& record);
    void onState(const ChannelRow& row);
    void onFile(const FileProgress& row);
    void draw();
    void print(const QString& line);
    [[nodiscard]] Picture picture();

    TransportHost* const m_host; // not owned
    const ViewKind m_kind;
    std::FILE* const m_out; // not owned
    QTimer m_timer;
    QStringList m_journal;
    QHash<QString, int> m_toldTenths; // of each file, plain lines
    struct Traffic
    {
        qint64 atMs = 0;
        qint64 received = 0;
        qint64 sent = 0;
        qint64 receivedPerSecond = 0;
        qint64 sentPerSecond = 0;
    };
    QHash<int, Traffic> m_traffic;
    int m_drawnLines = 0;
};

} // namespace host
