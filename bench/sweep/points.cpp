#include "bench/sweep/points.h"

#include <sstream>

namespace sweep {

namespace {

// One of the values that make a point, in the order in which a point is written.
struct PointValue
{
    const char* option;
    bool isOfLine; // or of the profile
    bool isWhole;
    int least;
    int most; // a chance is below it
    void (*set)(Point& point, double value);
};

constexpr PointValue pointValues[] = {
    {"--rate", true, true, 10, tune::highestRate, [](Point& p, double v) { p.line.rate = int(v); }},
    {"--delay", true, true, 0, 60000, [](Point& p, double v) { p.line.delayMs = int(v); }},
    {"--ber", true, false, 0, 1, [](Point& p, double v) { p.line.bitErrorRate = v; }},
    {"--packet", false, true, 1, 1 << 20,
     [](Point& p, double v) { p.profile.packetSize = p.profile.maxBytesToWrite = int(v); }},
    {"--write", false, true, 1, 1 << 20, [](Point& p, double v) { p.profile.maxBytesToWrite = int(v); }},
    {"--queue", false, true, 1, 1 << 20, [](Point& p, double v) { p.profile.maxBytesInQueue = int(v); }},
    {"--resend", false, true, 1, 60000, [](Point& p, double v) { p.profile.resendIntervalMs = int(v); }},
    {"--confirm", false, true, 1, 60000, [](Point& p, double v) { p.profile.confirmationIntervalMs = int(v); }},
};

double readValue(const PointValue& kind, const std::string& text)
{
    if (kind.isWhole)
        return rig::wholeNumber(text, kind.least, kind.most);
    const double chance = rig::number(text);
    if (chance >= kind.most)
        rig::fail("not a chance below 1: " + text);
    return chance;
}

std::vector<double> readValues(const PointValue& kind, const std::string& text)
{
    std::vector<double> values;
    for (const std::string& part : rig::parts(text))
        values.push_back(readValue(kind, part));
    if (values.empty())
        rig::fail(std::string(kind.option) + " needs a value");
    return values;
}

const PointValue* pointValueOf(const std::string& option)
{
    for (const PointValue& kind : pointValues) {
        if (option == kind.option)
            return &kind;
    }
    return nullptr;
}

std::vector<Point> spread(const std::vector<Point>& points, const std::vector<double>& values,
                          void (*set)(Point&, double))
{
    std::vector<Point> result;
    for (const Point& point : points) {
        for (const double value : values) {
            result.push_back(point);
            set(result.back(), value);
        }
    }
    return result;
}

} // namespace

Grid::Grid()
    : m_values{{"--rate", {9600, 33600, 57600, 115200, 921600}}, {"--delay", {0, 100}}, {"--ber", {0, 1e-5, 1e-4}}}
{
}

bool Grid::takeOption(rig::CommandLine& line)
{
    const std::string& name = line.option();
    if (const PointValue* kind = pointValueOf(name)) {
        m_values[name] = readValues(*kind, line.value());
    } else if (name == "--defaults") {
        m_usesDefaults = true;
    } else if (name == "--ways") {
        m_ways = line.value();
        if (m_ways != "one" && m_ways != "both" && m_ways != "all")
            rig::fail("--ways takes one, both or all");
    } else if (name == "--buffer") {
        m_bufferBytes = rig::wholeNumber(line.value(), 1, tune::largestBufferBytes);
    } else {
        return false;
    }
    return true;
}

std::vector<Point> Grid::points() const
{
    Point first;
    first.line.bufferBytes = m_bufferBytes;
    std::vector<Point> points{first};
    // One for each value given; the line's or the profile's own value when none is.
    const auto spreadGiven = [&](bool isOfLine) {
        for (const PointValue& kind : pointValues) {
            const auto given = m_values.find(kind.option);
            if (kind.isOfLine == isOfLine && given != m_values.end())
                points = spread(points, given->second, kind.set);
        }
    };
    spreadGiven(true);
    if (!m_usesDefaults) {
        for (Point& point : points)
            point.profile = tune::recommendedProfile(point.line);
    }
    spreadGiven(false);
    std::vector<double> ways;
    if (m_ways != "both")
        ways.push_back(0);
    if (m_ways != "one")
        ways.push_back(1);
    return spread(points, ways, [](Point& p, double v) { p.bothWays = v != 0; });
}

std::vector<Point> readPoints(std::istream& list, int bufferBytes)
{
    std::vector<Point> points;
    for (std::string text; std::getline(list, text);) {
        std::istringstream words(text);
        std::string word;
        Point point;
        point.line.bufferBytes = bufferBytes;
        for (const PointValue& kind : pointValues) {
            if (words >> word)
                kind.set(point, readValue(kind, word));
        }
        std::string ways;
        if (!(words >> ways) || (ways != "one" && ways != "both") || words >> word)
            rig::fail("not a point: " + text);
        point.bothWays = ways == "both";
        points.push_back(point);
    }
    return points;
}

} // namespace sweep
