// main() of every test program: runs the tests in a fresh installation root.
#include "rig/freshroot.h"
#include "rig/testroot.h"

#include <QCoreApplication>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

bool onlyLists(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--gtest_list_tests")
            return true;
    }
    return false;
}

class SeedPrinter : public testing::EmptyTestEventListener
{
    void OnTestEnd(const testing::TestInfo& info) override
    {
        if (info.result()->Failed())
            std::printf("repeat with TEST_SEED=%u\n", rig::seed());
    }
};

} // namespace

int main(int argc, char** argv)
{
    const bool listing = onlyLists(argc, argv);
    if (!listing && !rig::isInFreshRoot())
        return rig::runInFreshRoot(argv);
    testing::InitGoogleTest(&argc, argv);
    if (listing)
        return RUN_ALL_TESTS();
    testing::UnitTest::GetInstance()->listeners().Append(new SeedPrinter);
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("test"));
    return RUN_ALL_TESTS();
}
