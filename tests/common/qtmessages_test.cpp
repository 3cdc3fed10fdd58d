// Messages to the Qt streams, and holding them back.
#include "common/qtmessages.h"
#include "tests/common/logsupport.h"

#include <gtest/gtest.h>

#include <thread>

using namespace logtest;

namespace {

QString text(const char* utf8)
{
    return QString::fromUtf8(utf8);
}

} // namespace

TEST(QtMessages, GoToTheStreamOfTheirTypeAsTheyAre)
{
    MessageRecorder recorder;
    for (const QtMsgType type : {QtDebugMsg, QtInfoMsg, QtWarningMsg, QtCriticalMsg})
        sendQtMessage(type, text("\"%1\" \\ сообщение "));
    const QVector<Message> messages = recorder.messages();
    ASSERT_EQ(messages.size(), 4);
    const QtMsgType types[] = {QtDebugMsg, QtInfoMsg, QtWarningMsg, QtCriticalMsg};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(messages.at(i).type, types[i]);
        EXPECT_EQ(messages.at(i).text, text("\"%1\" \\ сообщение "));
        EXPECT_EQ(messages.at(i).category, text("default"));
    }
}

// Qt ends the program behind a fatal message; a fault of the log is no reason for that.
TEST(QtMessages, AFatalOneDoesNotEndTheProgram)
{
    MessageRecorder recorder;
    sendQtMessage(QtFatalMsg, text("text"));
    EXPECT_EQ(recorder.texts(QtCriticalMsg), QStringList{text("text")});
}

TEST(QtMessages, ItemsAreFormattedAsOnTheDebugStream)
{
    MessageRecorder recorder;
    sendQtMessageItems(QtWarningMsg, "plain", text("a \"quoted\" one"), 7);
    EXPECT_EQ(recorder.texts(QtWarningMsg), QStringList{text("plain \"a \\\"quoted\\\" one\" 7")});
}

TEST(QtMessages, AHoldSendsWhatItCollectedInOrderAtItsEnd)
{
    MessageRecorder recorder;
    {
        const MessageHold hold;
        sendQtMessage(QtWarningMsg, text("first"));
        sendQtMessage(QtDebugMsg, text("second"));
        EXPECT_TRUE(recorder.messages().isEmpty());
    }
    const QVector<Message> messages = recorder.messages();
    ASSERT_EQ(messages.size(), 2);
    EXPECT_EQ(messages.at(0).text, text("first"));
    EXPECT_EQ(messages.at(0).type, QtWarningMsg);
    EXPECT_EQ(messages.at(1).text, text("second"));
    sendQtMessage(QtDebugMsg, text("third"));
    EXPECT_EQ(recorder.messages().size(), 3) << "nothing is held any more";
}

TEST(QtMessages, OfNestedHoldsTheOuterOneCollects)
{
    MessageRecorder recorder;
    {
        const MessageHold outer;
        {
            const MessageHold inner;
            sendQtMessage(QtDebugMsg, text("within"));
        }
        EXPECT_TRUE(recorder.messages().isEmpty()) << "the outer one's lock may still be held";
        sendQtMessage(QtDebugMsg, text("behind"));
        EXPECT_TRUE(recorder.messages().isEmpty());
    }
    EXPECT_EQ(recorder.texts(QtDebugMsg), (QStringList{text("within"), text("behind")}));
}

TEST(QtMessages, AHoldIsOfItsThreadAlone)
{
    MessageRecorder recorder;
    const MessageHold hold;
    std::thread([] { sendQtMessage(QtDebugMsg, text("from another")); }).join();
    EXPECT_EQ(recorder.texts(QtDebugMsg), QStringList{text("from another")});
}

// What the handler says in answer is not collected again: the hold is over when it sends.
TEST(QtMessages, AHandlerMaySendWhileAHoldEnds)
{
    MessageRecorder recorder;
    int answered = 0;
    recorder.setHandler([&](const Message& message) {
        if (message.text == text("held") && answered++ == 0)
            std::thread([] { sendQtMessage(QtDebugMsg, text("answer")); }).join();
    });
    {
        const MessageHold hold;
        sendQtMessage(QtDebugMsg, text("held"));
    }
    EXPECT_EQ(recorder.texts(QtDebugMsg), (QStringList{text("held"), text("answer")}));
}
