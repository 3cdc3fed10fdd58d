// link-sweep: goodput of the link over lines and settings, in simulated time. Each point
// runs in a process of its own, since the channel reads its settings once in a process.
#include "bench/sweep/points.h"
#include "rig/measure/linkmeasure.h"
#include "rig/runs/commandline.h"
#include "rig/runs/runinstallation.h"
#include "rig/runs/runprocess.h"
#include "rig/runs/stoprequest.h"

#include <QCoreApplication>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <limits>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using sweep::Point;

const char usageText[] =
    "Usage: link-sweep [options]\n"
    "\n"
    "Goodput of the link in simulated time, over every combination of the values given.\n"
    "Prints a line of tab-separated values for each: the combination; of the slower way the\n"
    "goodput, as a share of rate / 10, and how much of the time its line was busy; what failed.\n"
    "\n"
    "  --rate R,...      bit/s (default 9600,33600,57600,115200,921600)\n"
    "  --delay D,...     one way, ms (default 0,100)\n"
    "  --ber P,...       bit error rates (default 0,1e-5,1e-4)\n"
    "  --buffer B        what the driver holds, bytes (default 4096)\n"
    "  --packet N,...    packet size, bytes; so the next four\n"
    "  --write N,...     most bytes to write (default: as --packet, if that is given)\n"
    "  --queue N,...     queue limit\n"
    "  --resend MS,...   resend interval\n"
    "  --confirm MS,...  confirmation interval\n"
    "                    (each default: as recommended for the line)\n"
    "  --adaptive W      which ends send adaptively: none, one, both (default none)\n"
    "  --defaults        the settings' defaults for all of them instead\n"
    "  --ways W          one, both or all: one way, both ways at once, each of these (default all)\n"
    "  --driver W        when a driver calls itself writable: any (as soon as there is\n"
    "                    room, as a pty), low (when nearly empty, as a serial port)\n"
    "                    (default any)\n"
    "  --pause MS        a host does nothing for so long now and then, as on a busy\n"
    "                    machine (every 10 s on average; default 0: never)\n"
    "  --modem B         a modem with a buffer of so many bytes behind the port (default 0: none)\n"
    "  --port-share X    the port's rate, in rates of the line (default 1; with --modem)\n"
    "  --no-flow-control what is too much for the modem is lost (with --modem)\n"
    "  --hides           drivers tell nothing of what they have still to send\n"
    "  --way-back X      the rate of the other way, in rates of the line (default 1)\n"
    "  --retrain MS      modems carry nothing for so long now and then (every 20 s on average)\n"
    "  --seconds S       length of each transfer on a line without loss (default 60)\n"
    "  --seeds N         runs of each point, from seeds 1 to N; the mean counts (default 1)\n"
    "  --points          read points from the standard input instead, a line each:\n"
    "                    rate delay ber packet write queue resend confirm ways\n"
    "  --jobs N          processes at once (default 2)\n"
    "\n"
    "Exit status: 0 done, 1 a transfer failed, 2 wrong usage or it cannot run.\n";

struct Options
{
    sweep::Grid grid;
    bool points = false;
    bool wakesWhenLow = false;
    double seconds = 60;
    int pauseMs = 0;
    int adaptiveEnds = 0;
    rig::measure::Course hazards; // what the line and its modems are like beyond the grid
    int seeds = 1;
    int jobs = 2;
};

constexpr double mostBytes = 1e9; // of a file, which is held in memory more than once

bool takeHazard(const std::string& name, rig::CommandLine& line, rig::measure::Course* hazards)
{
    constexpr int mostModemBytes = 1 << 20;
    constexpr int mostMs = 600000;
    if (name == "--modem")
        hazards->modemBytes = rig::wholeNumber(line.value(), 0, mostModemBytes);
    else if (name == "--port-share")
        hazards->portShare = rig::number(line.value());
    else if (name == "--no-flow-control")
        hazards->flowControl = false;
    else if (name == "--hides")
        hazards->hidesOutput = true;
    else if (name == "--way-back")
        hazards->wayBackShare = rig::number(line.value());
    else if (name == "--retrain")
        hazards->retrainMs = rig::wholeNumber(line.value(), 0, mostMs);
    else
        return false;
    return true;
}

