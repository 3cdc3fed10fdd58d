// link-sweep: goodput of the link over lines and settings, in simulated time. Each point
// runs in a process of its own, since the channel reads its settings once in a process.
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>

#include "tests/soak/virtualtime.h"
#include "tests/tools/linkmeasure.h"

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t wallClockMs = 1700000000000; // any day will do

const char usageText[] =
    "Usage: link-sweep [options]\n"
    "\n"
    "Goodput of the link in simulated time, over every combination of the values given.\n"
    "Prints a line of tab-separated values for each.\n"
    "\n"
    "  --rate R,...      bit/s (default 9600,33600,57600,115200,921600)\n"
    "  --delay D,...     one way, ms (default 0,100)\n"
    "  --ber P,...       bit error rates (default 0,1e-5,1e-4)\n"
    "  --buffer B        what the driver holds, bytes (default 4096)\n"
    "  --packet N,...    packet size, bytes; so the next four\n"
    "  --write N,...     most bytes to write (default: as the packet size)\n"
    "  --queue N,...     queue limit\n"
    "  --resend MS,...   resend interval\n"
    "  --confirm MS,...  confirmation interval\n"
    "                    (each default: as recommended for the line)\n"
    "  --defaults        the settings' defaults for all of them instead\n"
    "  --ways W          one, both or all: one way, both ways at once, each of these (default all)\n"
    "  --driver W        when a driver calls itself writable: any (as soon as there is\n"
    "                    room, as a pty), low (when nearly empty, as a serial port)\n"
    "                    (default any)\n"
    "  --pause MS        a host does nothing for so long now and then, as on a busy\n"
    "                    machine (every 10 s on average; default 0: never)\n"
    "  --seconds S       length of each transfer on a line without loss (default 60)\n"
    "  --seeds N         runs of each point, from seeds 1 to N; the mean counts (default 1)\n"
    "  --points          read points from the standard input instead, a line each:\n"
    "                    rate delay ber packet write queue resend confirm ways\n"
    "  --jobs N          processes at once (default 2)\n"
    "\n"
    "Exit status: 0 done, 1 a transfer failed, 2 wrong usage.\n";

[[noreturn]] void fail(const std::string& text)
{
    std::fprintf(stderr, "link-sweep: %s\n", text.c_str());
    std::exit(2);
}

struct Point
{
    tune::LineFacts line;
    tune::LinkProfile profile;
    bool bothWays = false;
};

struct Options
{
    std::map<std::string, std::vector<double>> values;
    bool defaults = false;
    bool points = false;
    std::string ways = "all";
    bool wakesWhenLow = false;
    double seconds = 60;
    int pauseMs = 0;
    int seeds = 1;
    int jobs = 2;
    int buffer = tune::LineFacts().bufferBytes;
};

double number(const std::string& text)
{
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end || !(value >= 0))
        fail("not a number: " + text);
    return value;
}

std::vector<double> numbers(const std::string& text)
{
    std::vector<double> values;
    std::istringstream parts(text);
    for (std::string part; std::getline(parts, part, ',');)
        values.push_back(number(part));
    return values;
}

Options readOptions(int argc, char** argv)
{
    Options options;
    options.values["--rate"] = {9600, 33600, 57600, 115200, 921600};
    options.values["--delay"] = {0, 100};
    options.values["--ber"] = {0, 1e-5, 1e-4};
    for (const char* name : {"--packet", "--write", "--queue", "--resend", "--confirm"})
        options.values[name] = {};
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        const auto value = [&]() -> std::string {
            if (++i >= argc)
                fail(name + " needs a value");
            return argv[i];
        };
        if (options.values.count(name)) {
            options.values[name] = numbers(value());
        } else if (name == "--defaults") {
            options.defaults = true;
        } else if (name == "--points") {
            options.points = true;
        } else if (name == "--ways") {
            options.ways = value();
            if (options.ways != "one" && options.ways != "both" && options.ways != "all")
                fail("--ways takes one, both or all");
        } else if (name == "--driver") {
            const std::string driver = value();
            if (driver != "any" && driver != "low")
                fail("--driver takes any or low");
            options.wakesWhenLow = driver == "low";
        } else if (name == "--seconds") {
            options.seconds = number(value());
        } else if (name == "--pause") {
            options.pauseMs = static_cast<int>(number(value()));
        } else if (name == "--seeds") {
            options.seeds = static_cast<int>(number(value()));
        } else if (name == "--jobs") {
            options.jobs = std::max(1, static_cast<int>(number(value())));
        } else if (name == "--buffer") {
            options.buffer = static_cast<int>(number(value()));
        } else if (name == "--help" || name == "-h") {
            std::fputs(usageText, stdout);
            std::exit(0);
        } else {
            std::fputs(usageText, stderr);
            fail("unknown option: " + name);
        }
    }
    return options;
}

