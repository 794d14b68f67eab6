// Shows that the suppressions do not hide races of ours.

#include <gtest/gtest.h>

#include "support/ChildProcess.h"

namespace kel::test {

namespace {

TEST(PlantedRace, InAGdbusCallbackIsReported)
{
    const TSFinished racer = RunProgram({KEL_PLANTED_RACE});

    EXPECT_EQ(racer.m_exit, 66) << racer.m_output; // the sanitizer's own exit code
    EXPECT_NE(racer.m_errorOutput.find("ThreadSanitizer: data race"), std::string::npos)
        << racer.m_errorOutput;
    EXPECT_NE(racer.m_errorOutput.find("PlantedRace.cpp"), std::string::npos)
        << racer.m_errorOutput;
}

} // namespace

} // namespace kel::test
