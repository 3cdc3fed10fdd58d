// The outer loop of phone-exchange: takes commands from standard input and from a
// control socket until it is told to end.
#pragma once

#include "sim/exchange/control.h"

#include <QByteArray>
#include <QLockFile>
#include <QString>

#include <functional>
#include <memory>
#include <sys/types.h>
#include <vector>

struct sockaddr_un;

namespace sim {

class ControlServer
{
public:
    // print: writes a line of text to standard output; any thread.
    ControlServer(Control* control, std::function<void(const QString& line)> print);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // A socket left behind by a process of this user that has gone is replaced, anything else
    // of that name is left alone. The socket is for this user. Failure: *error says why.
    bool listen(const QString& path, QString* error);
    // Until "quit" or until stopFd becomes readable. The end of standard input is no end.
    void run(int stopFd);

private:
    struct Peer
    {
        int in = -1;
        bool isSocket = false; // else standard input
        QByteArray pending;
    };

    bool bindAt(const QString& path, const sockaddr_un& address);
    void removeSocket();
    void accept();
    // False when the peer has gone.
    bool readFrom(Peer& peer);
    void executeCommands(Peer& peer);
    void answer(const Peer& peer, const QStringList& text);

    Control* m_control; // not owned
    const std::function<void(const QString&)> m_print;
    int m_listener = -1;
    QString m_path;
    std::unique_ptr<QLockFile> m_lock; // while somebody else may replace the socket
    ino_t m_inode = 0; // of the socket's name
    std::vector<Peer> m_peers;
    bool m_quit = false;
};

} // namespace sim