// One for each value given; the profile's own value when none is.
template<typename Set>
std::vector<Point> spread(const std::vector<Point>& points, const std::vector<double>& values, Set set)
{
    if (values.empty())
        return points;
    std::vector<Point> result;
    for (const Point& point : points) {
        for (const double value : values) {
            result.push_back(point);
            set(result.back(), value);
        }
    }
    return result;
}

std::vector<Point> gridPoints(const Options& options)
{
    const auto given = [&](const char* name) -> const std::vector<double>& { return options.values.at(name); };
    Point first;
    first.line.bufferBytes = options.buffer;
    std::vector<Point> points = spread({first}, given("--rate"), [](Point& p, double v) { p.line.rate = int(v); });
    points = spread(points, given("--delay"), [](Point& p, double v) { p.line.delayMs = int(v); });
    points = spread(points, given("--ber"), [](Point& p, double v) { p.line.bitErrorRate = v; });
    if (!options.defaults) {
        for (Point& point : points)
            point.profile = tune::recommendedProfile(point.line);
    }
    points = spread(points, given("--packet"), [](Point& p, double v) { p.profile.packetSize = p.profile.maxBytesToWrite = int(v); });
    points = spread(points, given("--write"), [](Point& p, double v) { p.profile.maxBytesToWrite = int(v); });
    points = spread(points, given("--queue"), [](Point& p, double v) { p.profile.maxBytesInQueue = int(v); });
    points = spread(points, given("--resend"), [](Point& p, double v) { p.profile.resendIntervalMs = int(v); });
    points = spread(points, given("--confirm"), [](Point& p, double v) { p.profile.confirmationIntervalMs = int(v); });
    std::vector<double> ways;
    if (options.ways != "both")
        ways.push_back(0);
    if (options.ways != "one")
        ways.push_back(1);
    return spread(points, ways, [](Point& p, double v) { p.bothWays = v != 0; });
}

std::vector<Point> readPoints(const Options& options)
{
    std::vector<Point> points;
    for (std::string text; std::getline(std::cin, text);) {
        std::istringstream words(text);
        Point point;
        std::string ways;
        tune::LinkProfile& profile = point.profile;
        words >> point.line.rate >> point.line.delayMs >> point.line.bitErrorRate >> profile.packetSize >>
            profile.maxBytesToWrite >> profile.maxBytesInQueue >> profile.resendIntervalMs >>
            profile.confirmationIntervalMs >> ways;
        if (!words)
            fail("not a point: " + text);
        point.line.bufferBytes = options.buffer;
        point.bothWays = ways == "both";
        points.push_back(point);
    }
    return points;
}

// ---- one run, in a process of its own ----

// The channel tells each damaged packet to Qt's debug output.
void keepQuiet(QtMsgType, const QMessageLogContext&, const QString&) {}

std::vector<std::string> wordsOf(const Point& point, const Options& options, int seed)
{
    const tune::LinkProfile& p = point.profile;
    std::ostringstream text;
    text << point.line.rate << ' ' << point.line.delayMs << ' ' << point.line.bitErrorRate << ' ' << point.line.bufferBytes
         << ' ' << p.packetSize << ' ' << p.maxBytesToWrite << ' ' << p.maxBytesInQueue << ' ' << p.resendIntervalMs << ' '
         << p.confirmationIntervalMs << ' ' << point.bothWays << ' ' << options.wakesWhenLow << ' ' << options.pauseMs
         << ' ' << options.seconds << ' ' << seed;
    return {"link-sweep", "--run", text.str()};
}

int runHere(const std::string& text)
{
    std::istringstream words(text);
    measure::Course course;
    tune::LinkProfile profile;
    bool bothWays = false;
    double seconds = 0;
    words >> course.line.rate >> course.line.delayMs >> course.line.bitErrorRate >> course.line.bufferBytes >>
        profile.packetSize >> profile.maxBytesToWrite >> profile.maxBytesInQueue >> profile.resendIntervalMs >>
        profile.confirmationIntervalMs >> bothWays >> course.wakesWhenLow >> course.pauseMs >> seconds >>
        course.seed;
    course.bytes[0] = static_cast<std::int64_t>(seconds * course.line.rate / 10);
    course.bytes[1] = bothWays ? course.bytes[0] : 0;

    int argc = 1;
    char name[] = "link-sweep";
    char* argv[] = {name, nullptr};
    qInstallMessageHandler(keepQuiet);
    soak::startVirtualTime(wallClockMs);
    QCoreApplication application(argc, argv);
    const measure::Outcome outcome = measure::run(course, profile);
    std::printf("%.6f %.6f %.6f %.6f %s\n", outcome.share[0], outcome.share[1], outcome.busy[0], outcome.busy[1],
                outcome.error.c_str());
    return outcome.error.empty() ? 0 : 1;
}

// ---- many runs ----

struct Figures
{
    double share = 0; // of the slower way
    double busy = 0;  // of the same
    int runs = 0;
    std::string error;
};

