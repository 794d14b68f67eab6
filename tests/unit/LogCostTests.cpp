#include <sstream>

#include <gtest/gtest.h>

#include <kel/KELDeactivator.h>
#include <kel/KELDebug.h>
#include <kel/KELIpcSerializationUtil.h>

#include "Allocations.h"

// What logging costs. A program of its own: it stands in for the logger and for the second copy,
// so that they count and allocate nothing themselves.

namespace {

int dlogCalls = 0;
int externalCalls = 0;

} // namespace

extern "C" __attribute__((visibility("default"))) int __dlog_print(int, int, const char*,
                                                                   const char*, ...)
{
    ++dlogCalls;
    return 0;
}

#ifdef KEL_COUNT_EXTERNAL
// Found before the library's own by every call from the library.
__attribute__((visibility("default"))) void kel::TCDebug::External(const char*, const char*,
                                                                   unsigned int, const char*, ...)
{
    ++externalCalls;
}
#endif

namespace {

void OnDeactivation() {}

// Three lines, of two sources and both priorities; allocates nothing but for the log.
void MakeLines()
{
    static const std::vector<unsigned char> empty;
    static std::stringstream stream;
    kel::TCDeactivator::RegisterDBUS(&OnDeactivation);
    kel::TCIpcSerializationUtil::ConvertData(empty, stream);
    kel::TCDebug::Assert("some file", 1);
}

class LogCost : public testing::Test
{
protected:
    LogCost()
    {
        MakeLines(); // what is made once is made here
        dlogCalls = 0;
        externalCalls = 0;
    }

    ~LogCost() override { kel::TCDebug::m_instance.EnableStdoutLog(false); }
};

TEST_F(LogCost, TheCounterSeesBothKindsOfAllocation)
{
    size_t none = 1;
    size_t two = 0;
    size_t largest = 0;
    {
        const TCAllocations counted;
        none = counted.Count();
        void* volatile block = malloc(100);
        free(block);
        const std::unique_ptr<int[]> array(new int[1000]);
        const int* volatile seen = array.get(); // or the optimiser does without the array
        static_cast<void>(seen);
        two = counted.Count();
        largest = counted.Largest();
    }
    EXPECT_EQ(none, 0u);
    EXPECT_EQ(two, 2u);
    EXPECT_EQ(largest, 1000 * sizeof(int));
}

#ifdef KEL_COUNT_EXTERNAL

TEST_F(LogCost, ALineIsOneCallWhileNoSinkIsOn)
{
    MakeLines();

    EXPECT_EQ(dlogCalls, 3);
    EXPECT_EQ(externalCalls, 0);
}

TEST_F(LogCost, ALineIsTwoCallsWhileASinkIsOn)
{
    kel::TCDebug::m_instance.EnableStdoutLog(true);
    MakeLines();

    EXPECT_EQ(dlogCalls, 3);
    EXPECT_EQ(externalCalls, 3);
}

#endif

// Whether or not a copy is written. The first line of a stream makes its buffer: not counted.
TEST_F(LogCost, ALineAllocatesNothing)
{
    for (const bool sink : {false, true}) {
        kel::TCDebug::m_instance.EnableStdoutLog(sink);
        MakeLines();
        size_t allocations = 0;
        {
            const TCAllocations counted;
            MakeLines();
            kel::TCDebug::m_instance.External("C", "F", 1, "%s %d", "text", 5);
            kel::TCDebug::m_instance.Perf("C", "F", 1, "%s %d", "text", 5);
            allocations = counted.Count();
        }
        EXPECT_EQ(allocations, 0u) << "with sink " << sink;
    }
}

} // namespace
