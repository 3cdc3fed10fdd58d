// The order in which the store brings things to the disk: a step that another one relies on
// is synced before it.
#include "tests/host/inboxfixture.h"
#include "tests/support/systemcalls.h"

#include <cerrno>

using namespace host;
using namespace hosttest;
using testsupport::SystemCall;
using testsupport::SystemCallWatch;

class StoreSteps : public InboxFixture
{
protected:
    std::string root() const
    {
        return paths.input.absoluteFilePath(QStringLiteral(".."))
            .toStdString()
            .substr(0, paths.input.absolutePath().size() - 5);
    }

    // Of the one part that stands.
    std::string part() const { return "incomplete/" + partNames().first().toStdString(); }

    static std::vector<std::string> lines(const SystemCallWatch& watch)
    {
        return watch.callsOf({"fsync", "rename", "unlink", "rmdir"});
    }
};

TEST_F(StoreSteps, Storing)
{
    const auto store = open();
    ASSERT_TRUE(receiveWhole(store.get(), bob, offerOf(1, QStringLiteral("f"), "x"), "x")
                    .endsWith(QStringLiteral("/f"))); // makes the list
    const auto file = store->beginIncoming(bob, offerOf(7, QStringLiteral("f"), "content"), &refused);
    ASSERT_EQ(file->append("content"), QString());
    const std::string dir = part();
    SystemCallWatch watch(root());
    QString place;
    ASSERT_EQ(file->store(offerOf(7, QStringLiteral("f"), "content"), &place), QString());
    EXPECT_EQ(lines(watch),
              (std::vector<std::string>{"fsync " + dir + "/f", "fsync " + dir + "/.message.new",
                                        "rename " + dir + "/.message " + dir + "/.message.old",
                                        "rename " + dir + "/.message.new " + dir + "/.message", "fsync " + dir,
                                        "unlink " + dir + "/.message.old", "fsync incomplete", "fsync received.list",
                                        "rename " + dir + " input/00000002", "fsync input", "fsync incomplete"}));
}

// A part costs a slow disk nothing: one that a power failure tears is begun anew.
TEST_F(StoreSteps, Beginning)
{
    const auto store = open();
    const OfferFrame offer = offerOf(7, QStringLiteral("f"), "content");
    SystemCallWatch watch(root());
    const auto file = store->beginIncoming(bob, offer, &refused);
    ASSERT_TRUE(file);
    ASSERT_EQ(file->append("cont"), QString());
    EXPECT_EQ(lines(watch), std::vector<std::string>());
    EXPECT_EQ(watch.callsOf({"mkdir", "write"}),
              (std::vector<std::string>{"mkdir incomplete/00000001", "write incomplete/00000001/.message",
                                        "write incomplete/00000001/f"}))
        << "never a byte without its record";
}

TEST_F(StoreSteps, Queueing)
{
    OutgoingQueue queue(paths.output, paths.tasks);
    const QString source = writeFile(testsupport::installRoot() + QStringLiteral("/source"), "x");
    ASSERT_EQ(queue.enqueue(bob.abonent, source), QString());
    SystemCallWatch watch(root());
    ASSERT_EQ(queue.enqueue(bob.abonent, source), QString());
    std::vector<std::string> seen = lines(watch);
    ASSERT_FALSE(seen.empty());
    // "fsync output/.new-<process>-<random>/content"
    const std::string directory = seen.front().substr(6, seen.front().rfind('/') - 6);
    EXPECT_EQ(directory.rfind("output/.new-", 0), 0u) << directory;
    seen.erase(std::remove_if(seen.begin(), seen.end(),
                              [](const std::string& call) { return call.find(".lock") != std::string::npos; }),
               seen.end());
    EXPECT_EQ(seen, (std::vector<std::string>{"fsync " + directory + "/content", "fsync " + directory,
                                              "rename " + directory + " output/00000002", "fsync output",
                                              "fsync tasks/00000002.task.new",
                                              "rename tasks/00000002.task.new tasks/00000002.task", "fsync tasks"}));
}

