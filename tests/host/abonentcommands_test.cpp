// Abonents as the program is told of them, lists and forgets them.
#include "tests/host/programs.h"

#include <gtest/gtest.h>

using namespace hosttest;

TEST_F(Program, AbonentsAreToldListedAndForgotten)
{
    const Installation installation(QStringLiteral("i"));
    const auto abonent = [&](const QStringList& arguments) {
        return installation.call(QStringList{QStringLiteral("abonent")} + arguments);
    };
    EXPECT_EQ(abonent({QStringLiteral("add"), QStringLiteral("Боб"), QStringLiteral("--number"), QStringLiteral("123")})
                  .status,
              0);
    const Result noted =
        abonent({QStringLiteral("add"), QStringLiteral("Carol"), QStringLiteral("--number"), QStringLiteral("W9,5"),
                 QStringLiteral("--port"), QStringLiteral("ttyS0"), QStringLiteral("--port"), QStringLiteral("ttyS1")});
    EXPECT_EQ(noted.status, 0);
    EXPECT_TRUE(noted.err.contains(QStringLiteral("no port ttyS0 is defined yet")));
    EXPECT_EQ(abonent({QStringLiteral("add"), QStringLiteral("боб"), QStringLiteral("--number"), QStringLiteral("124")})
                  .status,
              0)
        << "the same one";
    EXPECT_EQ(abonent({QStringLiteral("list")}).out,
              QStringLiteral("боб  124  no key: the first call to them pins it\n"
                             "Carol  W9,5  through ttyS0, ttyS1  no key: the first call to them pins it\n"));
    EXPECT_EQ(abonent({QStringLiteral("remove"), QStringLiteral("Carol")}).status, 0);
    EXPECT_EQ(abonent({QStringLiteral("remove"), QStringLiteral("Carol")}).status, 1);
}
