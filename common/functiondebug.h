// Tracing of entered functions, and timing of scopes.
#pragma once

#include <QElapsedTimer>
#include <QList>
#include <QString>

#include <atomic>

// Whether every traced function is logged: -1 not read yet, 0 off, 1 on. Read from the setting
// "Debug/all" by the first trace scope of the process. Above 0 the log also ignores its categories.
extern std::atomic<int> gFunctionsDebuging;
static_assert(sizeof(std::atomic<int>) == sizeof(int) && std::atomic<int>::is_always_lock_free,
              "as cheap as the plain number");

// Stands at the top of a function:
//     _CFunctionDebug trace(Q_FUNC_INFO);
// With tracing on it logs entry and exit, otherwise it notes the name in the history of the last
// entered functions, which costs a lock and a list append. Must not be used in code that debug()
// calls. Any thread.
class _CFunctionDebug
{
public:
    static constexpr int historyLength = 64;

    explicit _CFunctionDebug(const char* function);
    // file: as the compiler names it, of which the first 6 characters ("../../") are dropped.
    _CFunctionDebug(const char* file, int line, const char* function);
    ~_CFunctionDebug();
    _CFunctionDebug(const _CFunctionDebug&) = delete;
    _CFunctionDebug& operator=(const _CFunctionDebug&) = delete;

    // The names of the functions entered last, oldest first: a history of entries, not the stack of
    // calls. For looking at a process that has stopped: other threads change the list meanwhile.
    static QList<QString>* stack();

private:
    void enter(const QString& name);

    QString m_name; // empty when tracing is off
};

// Logs how many whole milliseconds the scope took; with always false only from 1 on. Any thread.
class _CFunctionMeasure
{
public:
    _CFunctionMeasure(const char* name, bool always);
    ~_CFunctionMeasure();
    _CFunctionMeasure(const _CFunctionMeasure&) = delete;
    _CFunctionMeasure& operator=(const _CFunctionMeasure&) = delete;

private:
    QString m_name;
    bool m_always;
    QElapsedTimer m_timer;
};
