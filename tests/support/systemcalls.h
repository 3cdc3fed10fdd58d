// The calls by which this process changes or looks at files, open to a test: to see them in
// order, to make one fail, or to end the process there. A program that links systemcalls.cpp
// has its own open(), write(), fsync() and so on, which libraries use too. fsync() never
// reaches the disk in such a program: that it is called, and when, is what matters here.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace testsupport {

struct SystemCall
{
    std::string name; // of the function, open64() and openat() being open(), statx() being stat()
    std::string path; // absolute, also where the call names it from an open directory
    std::string target; // of rename()
    int index; // of the watched calls, from 0
    std::size_t bytes; // of write(): a judge may lower it for a short write

    bool is(const std::string& wantedName, const std::string& wantedPath) const
    {
        return name == wantedName && path == wantedPath;
    }
};

// The error number that the call fails with; 0: it is carried out.
using Judge = std::function<int(SystemCall& call)>;

// Watches the calling thread's calls on prefix and on paths that begin with it. One at a time.
class SystemCallWatch
{
public:
    explicit SystemCallWatch(const std::string& prefix, Judge judge = {});
    ~SystemCallWatch();
    SystemCallWatch(const SystemCallWatch&) = delete;
    SystemCallWatch& operator=(const SystemCallWatch&) = delete;

    // The calls so far as "fsync /x.new" and "rename /x.new /x", without the prefix.
    std::vector<std::string> calls() const { return m_calls; }
    // Only those of the given names.
    std::vector<std::string> callsOf(const std::vector<std::string>& names) const;
    int count() const { return m_count; }

    // For the interposed functions: 0, or the error to fail with.
    static int look(const char* name, const char* path, const char* target = "", std::size_t* bytes = nullptr);

private:
    int judge(SystemCall& call);

    const std::string m_prefix;
    const Judge m_judge;
    std::vector<std::string> m_calls;
    int m_count = 0;
};

} // namespace testsupport