// An installation for one run at a time, as the code under test finds it.
class Slot
{
public:
    Slot()
    {
        const fs::path program = fs::canonical("/proc/self/exe");
        std::string pattern = (fs::temp_directory_path() / "sweep-XXXXXX").string();
        if (!mkdtemp(pattern.data()))
            fail(std::string("no directory for the runs: ") + std::strerror(errno));
        m_root = pattern;
        fs::create_directory(m_root / "bin");
        std::error_code error;
        fs::create_hard_link(program, m_root / "bin" / "link-sweep", error);
        if (error)
            fs::copy_file(program, m_root / "bin" / "link-sweep");
    }

    ~Slot()
    {
        std::error_code ignored;
        fs::remove_all(m_root, ignored);
    }

    Slot(const Slot&) = delete;
    Slot& operator=(const Slot&) = delete;

    bool isFree() const { return m_child == 0; }
    pid_t child() const { return m_child; }
    std::size_t point() const { return m_point; }

    void start(std::size_t index, const Point& point, const Options& options, int seed)
    {
        for (const char* folder : {"settings", "data"})
            fs::remove_all(m_root / folder);
        fs::create_directory(m_root / "settings");
        std::ofstream(m_root / "settings" / "settings.ini") << measure::settingsText(point.profile);
        m_point = index;
        const std::vector<std::string> words = wordsOf(point, options, seed);
        std::fflush(stdout); // not once more by the child
        m_child = fork();
        if (m_child != 0)
            return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (!std::freopen((m_root / "result").c_str(), "w", stdout))
            _exit(127);
        setenv("QT_HASH_SEED", "0", 1);
        setenv("QT_NO_GLIB", "1", 1);
        execl((m_root / "bin" / "link-sweep").c_str(), words[0].c_str(), words[1].c_str(), words[2].c_str(), nullptr);
        _exit(127);
    }

    void finish(const Point& point, Figures* figures)
    {
        m_child = 0;
        double share[2] = {};
        double busy[2] = {};
        std::ifstream result(m_root / "result");
        std::string error = "the run broke off";
        if (result >> share[0] >> share[1] >> busy[0] >> busy[1]) {
            error.clear();
            std::getline(result >> std::ws, error);
        }
        if (!error.empty())
            figures->error = error;
        const int slower = point.bothWays && share[1] < share[0] ? 1 : 0;
        figures->share += share[slower];
        figures->busy += busy[slower];
        ++figures->runs;
    }

private:
    fs::path m_root;
    pid_t m_child = 0;
    std::size_t m_point = 0;
};

void print(const Point& point, const Figures& figures)
{
    const tune::LinkProfile& p = point.profile;
    std::printf("%d\t%d\t%g\t%d\t%d\t%d\t%d\t%d\t%s\t%.4f\t%.4f\t%s\n", point.line.rate, point.line.delayMs,
                point.line.bitErrorRate, p.packetSize, p.maxBytesToWrite, p.maxBytesInQueue, p.resendIntervalMs,
                p.confirmationIntervalMs, point.bothWays ? "both" : "one", figures.share / figures.runs,
                figures.busy / figures.runs, figures.error.c_str());
    std::fflush(stdout);
}

class Sweep
{
public:
    Sweep(std::vector<Point> points, const Options& options)
        : m_points(std::move(points)), m_options(options), m_figures(m_points.size()), m_slots(static_cast<std::size_t>(options.jobs))
    {
    }

    bool run()
    {
        std::printf("rate\tdelay\tber\tpacket\twrite\tqueue\tresend\tconfirm\tways\tgoodput\tbusy\terror\n");
        for (std::size_t i = 0; i < m_points.size(); ++i) {
            for (int seed = 1; seed <= m_options.seeds; ++seed)
                freeSlot().start(i, m_points[i], m_options, seed);
        }
        while (waitForOne()) {
        }
        bool isGood = true;
        for (const Figures& figures : m_figures)
            isGood = isGood && figures.error.empty();
        return isGood;
    }

private:
    Slot& freeSlot()
    {
        for (;;) {
            for (Slot& slot : m_slots) {
                if (slot.isFree())
                    return slot;
            }
            waitForOne();
        }
    }

    bool waitForOne()
    {
        int status = 0;
        const pid_t child = waitpid(-1, &status, 0);
        if (child < 0)
            return errno == EINTR;
        for (Slot& slot : m_slots) {
            if (slot.child() == child)
                slot.finish(m_points[slot.point()], &m_figures[slot.point()]);
        }
        while (m_printed < m_points.size() && m_figures[m_printed].runs == m_options.seeds) {
            print(m_points[m_printed], m_figures[m_printed]);
            ++m_printed;
        }
        return true;
    }

    const std::vector<Point> m_points;
    const Options& m_options;
    std::vector<Figures> m_figures;
    std::vector<Slot> m_slots;
    std::size_t m_printed = 0;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::string(argv[1]) == "--run")
        return runHere(argv[2]);
    const Options options = readOptions(argc, argv);
    Sweep sweep(options.points ? readPoints(options) : gridPoints(options), options);
    return sweep.run() ? 0 : 1;
}