TEST_F(StoreSteps, Removing)
{
    OutgoingQueue queue(paths.output, paths.tasks);
    const QString source = writeFile(testsupport::installRoot() + QStringLiteral("/source"), "x");
    ASSERT_EQ(queue.enqueue(bob.abonent, source), QString());
    queue.rescan();
    SystemCallWatch watch(root());
    ASSERT_EQ(queue.remove(queue.messages().first()), QString());
    EXPECT_EQ(lines(watch), (std::vector<std::string>{"unlink tasks/00000001.task", "fsync tasks",
                                                      "unlink output/00000001/content", "rmdir output/00000001"}));
}

// Each of them failing: nothing is said to be received, or queued, that is not.
TEST_F(StoreSteps, AFailedStepIsToldAndTakenBack)
{
    const OfferFrame offer = offerOf(7, QStringLiteral("f"), "content");
    const QString source = writeFile(testsupport::installRoot() + QStringLiteral("/source"), "x");
    for (const char* name : {"received.list", "incomplete", "/.message.new", "/f"}) {
        SCOPED_TRACE(name);
        const auto store = open();
        const auto file = store->beginIncoming(bob, offer, &refused);
        ASSERT_TRUE(file) << qPrintable(refused.reason);
        ASSERT_EQ(file->append("content"), QString());
        QString place;
        {
            const std::string failing = root() + (name[0] == '/' ? part() : std::string()) + name;
            SystemCallWatch watch(root(), [&](SystemCall& call) { return call.is("fsync", failing) ? EIO : 0; });
            EXPECT_NE(file->store(offer, &place), QString());
        }
        EXPECT_FALSE(store->isStored(bob, 7, offer.sha256));
        EXPECT_EQ(store->inbox().messages().size(), 0);
        for (const QString& left : partNames())
            ASSERT_EQ(removeDirectory(paths.incomplete.absoluteFilePath(left)), QString());
    }
    OutgoingQueue queue(paths.output, paths.tasks);
    for (const QByteArray& name : {QByteArray("/output"), QByteArray(".task.new")}) {
        SCOPED_TRACE(name.constData());
        QString error;
        {
            SystemCallWatch watch(root(), [&](SystemCall& call) {
                return call.name == "fsync" && QByteArray::fromStdString(call.path).endsWith(name) ? EIO : 0;
            });
            error = queue.enqueue(bob.abonent, source);
        }
        EXPECT_NE(error, QString());
        queue.rescan();
        EXPECT_EQ(queue.messages().size(), 0);
        EXPECT_EQ(paths.output.entryList(QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
    }
}

TEST_F(StoreSteps, ANameThatTheFileSystemCannotHoldBecomesFile)
{
    const auto store = open();
    const OfferFrame offer = offerOf(7, QStringLiteral("Отчёт.txt"), "content");
    QString place;
    {
        SystemCallWatch watch(root(), [](SystemCall& call) {
            return call.name == "open" && call.path.find("Отчёт") != std::string::npos ? EILSEQ : 0;
        });
        place = receiveWhole(store.get(), bob, offer, "content");
    }
    EXPECT_TRUE(place.endsWith(QStringLiteral("/00000001/file"))) << qPrintable(place);
    EXPECT_EQ(readAll(place), QByteArray("content"));
    ASSERT_EQ(store->inbox().messages().size(), 1);
    EXPECT_EQ(store->inbox().messages().first().fileName, offer.fileName) << "for show";
    // And where not even that can be made.
    QString tried;
    {
        const std::string suffix = "/file";
        SystemCallWatch watch(root() + "incomplete/", [&](SystemCall& call) {
            const bool isFile = call.path.size() > suffix.size() &&
                                call.path.compare(call.path.size() - suffix.size(), suffix.size(), suffix) == 0;
            if (isFile)
                tried = QString::fromStdString(call.path);
            return call.name == "open" && (isFile || call.path.find("Отчёт") != std::string::npos) ? ENOSPC : 0;
        });
        EXPECT_EQ(store->beginIncoming(bob, offerOf(8, QStringLiteral("Отчёт.txt"), "x"), &refused), nullptr);
    }
    EXPECT_EQ(refused.code, RefusalCode::Failed);
    EXPECT_EQ(refused.reason, QStringLiteral("cannot write %1: No space left on device").arg(tried));
    EXPECT_EQ(partNames(), QStringList()) << "nothing is left of it";
    EXPECT_TRUE(store->parts(bob).empty());
}