Options readOptions(int argc, char** argv)
{
    Options options;
    rig::CommandLine line(argc, argv, usageText);
    while (line.next()) {
        const std::string& name = line.option();
        if (options.grid.takeOption(line) || takeHazard(name, line, &options.hazards))
            continue;
        if (name == "--points") {
            options.points = true;
        } else if (name == "--driver") {
            const std::string driver = line.value();
            if (driver != "any" && driver != "low")
                rig::fail("--driver takes any or low");
            options.wakesWhenLow = driver == "low";
        } else if (name == "--adaptive") {
            const std::string ends = line.value();
            if (ends != "none" && ends != "one" && ends != "both")
                rig::fail("--adaptive takes none, one or both");
            options.adaptiveEnds = ends == "none" ? 0 : ends == "one" ? 1 : 2;
        } else if (name == "--seconds") {
            options.seconds = rig::number(line.value());
        } else if (name == "--pause") {
            options.pauseMs = rig::wholeNumber(line.value(), 0, 600000);
        } else if (name == "--seeds") {
            options.seeds = rig::wholeNumber(line.value(), 1, 1000000);
        } else if (name == "--jobs") {
            options.jobs = std::max(1, rig::wholeNumber(line.value(), 0, 1000));
        } else {
            line.unknownOption();
        }
    }
    return options;
}

void checkLengths(const std::vector<Point>& points, const Options& options)
{
    for (const Point& point : points) {
        const double bytes = options.seconds * point.line.rate / 10;
        if (!(bytes >= 1 && bytes <= mostBytes))
            rig::fail("--seconds makes a file of no byte, or of more than 1000000000, at " +
                      std::to_string(point.line.rate) + " bit/s");
    }
}

// ---- one run, in a process of its own ----

std::string runText(const Point& point, const Options& options, int seed)
{
    const tune::LinkProfile& p = point.profile;
    std::ostringstream text;
    text.precision(std::numeric_limits<double>::max_digits10);
    text << point.line.rate << ' ' << point.line.delayMs << ' ' << point.line.bitErrorRate << ' '
         << point.line.bufferBytes << ' ' << p.packetSize << ' ' << p.maxBytesToWrite << ' ' << p.maxBytesInQueue << ' '
         << p.resendIntervalMs << ' ' << p.confirmationIntervalMs << ' ' << point.bothWays << ' '
         << options.wakesWhenLow << ' ' << options.pauseMs << ' ' << options.adaptiveEnds << ' '
         << options.hazards.modemBytes << ' ' << options.hazards.portShare << ' ' << options.hazards.flowControl << ' '
         << options.hazards.hidesOutput << ' ' << options.hazards.wayBackShare << ' ' << options.hazards.retrainMs
         << ' ' << options.seconds << ' ' << seed;
    return text.str();
}

int runHere(const std::string& text)
{
    std::istringstream words(text);
    rig::measure::Course course;
    tune::LinkProfile profile;
    bool bothWays = false;
    int adaptiveEnds = 0;
    double seconds = 0;
    words >> course.line.rate >> course.line.delayMs >> course.line.bitErrorRate >> course.line.bufferBytes >>
        profile.packetSize >> profile.maxBytesToWrite >> profile.maxBytesInQueue >> profile.resendIntervalMs >>
        profile.confirmationIntervalMs >> bothWays >> course.wakesWhenLow >> course.pauseMs >> adaptiveEnds >>
        course.modemBytes >> course.portShare >> course.flowControl >> course.hidesOutput >> course.wayBackShare >>
        course.retrainMs >> seconds >> course.seed;
    if (!words)
        rig::fail("not a run: " + text);
    course.adaptive = {adaptiveEnds > 0, adaptiveEnds > 1};
    course.bytes[0] = static_cast<std::int64_t>(seconds * course.line.rate / 10);
    course.bytes[1] = bothWays ? course.bytes[0] : 0;

    int argc = 1;
    char name[] = "link-sweep";
    char* argv[] = {name, nullptr};
    rig::beginRunProcess();
    QCoreApplication application(argc, argv);
    const rig::measure::Outcome outcome = rig::measure::run(course, profile);
    std::printf("%.6f %.6f %.6f %.6f %s\n", outcome.share[0], outcome.share[1], outcome.busy[0], outcome.busy[1],
                outcome.error.c_str());
    return outcome.error.empty() ? 0 : 1;
}

// ---- many runs ----

struct Figures
{
    double share = 0; // of the slower way
    double busy = 0; // of the same
    int runs = 0;
    std::string error;
};

// A place for one run at a time.
class Slot
{
public:
    Slot() = default;
    ~Slot()
    {
        if (isFree())
            return;
        kill(m_run.process, SIGKILL);
        end();
    }

    Slot(const Slot&) = delete;
    Slot& operator=(const Slot&) = delete;

    bool isFree() const { return m_run.process == 0; }
    std::size_t point() const { return m_point; }
    int output() const { return m_run.output; }

