#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kel/KELIpcSerializationUtil.h>

#include "Messages.h"

using kel::TCIpcSerializationUtil;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

typedef std::vector<unsigned char> TBytes;

class IpcSerializationUtil : public testing::Test
{
protected:
    kel::test::LogRecorder m_log;
};

TEST_F(IpcSerializationUtil, BytesRoundTripIncludingZeroBytes)
{
    TBytes every(512);
    for (size_t i = 0; i < every.size(); ++i) {
        every[i] = static_cast<unsigned char>(i);
    }
    std::stringstream stream;
    TBytes back;

    TCIpcSerializationUtil::ConvertData(every, stream);
    TCIpcSerializationUtil::ConvertData(stream, back);

    EXPECT_EQ(stream.str().size(), every.size());
    EXPECT_EQ(back, every);
    EXPECT_THAT(TakeMessages(m_log), IsEmpty());
}

TEST_F(IpcSerializationUtil, EmptyVectorIsReportedAndWritesNothing)
{
    std::stringstream stream;

    TCIpcSerializationUtil::ConvertData(TBytes(), stream);

    EXPECT_EQ(stream.str(), "");
    EXPECT_TRUE(stream.good());
    EXPECT_THAT(TakeMessages(m_log),
                ElementsAre("6 Error for RV-HIVE-api/impl/src/KELIpcSerializationUtil file in "
                            "line 31."));
}

TEST_F(IpcSerializationUtil, EmptyStreamIsReportedAndLeavesTheVectorAlone)
{
    std::stringstream stream;
    TBytes bytes{1, 2, 3};

    TCIpcSerializationUtil::ConvertData(stream, bytes);

    EXPECT_THAT(bytes, ElementsAre(1, 2, 3));
    EXPECT_THAT(TakeMessages(m_log),
                ElementsAre("6 Error for RV-HIVE-api/impl/src/KELIpcSerializationUtil file in "
                            "line 24."));
}

TEST_F(IpcSerializationUtil, WholeContentsAreTakenWhateverWasRead)
{
    std::stringstream stream;
    stream << "ab cd";
    std::string word;
    stream >> word;
    TBytes bytes;

    TCIpcSerializationUtil::ConvertData(stream, bytes);

    EXPECT_EQ(word, "ab");
    EXPECT_THAT(bytes, ElementsAre('a', 'b', ' ', 'c', 'd'));
}

TEST_F(IpcSerializationUtil, VectorGrowsAndShrinksToTheContents)
{
    std::stringstream stream("abc");
    TBytes larger(100, 0xee);
    TBytes smaller{0xee};

    TCIpcSerializationUtil::ConvertData(stream, larger);
    TCIpcSerializationUtil::ConvertData(stream, smaller);

    EXPECT_THAT(larger, ElementsAre('a', 'b', 'c'));
    EXPECT_THAT(smaller, ElementsAre('a', 'b', 'c'));
}

TEST_F(IpcSerializationUtil, BytesAreWrittenBehindWhatTheStreamHolds)
{
    std::stringstream stream;
    stream << "head";

    TCIpcSerializationUtil::ConvertData(TBytes{'t', 0, 'l'}, stream);

    EXPECT_EQ(stream.str(), std::string("headt\0l", 7));
}

} // namespace
