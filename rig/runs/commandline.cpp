#include "rig/runs/commandline.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <stdexcept>

namespace rig {

bool CommandLine::next()
{
    if (++m_at >= m_count)
        return false;
    m_option = m_words[m_at];
    if (m_option == "--help" || m_option == "-h") {
        std::fputs(m_usage, stdout);
        std::exit(0);
    }
    return true;
}

std::string CommandLine::value()
{
    if (++m_at >= m_count)
        fail(m_option + " needs a value");
    return m_words[m_at];
}

void CommandLine::unknownOption() const
{
    std::fputs(m_usage, stderr);
    fail("unknown option: " + m_option);
}

void fail(const std::string& text)
{
    throw std::runtime_error(text);
}

double number(const std::string& text)
{
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end || !(value >= 0))
        fail("not a number: " + text);
    return value;
}

std::uint64_t wholeNumber(const std::string& text)
{
    std::uint64_t value = 0;
    std::istringstream stream(text);
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || !(stream >> value))
        fail("not a number: " + text);
    return value;
}

int wholeNumber(const std::string& text, int least, int most)
{
    const double value = number(text);
    if (!(value >= least && value <= most) || value != static_cast<int>(value))
        fail("not a whole number from " + std::to_string(least) + " to " + std::to_string(most) + ": " + text);
    return static_cast<int>(value);
}

std::vector<std::string> parts(const std::string& text)
{
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, ',');)
        result.push_back(part);
    return result;
}

int exitStatusOf(const char* program, int (*run)(int argc, char** argv), int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", program, error.what());
        return 2;
    }
}

} // namespace rig
