// The command line of a program of runs. Whatever is wrong with it is thrown as a
// std::runtime_error that says so.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace rig {

class CommandLine
{
public:
    // usage: what --help prints, and on the standard error what an unknown option does.
    CommandLine(int argc, char** argv, const char* usage) : m_count(argc), m_words(argv), m_usage(usage) {}

    // On to the next option; false when there is none. --help and -h end the program well.
    bool next();
    const std::string& option() const { return m_option; }
    // The next word behind the option.
    std::string value();
    [[noreturn]] void unknownOption() const;

private:
    int m_count;
    char** m_words;
    const char* m_usage;
    int m_at = 0;
    std::string m_option;
};

[[noreturn]] void fail(const std::string& text);

// Not negative.
double number(const std::string& text);
std::uint64_t wholeNumber(const std::string& text);
// Both ends included.
int wholeNumber(const std::string& text, int least, int most);

// What stands between commas.
std::vector<std::string> parts(const std::string& text);

// The exit status of run(), or 2 and a message on the standard error for what it throws.
int exitStatusOf(const char* program, int (*run)(int argc, char** argv), int argc, char** argv);

} // namespace rig
