// The points of a sweep: lines and the link's settings on them, every combination of what
// the command line gives, or a list.
#pragma once

#include "rig/runs/commandline.h"
#include "tools/linkprofile.h"

#include <istream>
#include <map>
#include <string>
#include <vector>

namespace sweep {

struct Point
{
    tune::LineFacts line;
    tune::LinkProfile profile;
    bool bothWays = false;
};

class Grid
{
public:
    Grid();

    // Whether the option at hand is one of the grid's, which is taken with its value.
    bool takeOption(rig::CommandLine& line);
    std::vector<Point> points() const;
    int bufferBytes() const { return m_bufferBytes; }

private:
    std::map<std::string, std::vector<double>> m_values; // by option
    bool m_usesDefaults = false;
    std::string m_ways = "all";
    int m_bufferBytes = tune::LineFacts().bufferBytes;
};

// One a line: rate delay ber packet write queue resend confirm ways.
std::vector<Point> readPoints(std::istream& list, int bufferBytes);

} // namespace sweep