    void start(std::size_t index, const Point& point, const Options& options, int seed)
    {
        m_installation.prepare(rig::measure::channelSettings(point.profile));
        m_point = index;
        m_output.clear();
        m_run = m_installation.start({"--run", runText(point, options, seed)});
    }

    // Reads what the run has printed; true if that was all and the run has ended.
    bool read()
    {
        char buffer[4096];
        const ssize_t size = ::read(m_run.output, buffer, sizeof(buffer));
        if (size > 0)
            m_output.append(buffer, static_cast<std::size_t>(size));
        if (size > 0 || (size < 0 && errno == EINTR))
            return false;
        end();
        return true;
    }

    void count(const Point& point, Figures* figures) const
    {
        double share[2] = {};
        double busy[2] = {};
        std::istringstream result(m_output);
        std::string error;
        if (!(result >> share[0] >> share[1] >> busy[0] >> busy[1]))
            error = "the run broke off: " + rig::describeEnd(m_status);
        else if (!std::getline(result >> std::ws, error) && m_status != 0)
            error = rig::describeEnd(m_status);
        if (!error.empty())
            figures->error = error;
        const int slower = point.bothWays && share[1] < share[0] ? 1 : 0;
        figures->share += share[slower];
        figures->busy += busy[slower];
        ++figures->runs;
    }

private:
    void end()
    {
        close(m_run.output);
        while (waitpid(m_run.process, &m_status, 0) < 0 && errno == EINTR) {
        }
        m_run = {};
    }

    rig::RunInstallation m_installation;
    rig::StartedRun m_run;
    std::size_t m_point = 0;
    std::string m_output;
    int m_status = 0;
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
    // options and stop are not owned.
    Sweep(std::vector<Point> points, const Options& options, rig::StopRequest& stop)
        : m_points(std::move(points)), m_options(options), m_stop(stop), m_figures(m_points.size()),
          m_slots(static_cast<std::size_t>(options.jobs))
    {
    }

    // Whether everything went well. Stops early if the program must stop.
    bool run()
    {
        std::printf("rate\tdelay\tber\tpacket\twrite\tqueue\tresend\tconfirm\tways\tgoodput\tbusy\terror\n");
        for (std::size_t i = 0; i < m_points.size(); ++i) {
            for (int seed = 1; seed <= m_options.seeds; ++seed) {
                Slot* slot = freeSlot();
                if (!slot)
                    return false;
                slot->start(i, m_points[i], m_options, seed);
            }
        }
        while (waitForSome()) {
        }
        bool isGood = !m_stop.isAsked();
        for (const Figures& figures : m_figures)
            isGood = isGood && figures.error.empty();
        return isGood;
    }

private:
    // Null: the program must stop.
    Slot* freeSlot()
    {
        do {
            for (Slot& slot : m_slots) {
                if (slot.isFree())
                    return &slot;
            }
        } while (waitForSome());
        return nullptr;
    }

    // False if there is no run, or if the program must stop.
    bool waitForSome()
    {
        std::vector<pollfd> waited;
        std::vector<Slot*> busy;
        for (Slot& slot : m_slots) {
            if (slot.isFree())
                continue;
            waited.push_back({slot.output(), POLLIN, 0});
            busy.push_back(&slot);
        }
        if (busy.empty())
            return false;
        if (m_stop.poll(waited.data(), waited.size(), -1) < 0)
            return !m_stop.isAsked();
        for (std::size_t i = 0; i < busy.size(); ++i) {
            if (waited[i].revents != 0 && busy[i]->read())
                busy[i]->count(m_points[busy[i]->point()], &m_figures[busy[i]->point()]);
        }
        while (m_printed < m_points.size() && m_figures[m_printed].runs == m_options.seeds) {
            print(m_points[m_printed], m_figures[m_printed]);
            ++m_printed;
        }
        return true;
    }

    const std::vector<Point> m_points;
    const Options& m_options;
    rig::StopRequest& m_stop;
    std::vector<Figures> m_figures;
    std::vector<Slot> m_slots;
    std::size_t m_printed = 0;
};

int runProgram(int argc, char** argv)
{
    if (argc == 3 && std::string(argv[1]) == "--run")
        return runHere(argv[2]);
    const Options options = readOptions(argc, argv);
    const std::vector<Point> points =
        options.points ? sweep::readPoints(std::cin, options.grid.bufferBytes()) : options.grid.points();
    checkLengths(points, options);
    rig::StopRequest stop;
    const bool isGood = Sweep(points, options, stop).run();
    stop.obey();
    return isGood ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    return rig::exitStatusOf("link-sweep", runProgram, argc, argv);
}
